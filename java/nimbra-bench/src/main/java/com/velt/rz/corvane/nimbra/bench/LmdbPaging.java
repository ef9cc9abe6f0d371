package com.velt.rz.corvane.nimbra.bench;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Path;
import java.util.EnumSet;
import java.util.List;
import java.util.Set;
import org.lmdbjava.Dbi;
import org.lmdbjava.DbiFlags;
import org.lmdbjava.Env;
import org.lmdbjava.EnvFlags;
import org.lmdbjava.PutFlags;
import org.lmdbjava.Txn;

/**
 * LMDB without any sync. With {@code MDB_WRITEMAP} it writes through its map, where a full disk is a signal instead
 * of an error; otherwise with write calls at each commit. A value can be read by other threads only after its transaction is
 * committed; {@code batch} says how many changes share one.
 */
final class LmdbPaging implements PagingStore {
    private static final long MAP_BYTES = 16L << 30;

    private final Env<ByteBuffer> env;
    private final Dbi<ByteBuffer> values;
    private final int batch;
    private final ByteBuffer key = ByteBuffer.allocateDirect(Long.BYTES).order(ByteOrder.nativeOrder());
    private final Txn<ByteBuffer> reading;
    private Txn<ByteBuffer> writing;
    private int changes;
    private long next = 1;

    LmdbPaging(Path folder, int batch, EnvFlags... mode) {
        this.batch = batch;
        Set<EnvFlags> flags = EnumSet.of(
                EnvFlags.MDB_NOSYNC,
                EnvFlags.MDB_NOMETASYNC,
                EnvFlags.MDB_NOMEMINIT,
                EnvFlags.MDB_NORDAHEAD,
                EnvFlags.MDB_NOTLS);
        flags.addAll(List.of(mode));
        env = Env.create().setMapSize(MAP_BYTES).open(folder.toFile(), flags.toArray(EnvFlags[]::new));
        values = env.openDbi("values", DbiFlags.MDB_CREATE, DbiFlags.MDB_INTEGERKEY);
        reading = env.txnRead();
        reading.reset();
    }

    private ByteBuffer key(long handle) {
        return key.clear().putLong(handle).flip();
    }

    private void begin() {
        if (writing == null) {
            writing = env.txnWrite();
        }
    }

    private void changed() {
        if (++changes >= batch) {
            flush();
        }
    }

    @Override
    public long write(ByteBuffer value) {
        begin();
        values.put(writing, key(next), value, PutFlags.MDB_APPEND);
        changed();
        return next++;
    }

    /** Renewed for each value: a reader that stays open keeps freed pages from being reused. */
    @Override
    public void read(long handle, int length, ByteBuffer target) {
        reading.renew();
        try {
            target.clear().put(values.get(reading, key(handle))).flip();
        } finally {
            reading.reset();
        }
    }

    @Override
    public void free(long handle, int length) {
        begin();
        values.delete(writing, key(handle));
        changed();
    }

    @Override
    public void flush() {
        if (writing != null) {
            writing.commit();
            writing.close();
            writing = null;
        }
        changes = 0;
    }

    @Override
    public void close() {
        flush();
        reading.close();
        env.close();
    }
}
