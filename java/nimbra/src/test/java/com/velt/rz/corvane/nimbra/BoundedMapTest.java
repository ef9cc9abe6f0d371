package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.RejectedExecutionException;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.api.function.Executable;

@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class BoundedMapTest {
    private final List<String> evicted = new ArrayList<>();
    private final ManualTicker ticker = new ManualTicker();

    private OffHeapMap.Builder options() {
        return OffHeapMap.builder().name("cache").partitions(1);
    }

    private OffHeapMap.Builder listening() {
        return options()
                .ticker(ticker)
                .evictionListener(
                        (key, value, cause) -> evicted.add(new String(key) + "=" + new String(value) + " " + cause));
    }

    private static void put(OffHeapMap map, String... keys) {
        for (String key : keys) {
            map.put(bytes(key), bytes(key.toUpperCase()));
        }
    }

    private List<String> evictedOnce() {
        List<String> result = List.copyOf(evicted);
        evicted.clear();
        return result;
    }

    @Test
    void leastRecentlyUsedMakesRoom() {
        try (OffHeapMap map = listening().maximumEntries(3).build()) {
            put(map, "a", "b", "c");
            assertNotNull(map.get(bytes("a")));
            assertTrue(map.containsKey(bytes("b")), "a look at the key is no use");
            put(map, "d");
            assertEquals(List.of("b=B SIZE"), evictedOnce());
            map.pin(bytes("c")).close();
            map.replace(bytes("a"), bytes("A2"));
            put(map, "e");
            assertEquals(List.of("d=D SIZE"), evictedOnce());
            assertFalse(map.putIfAbsent(bytes("c"), bytes("no")));
            put(map, "f", "g", "h");
            assertEquals(List.of("c=C SIZE", "a=A2 SIZE", "e=E SIZE"), evictedOnce());
            assertEquals(3, map.size());
            assertEquals(new MapStatistics(2, 0, 9, 0, 5, 0), map.statistics());
            assertEquals(5, map.statistics().evictions(EvictionCause.SIZE));
            assertEquals(0, map.statistics().evictions(EvictionCause.EXPIRED));
        }
    }

    @Test
    void leastFrequentlyUsedMakesRoom() {
        try (OffHeapMap map =
                listening().maximumEntries(3).evictionPolicy(EvictionPolicy.LFU).build()) {
            put(map, "a", "b", "c");
            for (String key : List.of("a", "a", "c")) {
                map.get(bytes(key));
            }
            put(map, "d");
            assertEquals(List.of("b=B SIZE"), evictedOnce());
            put(map, "e");
            assertEquals(List.of("d=D SIZE"), evictedOnce());
            put(map, "e", "e");
            put(map, "f");
            assertEquals(List.of("c=C SIZE"), evictedOnce());
        }
    }

    @Test
    void replacingInAFullMapEvictsNothing() {
        try (OffHeapMap map = listening().maximumEntries(2).build()) {
            put(map, "a", "b");
            for (int i = 0; i < 100; i++) {
                assertFalse(map.put(bytes("a"), new byte[i]));
                assertTrue(map.replace(bytes("b"), new byte[i]));
            }
            assertEquals(List.of(), evicted);
        }
    }

    @Test
    void oversizedEntryIsRefusedAndEvictsNothing() {
        try (OffHeapMap map = listening().maximumBytes(10_000).build()) {
            put(map, "a", "b", "c");
            long[] before = figures(map);
            List<Executable> attempts = List.of(
                    () -> map.put(bytes("big"), new byte[10_000]),
                    () -> map.put(bytes("a"), new byte[10_000]),
                    () -> map.replace(bytes("a"), new byte[20_000]),
                    () -> map.putIfAbsent(bytes("big"), new byte[50_000_000]),
                    () -> map.put(new byte[60_000], new byte[0]));
            for (Executable attempt : attempts) {
                String message =
                        assertThrows(OffHeapMemoryException.class, attempt).getMessage();
                assertTrue(
                        message.contains(" more than the map's limit of 10000; nothing was evicted for it"), message);
            }
            assertEquals(List.of(), evicted);
            assertArrayEquals(before, figures(map));
            assertArrayEquals(bytes("A"), map.get(bytes("a")));
        }
    }

    /** The greatest value that is let in fits, and takes the place of all others; one byte more is refused. */
    @Test
    void greatestValueThatFits() {
        try (OffHeapMap map = listening().maximumBytes(10_000).build()) {
            int length = 1;
            while (true) {
                evicted.clear();
                put(map, "a", "b");
                try {
                    map.put(bytes("c"), new byte[length]);
                } catch (OffHeapMemoryException e) {
                    break;
                }
                assertTrue(map.containsKey(bytes("c")));
                assertTrue(map.bytesUsed() <= 10_000);
                length++;
            }
            assertTrue(length > 7_000 && length < 10_000, "refused at " + length);
            assertTrue(evicted.size() <= 1, "the refused put itself evicted nothing: " + evicted.size());
        }
    }

    /** A value of more than half the limit replaces its like, which has to go first: old and new do not fit together. */
    @Test
    void largeValueIsReplaced() {
        for (EvictionPolicy policy : EvictionPolicy.values()) {
            try (OffHeapMap map =
                    listening().maximumBytes(100_000).evictionPolicy(policy).build()) {
                byte[] value = new byte[60_000];
                assertTrue(map.put(bytes("a"), value));
                value[0] = 1;
                assertTrue(map.replace(bytes("a"), value));
                assertArrayEquals(value, map.get(bytes("a")));
                value[0] = 2;
                map.put(bytes("a"), value);
                assertArrayEquals(value, map.get(bytes("a")));
                assertEquals(1, map.size());
                assertFalse(map.replace(bytes("b"), value));
            }
        }
    }

    /** What is told beforehand of an entry's size is what the bound counts. */
    @Test
    void sizesAreToldExactly() {
        try (OffHeapMap map = options().maximumBytes(1L << 40).build()) {
            for (int length = 0; length < 70_000; length += length < 600 ? 1 : 97) {
                byte[] key = new byte[Math.min(length, OffHeapMap.MAX_KEY_LENGTH)];
                long told = map.bounded().entryBytes(key.length, length);
                map.put(key, new byte[length]);
                assertEquals(told, map.bytesUsed(), "key of " + key.length + ", value of " + length);
                map.remove(key);
                assertArrayEquals(new long[2], figures(map));
            }
            long told = map.bounded().entryBytes(3, 40_000_000);
            map.put(bytes("big"), new byte[40_000_000]);
            assertEquals(told, map.bytesUsed());
        }
    }

    @Test
    void bothLimitsTogether() {
        try (OffHeapMap map =
                listening().maximumBytes(50_000).maximumEntries(10).build()) {
            for (int i = 0; i < 100; i++) {
                map.put(bytes(i), new byte[10]);
                assertTrue(map.size() <= 10);
            }
            assertEquals(90, evictedOnce().size());
            map.put(bytes(100), new byte[30_000]);
            map.put(bytes(101), new byte[30_000]);
            assertFalse(map.containsKey(bytes(100)));
            assertTrue(map.bytesUsed() <= 50_000);
        }
    }

    /** Room is found in other partitions when the own one has nothing to give. */
    @Test
    void otherPartitionsMakeRoom() {
        try (OffHeapMap map = listening().partitions(16).maximumEntries(1).build()) {
            for (int i = 0; i < 500; i++) {
                assertTrue(map.put(bytes("" + i), bytes("v")));
                assertEquals(1, map.size());
            }
            assertEquals(499, evicted.size());
        }
    }

    @Test
    void expiresAfterWrite() {
        try (OffHeapMap map =
                listening().expireAfterWrite(Duration.ofNanos(100)).build()) {
            put(map, "a");
            ticker.advance(60);
            put(map, "b");
            assertNotNull(map.get(bytes("a")));
            ticker.advance(39);
            assertNotNull(map.get(bytes("a")));
            ticker.advance(1);
            assertNull(map.get(bytes("a")), "the hit did not put the end off");
            assertEquals(List.of("a=A EXPIRED"), evictedOnce());
            assertNotNull(map.get(bytes("b")));
            map.replace(bytes("b"), bytes("B2"));
            ticker.advance(99);
            assertTrue(map.containsKey(bytes("b")));
            ticker.advance(1);
            assertFalse(map.containsKey(bytes("b")));
            assertNull(map.pin(bytes("b")));
            assertEquals(List.of("b=B2 EXPIRED"), evictedOnce());
            assertEquals(0, map.size());
            assertEquals(new MapStatistics(3, 2, 3, 0, 0, 2), map.statistics());
        }
    }

    /** Deadlines are rounded, so that writers who overtake each other mostly give the same one; never to a later time. */
    @Test
    void deadlinesAreRoundedDown() {
        long life = 4_096_000;
        try (OffHeapMap map = options()
                .ticker(ticker)
                .expireAfterWrite(Duration.ofNanos(life))
                .build()) {
            for (int i = 0; i < 3_000; i += 37) {
                put(map, "a");
                ticker.advance(life - 1_000);
                assertTrue(map.containsKey(bytes("a")));
                ticker.advance(1_000);
                assertFalse(map.containsKey(bytes("a")));
                ticker.advance(i);
            }
        }
    }

    @Test
    void expiresAfterAccess() {
        try (OffHeapMap map =
                listening().expireAfterAccess(Duration.ofNanos(100)).build()) {
            put(map, "a", "b", "c");
            for (int i = 0; i < 5; i++) {
                ticker.advance(60);
                assertNotNull(map.get(bytes("a")));
                map.pin(bytes("b")).close();
                assertEquals(i == 0, map.containsKey(bytes("c")));
            }
            ticker.advance(100);
            assertNull(map.get(bytes("a")));
            assertFalse(map.remove(bytes("b")));
            assertEquals(List.of("c=C EXPIRED", "a=A EXPIRED", "b=B EXPIRED"), evictedOnce());
        }
    }

    /** Every method treats an expired entry as one that is not there, before anybody has collected it. */
    @Test
    void expiredEntryIsAbsentForEveryMethod() {
        try (OffHeapMap map =
                options().ticker(ticker).expireAfterWrite(Duration.ofNanos(100)).build()) {
            Runnable expire = () -> {
                put(map, "a");
                ticker.advance(100);
                assertEquals(1, map.size());
            };
            expire.run();
            assertNull(map.get(bytes("a")));
            expire.run();
            assertNull(map.pin(bytes("a")));
            expire.run();
            assertFalse(map.containsKey(bytes("a")));
            assertFalse(map.remove(bytes("a")));
            expire.run();
            assertTrue(map.put(bytes("a"), bytes("A")));
            ticker.advance(100);
            assertTrue(map.putIfAbsent(bytes("a"), bytes("A")));
            ticker.advance(100);
            assertFalse(map.replace(bytes("a"), bytes("A")));
            expire.run();
            map.forEach((key, value) -> {
                throw new AssertionError("shown although expired");
            });
            expire.run();
            try (ChangeIterator changes = map.changesSince(0)) {
                assertFalse(changes.hasNext());
            }
            assertEquals(0, map.size());
        }
    }

    /** Writes to other keys collect what has expired, in every partition. */
    @Test
    void writesCollectTheExpired() {
        try (OffHeapMap map = listening()
                .partitions(4)
                .expireAfterWrite(Duration.ofNanos(100))
                .build()) {
            for (int i = 0; i < 1_000; i++) {
                map.put(bytes("old " + i), bytes("v"));
            }
            ticker.advance(100);
            for (int i = 0; i < 20_000 && map.statistics().expirations() < 1_000; i++) {
                map.put(bytes("new"), bytes("v"));
            }
            assertEquals(1_000, map.statistics().expirations());
            assertEquals(1_000, evicted.size());
            assertEquals(1, map.size());
        }
    }

    @Test
    void limitAndExpiryTogether() {
        try (OffHeapMap map = listening()
                .maximumEntries(2)
                .expireAfterWrite(Duration.ofNanos(100))
                .build()) {
            put(map, "a");
            ticker.advance(50);
            put(map, "b");
            ticker.advance(50);
            map.containsKey(bytes("b"));
            put(map, "c");
            assertEquals(List.of("a=A EXPIRED"), evictedOnce());
            put(map, "d");
            assertEquals(List.of("b=B SIZE"), evictedOnce());
        }
    }

    @Test
    void listenerThatThrowsDisturbsNothing() {
        try (OffHeapMap map = options()
                .maximumEntries(1)
                .evictionListener((key, value, cause) -> {
                    evicted.add(new String(key));
                    throw new IllegalStateException("thrown on purpose by a test's listener");
                })
                .build()) {
            put(map, "a", "b", "c");
            assertEquals(List.of("a", "b"), evicted);
            assertEquals(1, map.size());
        }
    }

    /** A listener that writes to the same map makes room in its turn; the copies it holds are its own. */
    @Test
    void listenerMayUseTheMap() {
        OffHeapMap[] held = new OffHeapMap[1];
        try (OffHeapMap map = options()
                .maximumEntries(2)
                .evictionListener((key, value, cause) -> {
                    evicted.add(new String(key) + "=" + new String(value));
                    if (key.length == 1) {
                        held[0].put(bytes("second " + new String(key)), value);
                    }
                })
                .build()) {
            held[0] = map;
            put(map, "a", "b", "c", "d", "e");
            assertEquals(2, map.size());
            assertTrue(evicted.contains("a=A") && evicted.contains("b=B"), evicted.toString());
        }
    }

    @Test
    void clearAndCloseTellNobody() {
        try (OffHeapMap map = listening()
                .maximumEntries(5)
                .expireAfterWrite(Duration.ofNanos(10))
                .build()) {
            put(map, "a", "b", "c");
            map.clear();
            assertArrayEquals(new long[2], figures(map));
            put(map, "a", "b", "c", "d", "e", "f");
            assertEquals(List.of("a=A SIZE"), evictedOnce());
            assertTrue(map.remove(bytes("b")));
            assertEquals(1, map.statistics().removals());
        }
        assertEquals(List.of(), evicted);
    }

    /** An evicted value that somebody has pinned stays readable. */
    @Test
    void pinnedValueOutlivesItsEviction() {
        try (OffHeapMap map = options().maximumEntries(1).build()) {
            put(map, "a");
            try (PinnedValue pinned = map.pin(bytes("a"))) {
                put(map, "b");
                assertNull(map.get(bytes("a")));
                assertArrayEquals(bytes("A"), TestRuntime.read(pinned.buffer()));
            }
        }
    }

    @Test
    void executorKeepsRoom() {
        Deque<Runnable> tasks = new ArrayDeque<>();
        try (OffHeapMap map =
                listening().maximumEntries(128).executor(tasks::add).build()) {
            for (int i = 0; i < 127; i++) {
                map.put(bytes(i), bytes("v"));
            }
            assertEquals(1, tasks.size(), "asked for once while the task waits");
            assertEquals(0, evicted.size());
            tasks.remove().run();
            assertEquals(124, map.size(), "a 32nd is free");
            assertEquals(3, evicted.size());
            tasks.clear();
            // A task that comes too late finds the map closed.
            for (int i = 300; tasks.isEmpty(); i++) {
                map.put(bytes(i), bytes("v"));
            }
        }
        tasks.remove().run();
    }

    @Test
    void executorCollectsTheExpired() {
        Deque<Runnable> tasks = new ArrayDeque<>();
        try (OffHeapMap map = listening()
                .partitions(8)
                .expireAfterWrite(Duration.ofNanos(1_000))
                .executor(tasks::add)
                .build()) {
            for (int i = 0; i < 500; i++) {
                map.put(bytes(i), bytes("v"));
            }
            ticker.advance(1_000);
            assertNull(map.get(bytes(0)));
            while (!tasks.isEmpty()) {
                tasks.remove().run();
            }
            assertEquals(500, map.statistics().expirations());
            assertEquals(0, map.size());
        }
    }

    @Test
    void executorThatRefusesDisturbsNothing() {
        try (OffHeapMap map = listening()
                .maximumEntries(100)
                .executor(task -> {
                    throw new RejectedExecutionException("refused on purpose by a test's executor");
                })
                .build()) {
            for (int i = 0; i < 150; i++) {
                map.put(bytes(i), bytes("v"));
            }
            assertEquals(100, map.size());
        }
    }

    @Test
    void executorOnTheCallingThread() {
        try (OffHeapMap map =
                listening().maximumEntries(1_000).executor(Runnable::run).build()) {
            for (int i = 0; i < 5_000; i++) {
                map.put(bytes(i), bytes("v"));
                assertTrue(map.size() <= 1_000);
            }
            assertEquals(5_000 - map.size(), evicted.size());
        }
    }

    /** The maximum of the process refuses memory: entries go until there is enough. */
    @Test
    void processLimitEvicts() {
        byte[] value = new byte[60_000];
        try (OffHeapMap map = listening().maximumEntries(100_000).loadFactor(64).build()) {
            for (int i = 0; i < 100; i++) {
                map.put(bytes(i), value);
            }
            // Less than what is in use, so that every request is refused by the first check.
            long maximum = Nimbra.get().stats().bytesInUse() - 1_000_000;
            TestRuntime.withMaximum(maximum, () -> {
                for (int i = 100; i < 120; i++) {
                    assertTrue(map.put(bytes(i), value));
                    assertArrayEquals(value, map.get(bytes(i)));
                }
                assertTrue(Nimbra.get().stats().bytesInUse() <= maximum);
                assertTrue(evicted.size() >= 30 && evicted.size() < 70, evicted.size() + " evicted");
                assertNull(map.get(bytes(0)), "the oldest went first");
            });
            for (long late = map.bounded().lateRefusals(); late > 0; late--) {
                LeakCheck.refusedAfterAllocation();
            }
        }
    }

    @Test
    void processLimitWithNothingToEvict() {
        try (OffHeapMap map = listening().maximumEntries(10).build()) {
            put(map, "a", "b", "c");
            TestRuntime.withMaximum(
                    100_000,
                    () -> assertThrows(OffHeapMemoryException.class, () -> map.put(bytes("x"), new byte[200_000])));
            assertEquals(List.of(), evicted, "nothing goes for what can never fit");
            TestRuntime.withMaximum(
                    1_000, () -> assertThrows(OffHeapMemoryException.class, () -> map.put(bytes("x"), bytes("X"))));
            assertEquals(0, map.size());
            assertEquals(3, evicted.size());
            assertEquals(0, map.bounded().lateRefusals());
            put(map, "a");
            assertEquals(1, map.size());
        }
    }

    @Test
    void buildingIsRefusedWithoutMemory() {
        TestRuntime.withMaximum(
                1_000,
                () -> assertThrows(
                        OffHeapMemoryException.class,
                        () -> options().maximumEntries(10).build()));
    }

    @Test
    void statisticsAlone() {
        try (OffHeapMap map = options().recordStatistics().build()) {
            put(map, "a", "b", "a");
            map.putIfAbsent(bytes("a"), bytes("no"));
            map.replace(bytes("x"), bytes("no"));
            map.get(bytes("a"));
            map.get(bytes("x"));
            assertNull(map.pin(bytes("x")));
            map.remove(bytes("b"));
            map.remove(bytes("b"));
            assertEquals(new MapStatistics(1, 2, 3, 1, 0, 0), map.statistics());
        }
        try (OffHeapMap map = options().build()) {
            assertEquals(
                    "map \"cache\" records no statistics",
                    assertThrows(IllegalStateException.class, map::statistics).getMessage());
        }
    }

    @Test
    void closedMapSaysSo() {
        OffHeapMap map = listening().maximumEntries(3).build();
        put(map, "a");
        map.close();
        map.close();
        List<Executable> calls = List.of(
                () -> map.put(bytes("a"), bytes("a")),
                () -> map.putIfAbsent(bytes("a"), bytes("a")),
                () -> map.replace(bytes("a"), bytes("a")),
                () -> map.get(bytes("a")),
                () -> map.pin(bytes("a")),
                () -> map.remove(bytes("a")),
                () -> map.containsKey(bytes("a")),
                map::size,
                map::bytesUsed,
                map::clear,
                () -> map.forEach((key, value) -> {}),
                () -> map.changesSince(0));
        for (Executable call : calls) {
            String message = assertThrows(IllegalStateException.class, call).getMessage();
            assertTrue(message.startsWith("map \"cache\" is closed: no "), message);
        }
        assertEquals(1, map.statistics().puts());
    }

    @Test
    void optionsAreChecked() {
        OffHeapMap.Builder builder = OffHeapMap.builder();
        assertThrows(IllegalArgumentException.class, () -> builder.maximumEntries(0));
        assertThrows(IllegalArgumentException.class, () -> builder.maximumBytes(-1));
        assertEquals(
                "expireAfterWrite is PT0S, has to be longer than nothing",
                assertThrows(IllegalArgumentException.class, () -> builder.expireAfterWrite(Duration.ZERO))
                        .getMessage());
        assertThrows(IllegalArgumentException.class, () -> builder.expireAfterAccess(Duration.ofSeconds(-1)));
        assertThrows(NullPointerException.class, () -> builder.evictionPolicy(null));
        assertThrows(NullPointerException.class, () -> builder.evictionListener(null));
        assertThrows(NullPointerException.class, () -> builder.executor(null));
        assertThrows(NullPointerException.class, () -> builder.ticker(null));
        assertThrows(IllegalStateException.class, () -> OffHeapMap.builder()
                .expireAfterWrite(Duration.ofSeconds(1))
                .expireAfterAccess(Duration.ofSeconds(1))
                .build());
        assertThrows(IllegalStateException.class, () -> OffHeapMap.builder()
                .evictionListener((key, value, cause) -> {})
                .build());
        assertThrows(
                IllegalStateException.class,
                () -> OffHeapMap.builder().executor(Runnable::run).build());
        try (OffHeapMap map = options()
                .expireAfterWrite(Duration.ofDays(1_000_000))
                .ticker(ticker)
                .build()) {
            put(map, "a");
            ticker.advance(Long.MAX_VALUE / 4);
            assertTrue(map.containsKey(bytes("a")));
        }
    }

    @Test
    void emptyKeysAndValues() {
        try (OffHeapMap map = options().maximumEntries(1).build()) {
            assertTrue(map.put(new byte[0], new byte[0]));
            assertTrue(Arrays.equals(new byte[0], map.get(new byte[0])));
            assertTrue(map.put(new byte[OffHeapMap.MAX_KEY_LENGTH], new byte[0]));
            assertNull(map.get(new byte[0]));
        }
    }

    /** Bytes and entries as the limits count them. */
    private static long[] figures(OffHeapMap map) {
        return new long[] {map.bytesUsed(), map.size()};
    }
}
