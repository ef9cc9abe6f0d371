package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.sun.management.ThreadMXBean;
import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.api.function.Executable;

/** What happens at the limits, and what a call costs the collector. */
@ExtendWith(LeakCheck.class)
class OffHeapMapMemoryTest {
    private static final byte[] KEY = bytes("key");

    @Test
    void refusedMemoryLeavesTheMapAsItWas() {
        try (OffHeapMap map = OffHeapMap.builder().name("full").build()) {
            for (int i = 0; i < 200; i++) {
                map.put(bytes(i), bytes("value " + i));
            }
            long bytesUsed = map.bytesUsed();
            long blocks = Nimbra.get().stats().blocks();
            TestRuntime.withMaximum(1, () -> {
                List<Executable> writes = List.of(
                        () -> map.put(KEY, new byte[100]),
                        () -> map.put(bytes(7), new byte[100]),
                        () -> map.putIfAbsent(KEY, new byte[100]),
                        () -> map.replace(bytes(7), new byte[100]));
                for (Executable write : writes) {
                    OffHeapMemoryException refused = assertThrows(OffHeapMemoryException.class, write);
                    assertNotNull(refused.getCause());
                    String message = refused.getMessage();
                    assertTrue(message.contains("on map \"full\" with a key of "), message);
                    assertTrue(message.contains("a value of 100 bytes: memory refused with "), message);
                    assertTrue(message.endsWith(" of at most 1 bytes in use"), message);
                }
                assertArrayEquals(bytes("value 7"), map.get(bytes(7)));
                assertTrue(map.remove(bytes(199)));
            });
            assertTrue(map.put(bytes(199), bytes("value 199")));
            assertEquals(bytesUsed, map.bytesUsed());
            assertEquals(blocks, Nimbra.get().stats().blocks());
            assertEquals(200, map.size());
            assertFalse(map.containsKey(KEY));
            for (int i = 0; i < 200; i++) {
                assertArrayEquals(bytes("value " + i), map.get(bytes(i)));
            }
        }
    }

    @Test
    void refusedMapLeavesNothingBehind() {
        TestRuntime.withMaximum(1, () -> {
            OffHeapMap.Builder options = OffHeapMap.builder().name("too much").partitions(4);
            OffHeapMemoryException refused = assertThrows(OffHeapMemoryException.class, options::build);
            String message = refused.getMessage();
            assertTrue(message.startsWith("creating map \"too much\" with 4 partitions: memory refused"), message);
        });
    }

    /** What a refused map would leave behind is avoided by asking for enough room before the first allocation. */
    @Test
    void roomAskedForCoversTheEmptyMap() {
        int[][] shapes = {{1, 1}, {1, 65_536}, {4_096, 1}, {16, 16}, {256, 64}, {64, 1_000}};
        for (int[] shape : shapes) {
            OffHeapMap.Builder options =
                    OffHeapMap.builder().partitions(shape[0]).bucketSets(shape[1]);
            NimbraStats before = Nimbra.get().stats();
            try (OffHeapMap map = options.build()) {
                NimbraStats after = Nimbra.get().stats();
                assertTrue(after.internalMetadataBytes() - before.internalMetadataBytes() <= options.bytesNeeded());
                assertTrue(after.bytesInUse() - before.bytesInUse() <= options.bytesNeeded(), map.name());
                assertEquals(0, map.size());
            }
            long tooLittle = Nimbra.get().stats().bytesInUse() + options.bytesNeeded();
            TestRuntime.withMaximum(tooLittle, () -> assertThrows(OffHeapMemoryException.class, options::build));
        }
    }

    /** Fills the rest of the memory to the last value that fits, whichever of the two checks refuses the next. */
    @Test
    void fillingToTheMaximum() {
        byte[] value = new byte[60_000];
        // No table grows, so that every refusal is the one of the write itself.
        try (OffHeapMap map = OffHeapMap.builder().loadFactor(64).build()) {
            long room = Nimbra.get().stats().bytesInUse() + (8 << 20);
            int[] stored = new int[1];
            TestRuntime.withMaximum(room, () -> {
                for (int attempt = 0; attempt < 5; attempt++) {
                    OffHeapMemoryException refused = assertThrows(OffHeapMemoryException.class, () -> {
                        while (true) {
                            value[0] = (byte) stored[0];
                            map.put(bytes(stored[0]), value);
                            stored[0]++;
                        }
                    });
                    if (refused.getCause() instanceof OutOfMemoryError) {
                        LeakCheck.refusedAfterAllocation();
                    }
                    assertNull(map.get(bytes(stored[0])));
                    assertEquals(stored[0], map.size());
                }
                assertTrue(Nimbra.get().stats().bytesInUse() <= room);
            });
            assertTrue(stored[0] > 60 && stored[0] < 140, stored[0] + " values of 60 kB in 8 MiB");
            for (int i = 0; i < stored[0]; i++) {
                value[0] = (byte) i;
                assertArrayEquals(value, map.get(bytes(i)));
            }
            assertTrue(map.put(bytes(stored[0]), value));
        }
    }

    @Test
    void callsMakeNoGarbage() {
        byte[] present = bytes("present key, 24 bytes...");
        byte[] absent = bytes("absent");
        byte[] value = new byte[256];
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(present, value);
            assertEquals(0, bytesPerCall(() -> map.put(present, value)), "put, replacing");
            assertEquals(0, bytesPerCall(() -> map.replace(present, value)), "replace");
            assertEquals(0, bytesPerCall(() -> map.putIfAbsent(present, value)), "putIfAbsent, present");
            assertEquals(0, bytesPerCall(() -> map.get(absent)), "get, absent");
            assertEquals(0, bytesPerCall(() -> map.containsKey(present)), "containsKey");
            assertEquals(
                    0,
                    bytesPerCall(() -> {
                        map.put(absent, value);
                        map.remove(absent);
                    }),
                    "put, new, and remove");
            // The array with its header of 16 bytes, and nothing else.
            assertEquals(272, bytesPerCall(() -> map.get(present)), "get");
        }
    }

    /** Bytes of Java heap that one call allocates; what compilation adds once is lost in the division. */
    private static long bytesPerCall(Runnable call) {
        ThreadMXBean threads = (ThreadMXBean) ManagementFactory.getThreadMXBean();
        int calls = 20_000;
        for (int i = 0; i < calls; i++) {
            call.run();
        }
        long before = threads.getCurrentThreadAllocatedBytes();
        for (int i = 0; i < calls; i++) {
            call.run();
        }
        return (threads.getCurrentThreadAllocatedBytes() - before) / calls;
    }

    @Test
    void manyRefusalsLeakNothing() {
        List<OffHeapMemoryException> refusals = new ArrayList<>();
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, KEY);
            long bytesInUse = Nimbra.get().stats().bytesInUse();
            TestRuntime.withMaximum(1, () -> {
                for (int i = 0; i < 2_000; i++) {
                    byte[] key = i % 2 == 0 ? KEY : bytes(i);
                    refusals.add(assertThrows(OffHeapMemoryException.class, () -> map.put(key, new byte[10_000])));
                }
            });
            assertEquals(2_000, refusals.size());
            assertEquals(bytesInUse, Nimbra.get().stats().bytesInUse());
            assertArrayEquals(KEY, map.get(KEY));
        }
    }
}
