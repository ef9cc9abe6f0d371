package com.velt.rz.corvane.nimbra.peers;

/**
 * What every competitor does: a concurrent map from byte arrays to byte arrays that keeps copies of what it is given and
 * hands fresh copies out. All methods but {@link #close} may be called from any thread.
 *
 * <p>Writes return nothing. Some competitors can only tell what a write found by copying the old value out, which their
 * own documentation advises against; whether a write took place is checked through {@link #size} instead.
 */
interface PeerStore extends AutoCloseable {
    /** Returns a fresh copy of the value, or null. */
    byte[] get(byte[] key);

    /** Stores a value, whether or not the key is present. */
    void put(byte[] key, byte[] value);

    /** Removes a key, if it is present. */
    void remove(byte[] key);

    /** Returns the number of entries. */
    long size();

    /** Returns whether {@link #read} works without a copy of the value. */
    boolean readsInPlace();

    /**
     * Reads every byte of a value where it stands, safely while others write.
     *
     * @return the sum of its 64-bit words, most significant byte first; the value's length is a multiple of 8
     * @throws IllegalStateException when the key is absent
     * @throws UnsupportedOperationException when the store always copies
     */
    long read(byte[] key);

    /**
     * Returns the bytes outside the Java heap by the store's own account, or -1 when it keeps none. What such an account
     * covers differs from store to store, so that comparisons use {@link Memory} and this figure only stands beside it.
     */
    long nativeBytes();

    /** Gives the memory back. No other call may be under way. */
    @Override
    void close();
}
