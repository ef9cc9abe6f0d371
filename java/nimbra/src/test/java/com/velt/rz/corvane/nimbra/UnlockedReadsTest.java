package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.EnumSet;
import java.util.Random;
import java.util.function.Consumer;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.ValueSource;

/** What reads without a lock answer while nobody writes, and when they leave the answer to native code. */
@ExtendWith(LeakCheck.class)
class UnlockedReadsTest {
    @BeforeAll
    static void memoryStaysReadable() {
        assumeTrue(CallNatives.stamps() != 0, "address space may be unmapped here, so nothing is read without a lock");
    }

    private static final int HASH = 0x1234_5678;
    private static final byte[] KEY = bytes("key");
    private static final byte[] OTHER_KEY = bytes("other");
    private static final byte[] VALUE = bytes("value");

    private final Random random = new Random(1);

    // ---- Answers -----------------------------------------------------------------------------

    @Test
    void keysOfAllLengthsAreFound() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            for (int length = 0; length <= 40; length++) {
                byte[] key = TestRuntime.random(random, length);
                assertAbsent(tables, 0, key, length);
                tables.put(0, key, length, VALUE);
                assertPresent(tables, 0, key, length, VALUE);
            }
        }
    }

    @Test
    void theLongestKeyIsFound() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            byte[] key = TestRuntime.random(random, OffHeapMap.MAX_KEY_LENGTH);
            tables.put(0, key, HASH, VALUE);
            assertPresent(tables, 0, key, HASH, VALUE);
        }
    }

    @Test
    void aKeyThatDiffersInItsLastByteIsAbsent() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            for (int length = 1; length <= 40; length++) {
                byte[] key = TestRuntime.random(random, length);
                tables.put(0, key, HASH, VALUE);
                key[length - 1] ^= 1;
                assertAbsent(tables, 0, key, HASH);
            }
        }
    }

    @Test
    void aKeyThatIsTheBeginningOfAnotherIsAbsent() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            tables.put(0, bytes("longer"), HASH, VALUE);
            assertAbsent(tables, 0, bytes("long"), HASH);
            assertAbsent(tables, 0, bytes("longer still"), HASH);
        }
    }

    @Test
    void valuesOfAllLengthsAreCopied() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            for (int length = 0; length <= 80; length++) {
                byte[] value = TestRuntime.random(random, length);
                tables.put(0, KEY, HASH, value);
                assertPresent(tables, 0, KEY, HASH, value);
            }
        }
    }

    @Test
    void theLongestValueIsCopied() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            byte[] value = TestRuntime.random(random, UnlockedReads.MAX_VALUE);
            tables.put(0, KEY, HASH, value);
            assertPresent(tables, 0, KEY, HASH, value);
        }
    }

    @Test
    void aLongerValueIsLeftToNativeCode() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            tables.put(0, KEY, HASH, new byte[UnlockedReads.MAX_VALUE + 1]);
            assertSame(UnlockedReads.UNKNOWN, tables.reads.get(0, KEY, HASH));
            assertEquals(1, tables.reads.containsKey(0, KEY, HASH));
        }
    }

    @Test
    void anEmptyValueIsNotTheAnswerThatCannotTell() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            tables.put(0, KEY, HASH, new byte[0]);
            byte[] value = tables.reads.get(0, KEY, HASH);
            assertEquals(0, value.length);
            assertNotSame(UnlockedReads.UNKNOWN, value);
        }
    }

    @Test
    void everyAnswerIsAnArrayOfItsOwn() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            tables.put(0, KEY, HASH, VALUE);
            tables.reads.get(0, KEY, HASH)[0]++;
            assertPresent(tables, 0, KEY, HASH, VALUE);
        }
    }

    /** One bucket holds all: some with the same hash, some with another. */
    @Test
    void keysOfOneChainAreToldFromEachOther() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 64)) {
            for (int i = 0; i < 60; i++) {
                tables.put(0, bytes(i), i % 4, bytes("value " + i));
            }
            for (int i = 0; i < 60; i++) {
                assertPresent(tables, 0, bytes(i), i % 4, bytes("value " + i));
                assertAbsent(tables, 0, bytes(i + 100), i % 4);
            }
            for (int i = 0; i < 60; i += 3) {
                tables.remove(0, bytes(i), i % 4);
            }
            for (int i = 0; i < 60; i++) {
                if (i % 3 == 0) {
                    assertAbsent(tables, 0, bytes(i), i % 4);
                } else {
                    assertPresent(tables, 0, bytes(i), i % 4, bytes("value " + i));
                }
            }
        }
    }

    @ParameterizedTest
    @CsvSource({"1, 1", "1, 2", "1, 64", "16, 1", "4, 16", "2, 4096"})
    void everySetOfEveryPartitionIsFoundAsItGrows(int partitions, int bucketSets) {
        try (UnlockedTables tables = new UnlockedTables(partitions, bucketSets, 0.75f)) {
            int[] hashes = random.ints(2_000).distinct().toArray();
            for (int i = 0; i < hashes.length; i++) {
                int partition = i % partitions;
                tables.put(partition, bytes(i), hashes[i], bytes(hashes[i]));
                assertPresent(tables, partition, bytes(i), hashes[i], bytes(hashes[i]));
            }
            for (int i = 0; i < hashes.length; i++) {
                assertPresent(tables, i % partitions, bytes(i), hashes[i], bytes(hashes[i]));
                assertAbsent(tables, i % partitions, bytes(-1 - i), hashes[i]);
            }
        }
    }

    @Test
    void aRemovedKeyIsAbsent() {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            tables.put(0, KEY, HASH, VALUE);
            tables.remove(0, KEY, HASH);
            assertAbsent(tables, 0, KEY, HASH);
        }
    }

    // ---- No answer ---------------------------------------------------------------------------

    @ParameterizedTest
    @ValueSource(longs = {1, 2, 0xffff})
    void aSetBeingChangedIsLeftToNativeCode(long threadsAtWork) {
        try (UnlockedTables tables = new UnlockedTables(1, 2, 0.75f)) {
            tables.put(0, KEY, HASH, VALUE);
            assertKnown(tables.reads);
            for (int set = 0; set < 2; set++) {
                ByteBuffer stamp = tables.stamp(0, set);
                stamp.putLong(0, stamp.getLong(0) + threadsAtWork);
            }
            assertUnknown(tables.reads);
            for (int set = 0; set < 2; set++) {
                ByteBuffer stamp = tables.stamp(0, set);
                stamp.putLong(0, stamp.getLong(0) - threadsAtWork);
            }
            assertKnown(tables.reads);
        }
    }

    @Test
    void anotherSetBeingChangedDoesNotMatter() {
        try (UnlockedTables tables = new UnlockedTables(1, 2, 0.75f)) {
            int known = 0;
            for (int set = 0; set < 2; set++) {
                ByteBuffer stamp = tables.stamp(0, set);
                stamp.putLong(0, stamp.getLong(0) + 1);
                known += tables.reads.get(0, KEY, HASH) == UnlockedReads.UNKNOWN ? 0 : 1;
                stamp.putLong(0, stamp.getLong(0) - 1);
            }
            assertEquals(1, known);
        }
    }

    @Test
    void anExcludedPartitionIsLeftToNativeCode() {
        try (UnlockedTables tables = new UnlockedTables(2, 1, 0.75f)) {
            tables.put(0, KEY, HASH, VALUE);
            tables.gates.exclude(0);
            assertUnknown(tables.reads);
            tables.gates.readmit(0);
            assertKnown(tables.reads);
            tables.gates.exclude(1);
            assertKnown(tables.reads);
            tables.gates.readmit(1);
        }
    }

    @Test
    void aClosedPartitionIsLeftToNativeCode() {
        UnlockedReads reads;
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            reads = tables.reads;
            tables.put(0, KEY, HASH, VALUE);
            tables.gates.close(0);
            assertUnknown(reads);
        }
        assertUnknown(reads);
    }

    @Test
    void withoutHandlesEverythingIsLeftToNativeCode() {
        assertUnknown(new UnlockedReads(null, 1, new PartitionGates("none", 1)));
    }

    /** These show a lookup on its ordinary road. Pin tracking has a test of its own. */
    @ParameterizedTest
    @EnumSource(
            value = TraceLevel.class,
            names = {"DEBUG", "EVENT", "ENTRY", "PROFILING"})
    void tracedLookupsAreLeftToNativeCode(TraceLevel level) {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            tables.put(0, KEY, HASH, VALUE);
            withLevels(EnumSet.of(level), () -> assertUnknown(tables.reads));
            assertKnown(tables.reads);
        }
    }

    @ParameterizedTest
    @EnumSource(
            value = TraceLevel.class,
            names = {"DETAIL", "INFO", "WARNING", "ERROR", "FATAL"})
    void levelsThatShowNoLookupDoNotMatter(TraceLevel level) {
        try (UnlockedTables tables = new UnlockedTables(1, 1, 0.75f)) {
            tables.put(0, KEY, HASH, VALUE);
            withLevels(EnumSet.of(level), () -> assertKnown(tables.reads));
        }
    }

    // ---- Maps --------------------------------------------------------------------------------

    @Test
    void aPlainMapReadsWithoutALock() {
        try (OffHeapMap map = OffHeapMap.builder().build()) {
            map.put(KEY, VALUE);
            MapReads reads = new MapReads(map);
            assertArrayEquals(VALUE, reads.get(KEY));
            assertNull(reads.get(OTHER_KEY));
            assertEquals(1, reads.containsKey(KEY));
            assertEquals(0, reads.containsKey(OTHER_KEY));
        }
    }

    @Test
    void mapsWithLimitsAnExpiryOrStatisticsDoNot() {
        assertReadsUnderLock(options -> options.maximumEntries(100));
        assertReadsUnderLock(options -> options.maximumBytes(100_000));
        assertReadsUnderLock(options -> options.expireAfterWrite(Duration.ofHours(1)));
        assertReadsUnderLock(options -> options.expireAfterAccess(Duration.ofHours(1)));
        assertReadsUnderLock(OffHeapMap.Builder::recordStatistics);
    }

    private static void assertReadsUnderLock(Consumer<OffHeapMap.Builder> options) {
        OffHeapMap.Builder builder = OffHeapMap.builder().partitions(1);
        options.accept(builder);
        try (OffHeapMap map = builder.build()) {
            map.put(KEY, VALUE);
            MapReads reads = new MapReads(map);
            assertSame(UnlockedReads.UNKNOWN, reads.get(KEY));
            assertEquals(-1, reads.containsKey(KEY));
            assertArrayEquals(VALUE, map.get(KEY));
            assertTrue(map.containsKey(KEY));
        }
    }

    @Test
    void aMapAnswersWhenAValueIsTooLongToReadWithoutALock() {
        try (OffHeapMap map = OffHeapMap.builder().build()) {
            byte[] value = TestRuntime.random(random, UnlockedReads.MAX_VALUE + 1);
            map.put(KEY, value);
            assertSame(UnlockedReads.UNKNOWN, new MapReads(map).get(KEY));
            assertArrayEquals(value, map.get(KEY));
        }
    }

    @Test
    void aMapAnswersWhileItIsTraced() {
        try (OffHeapMap map = OffHeapMap.builder().build()) {
            map.put(KEY, VALUE);
            withLevels(EnumSet.of(TraceLevel.PROFILING), () -> {
                assertSame(UnlockedReads.UNKNOWN, new MapReads(map).get(KEY));
                assertArrayEquals(VALUE, map.get(KEY));
                assertNull(map.get(OTHER_KEY));
                assertTrue(map.containsKey(KEY));
                assertFalse(map.containsKey(OTHER_KEY));
            });
        }
    }

    @Test
    void aMapAnswersWhilePinsAreTracked() {
        withLevels(EnumSet.of(TraceLevel.PIN_TRACKING), () -> {
            try (OffHeapMap map = OffHeapMap.builder().build()) {
                map.put(KEY, VALUE);
                MapReads reads = new MapReads(map);
                assertSame(UnlockedReads.UNKNOWN, reads.get(KEY));
                assertEquals(-1, reads.containsKey(KEY));
                assertArrayEquals(VALUE, map.get(KEY));
                assertTrue(map.containsKey(KEY));
            }
        });
    }

    @Test
    void aClosedMapRefusesWhatItWouldHaveReadWithoutALock() {
        OffHeapMap map = OffHeapMap.builder().name("gone").build();
        map.put(KEY, VALUE);
        MapReads reads = new MapReads(map);
        assertArrayEquals(VALUE, reads.get(KEY));
        map.close();
        assertSame(UnlockedReads.UNKNOWN, reads.get(KEY));
        assertEquals(-1, reads.containsKey(KEY));
        assertEquals(
                "map \"gone\" is closed: no get",
                assertThrows(IllegalStateException.class, () -> map.get(KEY)).getMessage());
    }

    @Test
    void aClearedMapHasNothingLeft() {
        try (OffHeapMap map = OffHeapMap.builder().build()) {
            map.put(KEY, VALUE);
            MapReads reads = new MapReads(map);
            map.clear();
            assertNull(reads.get(KEY));
            assertEquals(0, reads.containsKey(KEY));
        }
    }

    // ---- Helpers -----------------------------------------------------------------------------

    private static void assertPresent(UnlockedTables tables, int partition, byte[] key, int hash, byte[] value) {
        assertArrayEquals(value, tables.reads.get(partition, key, hash));
        assertArrayEquals(value, tables.nativeGet(partition, key, hash));
        assertEquals(1, tables.reads.containsKey(partition, key, hash));
        assertTrue(tables.nativeContainsKey(partition, key, hash));
    }

    private static void assertAbsent(UnlockedTables tables, int partition, byte[] key, int hash) {
        assertNull(tables.reads.get(partition, key, hash));
        assertNull(tables.nativeGet(partition, key, hash));
        assertEquals(0, tables.reads.containsKey(partition, key, hash));
        assertFalse(tables.nativeContainsKey(partition, key, hash));
    }

    /** Of partition 0, which holds {@link #KEY} only. */
    private static void assertKnown(UnlockedReads reads) {
        assertArrayEquals(VALUE, reads.get(0, KEY, HASH));
        assertNull(reads.get(0, OTHER_KEY, HASH));
        assertEquals(1, reads.containsKey(0, KEY, HASH));
        assertEquals(0, reads.containsKey(0, OTHER_KEY, HASH));
    }

    private static void assertUnknown(UnlockedReads reads) {
        assertSame(UnlockedReads.UNKNOWN, reads.get(0, KEY, HASH));
        assertSame(UnlockedReads.UNKNOWN, reads.get(0, OTHER_KEY, HASH));
        assertEquals(-1, reads.containsKey(0, KEY, HASH));
        assertEquals(-1, reads.containsKey(0, OTHER_KEY, HASH));
    }

    private static void withLevels(EnumSet<TraceLevel> levels, Runnable action) {
        Diagnostics diagnostics = Nimbra.get().diagnostics();
        EnumSet<TraceLevel> before = diagnostics.levels();
        diagnostics.setLevels(levels);
        try {
            action.run();
        } finally {
            diagnostics.setLevels(before);
        }
    }
}
