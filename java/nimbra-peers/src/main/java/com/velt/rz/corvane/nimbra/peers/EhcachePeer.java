package com.velt.rz.corvane.nimbra.peers;

import java.nio.ByteBuffer;
import org.ehcache.Cache;
import org.ehcache.CacheManager;
import org.ehcache.config.builders.CacheConfigurationBuilder;
import org.ehcache.config.builders.CacheManagerBuilder;
import org.ehcache.config.builders.ResourcePoolsBuilder;
import org.ehcache.config.units.MemoryUnit;
import org.ehcache.spi.serialization.Serializer;

/**
 * Ehcache 3 with the off-heap tier alone, which its chapter on tiering allows: a heap tier in front would keep whole
 * values on the heap. Values use the serializer that Ehcache has for {@code byte[]}; keys, compared by {@code equals},
 * need a class and a serializer of their own. Expiry and statistics are off by default.
 */
final class EhcachePeer implements PeerStore {
    private static final int ENTRY_OVERHEAD = 64; // bytes, for the table and the value's header

    /** Writes the bytes and nothing else; compares without making an object. */
    private static final class KeySerializer implements Serializer<BytesKey> {
        @Override
        public ByteBuffer serialize(BytesKey key) {
            return ByteBuffer.wrap(key.bytes);
        }

        @Override
        public BytesKey read(ByteBuffer binary) {
            byte[] bytes = new byte[binary.remaining()];
            binary.get(bytes);
            return new BytesKey(bytes);
        }

        @Override
        public boolean equals(BytesKey key, ByteBuffer binary) {
            return binary.equals(ByteBuffer.wrap(key.bytes));
        }
    }

    private final CacheManager manager;
    private final Cache<BytesKey, byte[]> cache;
    private final long poolBytes;

    EhcachePeer(Sizing sizing) {
        poolBytes = poolMegabytes(sizing) << 20;
        manager = CacheManagerBuilder.newCacheManagerBuilder()
                .withCache(
                        "peer",
                        CacheConfigurationBuilder.newCacheConfigurationBuilder(
                                        BytesKey.class,
                                        byte[].class,
                                        ResourcePoolsBuilder.newResourcePoolsBuilder()
                                                .offheap(poolMegabytes(sizing), MemoryUnit.MB))
                                .withKeySerializer(new KeySerializer()))
                .build(true);
        cache = manager.getCache("peer", BytesKey.class, byte[].class);
    }

    /**
     * The pool, which is taken from the system as a whole when the cache is made. Half as much again as the entries
     * need: the pool is cut into areas that grow in powers of two, and an entry for which there is no room is evicted,
     * which the size check after filling would find.
     */
    static long poolMegabytes(Sizing sizing) {
        return 16 + (sizing.bytes(ENTRY_OVERHEAD) * 3 / 2 >> 20);
    }

    @Override
    public byte[] get(byte[] key) {
        return cache.get(new BytesKey(key));
    }

    @Override
    public void put(byte[] key, byte[] value) {
        cache.put(new BytesKey(key), value);
    }

    @Override
    public void remove(byte[] key) {
        cache.remove(new BytesKey(key));
    }

    /** Walks the whole cache: Ehcache's statistics would count, but cost every operation something. */
    @Override
    public long size() {
        long entries = 0;
        for (Cache.Entry<BytesKey, byte[]> ignored : cache) {
            entries++;
        }
        return entries;
    }

    @Override
    public boolean readsInPlace() {
        return false;
    }

    @Override
    public long read(byte[] key) {
        throw new UnsupportedOperationException("Ehcache always copies");
    }

    /** The configured pool. */
    @Override
    public long nativeBytes() {
        return poolBytes;
    }

    @Override
    public void close() {
        manager.close();
    }
}
