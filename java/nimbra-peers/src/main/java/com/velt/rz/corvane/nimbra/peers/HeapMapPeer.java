package com.velt.rz.corvane.nimbra.peers;

import java.util.concurrent.ConcurrentHashMap;

/** A {@link ConcurrentHashMap} with its default options. */
final class HeapMapPeer extends OnHeapPeer {
    private final ConcurrentHashMap<BytesKey, byte[]> map = new ConcurrentHashMap<>();

    @Override
    byte[] find(BytesKey key) {
        return map.get(key);
    }

    @Override
    void keep(BytesKey key, byte[] value) {
        map.put(key, value);
    }

    @Override
    public void remove(byte[] key) {
        map.remove(new BytesKey(key));
    }

    @Override
    public long size() {
        return map.mappingCount();
    }

    @Override
    public void close() {
        map.clear();
    }
}
