package com.velt.rz.corvane.nimbra;

/** The reads that a map makes without a lock, asked alone, so that a test sees when they cannot tell. */
final class MapReads {
    private final OffHeapMap map;

    MapReads(OffHeapMap map) {
        this.map = map;
    }

    byte[] get(byte[] key) {
        long hash = map.hash(key);
        return map.reads.get(map.partition(hash), key, (int) hash);
    }

    int containsKey(byte[] key) {
        long hash = map.hash(key);
        return map.reads.containsKey(map.partition(hash), key, (int) hash);
    }
}
