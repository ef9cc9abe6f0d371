package com.velt.rz.corvane.nimbra.peers;

import com.github.benmanes.caffeine.cache.Cache;
import com.github.benmanes.caffeine.cache.Caffeine;

/**
 * Caffeine on the heap, bounded, since an unbounded one is a plain map: to twice the entries, so that its policy works
 * and evicts nothing. Arrays are cloned on the way in and on the way out.
 */
final class CaffeinePeer implements PeerStore {
    private final Cache<BytesKey, byte[]> cache;

    CaffeinePeer(Sizing sizing) {
        cache = Caffeine.newBuilder().maximumSize(2L * sizing.entries()).build();
    }

    @Override
    public byte[] get(byte[] key) {
        byte[] value = cache.getIfPresent(new BytesKey(key));
        return value == null ? null : value.clone();
    }

    @Override
    public void put(byte[] key, byte[] value) {
        cache.put(new BytesKey(key.clone()), value.clone());
    }

    @Override
    public void remove(byte[] key) {
        cache.invalidate(new BytesKey(key));
    }

    @Override
    public long size() {
        cache.cleanUp();
        return cache.estimatedSize();
    }

    @Override
    public boolean readsInPlace() {
        return true;
    }

    /** A value on the heap is never written again, so that its array may be read as it is. */
    @Override
    public long read(byte[] key) {
        byte[] value = cache.getIfPresent(new BytesKey(key));
        if (value == null) {
            throw Words.missing();
        }
        return Words.sum(value);
    }

    @Override
    public long nativeBytes() {
        return -1;
    }

    @Override
    public void close() {
        cache.invalidateAll();
        cache.cleanUp();
    }
}
