package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;

/**
 * A map of one partition beside a cache on the heap that does what the map promises, under random operations from a
 * printed seed: the same answers, the same victims in the same order, the same bytes counted after every step.
 */
@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class BoundedMapOracleTest {
    private final ManualTicker ticker = new ManualTicker();

    @Test
    void leastRecentlyUsedByEntries() {
        Random random = new Random(TestRuntime.seed("BoundedMapOracleTest.leastRecentlyUsedByEntries"));
        for (int maximum : new int[] {1, 2, 7, 100}) {
            new Model(random, EvictionPolicy.LRU, maximum, 0).run(8_000);
        }
    }

    @Test
    void leastRecentlyUsedByBytes() {
        Random random = new Random(TestRuntime.seed("BoundedMapOracleTest.leastRecentlyUsedByBytes"));
        for (int maximum : new int[] {1_500, 10_000, 60_000}) {
            new Model(random, EvictionPolicy.LRU, 0, maximum).run(8_000);
        }
    }

    @Test
    void leastFrequentlyUsedByEntries() {
        Random random = new Random(TestRuntime.seed("BoundedMapOracleTest.leastFrequentlyUsedByEntries"));
        for (int maximum : new int[] {1, 2, 7, 100}) {
            new Model(random, EvictionPolicy.LFU, maximum, 0).run(8_000);
        }
    }

    @Test
    void leastFrequentlyUsedByBytes() {
        Random random = new Random(TestRuntime.seed("BoundedMapOracleTest.leastFrequentlyUsedByBytes"));
        new Model(random, EvictionPolicy.LFU, 0, 20_000).run(8_000);
    }

    /** One step of the model may be one of the map's, or a whole cache that it turned over. */
    private final class Model {
        private static final int KEYS = 150;

        private final Random random;
        private final EvictionPolicy policy;
        private final long maximumEntries;
        private final long maximumBytes;
        private final List<String> expectedVictims = new ArrayList<>();
        private final List<String> victims = new ArrayList<>();
        private OffHeapMap map;

        /** In the order in which the entries would go. */
        private final List<Entry> queue = new ArrayList<>();

        private long bytes;

        private final class Entry {
            final String key;
            byte[] value;
            long uses;

            Entry(String key, byte[] value) {
                this.key = key;
                this.value = value;
            }
        }

        Model(Random random, EvictionPolicy policy, long maximumEntries, long maximumBytes) {
            this.random = random;
            this.policy = policy;
            this.maximumEntries = maximumEntries == 0 ? Long.MAX_VALUE : maximumEntries;
            this.maximumBytes = maximumBytes == 0 ? Long.MAX_VALUE : maximumBytes;
        }

        void run(int steps) {
            OffHeapMap.Builder options = OffHeapMap.builder()
                    .partitions(1)
                    .evictionPolicy(policy)
                    .evictionListener((key, value, cause) -> {
                        assertEquals(EvictionCause.SIZE, cause);
                        victims.add(new String(key) + " " + value.length);
                    });
            if (maximumEntries != Long.MAX_VALUE) {
                options.maximumEntries(maximumEntries);
            }
            if (maximumBytes != Long.MAX_VALUE) {
                options.maximumBytes(maximumBytes);
            }
            try (OffHeapMap built = options.build()) {
                map = built;
                for (int step = 0; step < steps; step++) {
                    step();
                    assertEquals(expectedVictims, victims);
                    expectedVictims.clear();
                    victims.clear();
                    assertArrayEquals(new long[] {bytes, queue.size()}, figures(map));
                    assertEquals(queue.size(), map.size(0), "entries of the table");
                }
            }
        }

        private void step() {
            String name = "key " + random.nextInt(KEYS);
            byte[] key = TestRuntime.bytes(name);
            Entry entry = find(name);
            switch (random.nextInt(10)) {
                case 0, 1, 2 -> {
                    byte[] value = value();
                    store(name, value);
                    // What had to go first was new again.
                    assertEquals(
                            entry == null || expectedVictims.contains(name + " " + entry.value.length) && gone(entry),
                            map.put(key, value));
                }
                case 3 -> {
                    byte[] value = value();
                    if (entry == null) {
                        store(name, value);
                    }
                    assertEquals(entry == null, map.putIfAbsent(key, value));
                }
                case 4 -> {
                    byte[] value = value();
                    if (entry != null) {
                        store(name, value);
                    }
                    assertEquals(entry != null, map.replace(key, value));
                }
                case 5 -> {
                    if (entry != null) {
                        drop(entry);
                    }
                    assertEquals(entry != null, map.remove(key));
                }
                case 6 -> assertEquals(entry != null, map.containsKey(key));
                case 7 -> {
                    try (PinnedValue pinned = map.pin(key)) {
                        assertEquals(entry != null, pinned != null);
                        if (pinned != null) {
                            assertArrayEquals(entry.value, TestRuntime.read(pinned.buffer()));
                            use(entry);
                        }
                    }
                }
                default -> {
                    assertArrayEquals(entry == null ? null : entry.value, map.get(key));
                    if (entry != null) {
                        use(entry);
                    }
                }
            }
            if (random.nextInt(2_000) == 0) {
                map.clear();
                queue.clear();
                bytes = 0;
            }
        }

        private boolean gone(Entry entry) {
            return !queue.contains(entry);
        }

        private byte[] value() {
            return TestRuntime.random(random, random.nextInt(random.nextInt(10) == 0 ? 900 : 100));
        }

        private Entry find(String key) {
            return queue.stream()
                    .filter(entry -> entry.key.equals(key))
                    .findFirst()
                    .orElse(null);
        }

        private long size(String key, byte[] value) {
            return map.bounded().entryBytes(key.length(), value.length);
        }

        private void drop(Entry entry) {
            queue.remove(entry);
            bytes -= size(entry.key, entry.value);
        }

        private void use(Entry entry) {
            queue.remove(entry);
            entry.uses++;
            place(entry);
        }

        private void place(Entry entry) {
            int at = queue.size();
            if (policy == EvictionPolicy.LFU) {
                at = 0;
                while (at < queue.size() && queue.get(at).uses <= entry.uses) {
                    at++;
                }
            }
            queue.add(at, entry);
        }

        /** Old and new value count together until the old one is free; one, two, four entries go at a time. */
        private void store(String key, byte[] value) {
            for (int step = 1; ; step = Math.min(2 * step, BoundedPartitions.STEP)) {
                Entry entry = find(key);
                long added = entry == null ? size(key, value) : SizeClasses.bufferBytes(value.length);
                if (bytes + added <= maximumBytes && queue.size() + (entry == null ? 1 : 0) <= maximumEntries) {
                    if (entry == null) {
                        bytes += added;
                        place(new Entry(key, value));
                    } else {
                        bytes += added - SizeClasses.bufferBytes(entry.value.length);
                        entry.value = value;
                        use(entry);
                    }
                    return;
                }
                for (int i = 0; i < step && !queue.isEmpty(); i++) {
                    Entry victim = queue.get(0);
                    expectedVictims.add(victim.key + " " + victim.value.length);
                    drop(victim);
                }
            }
        }
    }

    /** Entries with deadlines beside a heap map that forgets them in time. */
    @Test
    void expiryByAManualClock() {
        Random random = new Random(TestRuntime.seed("BoundedMapOracleTest.expiryByAManualClock"));
        for (boolean byAccess : new boolean[] {false, true}) {
            long time = 0;
            OffHeapMap.Builder options = OffHeapMap.builder().partitions(2).ticker(ticker);
            if (byAccess) {
                options.expireAfterAccess(Duration.ofNanos(500));
            } else {
                options.expireAfterWrite(Duration.ofNanos(500));
            }
            Map<String, byte[]> values = new LinkedHashMap<>();
            Map<String, Long> deadlines = new HashMap<>();
            try (OffHeapMap map = options.build()) {
                for (int step = 0; step < 40_000; step++) {
                    long by = random.nextInt(20) == 0 ? random.nextInt(300) : random.nextInt(4);
                    ticker.advance(by);
                    time += by;
                    String name = "key " + random.nextInt(300);
                    byte[] key = TestRuntime.bytes(name);
                    boolean live = deadlines.getOrDefault(name, Long.MIN_VALUE) > time;
                    byte[] value = TestRuntime.random(random, random.nextInt(50));
                    boolean written = false;
                    boolean accessed = false;
                    switch (random.nextInt(8)) {
                        case 0 -> {
                            assertEquals(!live, map.put(key, value));
                            written = true;
                        }
                        case 1 -> {
                            assertEquals(!live, map.putIfAbsent(key, value));
                            written = !live;
                        }
                        case 2 -> {
                            assertEquals(live, map.replace(key, value));
                            written = live;
                        }
                        case 3 -> {
                            assertEquals(live, map.remove(key));
                            deadlines.remove(name);
                        }
                        case 4 -> assertEquals(live, map.containsKey(key));
                        case 5 -> {
                            try (PinnedValue pinned = map.pin(key)) {
                                assertEquals(live, pinned != null);
                                accessed = live;
                            }
                        }
                        default -> {
                            assertArrayEquals(live ? values.get(name) : null, map.get(key));
                            accessed = live;
                        }
                    }
                    if (written) {
                        values.put(name, value);
                    }
                    if (written || accessed && byAccess) {
                        deadlines.put(name, time + 500);
                    }
                    if (step % 2_000 == 0) {
                        compare(map, values, deadlines, time);
                    }
                }
            }
        }
    }

    private static void compare(OffHeapMap map, Map<String, byte[]> values, Map<String, Long> deadlines, long time) {
        Map<String, ByteBuffer> expected = new HashMap<>();
        deadlines.forEach((key, deadline) -> {
            if (deadline > time) {
                expected.put(key, ByteBuffer.wrap(values.get(key)));
            }
        });
        Map<String, ByteBuffer> found = new HashMap<>();
        map.forEach((key, value) -> found.put(new String(key), ByteBuffer.wrap(value)));
        assertEquals(expected, found);
        assertEquals(expected.size(), map.size());
        Map<String, ByteBuffer> changed = new HashMap<>();
        try (ChangeIterator changes = map.changesSince("r", 0)) {
            changes.forEachRemaining(
                    change -> changed.put(new String(change.key()), ByteBuffer.wrap(change.copyValue())));
        }
        assertEquals(expected, changed);
        assertTrue(map.bytesUsed() >= 0);
    }

    /** Bytes and entries as the limits count them. */
    private static long[] figures(OffHeapMap map) {
        return new long[] {map.bytesUsed(), map.size()};
    }
}
