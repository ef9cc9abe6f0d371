package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.OverflowRuntime.STORE;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.drain;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.pushOut;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.stats;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.value;
import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static com.velt.rz.corvane.nimbra.TestRuntime.read;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Plain maps whose values are in memory, on disk, or on the way. */
@Tag("overflow")
@ExtendWith(OverflowRuntime.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OverflowMapTest {
    private static final int HEADER = OverflowNatives.PAYLOAD_HEADER;

    private static OffHeapMap map() {
        return OffHeapMap.builder().name("spill").partitions(4).build();
    }

    private static long id(byte[] key) {
        return ByteBuffer.wrap(key).getLong();
    }

    /** 32 MiB in lengths from 1 byte to 8 KiB. */
    private static int length(long number) {
        return 1 + Math.floorMod(number * 0x9E3779B97F4A7C15L, 8_192);
    }

    @Test
    @SuppressWarnings("try") // the sampler is not asked anything
    void aMapHoldsSeveralTimesTheMaximum() {
        int entries = 8_000;
        OverflowStats before = stats();
        try (OffHeapMap map = map();
                OverflowRuntime.Sampler sampler = new OverflowRuntime.Sampler()) {
            long stored = 0;
            for (int i = 0; i < entries; i++) {
                assertTrue(map.put(bytes(i), value(i, length(i))));
                stored += length(i);
            }
            assertTrue(stored > 3 * OverflowRuntime.MAXIMUM_BYTES, () -> "too little to tell");
            assertEquals(entries, map.size());

            OverflowStats filled = stats();
            assertTrue(filled.bytesLive() > 2 * OverflowRuntime.MAXIMUM_BYTES, filled::toString);
            assertTrue(filled.bytesOnDisk() >= filled.bytesLive(), filled::toString);
            assertTrue(filled.diskLimit() >= filled.bytesOnDisk(), filled::toString);
            assertTrue(filled.sweeps() > before.sweeps() && filled.sweepNanos() > before.sweepNanos());
            assertEquals(before.failedWrites(), filled.failedWrites());

            // The latest first, which are in memory: in the order of the stores each would be moved out just before.
            for (int i = entries - 1; i >= 0; i--) {
                assertArrayEquals(value(i, length(i)), map.get(bytes(i)));
            }
            assertNull(map.get(bytes(entries)));
            OverflowStats read = stats();
            assertEquals(entries, hits(read) - hits(filled), "every lookup that finds something is a hit");
            assertTrue(read.diskHits() > filled.diskHits() && read.memoryHits() > filled.memoryHits());
            assertTrue(read.pageIns() - filled.pageIns() <= read.diskHits() - filled.diskHits());
            assertTrue(read.copiesReused() <= read.pageOuts());

            boolean[] seen = new boolean[entries];
            map.forEach((key, value) -> {
                int i = (int) id(key);
                assertFalse(seen[i]);
                seen[i] = true;
                assertArrayEquals(value(i, length(i)), value);
            });
            int next = 0;
            try (ChangeIterator changes = map.changesSince(0)) {
                while (changes.hasNext()) {
                    Change change = changes.next();
                    assertEquals(next + 1, change.revision());
                    assertArrayEquals(bytes(next), change.key());
                    assertArrayEquals(value(next, length(next)), change.copyValue());
                    next++;
                }
            }
            assertEquals(entries, next);
            for (int i = 0; i < entries; i++) {
                assertTrue(seen[i]);
            }
        }
    }

    private static long hits(OverflowStats stats) {
        return stats.memoryHits() + stats.diskHits();
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 1, 2, 100, 4_096, 131_073, (1 << 20) + 3})
    void everyOperationMeetsAValueOnDisk(int length) {
        try (OffHeapMap map = map()) {
            byte[] key = bytes("key");
            assertTrue(map.put(key, value(1, length)));
            onDisk(1, length);
            OverflowStats before = stats();
            assertTrue(map.containsKey(key));
            assertEquals(1, map.size());
            assertEquals(before, stats(), "the key alone needs no disk");

            assertArrayEquals(value(1, length), map.get(key));
            OverflowStats after = stats();
            assertEquals(1, after.diskHits() - before.diskHits());
            assertEquals(1, after.pageIns() - before.pageIns());
            assertArrayEquals(value(1, length), map.get(key));
            assertEquals(1, stats().memoryHits() - after.memoryHits(), "it is back in memory");

            onDisk(1, length);
            assertEquals(after.copiesReused() + 1, stats().copiesReused(), "the copy on disk is still good");
            try (PinnedValue pinned = map.pin(key)) {
                assertEquals(length, pinned.size());
                assertEquals(1, pinned.revision());
                assertArrayEquals(value(1, length), read(pinned.buffer()));
            }

            onDisk(1, length);
            assertFalse(map.put(key, value(2, length)));
            assertArrayEquals(value(2, length), map.get(key));
            onDisk(2, length);
            assertTrue(map.replace(key, value(3, length)));
            assertArrayEquals(value(3, length), map.get(key));
            onDisk(3, length);
            assertFalse(map.putIfAbsent(key, value(4, length)));
            assertArrayEquals(value(3, length), map.get(key));

            onDisk(3, length);
            List<String> walked = new ArrayList<>();
            map.forEach((found, value) -> {
                assertArrayEquals(value(3, length), value);
                walked.add(new String(found));
            });
            assertEquals(List.of("key"), walked);
            try (ChangeIterator changes = map.changesSince(0)) {
                Change change = changes.next();
                assertArrayEquals(key, change.key());
                assertArrayEquals(value(3, length), change.copyValue());
                assertArrayEquals(value(3, length), read(change.value()));
                assertFalse(changes.hasNext());
            }

            // A walk does not bring it back, so that it is removed from disk.
            assertTrue(map.remove(key));
            assertNull(map.get(key));
            assertNull(map.pin(key));
            assertFalse(map.containsKey(key));
            assertFalse(map.replace(key, value(5, length)));
            drain();
            assertEquals(0, STORE.bytesLive());

            assertTrue(map.putIfAbsent(key, value(6, length)));
            onDisk(6, length);
            map.clear();
            drain();
            assertEquals(0, STORE.bytesLive());
            assertNull(map.get(key));

            map.put(key, value(7, length));
            onDisk(7, length);
        }
        assertEquals(0, STORE.bytesLive(), "a close returns when the space is free");
    }

    /** Moves the only value there is to disk. */
    private static void onDisk(long number, int length) {
        long moved = stats().pageOuts();
        pushOut();
        assertEquals(moved + 1, stats().pageOuts(), () -> "value " + number);
        drain();
        assertEquals(HEADER + length, STORE.bytesLive(), () -> "value " + number);
    }

    @Test
    void aPinnedViewOutlivesThePageOutOfItsValue() {
        OffHeapMap map = map();
        byte[] key = bytes("key");
        map.put(key, value(1, 5_000));
        try (PinnedValue first = map.pin(key)) {
            onDisk(1, 5_000);
            assertArrayEquals(value(1, 5_000), read(first.buffer()));
            try (PinnedValue second = map.pin(key)) {
                assertArrayEquals(value(1, 5_000), read(second.buffer()));
                onDisk(1, 5_000);
                map.put(key, value(2, 5_000));
                assertArrayEquals(value(2, 5_000), map.get(key));
                assertArrayEquals(value(1, 5_000), read(second.buffer()));
            }
            onDisk(2, 5_000);
            assertTrue(map.remove(key));
            map.close();
            assertArrayEquals(value(1, 5_000), read(first.buffer()));
            assertEquals(1, first.revision());
        }
    }

    @Test
    void aChangeShowsTheLatestValueOrNone() {
        try (OffHeapMap map = map()) {
            for (int i = 0; i < 4; i++) {
                map.put(bytes(i), value(i, 300));
            }
            pushOut();
            try (ChangeIterator changes = map.changesSince(0)) {
                assertArrayEquals(value(0, 300), changes.next().copyValue());
                map.replace(bytes(1), value(11, 200));
                map.remove(bytes(2));
                // Both were found on disk, and their values are gone.
                Change last = changes.next();
                assertArrayEquals(bytes(3), last.key());
                assertArrayEquals(value(3, 300), last.copyValue());
                assertFalse(changes.hasNext());
                assertEquals(4, changes.lastRevision());
            }
            try (ChangeIterator changes = map.changesSince(4)) {
                Change replaced = changes.next();
                assertArrayEquals(bytes(1), replaced.key());
                assertArrayEquals(value(11, 200), replaced.copyValue());
                assertFalse(changes.hasNext());
            }
        }
    }

    @Test
    void anIteratorGivenUpEarlyKeepsNothing() {
        try (OffHeapMap map = map()) {
            for (int i = 0; i < 50; i++) {
                map.put(bytes(i), value(i, 300));
            }
            pushOut();
            ChangeIterator changes = map.changesSince(0);
            for (int i = 0; i < 10; i++) {
                assertArrayEquals(value(i, 300), changes.next().copyValue());
            }
            assertTrue(changes.hasNext());
            changes.close();
        }
        ChangeIterator orphan;
        try (OffHeapMap map = map()) {
            map.put(bytes(1), value(1, 300));
            map.put(bytes(2), value(2, 300));
            pushOut();
            orphan = map.changesSince(0);
            assertTrue(orphan.hasNext());
        }
        orphan.close();
    }

    @Test
    void spaceOnDiskFollowsTheEntries() {
        int entries = 400;
        try (OffHeapMap map = map()) {
            long expected = 0;
            for (int i = 0; i < entries; i++) {
                map.put(bytes(i), value(i, length(i)));
                expected += HEADER + length(i);
            }
            assertEquals(0, STORE.bytesLive(), "there is room for all of them");
            pushOut();
            assertEquals(expected, STORE.bytesLive());

            for (int i = 0; i < entries; i += 2) {
                map.put(bytes(i), value(-i, 10));
                expected -= HEADER + length(i);
            }
            drain();
            assertEquals(expected, STORE.bytesLive(), "replaced");
            for (int i = 1; i < entries; i += 4) {
                map.remove(bytes(i));
                expected -= HEADER + length(i);
            }
            drain();
            assertEquals(expected, STORE.bytesLive(), "removed");
            for (int i = 3; i < entries; i += 4) {
                assertArrayEquals(value(i, length(i)), map.get(bytes(i)));
            }
            assertEquals(expected, STORE.bytesLive(), "read, and both in memory and on disk");
            map.clear();
            drain();
            assertEquals(0, STORE.bytesLive(), "cleared");
        }
    }

    @Test
    void churnDoesNotLetTheFilesGrow() {
        try (OffHeapMap map = map()) {
            long filled = 0;
            for (int round = 0; round < 12; round++) {
                for (int i = 0; i < 300; i++) {
                    map.put(bytes(i), value(i + round, 4_000));
                }
                pushOut();
                drain();
                if (round == 1) {
                    filled = STORE.bytesOnDisk();
                }
            }
            assertEquals(filled, STORE.bytesOnDisk());
        }
    }

    @Test
    void bytesUsedStaysTheSumOfTheEntries() {
        long seed = TestRuntime.seed("bytesUsedStaysTheSumOfTheEntries");
        Random random = new Random(seed);
        try (OffHeapMap map = map()) {
            Map<Integer, byte[]> content = new HashMap<>();
            for (int step = 0; step < 600; step++) {
                if (step % 50 == 0) {
                    pushOut();
                }
                int key = random.nextInt(40);
                byte[] value = value(step, random.nextInt(3_000));
                switch (random.nextInt(4)) {
                    case 0 -> {
                        map.remove(bytes(key));
                        content.remove(key);
                    }
                    case 1 -> assertArrayEquals(content.get(key), map.get(bytes(key)));
                    default -> {
                        map.put(bytes(key), value);
                        content.put(key, value);
                    }
                }
            }
            try (OffHeapMap fresh = map()) {
                content.forEach((key, value) -> fresh.put(bytes(key), value));
                assertEquals(fresh.bytesUsed(), map.bytesUsed());
            }
            pushOut();
            content.replaceAll((key, value) -> value(key, value.length + 1));
            content.forEach((key, value) -> assertTrue(map.replace(bytes(key), value)));
            try (OffHeapMap fresh = map()) {
                content.forEach((key, value) -> fresh.put(bytes(key), value));
                assertEquals(fresh.bytesUsed(), map.bytesUsed(), "all replaced on disk");
            }
            content.keySet().forEach(key -> assertTrue(map.remove(bytes(key))));
            assertEquals(0, map.bytesUsed());
        }
    }

    @Test
    void aWalkIsNoLookup() {
        try (OffHeapMap map = map()) {
            for (int i = 0; i < 20; i++) {
                map.put(bytes(i), value(i, 100));
            }
            pushOut();
            OverflowStats before = stats();
            map.forEach((key, value) -> {});
            try (ChangeIterator changes = map.changesSince(0)) {
                while (changes.hasNext()) {
                    changes.next();
                }
            }
            assertEquals(before, stats());
            assertNotNull(map.get(bytes(1)));
            assertEquals(before.diskHits() + 1, stats().diskHits());
        }
    }

    /** All of them together are more than the heap of this process. */
    @Test
    void aWalkHoldsOneLargeValueAtATime() {
        int length = 4 << 20;
        int entries = (int) (Runtime.getRuntime().maxMemory() / length) + 4;
        try (OffHeapMap map = OffHeapMap.builder().partitions(1).build()) {
            for (int i = 0; i < entries; i++) {
                byte[] value = new byte[length];
                value[i] = 1;
                map.put(bytes(i), value);
            }
            int[] walked = {0};
            map.forEach((key, value) -> {
                assertEquals(1, value[(int) id(key)]);
                walked[0]++;
            });
            assertEquals(entries, walked[0]);
        }
    }

    @Test
    void aWalkGoesOnWhileItsEntriesChange() {
        try (OffHeapMap map = OffHeapMap.builder().partitions(1).build()) {
            for (int i = 0; i < 40; i++) {
                map.put(bytes(i), value(i, 100));
            }
            pushOut();
            List<Long> walked = new ArrayList<>();
            map.forEach((key, value) -> {
                long id = id(key);
                if (walked.isEmpty()) {
                    for (int i = 0; i < 40; i++) {
                        if (i % 2 == 0 && i != id) {
                            map.remove(bytes(i));
                        } else if (i != id) {
                            map.put(bytes(i), value(-i, 200));
                        }
                    }
                    assertArrayEquals(value(id, 100), value);
                } else {
                    assertArrayEquals(value(-id, 200), value);
                }
                walked.add(id);
            });
            walked.remove(0);
            assertTrue(walked.stream().allMatch(id -> id % 2 == 1), walked::toString);
            assertTrue(walked.size() == 19 || walked.size() == 20, walked::toString);
        }
    }

    @Test
    void valuesThatArePinnedMakeNoRoom() {
        List<PinnedValue> pinned = new ArrayList<>();
        try (OffHeapMap map = map()) {
            int stored = 0;
            try {
                while (true) {
                    map.put(bytes(stored), value(stored, 100_000));
                    pinned.add(map.pin(bytes(stored)));
                    stored++;
                }
            } catch (OffHeapMemoryException e) {
                // as many as fit
            }
            assertTrue(stored > 50, "stored " + stored);
            long blocks = OverflowRuntime.blocks();
            for (int i = 0; i < 5; i++) {
                assertThrows(OffHeapMemoryException.class, () -> map.put(bytes(-1), value(-1, 1 << 20)));
            }
            drain();
            assertTrue(OverflowRuntime.blocks() <= blocks);
            for (int i = 0; i < stored; i++) {
                assertArrayEquals(value(i, 100_000), read(pinned.get(i).buffer()));
                pinned.get(i).close();
            }
            assertTrue(map.put(bytes(-1), value(-1, 1 << 20)));
            for (int i = 0; i < stored; i++) {
                assertArrayEquals(value(i, 100_000), map.get(bytes(i)));
            }
        }
    }

    @Test
    void randomOperationsAgreeWithAnOracle() throws Exception {
        long seed = TestRuntime.seed("randomOperationsAgreeWithAnOracle");
        try (OffHeapMap map = map()) {
            AtomicReference<Throwable> failure = new AtomicReference<>();
            List<Thread> workers = new ArrayList<>();
            for (int worker = 0; worker < 4; worker++) {
                Random random = new Random(seed + worker);
                int first = worker << 16;
                Thread thread = new Thread(() -> {
                    try {
                        exercise(map, random, first);
                    } catch (Throwable e) {
                        failure.compareAndSet(null, e);
                    }
                });
                thread.start();
                workers.add(thread);
            }
            for (Thread worker : workers) {
                worker.join();
            }
            if (failure.get() != null) {
                throw new AssertionError("seed " + seed, failure.get());
            }
        }
    }

    /** On keys that no other thread uses. */
    private static void exercise(OffHeapMap map, Random random, int first) {
        Map<Integer, byte[]> oracle = new HashMap<>();
        for (int step = 0; step < 6_000; step++) {
            int key = first + random.nextInt(1_500);
            byte[] expected = oracle.get(key);
            int kind = random.nextInt(10);
            byte[] value = value(first + step, random.nextInt(6_000));
            switch (kind) {
                case 0 -> assertEquals(oracle.remove(key) != null, map.remove(bytes(key)));
                case 1 -> {
                    assertEquals(expected != null, map.replace(bytes(key), value));
                    if (expected != null) {
                        oracle.put(key, value);
                    }
                }
                case 2 -> {
                    assertEquals(expected == null, map.putIfAbsent(bytes(key), value));
                    oracle.putIfAbsent(key, value);
                }
                case 3 -> assertEquals(expected != null, map.containsKey(bytes(key)));
                case 4 -> {
                    try (PinnedValue pinned = map.pin(bytes(key))) {
                        assertArrayEquals(expected, pinned == null ? null : read(pinned.buffer()));
                    }
                }
                case 5, 6, 7 -> assertArrayEquals(expected, map.get(bytes(key)));
                default -> {
                    assertEquals(expected == null, map.put(bytes(key), value));
                    oracle.put(key, value);
                }
            }
        }
        oracle.forEach((key, value) -> assertArrayEquals(value, map.get(bytes(key))));
    }
}
