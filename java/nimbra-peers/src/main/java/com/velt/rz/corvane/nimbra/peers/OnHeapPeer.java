package com.velt.rz.corvane.nimbra.peers;

/** Keeps arrays on the Java heap: clones them on the way in and on the way out, and never writes to the stored ones. */
abstract class OnHeapPeer implements PeerStore {
    /** Returns the stored array itself, or null. */
    abstract byte[] find(BytesKey key);

    /** Stores the arrays as they are; nobody else has them. */
    abstract void keep(BytesKey key, byte[] value);

    @Override
    public final byte[] get(byte[] key) {
        byte[] value = find(new BytesKey(key));
        return value == null ? null : value.clone();
    }

    @Override
    public final void put(byte[] key, byte[] value) {
        keep(new BytesKey(key.clone()), value.clone());
    }

    @Override
    public final boolean readsInPlace() {
        return true;
    }

    /** A stored array is never written again, so that it may be read as it is. */
    @Override
    public final long read(byte[] key) {
        byte[] value = find(new BytesKey(key));
        if (value == null) {
            throw Words.missing();
        }
        return Words.sum(value);
    }

    @Override
    public final long nativeBytes() {
        return -1;
    }
}
