package com.velt.rz.corvane.nimbra.peers;

import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.PinnedValue;

/** The off-heap map with its default options: nothing is sized beforehand. Its reader pins the value. */
final class NimbraPeer implements PeerStore {
    private static final long MAXIMUM_BYTES = 1L << 40; // far above any run: limits are checked, not met

    private final Nimbra nimbra;
    private final OffHeapMap map;

    NimbraPeer() {
        nimbra = Nimbra.isStarted()
                ? Nimbra.get()
                : Nimbra.builder().maximumBytes(MAXIMUM_BYTES).start();
        map = nimbra.newMap();
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
        return map.size();
    }

    @Override
    public boolean readsInPlace() {
        return true;
    }

    @Override
    public long read(byte[] key) {
        try (PinnedValue pinned = map.pin(key)) {
            if (pinned == null) {
                throw Words.missing();
            }
            return Words.sum(pinned.buffer());
        }
    }

    /** Pages in use as the library's allocator counts them, those of tables and other maps included. */
    @Override
    public long nativeBytes() {
        return nimbra.stats().bytesInUse();
    }

    @Override
    public void close() {
        map.close();
    }
}
