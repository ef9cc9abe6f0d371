package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Path;
import org.rocksdb.BlockBasedTableConfig;
import org.rocksdb.BloomFilter;
import org.rocksdb.CompressionType;
import org.rocksdb.FlushOptions;
import org.rocksdb.Options;
import org.rocksdb.ReadOptions;
import org.rocksdb.RocksDB;
import org.rocksdb.RocksDBException;
import org.rocksdb.WriteOptions;

/**
 * RocksDB without write-ahead log, compression and sync; direct buffers on both ways. With blob files the tree holds
 * keys only, so that compaction does not copy values, and blobs are collected once half of them are garbage.
 */
final class RocksPaging implements PagingStore {
    static {
        RocksDB.loadLibrary();
    }

    private final Options options;
    private final WriteOptions unlogged = new WriteOptions().setDisableWAL(true);
    private final ReadOptions reading = new ReadOptions();
    private final RocksDB db;
    private final ByteBuffer key = ByteBuffer.allocateDirect(Long.BYTES);
    private long next = 1;

    RocksPaging(Path folder, boolean blobFiles) throws IOException {
        options = new Options()
                .setCreateIfMissing(true)
                .setCompressionType(CompressionType.NO_COMPRESSION)
                .setAvoidUnnecessaryBlockingIO(true)
                .setAllowMmapReads(true)
                .setMaxBackgroundJobs(2)
                .setWriteBufferSize(32 << 20)
                .setEnableBlobFiles(blobFiles)
                .setMinBlobSize(256)
                .setEnableBlobGarbageCollection(blobFiles)
                .setBlobGarbageCollectionAgeCutoff(1.0)
                .setBlobGarbageCollectionForceThreshold(0.5)
                .setTableFormatConfig(
                        new BlockBasedTableConfig().setNoBlockCache(true).setFilterPolicy(new BloomFilter(10)));
        try {
            db = RocksDB.open(options, folder.toString());
        } catch (RocksDBException e) {
            throw new IOException(e);
        }
    }

    private ByteBuffer key(long handle) {
        return key.clear().putLong(handle).flip();
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        try {
            db.put(unlogged, key(next), value);
        } catch (RocksDBException e) {
            throw new IOException(e);
        }
        return next++;
    }

    @Override
    public void read(long handle, int length, ByteBuffer target) throws IOException {
        try {
            int found = db.get(reading, key(handle), target.clear());
            if (found != length) {
                throw new IOException("found " + found + " instead of " + length + " bytes");
            }
        } catch (RocksDBException e) {
            throw new IOException(e);
        }
    }

    @Override
    public void free(long handle, int length) throws IOException {
        try {
            db.delete(unlogged, key(handle));
        } catch (RocksDBException e) {
            throw new IOException(e);
        }
    }

    @Override
    public void flush() throws IOException {
        try (FlushOptions waiting = new FlushOptions().setWaitForFlush(true)) {
            db.flush(waiting);
        } catch (RocksDBException e) {
            throw new IOException(e);
        }
    }

    @Override
    public void close() {
        db.close();
        reading.close();
        unlogged.close();
        options.close();
    }
}
