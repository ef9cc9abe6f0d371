package com.velt.rz.corvane.nimbra.bench;

import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.PinnedValue;
import java.nio.ByteBuffer;

/** The off-heap map with its default options. Its reader pins the value and copies nothing. */
final class NimbraStore implements Store {
    private static final long MAXIMUM_BYTES = 1L << 40; // far above any run: limits are checked, not met

    private final OffHeapMap map;

    NimbraStore() {
        map = Nimbra.builder().maximumBytes(MAXIMUM_BYTES).start().newMap();
    }

    @Override
    public void put(byte[] key, byte[] value) {
        map.put(key, value);
    }

    @Override
    public byte[] get(byte[] key) {
        return map.get(key);
    }

    @Override
    public long read(byte[] key) {
        try (PinnedValue pinned = map.pin(key)) {
            ByteBuffer value = pinned.buffer();
            long sum = 0;
            for (int at = 0; at < value.limit(); at += Long.BYTES) {
                sum += value.getLong(at);
            }
            return sum;
        }
    }

    @Override
    public boolean replace(byte[] key, byte[] value) {
        return map.replace(key, value);
    }

    @Override
    public boolean remove(byte[] key) {
        return map.remove(key);
    }

    @Override
    public long size() {
        return map.size();
    }

    @Override
    public void close() {
        map.close();
    }
}
