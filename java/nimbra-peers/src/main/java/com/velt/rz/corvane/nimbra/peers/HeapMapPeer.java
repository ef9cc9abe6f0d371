package com.velt.rz.corvane.nimbra.peers;

import java.util.concurrent.ConcurrentHashMap;

/** A {@link ConcurrentHashMap} with its default options that clones its arrays on the way in and on the way out. */
final class HeapMapPeer implements PeerStore {
    private final ConcurrentHashMap<BytesKey, byte[]> map = new ConcurrentHashMap<>();

    @Override
    public byte[] get(byte[] key) {
        byte[] value = map.get(new BytesKey(key));
        return value == null ? null : value.clone();
    }

    @Override
    public void put(byte[] key, byte[] value) {
        map.put(new BytesKey(key.clone()), value.clone());
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
    public boolean readsInPlace() {
        return true;
    }

    /** A value on the heap is never written again, so that its array may be read as it is. */
    @Override
    public long read(byte[] key) {
        byte[] value = map.get(new BytesKey(key));
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
        map.clear();
    }
}
