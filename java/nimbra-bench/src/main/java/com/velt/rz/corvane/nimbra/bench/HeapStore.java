package com.velt.rz.corvane.nimbra.bench;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.nio.ByteOrder;
import java.util.Arrays;
import java.util.concurrent.ConcurrentHashMap;

/**
 * A {@link ConcurrentHashMap} with its default options that clones its arrays on the way in and on the way out. Its
 * reader reads such a clone.
 */
final class HeapStore implements Store {
    private static final VarHandle WORDS = MethodHandles.byteArrayViewVarHandle(long[].class, ByteOrder.BIG_ENDIAN);

    /** An array as a key. Keys from this program's own generator need no protection from flooding. */
    static final class Key {
        private final byte[] bytes;
        private final int hash;

        Key(byte[] bytes) {
            this.bytes = bytes;
            this.hash = Arrays.hashCode(bytes);
        }

        @Override
        public int hashCode() {
            return hash;
        }

        @Override
        public boolean equals(Object other) {
            return other instanceof Key key && hash == key.hash && Arrays.equals(bytes, key.bytes);
        }
    }

    private final ConcurrentHashMap<Key, byte[]> map = new ConcurrentHashMap<>();

    @Override
    public void put(byte[] key, byte[] value) {
        map.put(new Key(key.clone()), value.clone());
    }

    @Override
    public byte[] get(byte[] key) {
        byte[] value = map.get(new Key(key));
        return value == null ? null : value.clone();
    }

    @Override
    public long read(byte[] key) {
        return sum(get(key));
    }

    /** The sum of the array's 64-bit words, as {@link Store#read} has it. */
    static long sum(byte[] value) {
        long sum = 0;
        for (int at = 0; at < value.length; at += Long.BYTES) {
            sum += (long) WORDS.get(value, at);
        }
        return sum;
    }

    @Override
    public boolean replace(byte[] key, byte[] value) {
        return map.replace(new Key(key), value.clone()) != null;
    }

    @Override
    public boolean remove(byte[] key) {
        return map.remove(new Key(key)) != null;
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
