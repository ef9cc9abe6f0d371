package com.velt.rz.corvane.nimbra.peers;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.ByteBuffer;
import org.caffinitas.ohc.CacheSerializer;
import org.caffinitas.ohc.DirectValueAccess;
import org.caffinitas.ohc.OHCache;
import org.caffinitas.ohc.OHCacheBuilder;

/**
 * OHC in its linked implementation, which its README recommends for entries of this size. Segments stay at their default
 * of two for each processor; the hash tables are sized to the entries, since the README advises large ones. It also
 * advises to preload jemalloc, which the launcher does where the library is installed.
 */
final class OhcPeer implements PeerStore {
    private static final int ENTRY_OVERHEAD = 128; // bytes; header and rounding, generously

    private static final CacheSerializer<byte[]> PLAIN = new CacheSerializer<>() {
        @Override
        public void serialize(byte[] bytes, ByteBuffer to) {
            to.put(bytes);
        }

        @Override
        public byte[] deserialize(ByteBuffer from) {
            byte[] bytes = new byte[from.remaining()];
            from.get(bytes);
            return bytes;
        }

        @Override
        public int serializedSize(byte[] bytes) {
            return bytes.length;
        }
    };

    private final OHCache<byte[], byte[]> cache;

    OhcPeer(Sizing sizing) {
        OHCacheBuilder<byte[], byte[]> builder = OHCacheBuilder.newBuilder();
        // Twice the need: a segment holds an equal part of the capacity, and not all get equally many entries.
        builder.keySerializer(PLAIN)
                .valueSerializer(PLAIN)
                .capacity(Math.max(64L << 20, 2 * sizing.bytes(ENTRY_OVERHEAD)))
                .throwOOME(true);
        int perSegment = Math.toIntExact(sizing.entries() / builder.getSegmentCount());
        cache = builder.hashTableSize(Math.max(8192, Integer.highestOneBit(perSegment) * 2))
                .build();
    }

    @Override
    public byte[] get(byte[] key) {
        return cache.get(key);
    }

    @Override
    public void put(byte[] key, byte[] value) {
        cache.put(key, value);
    }

    @Override
    public void remove(byte[] key) {
        cache.remove(key);
    }

    @Override
    public long size() {
        return cache.size();
    }

    @Override
    public boolean readsInPlace() {
        return true;
    }

    @Override
    public long read(byte[] key) {
        try (DirectValueAccess access = cache.getDirect(key)) {
            if (access == null) {
                throw Words.missing();
            }
            return Words.sum(access.buffer());
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** The part of the capacity that entries use, by OHC's count: without hash tables and the allocator's rounding. */
    @Override
    public long nativeBytes() {
        return cache.memUsed();
    }

    @Override
    public void close() {
        try {
            cache.close();
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }
}
