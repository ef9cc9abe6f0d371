package com.velt.rz.corvane.nimbra.peers;

import org.infinispan.AdvancedCache;
import org.infinispan.commons.dataconversion.MediaType;
import org.infinispan.configuration.cache.ConfigurationBuilder;
import org.infinispan.configuration.cache.StorageType;
import org.infinispan.configuration.global.GlobalConfigurationBuilder;
import org.infinispan.container.offheap.OffHeapMemoryAllocator;
import org.infinispan.context.Flag;
import org.infinispan.factories.ComponentRegistry;
import org.infinispan.manager.DefaultCacheManager;

/**
 * Infinispan embedded, a local cache with off-heap storage. The encoding is {@code application/octet-stream}, which its
 * guide names for raw bytes, so that nothing is converted; writes carry the flag that spares the old value. There is no
 * size limit, hence no eviction, and statistics stay off.
 */
final class InfinispanPeer implements PeerStore {
    private final DefaultCacheManager manager;
    private final AdvancedCache<byte[], byte[]> cache;

    InfinispanPeer() {
        manager = new DefaultCacheManager(
                new GlobalConfigurationBuilder().nonClusteredDefault().build());
        ConfigurationBuilder configuration = new ConfigurationBuilder();
        configuration.encoding().mediaType(MediaType.APPLICATION_OCTET_STREAM);
        configuration.memory().storage(StorageType.OFF_HEAP);
        manager.defineConfiguration("peer", configuration.build());
        cache = manager.<byte[], byte[]>getCache("peer").getAdvancedCache().withFlags(Flag.IGNORE_RETURN_VALUES);
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
        return cache.getDataContainer().sizeIncludingExpired();
    }

    @Override
    public boolean readsInPlace() {
        return false;
    }

    @Override
    public long read(byte[] key) {
        throw new UnsupportedOperationException("Infinispan always copies");
    }

    /** What its allocator has handed out: entries and tables, without the rounding of the allocator below. */
    @Override
    public long nativeBytes() {
        return ComponentRegistry.componentOf(cache, OffHeapMemoryAllocator.class)
                .getAllocatedAmount();
    }

    @Override
    public void close() {
        manager.stop();
    }
}
