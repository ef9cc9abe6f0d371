package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static com.velt.rz.corvane.nimbra.TestRuntime.read;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.lang.ref.WeakReference;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.BooleanSupplier;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Keys and values around the lengths up to which they pass through memory of the thread. */
@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class CallMemoryTest {
    static final int[] KEYS = {0, 1, CallMemory.MAX_KEY - 1, CallMemory.MAX_KEY, CallMemory.MAX_KEY + 1};
    static final int[] VALUES = {0, 1, CallMemory.MAX_VALUE - 1, CallMemory.MAX_VALUE, CallMemory.MAX_VALUE + 1};

    @Test
    void everyLengthGoesInAndOutAgain() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            everyLengthGoesInAndOutAgain(map, KEYS, VALUES, () -> {});
            assertEquals(0, map.bytesUsed());
        }
    }

    /**
     * Every key with every value, and every value replaced by every other.
     *
     * @param keys lengths
     * @param values lengths
     * @param between runs between a write and the reads that follow
     */
    static void everyLengthGoesInAndOutAgain(OffHeapMap map, int[] keys, int[] values, Runnable between) {
        Random random = new Random(TestRuntime.seed("CallMemoryTest.everyLengthGoesInAndOutAgain"));
        for (int keyLength : keys) {
            byte[] key = TestRuntime.random(random, keyLength);
            for (int first : values) {
                for (int second : values) {
                    String lengths = keyLength + " bytes, " + first + " and " + second;
                    assertNull(map.get(key), lengths);
                    assertNull(map.pin(key), lengths);
                    assertFalse(map.containsKey(key), lengths);
                    assertFalse(map.remove(key), lengths);

                    byte[] one = TestRuntime.random(random, first);
                    assertFalse(map.replace(key, one), lengths);
                    assertTrue(map.put(key, one), lengths);
                    between.run();
                    assertHolds(map, key, one, lengths);

                    byte[] two = TestRuntime.random(random, second);
                    assertFalse(map.putIfAbsent(key, two), lengths);
                    assertHolds(map, key, one, lengths);
                    assertTrue(map.replace(key, two), lengths);
                    between.run();
                    assertHolds(map, key, two, lengths);
                    assertFalse(map.put(key, one), lengths);
                    assertHolds(map, key, one, lengths);

                    between.run();
                    assertTrue(map.remove(key), lengths);
                    assertTrue(map.putIfAbsent(key, two), lengths);
                    assertHolds(map, key, two, lengths);
                    assertTrue(map.remove(key), lengths);
                    assertEquals(0, map.size());
                }
            }
        }
    }

    private static void assertHolds(OffHeapMap map, byte[] key, byte[] value, String message) {
        assertTrue(map.containsKey(key), message);
        assertArrayEquals(value, map.get(key), message);
        try (PinnedValue pinned = map.pin(key)) {
            assertEquals(value.length, pinned.size(), message);
            assertArrayEquals(value, read(pinned.buffer()), message);
        }
        assertEquals(1, map.size(), message);
    }

    /** Keys that share their beginnings and lengths leave nothing behind for each other. */
    @Test
    void aShorterKeyOrValueIsNotThePreviousOne() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(bytes("longer key"), bytes("longer value"));
            map.put(bytes("longer"), bytes("short"));
            map.put(bytes(""), bytes(""));
            assertArrayEquals(bytes("longer value"), map.get(bytes("longer key")));
            assertArrayEquals(bytes("short"), map.get(bytes("longer")));
            assertArrayEquals(bytes(""), map.get(bytes("")));
            assertNull(map.get(bytes("longer ke")));
        }
    }

    /** What a call returned is the caller's own: the next call changes neither. */
    @Test
    void resultsOutliveTheNextCall() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(bytes("a"), bytes("first"));
            map.put(bytes("b"), bytes("other"));
            byte[] first = map.get(bytes("a"));
            try (PinnedValue pinned = map.pin(bytes("a"));
                    PinnedValue other = map.pin(bytes("b"))) {
                assertArrayEquals(bytes("other"), map.get(bytes("b")));
                assertArrayEquals(bytes("first"), first);
                assertArrayEquals(bytes("first"), read(pinned.buffer()));
                assertArrayEquals(bytes("other"), read(other.buffer()));
                assertNotSame(pinned.buffer(), pinned.buffer());
                assertEquals(1, pinned.revision());
                assertEquals(2, other.revision());
            }
        }
    }

    /**
     * A logger that uses maps in the middle of a call. Where its value has not been read yet, the call is made again with
     * arrays; elsewhere key and value have been read before.
     */
    @ParameterizedTest
    @ValueSource(ints = {OffHeapLogger.EVENT, OffHeapLogger.DEBUG, OffHeapLogger.DEBUG | OffHeapLogger.EVENT})
    void aLoggerMayUseMapsInTheMiddleOfACall(int level) {
        OffHeapManager manager = new OffHeapManager();
        AtomicReference<Throwable> failure = new AtomicReference<>();
        try (OffHeapMap map = Nimbra.get().newMap();
                OffHeapMap other = Nimbra.get().newMap()) {
            Reentrant sink = new Reentrant(map, other, failure);
            int before = OffHeapLogger.getLogLevel();
            OffHeapLogger.Sink previous = OffHeapLogger.setSink(sink);
            OffHeapLogger.setLogLevel(level);
            manager.setLogLevel();
            try {
                for (int i = 0; i < 20; i++) {
                    byte[] key = bytes("key " + i);
                    assertTrue(map.put(key, bytes("one " + i)));
                    assertArrayEquals(bytes("one " + i), map.get(key));
                    assertFalse(map.put(key, bytes("another " + i)));
                    assertTrue(map.containsKey(key));
                    assertTrue(map.replace(key, bytes("two " + i)));
                    assertFalse(map.putIfAbsent(key, bytes("three " + i)));
                    try (PinnedValue pinned = map.pin(key)) {
                        assertArrayEquals(bytes("two " + i), read(pinned.buffer()));
                    }
                    assertTrue(map.remove(key));
                    assertTrue(map.putIfAbsent(key, bytes("four " + i)));
                }
            } finally {
                OffHeapLogger.setLogLevel(before);
                manager.setLogLevel();
                OffHeapLogger.setSink(previous);
            }
            assertNull(failure.get(), () -> "in the logger: " + failure.get());
            assertTrue(sink.calls > 100, () -> sink.calls + " calls by the logger");
            assertTrue(sink.beforeTheValue > 20, () -> sink.beforeTheValue + " calls before the value was read");
            for (int i = 0; i < 20; i++) {
                assertArrayEquals(bytes("four " + i), map.get(bytes("key " + i)));
            }
            assertArrayEquals(Reentrant.VALUE, map.get(Reentrant.KEY));
            assertEquals(21, map.size());
            assertArrayEquals(Reentrant.VALUE, other.get(Reentrant.KEY));
            assertEquals(1, other.size());
        }
    }

    /** Uses the other map at every record, and the same one where the outer call holds no lock of it. */
    private static final class Reentrant implements OffHeapLogger.Sink {
        static final byte[] KEY = bytes("the logger's key, longer than all others");
        static final byte[] VALUE = bytes("the logger's value, longer than all others");

        private final OffHeapMap map;
        private final OffHeapMap other;
        private final AtomicReference<Throwable> failure;
        private final Thread caller = Thread.currentThread();
        private boolean inside;
        int calls;
        int beforeTheValue;

        Reentrant(OffHeapMap map, OffHeapMap other, AtomicReference<Throwable> failure) {
            this.map = map;
            this.other = other;
            this.failure = failure;
        }

        @Override
        public void record(String method, String key, String text) {
            if (inside || Thread.currentThread() != caller) {
                return;
            }
            inside = true;
            try {
                calls++;
                use(other);
                // The memory for a value is asked for before any lock is taken.
                if (text.contains("Value Data")) {
                    beforeTheValue++;
                    use(map);
                }
            } catch (Throwable e) {
                failure.compareAndSet(null, e);
            } finally {
                inside = false;
            }
        }

        private static void use(OffHeapMap used) {
            used.put(KEY, VALUE);
            assertArrayEquals(VALUE, used.get(KEY));
            assertTrue(used.containsKey(KEY));
        }
    }

    /** Each thread has memory of its own, and it goes with the thread. */
    @Test
    void memoryEndsWithItsThread() throws InterruptedException {
        int threads = 200;
        try (OffHeapMap map = Nimbra.get().newMap()) {
            Set<CallMemory> different = ConcurrentHashMap.newKeySet();
            List<WeakReference<CallMemory>> memories = Collections.synchronizedList(new ArrayList<>());
            CountDownLatch used = new CountDownLatch(threads);
            CountDownLatch end = new CountDownLatch(1);
            List<Thread> running = new ArrayList<>();
            for (int i = 0; i < threads; i++) {
                Thread thread = new Thread(() -> {
                    map.put(bytes("key"), bytes("value"));
                    CallMemory memory = CallMemory.with(bytes("key"));
                    different.add(memory);
                    memories.add(new WeakReference<>(memory));
                    used.countDown();
                    awaitUnchecked(end);
                });
                thread.start();
                running.add(thread);
            }
            used.await();
            assertEquals(threads, different.size());
            different.clear();
            System.gc();
            assertTrue(memories.stream().allMatch(memory -> memory.get() != null), "a living thread's memory is gone");
            end.countDown();
            for (Thread thread : running) {
                thread.join();
            }
            running.clear();
            assertTrue(await(() -> memories.stream().allMatch(memory -> memory.get() == null)), "memory is left");
        }
    }

    private static void awaitUnchecked(CountDownLatch latch) {
        try {
            latch.await();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    /** Collects garbage until a condition holds: one collection need not find everything. */
    private static boolean await(BooleanSupplier condition) {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
        do {
            System.gc();
            if (condition.getAsBoolean()) {
                return true;
            }
            Thread.onSpinWait();
        } while (System.nanoTime() < end);
        return false;
    }
}
