package com.velt.rz.corvane.nimbra.bench;

/**
 * What both competitors do: a concurrent map from byte arrays to byte arrays that keeps copies of what it is given and
 * hands copies out. All methods but {@link #close} may be called from any thread.
 */
interface Store extends AutoCloseable {
    /** Stores a value under a key that may be new. */
    void put(byte[] key, byte[] value);

    /** Returns a copy of the value, or null. */
    byte[] get(byte[] key);

    /**
     * Reads every byte of the value, in the cheapest way that is safe while others write.
     *
     * @return the sum of its 64-bit words, most significant byte first; the value's length is a multiple of 8
     * @throws NullPointerException when the key is absent
     */
    long read(byte[] key);

    /** Replaces the value of a key that is present; returns whether it was. */
    boolean replace(byte[] key, byte[] value);

    /** Removes a key; returns whether it was present. */
    boolean remove(byte[] key);

    /** Returns the number of entries. */
    long size();

    /** Gives the memory back. No other call may be under way. */
    @Override
    void close();
}
