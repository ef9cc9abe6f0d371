package com.velt.rz.corvane.nimbra.peers;

import com.github.benmanes.caffeine.cache.Cache;
import com.github.benmanes.caffeine.cache.Caffeine;

/**
 * Caffeine on the heap, bounded, since an unbounded one is a plain map: to twice the entries, so that its policy works
 * and evicts nothing.
 */
final class CaffeinePeer extends OnHeapPeer {
    private final Cache<BytesKey, byte[]> cache;

    CaffeinePeer(Sizing sizing) {
        cache = Caffeine.newBuilder().maximumSize(2L * sizing.entries()).build();
    }

    @Override
    byte[] find(BytesKey key) {
        return cache.getIfPresent(key);
    }

    @Override
    void keep(BytesKey key, byte[] value) {
        cache.put(key, value);
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
    public void close() {
        cache.invalidateAll();
        cache.cleanUp();
    }
}
