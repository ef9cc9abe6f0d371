package com.velt.rz.corvane.nimbra.peers;

/**
 * What a store is told beforehand, for those that want to know.
 *
 * @param entries most entries at a time
 * @param keyBytes length of every key
 * @param valueBytes length of every value
 */
record Sizing(int entries, int keyBytes, int valueBytes) {
    /** Returns the bytes of all entries, each with so much overhead. */
    long bytes(int overhead) {
        return (long) entries * (keyBytes + valueBytes + overhead);
    }
}
