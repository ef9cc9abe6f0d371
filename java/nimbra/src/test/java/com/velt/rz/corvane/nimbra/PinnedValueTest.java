package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static com.velt.rz.corvane.nimbra.TestRuntime.read;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.ReadOnlyBufferException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.api.function.Executable;

@ExtendWith(LeakCheck.class)
@Timeout(value = 60, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class PinnedValueTest {
    private static final byte[] KEY = bytes("key");
    private static final int STOP = -1;

    /** A buffer begins with its pin count; its data comes so many bytes later. */
    private static final int PINS_BEFORE_DATA = 24;

    @Test
    void viewIsReadOnlyAndDirect() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, bytes("value"));
            try (PinnedValue pinned = map.pin(KEY)) {
                ByteBuffer buffer = pinned.buffer();
                assertTrue(buffer.isDirect());
                assertTrue(buffer.isReadOnly());
                assertEquals(ByteOrder.BIG_ENDIAN, buffer.order());
                assertEquals(5, pinned.size());
                assertEquals(5, buffer.capacity());
                assertThrows(ReadOnlyBufferException.class, () -> buffer.put(0, (byte) 1));
                assertArrayEquals(bytes("value"), read(buffer));
                assertEquals(0, buffer.remaining());
                assertArrayEquals(bytes("value"), read(pinned.buffer()));
            }
        }
    }

    @Test
    void emptyAndLargeValues() {
        Random random = new Random(TestRuntime.seed("PinnedValueTest.emptyAndLargeValues"));
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (int length : new int[] {0, 1, 4_095, 4_096, 4_097, 3 << 20}) {
                byte[] value = TestRuntime.random(random, length);
                map.put(KEY, value);
                try (PinnedValue pinned = map.pin(KEY)) {
                    assertEquals(length, pinned.size());
                    assertArrayEquals(value, read(pinned.buffer()));
                }
            }
        }
    }

    @Test
    void revisionsCountTheWritesOfTheMap() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, bytes("one"));
            assertEquals(1, revision(map));
            map.replace(KEY, bytes("two"));
            assertEquals(2, revision(map));
            map.put(bytes("other"), bytes("three"));
            assertEquals(2, revision(map));
            map.put(KEY, bytes("four"));
            assertEquals(4, revision(map));
        }
    }

    @Test
    void valueOutlivesUpdateRemovalAndMap() {
        List<PinnedValue> held = new ArrayList<>();
        OffHeapMap map = Nimbra.get().newMap();
        for (int i = 0; i < 20; i++) {
            map.put(KEY, bytes("value " + i));
            held.add(map.pin(KEY));
        }
        map.remove(KEY);
        map.put(KEY, bytes("later"));
        map.clear();
        map.close();
        // Memory that was freed by mistake is likely to be handed out again here.
        try (OffHeapMap other = Nimbra.get().newMap()) {
            for (int i = 0; i < 1_000; i++) {
                other.put(bytes(i), bytes("another " + i));
            }
            for (int i = 0; i < held.size(); i++) {
                assertArrayEquals(bytes("value " + i), read(held.get(i).buffer()));
                assertEquals(i + 1, held.get(i).revision());
            }
        }
        held.forEach(PinnedValue::close);
    }

    @Test
    void closedValueRefusesAndClosesOnce() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, bytes("value"));
            PinnedValue kept = map.pin(KEY);
            PinnedValue closed = map.pin(KEY);
            closed.close();
            closed.close();
            List<Executable> calls = List.of(closed::buffer, closed::size, closed::revision);
            List<String> names = List.of("buffer", "size", "revision");
            for (int i = 0; i < calls.size(); i++) {
                assertEquals(
                        "pinned value is closed: no " + names.get(i),
                        assertThrows(IllegalStateException.class, calls.get(i)).getMessage());
            }
            assertArrayEquals(bytes("value"), read(kept.buffer()));
            kept.close();
        }
    }

    /** Two threads close the same value at once; were it unpinned twice, the buffer would go in spite of its other pin. */
    @Test
    void everyCloseLowersThePinCountByOne() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, bytes("value"));
            long blocks = Nimbra.get().stats().blocks();
            PinnedValue first = map.pin(KEY);
            PinnedValue second = map.pin(KEY);
            long pins = CallNatives.address(first.buffer()) - PINS_BEFORE_DATA;
            assertEquals(3, PhantomWindows.getLong(pins), "the entry's and two of ours");
            second.close();
            assertEquals(2, PhantomWindows.getLong(pins));
            map.remove(KEY);
            assertEquals(1, PhantomWindows.getLong(pins));
            assertArrayEquals(bytes("value"), read(first.buffer()));
            long left = Nimbra.get().stats().blocks();
            first.close();
            assertEquals(left - 1, Nimbra.get().stats().blocks(), "the last pin frees the value");
            assertTrue(left < blocks);
        }
    }

    @Test
    void pinsOfManyThreadsAreAllDropped() throws Exception {
        int threads = 4;
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, bytes("value"));
            PinnedValue kept = map.pin(KEY);
            long pins = CallNatives.address(kept.buffer()) - PINS_BEFORE_DATA;
            ExecutorService pool = Executors.newFixedThreadPool(threads);
            try {
                List<Future<?>> running = new ArrayList<>();
                for (int i = 0; i < threads; i++) {
                    running.add(pool.submit(() -> {
                        for (int n = 0; n < 20_000; n++) {
                            map.pin(KEY).close();
                        }
                    }));
                }
                for (Future<?> thread : running) {
                    thread.get();
                }
            } finally {
                pool.shutdown();
            }
            assertEquals(2, PhantomWindows.getLong(pins), "the entry's and ours");
            kept.close();
        }
    }

    @Test
    void closingAtTheSameTimeUnpinsOnce() throws Exception {
        AtomicReference<PinnedValue> shared = new AtomicReference<>();
        AtomicInteger begun = new AtomicInteger();
        AtomicInteger finished = new AtomicInteger();
        Thread closer = new Thread(() -> {
            for (int round = 1; ; round++) {
                int next;
                while ((next = begun.get()) != round) {
                    if (next == STOP) {
                        return;
                    }
                    Thread.onSpinWait();
                }
                shared.get().close();
                finished.set(round);
            }
        });
        closer.setDaemon(true);
        closer.start();
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, bytes("value"));
            PinnedValue kept = map.pin(KEY);
            map.remove(KEY);
            long blocks = Nimbra.get().stats().blocks();
            kept.close();
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(2);
            for (int round = 1; System.nanoTime() < end; round++) {
                map.put(KEY, bytes("value"));
                PinnedValue closed = map.pin(KEY);
                shared.set(closed);
                try (PinnedValue other = map.pin(KEY)) {
                    map.remove(KEY);
                    begun.set(round);
                    // The other thread hears of it later, by a time that varies: so does this delay.
                    for (int delay = round % 300; delay > 0; delay--) {
                        finished.get();
                    }
                    closed.close();
                    while (finished.get() != round) {
                        Thread.onSpinWait();
                    }
                    assertEquals(blocks, Nimbra.get().stats().blocks(), "round " + round);
                }
            }
        }
        begun.set(STOP);
        closer.join();
    }

    /** A writer replaces and removes as fast as it can; every pin shows one whole value, and the same one twice. */
    @Test
    void pinsShowWholeValuesWhileAWriterIsAtWork() throws Exception {
        AtomicBoolean stop = new AtomicBoolean();
        try (OffHeapMap map = Nimbra.get().newMap()) {
            Thread writer = new Thread(() -> {
                for (int i = 0; !stop.get(); i++) {
                    byte[] value = new byte[1 + i % 5_000];
                    Arrays.fill(value, (byte) i);
                    map.put(KEY, value);
                    if (i % 7 == 0) {
                        map.remove(KEY);
                    }
                }
            });
            writer.start();
            try {
                for (int seen = 0; seen < 20_000; ) {
                    try (PinnedValue pinned = map.pin(KEY)) {
                        if (pinned == null) {
                            continue;
                        }
                        seen++;
                        byte[] first = read(pinned.buffer());
                        for (byte b : first) {
                            assertEquals(first[0], b);
                        }
                        assertArrayEquals(first, read(pinned.buffer()));
                    }
                }
            } finally {
                stop.set(true);
                writer.join();
            }
        }
    }

    private static long revision(OffHeapMap map) {
        try (PinnedValue pinned = map.pin(KEY)) {
            return pinned.revision();
        }
    }
}
