package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.read;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicIntegerArray;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;

/** The map and a plain heap map side by side, under random operations from a printed seed. */
@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OffHeapMapOracleTest {
    private static final int THREADS = 6;

    @Test
    void oneThread() {
        long seed = TestRuntime.seed("OffHeapMapOracleTest.oneThread");
        try (OffHeapMap map = Nimbra.get().newMap()) {
            Walk walk = new Walk(map, seed, 0);
            walk.steps(60_000);
            walk.finish();
            walk.compareAll();
        }
    }

    /** Few partitions and bucket sets, so that chains grow long and tables grow often. */
    @Test
    void oneThreadInACrowdedMap() {
        long seed = TestRuntime.seed("OffHeapMapOracleTest.oneThreadInACrowdedMap");
        try (OffHeapMap map =
                OffHeapMap.builder().partitions(1).bucketSets(1).loadFactor(8).build()) {
            Walk walk = new Walk(map, seed, 0);
            for (int round = 0; round < 3; round++) {
                walk.steps(10_000);
                walk.compareAll();
                walk.clear();
            }
            walk.finish();
        }
    }

    /** Every thread owns its keys and compares with its own oracle; they meet in tables, queues and locks. */
    @Test
    void manyThreadsWithKeysOfTheirOwn() throws Exception {
        long seed = TestRuntime.seed("OffHeapMapOracleTest.manyThreadsWithKeysOfTheirOwn");
        try (OffHeapMap map = OffHeapMap.builder().partitions(2).bucketSets(2).build()) {
            List<Walk> walks = new ArrayList<>();
            for (int thread = 0; thread < THREADS; thread++) {
                walks.add(new Walk(map, seed, thread));
            }
            inParallel(thread -> {
                walks.get(thread).steps(15_000);
                walks.get(thread).finish();
            });
            Map<ByteBuffer, ByteBuffer> expected = new HashMap<>();
            for (Walk walk : walks) {
                expected.putAll(walk.oracle);
            }
            assertEquals(expected.size(), map.size());
            assertContents(expected, map);
        }
    }

    /**
     * All threads use the same keys. Nobody can foretell a single answer, but for each key the insertions and removals
     * that reported success balance, and every value read belongs to its key and is whole.
     */
    @Test
    void manyThreadsWithSharedKeys() throws Exception {
        long seed = TestRuntime.seed("OffHeapMapOracleTest.manyThreadsWithSharedKeys");
        int keys = 40;
        AtomicIntegerArray present = new AtomicIntegerArray(keys);
        try (OffHeapMap map = OffHeapMap.builder().partitions(2).build()) {
            inParallel(thread -> {
                Random random = new Random(seed + thread);
                for (int step = 0; step < 15_000; step++) {
                    int number = random.nextInt(keys);
                    byte[] key = TestRuntime.bytes(number);
                    switch (random.nextInt(7)) {
                        case 0, 1 -> {
                            if (map.put(key, signed(random, number))) {
                                present.incrementAndGet(number);
                            }
                        }
                        case 2 -> {
                            if (map.putIfAbsent(key, signed(random, number))) {
                                present.incrementAndGet(number);
                            }
                        }
                        case 3 -> map.replace(key, signed(random, number));
                        case 4 -> {
                            if (map.remove(key)) {
                                present.decrementAndGet(number);
                            }
                        }
                        case 5 -> {
                            byte[] value = map.get(key);
                            if (value != null) {
                                checkSigned(number, value);
                            }
                        }
                        default -> {
                            try (PinnedValue pinned = map.pin(key)) {
                                if (pinned != null) {
                                    checkSigned(number, read(pinned.buffer()));
                                }
                            }
                        }
                    }
                }
            });
            long entries = 0;
            for (int number = 0; number < keys; number++) {
                byte[] value = map.get(TestRuntime.bytes(number));
                assertEquals(value == null ? 0 : 1, present.get(number), "key " + number);
                if (value != null) {
                    checkSigned(number, value);
                    entries++;
                }
            }
            assertEquals(entries, map.size());
        }
    }

    private interface ThreadBody {
        void run(int thread);
    }

    private static void inParallel(ThreadBody body) throws Exception {
        ExecutorService threads = Executors.newFixedThreadPool(THREADS);
        try {
            List<Future<?>> results = new ArrayList<>();
            for (int i = 0; i < THREADS; i++) {
                int thread = i;
                results.add(threads.submit(() -> body.run(thread)));
            }
            for (Future<?> result : results) {
                result.get();
            }
        } finally {
            threads.shutdownNow();
        }
    }

    /** A value that carries its key, its length and a checksum. */
    private static byte[] signed(Random random, int number) {
        byte[] value = TestRuntime.random(random, 16 + random.nextInt(600));
        ByteBuffer.wrap(value).putInt(number).putInt(value.length).putLong(checksum(value));
        return value;
    }

    private static void checkSigned(int number, byte[] value) {
        ByteBuffer fields = ByteBuffer.wrap(value);
        assertEquals(number, fields.getInt());
        assertEquals(value.length, fields.getInt());
        assertEquals(checksum(value), fields.getLong());
    }

    private static long checksum(byte[] value) {
        long sum = 1;
        for (int i = 16; i < value.length; i++) {
            sum = 31 * sum + value[i];
        }
        return sum;
    }

    /** Walks over the map: every entry of the oracle comes once, with its value, and no other does. */
    private static void assertContents(Map<ByteBuffer, ByteBuffer> oracle, OffHeapMap map) {
        Map<ByteBuffer, ByteBuffer> missing = new HashMap<>(oracle);
        map.forEach((key, value) -> {
            ByteBuffer expected = missing.remove(ByteBuffer.wrap(key));
            assertNotNull(expected, () -> "seen twice or never stored: " + Arrays.toString(key));
            assertArrayEquals(expected.array(), value);
        });
        assertEquals(0, missing.size(), "entries that the walk did not show");
    }

    /** Random operations on keys that no other walk uses, each answer compared with the oracle's. */
    private static final class Walk {
        private static final int KEYS = 3_000;
        private static final int PINS = 40;

        private final OffHeapMap map;
        private final int owner;
        private final Random random;
        private final Map<ByteBuffer, ByteBuffer> oracle = new HashMap<>();
        private final PinnedValue[] pins = new PinnedValue[PINS];
        private final byte[][] pinnedBytes = new byte[PINS][];

        Walk(OffHeapMap map, long seed, int owner) {
            this.map = map;
            this.owner = owner;
            this.random = new Random(seed ^ owner * 0x9e3779b97f4a7c15L);
        }

        void steps(int count) {
            for (int step = 0; step < count; step++) {
                byte[] key = key(random.nextInt(KEYS));
                ByteBuffer oracleKey = ByteBuffer.wrap(key);
                switch (random.nextInt(10)) {
                    case 0, 1, 2 -> {
                        byte[] value = value();
                        assertEquals(oracle.put(oracleKey, ByteBuffer.wrap(value)) == null, map.put(key, value));
                    }
                    case 3 -> {
                        byte[] value = value();
                        assertEquals(
                                oracle.putIfAbsent(oracleKey, ByteBuffer.wrap(value)) == null,
                                map.putIfAbsent(key, value));
                    }
                    case 4 -> {
                        byte[] value = value();
                        assertEquals(
                                oracle.replace(oracleKey, ByteBuffer.wrap(value)) != null, map.replace(key, value));
                    }
                    case 5, 6 -> assertEquals(oracle.remove(oracleKey) != null, map.remove(key));
                    case 7 -> assertEquals(oracle.containsKey(oracleKey), map.containsKey(key));
                    case 8 -> compare(key);
                    default -> pin(random.nextInt(PINS), key);
                }
            }
        }

        /** Swaps one held pin for another: whatever happened to its entry, it has to show the bytes it showed first. */
        private void pin(int place, byte[] key) {
            release(place);
            pins[place] = map.pin(key);
            ByteBuffer expected = oracle.get(ByteBuffer.wrap(key));
            assertEquals(expected == null, pins[place] == null);
            pinnedBytes[place] = expected == null ? null : expected.array();
        }

        private void release(int place) {
            if (pins[place] != null) {
                assertArrayEquals(pinnedBytes[place], read(pins[place].buffer()));
                pins[place].close();
                pins[place] = null;
            }
        }

        private void compare(byte[] key) {
            ByteBuffer expected = oracle.get(ByteBuffer.wrap(key));
            assertArrayEquals(expected == null ? null : expected.array(), map.get(key));
        }

        void finish() {
            for (int place = 0; place < PINS; place++) {
                release(place);
            }
        }

        void clear() {
            map.clear();
            oracle.clear();
            assertEquals(0, map.size());
        }

        void compareAll() {
            assertEquals(oracle.size(), map.size());
            for (int number = 0; number < KEYS; number++) {
                compare(key(number));
            }
            assertContents(oracle, map);
            long payload = 0;
            for (Map.Entry<ByteBuffer, ByteBuffer> entry : oracle.entrySet()) {
                payload += entry.getKey().capacity() + entry.getValue().capacity();
            }
            assertTrue(map.bytesUsed() >= payload, map.bytesUsed() + " bytes for " + payload);
        }

        /** Of 5 to 60 bytes, the same for the same number. */
        private byte[] key(int number) {
            byte[] key = new byte[5 + number % 56];
            ByteBuffer.wrap(key).put((byte) owner).putInt(number);
            return key;
        }

        private byte[] value() {
            int length = random.nextInt(200) == 0 ? random.nextInt(100_000) : random.nextInt(300);
            return TestRuntime.random(random, length);
        }
    }
}
