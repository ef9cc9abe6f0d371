package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.OverflowRuntime.stats;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.value;
import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.overflow.StoreClosedException;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

/** A store that is closed while four threads use it, for good: this class has a process to itself. */
@Tag("overflow")
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OverflowStoreClosedTest {
    private static final int ENTRIES = 4_000;
    private static final int LENGTH = 4_000;
    private static final int OPERATIONS_AFTERWARDS = 2_000;

    private final AtomicReference<Throwable> failure = new AtomicReference<>();
    private final AtomicInteger unreadable = new AtomicInteger();
    private volatile boolean closed;

    @Test
    void valuesInMemoryStayAndTheOthersAreRefusedClearly() throws Exception {
        OverflowRuntime.start();
        long blocks = OverflowRuntime.blocks();
        long bytesInUse = OverflowRuntime.bytesInUse();
        try (OffHeapMap map = OffHeapMap.builder().name("spill").partitions(4).build()) {
            for (int i = 0; i < ENTRIES; i++) {
                map.put(bytes(i), value(i, LENGTH));
            }
            List<Thread> workers = new ArrayList<>();
            for (int worker = 0; worker < 4; worker++) {
                int first = worker * (ENTRIES / 4);
                Thread thread = new Thread(() -> work(map, first));
                thread.start();
                workers.add(thread);
            }
            long moved = stats().pageIns();
            while (stats().pageIns() < moved + 2_000 && failure.get() == null) {
                Thread.onSpinWait();
            }
            Nimbra.get().overflow().closeStore();
            closed = true;
            for (Thread worker : workers) {
                worker.join();
            }
            if (failure.get() != null) {
                throw new AssertionError(failure.get());
            }
            assertTrue(unreadable.get() > 0);

            int there = 0;
            for (int i = 0; i < ENTRIES; i++) {
                assertTrue(map.containsKey(bytes(i)));
                there += get(map, i) ? 1 : 0;
            }
            assertTrue(there > 100 && there < ENTRIES, "readable: " + there);
            // Room comes from entries that go, and the place of one that is lost can be taken again.
            for (int i = 0; i < ENTRIES / 2; i++) {
                assertTrue(map.remove(bytes(i)));
                assertNull(map.get(bytes(i)));
            }
            for (int i = 0; i < 100; i++) {
                assertTrue(map.put(bytes(i), value(i, LENGTH)));
                assertFalse(map.put(bytes(ENTRIES - 1 - i), value(ENTRIES - 1 - i, LENGTH)));
                assertTrue(get(map, i) && get(map, ENTRIES - 1 - i));
            }
        }
        OverflowRuntime.drain();
        assertEquals(blocks, OverflowRuntime.blocks());
        assertEquals(bytesInUse, OverflowRuntime.bytesInUse());
    }

    /** Reads and replaces until the store is closed, and some time longer. */
    private void work(OffHeapMap map, int first) {
        try {
            int left = OPERATIONS_AFTERWARDS;
            for (int i = 0; left > 0; i++) {
                int key = first + i % (ENTRIES / 4);
                // Only one of them: two that meet close to the maximum may both be refused behind their allocations.
                if (first == 0 && i % 5 == 0) {
                    replace(map, key);
                } else if (!get(map, key)) {
                    unreadable.incrementAndGet();
                }
                if (closed) {
                    left--;
                }
            }
        } catch (Throwable e) {
            failure.compareAndSet(null, e);
        }
    }

    private static void replace(OffHeapMap map, int key) {
        try {
            assertTrue(map.replace(bytes(key), value(key, LENGTH)));
        } catch (OffHeapMemoryException e) {
            // Nothing can be moved out of the way any more.
        }
    }

    /** Returns whether the value could be read. */
    private static boolean get(OffHeapMap map, int key) {
        try {
            assertArrayEquals(value(key, LENGTH), map.get(bytes(key)));
            return true;
        } catch (OffHeapStorageException e) {
            assertInstanceOf(StoreClosedException.class, e.getCause());
            assertTrue(e.getMessage().startsWith("get on map \"spill\": "), e::getMessage);
            return false;
        }
    }
}
