package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.api.function.Executable;

@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OffHeapMapTest {
    private static final byte[] KEY = bytes("key");

    @Test
    void answersOfEveryOperation() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            assertNull(map.get(KEY));
            assertNull(map.pin(KEY));
            assertFalse(map.containsKey(KEY));
            assertFalse(map.remove(KEY));
            assertFalse(map.replace(KEY, bytes("no")));
            assertEquals(0, map.size());
            assertEquals(0, map.bytesUsed());

            assertTrue(map.put(KEY, bytes("one")));
            assertArrayEquals(bytes("one"), map.get(KEY));
            assertFalse(map.put(KEY, bytes("two")));
            assertArrayEquals(bytes("two"), map.get(KEY));
            assertFalse(map.putIfAbsent(KEY, bytes("three")));
            assertArrayEquals(bytes("two"), map.get(KEY));
            assertTrue(map.replace(KEY, bytes("four, longer than before")));
            assertArrayEquals(bytes("four, longer than before"), map.get(KEY));
            assertTrue(map.containsKey(KEY));
            assertEquals(1, map.size());
            assertTrue(map.bytesUsed() >= KEY.length + 24);

            assertTrue(map.remove(KEY));
            assertNull(map.get(KEY));
            assertTrue(map.putIfAbsent(KEY, bytes("five")));
            assertArrayEquals(bytes("five"), map.get(KEY));
            assertTrue(map.remove(KEY));
            assertEquals(0, map.size());
            assertEquals(0, map.bytesUsed());
        }
    }

    @Test
    void keysAndValuesAreOpaqueBytes() {
        byte[][] keys = {
            {},
            {0},
            {0, 0},
            {0, 1},
            {-1},
            {-128, 127},
            new byte[7],
            new byte[8],
            new byte[9],
            new byte[15],
            new byte[16]
        };
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (int i = 0; i < keys.length; i++) {
                assertTrue(map.put(keys[i], Arrays.copyOf(keys[i], i % 3 == 0 ? 0 : i)), "key " + i);
            }
            assertEquals(keys.length, map.size());
            for (int i = 0; i < keys.length; i++) {
                assertArrayEquals(Arrays.copyOf(keys[i], i % 3 == 0 ? 0 : i), map.get(keys[i]), "key " + i);
            }
        }
    }

    @Test
    void arraysAreCopied() {
        byte[] key = bytes("key");
        byte[] value = bytes("value");
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(key, value);
            Arrays.fill(key, (byte) 0);
            Arrays.fill(value, (byte) 0);
            byte[] first = map.get(KEY);
            assertArrayEquals(bytes("value"), first);
            Arrays.fill(first, (byte) 0);
            assertArrayEquals(bytes("value"), map.get(KEY));
        }
    }

    @Test
    void longestKeyAndLargeValue() {
        byte[] key = new byte[OffHeapMap.MAX_KEY_LENGTH];
        key[key.length - 1] = 1;
        byte[] value = new byte[5_000_001];
        value[0] = 2;
        value[value.length - 1] = 3;
        try (OffHeapMap map = Nimbra.get().newMap()) {
            assertTrue(map.put(key, value));
            assertArrayEquals(value, map.get(key));
            key[key.length - 1] = 0;
            assertNull(map.get(key));
        }
    }

    @Test
    void nullsAreNamed() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (Map.Entry<String, Executable> call : keyCalls(map, null).entrySet()) {
                NullPointerException refused = assertThrows(NullPointerException.class, call.getValue(), call.getKey());
                assertEquals("key", refused.getMessage(), call.getKey());
            }
            List<Executable> valueCalls =
                    List.of(() -> map.put(KEY, null), () -> map.putIfAbsent(KEY, null), () -> map.replace(KEY, null));
            for (Executable call : valueCalls) {
                assertEquals(
                        "value", assertThrows(NullPointerException.class, call).getMessage());
            }
            assertEquals(
                    "consumer",
                    assertThrows(NullPointerException.class, () -> map.forEach(null))
                            .getMessage());
            assertEquals(0, map.size());
        }
    }

    @Test
    void oversizedKeyIsNamed() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (Map.Entry<String, Executable> call :
                    keyCalls(map, new byte[65_536]).entrySet()) {
                IllegalArgumentException refused =
                        assertThrows(IllegalArgumentException.class, call.getValue(), call.getKey());
                assertEquals("key has 65536 bytes, at most 65535", refused.getMessage(), call.getKey());
            }
            assertEquals(0, map.size());
        }
    }

    @Test
    void valueOverTheMaximumIsNamed() {
        try (OffHeapMap map = OffHeapMap.builder().maximumValueLength(100).build()) {
            assertTrue(map.put(KEY, new byte[100]));
            List<Executable> calls = List.of(
                    () -> map.put(KEY, new byte[101]),
                    () -> map.putIfAbsent(KEY, new byte[101]),
                    () -> map.replace(KEY, new byte[101]));
            for (Executable call : calls) {
                assertEquals(
                        "value has 101 bytes, at most 100",
                        assertThrows(IllegalArgumentException.class, call).getMessage());
            }
            assertEquals(100, map.get(KEY).length);
        }
    }

    @Test
    void everyUseAfterCloseNamesMapAndOperation() {
        OffHeapMap map = OffHeapMap.builder().name("sessions").build();
        map.put(KEY, KEY);
        map.close();
        map.close();
        Map<String, Executable> calls = keyCalls(map, KEY);
        calls.put("size", map::size);
        calls.put("bytesUsed", map::bytesUsed);
        calls.put("forEach", () -> map.forEach((key, value) -> {}));
        calls.put("clear", map::clear);
        for (Map.Entry<String, Executable> call : calls.entrySet()) {
            assertEquals(
                    "map \"sessions\" is closed: no " + call.getKey(),
                    assertThrows(IllegalStateException.class, call.getValue(), call.getKey())
                            .getMessage());
        }
        assertEquals("sessions", map.name());
    }

    @Test
    void forEachShowsEveryEntryOnce() {
        Map<ByteBuffer, ByteBuffer> expected = new HashMap<>();
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.forEach((key, value) -> {
                throw new AssertionError("an entry in an empty map");
            });
            for (int i = 0; i < 10_000; i++) {
                byte[] key = bytes("key " + i);
                byte[] value = bytes("value of " + i);
                map.put(key, value);
                expected.put(ByteBuffer.wrap(key), ByteBuffer.wrap(value));
            }
            map.forEach((key, value) -> assertEquals(ByteBuffer.wrap(value), expected.remove(ByteBuffer.wrap(key))));
            assertEquals(0, expected.size());
        }
    }

    /** With a high load factor one bucket holds more entries than a step of the walk has room for. */
    @Test
    void forEachCopesWithCrowdedBuckets() {
        for (int entries = 1; entries < 700; entries += 33) {
            try (OffHeapMap map = OffHeapMap.builder()
                    .partitions(1)
                    .bucketSets(1)
                    .loadFactor(64)
                    .build()) {
                for (int i = 0; i < entries; i++) {
                    map.put(bytes(i), bytes(-i));
                }
                int[] seen = new int[entries];
                map.forEach((key, value) -> {
                    long number = ByteBuffer.wrap(key).getLong();
                    assertEquals(-number, ByteBuffer.wrap(value).getLong());
                    seen[(int) number]++;
                });
                for (int i = 0; i < entries; i++) {
                    assertEquals(1, seen[i], "entry " + i + " of " + entries);
                }
            }
        }
    }

    @Test
    void forEachPassesOnWhatTheConsumerThrows() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (int i = 0; i < 1_000; i++) {
                map.put(bytes(i), new byte[100]);
            }
            IllegalArgumentException thrown = new IllegalArgumentException("from the consumer");
            int[] calls = new int[1];
            assertSame(
                    thrown,
                    assertThrows(
                            IllegalArgumentException.class,
                            () -> map.forEach((key, value) -> {
                                if (++calls[0] == 500) {
                                    throw thrown;
                                }
                            })));
            assertEquals(500, calls[0]);
        }
    }

    @Test
    void consumerMayChangeTheMap() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (int i = 0; i < 1_000; i++) {
                map.put(bytes(i), bytes(i));
            }
            map.forEach((key, value) -> assertTrue(map.remove(key)));
            assertEquals(0, map.size());
        }
    }

    @Test
    void consumerMayCloseTheMap() {
        OffHeapMap map = OffHeapMap.builder().name("closed within").build();
        for (int i = 0; i < 1_000; i++) {
            map.put(bytes(i), new byte[1_000]);
        }
        IllegalStateException closed = assertThrows(
                IllegalStateException.class,
                () -> map.forEach((key, value) -> {
                    map.close();
                    assertEquals(1_000, value.length);
                }));
        assertEquals("map \"closed within\" is closed: no forEach", closed.getMessage());
    }

    /** The tables grow many times during the walk; what was there from the start is seen once all the same. */
    @Test
    void forEachSeesStableEntriesOnceWhileTheTablesGrow() {
        int stable = 2_000;
        try (OffHeapMap map = OffHeapMap.builder().partitions(4).bucketSets(4).build()) {
            for (int i = 0; i < stable; i++) {
                map.put(bytes(i), bytes(i));
            }
            int[] seen = new int[stable];
            long[] next = {stable};
            map.forEach((key, value) -> {
                long number = ByteBuffer.wrap(key).getLong();
                if (number < stable) {
                    seen[(int) number]++;
                }
                for (int i = 0; i < 20 && next[0] < 80_000; i++) {
                    map.put(bytes(next[0]), bytes(next[0]));
                    next[0]++;
                }
            });
            assertTrue(next[0] > 10 * stable, "the map grew to " + next[0]);
            for (int i = 0; i < stable; i++) {
                assertEquals(1, seen[i], "entry " + i);
            }
        }
    }

    @Test
    void clearEmptiesTheMapAndReturnsItsMemory() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(KEY, KEY);
            map.remove(KEY);
            long blocks = Nimbra.get().stats().blocks();
            for (int round = 0; round < 3; round++) {
                for (int i = 0; i < 5_000; i++) {
                    map.put(bytes(i), new byte[300]);
                }
                assertEquals(5_000, map.size());
                map.clear();
                assertEquals(0, map.size());
                assertEquals(0, map.bytesUsed());
                assertNull(map.get(bytes(17)));
                assertEquals(blocks, Nimbra.get().stats().blocks());
            }
        }
    }

    @Test
    void optionsAreChecked() {
        Map<String, Executable> bad = new LinkedHashMap<>();
        for (int count : new int[] {0, -1, Integer.MIN_VALUE}) {
            bad.put("partitions is " + count, () -> OffHeapMap.builder().partitions(count));
            bad.put("bucketSets is " + count, () -> OffHeapMap.builder().bucketSets(count));
            bad.put("maximumValueLength is " + count, () -> OffHeapMap.builder().maximumValueLength(count));
        }
        bad.put("partitions is 4097", () -> OffHeapMap.builder().partitions(4_097));
        bad.put("bucketSets is 65537", () -> OffHeapMap.builder().bucketSets(65_537));
        bad.put("maximumValueLength is 1073741825", () -> OffHeapMap.builder().maximumValueLength((1 << 30) + 1));
        for (float factor : new float[] {0, -1, Float.NaN, Float.POSITIVE_INFINITY, 64.5f}) {
            bad.put("loadFactor is " + factor, () -> OffHeapMap.builder().loadFactor(factor));
        }
        for (Map.Entry<String, Executable> option : bad.entrySet()) {
            String message = assertThrows(IllegalArgumentException.class, option.getValue(), option.getKey())
                    .getMessage();
            assertTrue(message.startsWith(option.getKey()), message);
        }
        assertEquals(
                "name",
                assertThrows(NullPointerException.class, () -> OffHeapMap.builder()
                                .name(null))
                        .getMessage());
    }

    @Test
    void partitionsAreRoundedUp() {
        int[][] cases = {{1, 1}, {2, 2}, {3, 4}, {4, 4}, {5, 8}, {100, 128}};
        for (int[] example : cases) {
            try (OffHeapMap map =
                    OffHeapMap.builder().partitions(example[0]).bucketSets(1).build()) {
                assertEquals(example[1], map.partitions());
                for (int i = 0; i < 100; i++) {
                    map.put(bytes(i), bytes(i));
                }
                assertEquals(100, map.size());
            }
        }
        assertEquals(16, MapSizes.defaultPartitions(1));
        assertEquals(16, MapSizes.defaultPartitions(4));
        assertEquals(32, MapSizes.defaultPartitions(5));
        assertEquals(256, MapSizes.defaultPartitions(64));
        assertEquals(256, MapSizes.defaultPartitions(Integer.MAX_VALUE));
    }

    /** The native map sees the low 32 bits only: were a partition chosen by them, its keys would share buckets. */
    @Test
    void partitionsAreChosenByHighBitsAlone() {
        try (OffHeapMap map = OffHeapMap.builder().partitions(16).build();
                OffHeapMap single = OffHeapMap.builder().partitions(1).build()) {
            for (long high = 0; high < 16; high++) {
                for (long low : new long[] {0, 1, 0x55555555L, 0x80000000L, 0xffffffffL}) {
                    assertEquals(high, map.partition(high << 60 | low));
                    assertEquals(0, single.partition(high << 60 | low));
                }
            }
        }
    }

    @Test
    void mapsAreNamedByDefault() {
        try (OffHeapMap first = Nimbra.get().newMap();
                OffHeapMap second = Nimbra.get().newMap()) {
            assertTrue(first.name().matches("map-\\d+"), first.name());
            assertNotEquals(first.name(), second.name());
            first.put(KEY, bytes("first"));
            assertNull(second.get(KEY));
        }
    }

    /** Keys with one and the same String.hashCode spread over the partitions, and differently in every map. */
    @Test
    void floodingKeysSpreadOverThePartitions() {
        List<byte[]> keys = HashFlooding.collidingKeys(12);
        List<List<Long>> spreads = new ArrayList<>();
        for (int round = 0; round < 2; round++) {
            try (OffHeapMap map = OffHeapMap.builder().partitions(16).build()) {
                for (byte[] key : keys) {
                    assertTrue(map.put(key, key));
                }
                List<Long> spread = new ArrayList<>();
                for (int partition = 0; partition < 16; partition++) {
                    spread.add(map.size(partition));
                }
                spreads.add(spread);
                for (byte[] key : keys) {
                    assertNotNull(map.get(key));
                }
            }
        }
        // The mean is 256 and the deviation 15.5: seven deviations either way.
        for (List<Long> spread : spreads) {
            for (long entries : spread) {
                assertTrue(entries > 147 && entries < 365, spread.toString());
            }
        }
        assertNotEquals(spreads.get(0), spreads.get(1));
    }

    private static Map<String, Executable> keyCalls(OffHeapMap map, byte[] key) {
        Map<String, Executable> calls = new LinkedHashMap<>();
        calls.put("put", () -> map.put(key, KEY));
        calls.put("putIfAbsent", () -> map.putIfAbsent(key, KEY));
        calls.put("replace", () -> map.replace(key, KEY));
        calls.put("get", () -> map.get(key));
        calls.put("pin", () -> map.pin(key));
        calls.put("remove", () -> map.remove(key));
        calls.put("containsKey", () -> map.containsKey(key));
        return calls;
    }
}
