package com.velt.rz.corvane.nimbra;

import java.lang.reflect.Field;

/** The reads that a map makes without a lock, asked alone, so that a test sees when they cannot tell. */
final class MapReads {
    private final OffHeapMap map;
    private final UnlockedReads reads;
    private final long hashKey0;
    private final long hashKey1;

    MapReads(OffHeapMap map) {
        this.map = map;
        this.reads = (UnlockedReads) field(map, "reads");
        this.hashKey0 = (long) field(map, "hashKey0");
        this.hashKey1 = (long) field(map, "hashKey1");
    }

    byte[] get(byte[] key) {
        long hash = SipHash.hash13(hashKey0, hashKey1, key);
        return reads.get(map.partition(hash), key, (int) hash);
    }

    int containsKey(byte[] key) {
        long hash = SipHash.hash13(hashKey0, hashKey1, key);
        return reads.containsKey(map.partition(hash), key, (int) hash);
    }

    private static Object field(OffHeapMap map, String name) {
        try {
            Field field = OffHeapMap.class.getDeclaredField(name);
            field.setAccessible(true);
            return field.get(map);
        } catch (ReflectiveOperationException e) {
            throw new AssertionError(e);
        }
    }
}
