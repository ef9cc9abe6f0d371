package com.velt.rz.corvane.nimbra.peers;

import net.openhft.chronicle.bytes.RandomDataInput;
import net.openhft.chronicle.hash.Data;
import net.openhft.chronicle.map.ChronicleMap;
import net.openhft.chronicle.map.ExternalMapQueryContext;
import net.openhft.chronicle.map.MapEntry;

/**
 * Chronicle Map in memory. The number of entries is given without a margin, as its tutorial asks; keys and values have
 * one length each, so both are given by sample. Writes return no old value, which is an option of its builder.
 * {@code get} makes the fresh array itself; {@code read} uses a query context and its lock.
 */
final class ChroniclePeer implements PeerStore {
    private final ChronicleMap<byte[], byte[]> map;

    ChroniclePeer(Sizing sizing) {
        map = ChronicleMap.of(byte[].class, byte[].class)
                .name("peer")
                .entries(sizing.entries())
                .constantKeySizeBySample(new byte[sizing.keyBytes()])
                .constantValueSizeBySample(new byte[sizing.valueBytes()])
                .putReturnsNull(true)
                .removeReturnsNull(true)
                .create();
    }

    @Override
    public byte[] get(byte[] key) {
        return map.get(key);
    }

    @Override
    public void put(byte[] key, byte[] value) {
        map.put(key, value);
    }

    @Override
    public void remove(byte[] key) {
        map.remove(key);
    }

    @Override
    public long size() {
        return map.longSize();
    }

    @Override
    public boolean readsInPlace() {
        return true;
    }

    @Override
    public long read(byte[] key) {
        try (ExternalMapQueryContext<byte[], byte[], ?> context = map.queryContext(key)) {
            context.readLock().lock();
            MapEntry<byte[], byte[]> entry = context.entry();
            if (entry == null) {
                throw Words.missing();
            }
            Data<byte[]> value = entry.value();
            RandomDataInput bytes = value.bytes();
            long sum = 0;
            long end = value.offset() + value.size();
            for (long at = value.offset(); at < end; at += Long.BYTES) {
                sum += Long.reverseBytes(bytes.readLong(at)); // stored as it came, read in the machine's order
            }
            return sum;
        }
    }

    /** All that the map has reserved: its segments are laid out for the configured number of entries. */
    @Override
    public long nativeBytes() {
        return map.offHeapMemoryUsed();
    }

    @Override
    public void close() {
        map.close();
    }
}
