package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;

import com.velt.rz.corvane.io.offheap.impl.LuOffHeapMapImpl;
import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * Native maps that are written through {@link MapNatives} and read through {@link UnlockedReads}, with hashes that the
 * test chooses. A write passes the partition's gate, as the map face does it.
 */
final class UnlockedTables implements AutoCloseable {
    private static final int STAMP_SIZE = 64;
    private static final int STAMPS = 1024;
    private static final LuOffHeapMapImpl NATIVES = new LuOffHeapMapImpl();

    final PartitionGates gates;
    final UnlockedReads reads;
    private final long[] handles;
    private long revision;

    UnlockedTables(int partitions, int bucketSets, float loadFactor) {
        this.handles = new long[partitions];
        for (int i = 0; i < partitions; i++) {
            handles[i] = NATIVES.allocateLuOffHeapMap(0, bucketSets, loadFactor, 1, 0);
            assertNotEquals(0, handles[i]);
        }
        this.gates = new PartitionGates("tables", partitions);
        this.reads = new UnlockedReads(handles, bucketSets, gates);
    }

    int partitions() {
        return handles.length;
    }

    void put(int partition, byte[] key, int hash, byte[] value) {
        gates.enter(partition, "put");
        try {
            MapNatives.put(handles[partition], key, hash, value, ++revision);
        } finally {
            gates.exit(partition);
        }
    }

    void remove(int partition, byte[] key, int hash) {
        gates.enter(partition, "remove");
        try {
            assertEquals(1, MapNatives.remove(handles[partition], key, hash));
        } finally {
            gates.exit(partition);
        }
    }

    /** What the natives answer. */
    byte[] nativeGet(int partition, byte[] key, int hash) {
        return MapNatives.get(handles[partition], key, hash, null);
    }

    boolean nativeContainsKey(int partition, byte[] key, int hash) {
        return MapNatives.containsKey(handles[partition], key, hash);
    }

    /** The stamp of a partition's bucket set, to be read and written. */
    ByteBuffer stamp(int partition, int bucketSet) {
        long set = CallNatives.bucketSets(handles[partition]) + (long) bucketSet * STAMP_SIZE;
        long offset = set / STAMP_SIZE % STAMPS * STAMP_SIZE;
        return PhantomWindows.slice(CallNatives.stamps() + offset, Long.BYTES).order(ByteOrder.nativeOrder());
    }

    @Override
    public void close() {
        for (int i = 0; i < handles.length; i++) {
            gates.close(i);
            NATIVES.clear(handles[i]);
            NATIVES.deleteLuOffHeapMap(handles[i]);
        }
    }
}
