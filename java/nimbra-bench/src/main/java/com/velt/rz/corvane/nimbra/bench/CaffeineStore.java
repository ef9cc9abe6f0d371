package com.velt.rz.corvane.nimbra.bench;

import com.github.benmanes.caffeine.cache.Cache;
import com.github.benmanes.caffeine.cache.Caffeine;

/**
 * A Caffeine cache bounded to the number of entries that it is given, as one would configure it; it never has to evict.
 * Its arrays are cloned on the way in and on the way out.
 */
final class CaffeineStore implements Store {
    private final Cache<HeapStore.Key, byte[]> cache;

    CaffeineStore(long maximumEntries) {
        cache = Caffeine.newBuilder().maximumSize(maximumEntries).build();
    }

    @Override
    public void put(byte[] key, byte[] value) {
        cache.put(new HeapStore.Key(key.clone()), value.clone());
    }

    @Override
    public byte[] get(byte[] key) {
        byte[] value = cache.getIfPresent(new HeapStore.Key(key));
        return value == null ? null : value.clone();
    }

    @Override
    public long read(byte[] key) {
        return HeapStore.sum(get(key));
    }

    @Override
    public boolean replace(byte[] key, byte[] value) {
        return cache.asMap().replace(new HeapStore.Key(key), value.clone()) != null;
    }

    @Override
    public boolean remove(byte[] key) {
        return cache.asMap().remove(new HeapStore.Key(key)) != null;
    }

    @Override
    public long size() {
        cache.cleanUp();
        return cache.estimatedSize();
    }

    @Override
    public void close() {
        cache.invalidateAll();
    }
}
