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
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/** Maps with limits or an expiry, whose values are on disk when they go. */
@Tag("overflow")
@ExtendWith(OverflowRuntime.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OverflowBoundedMapTest {
    private final List<String> heard = new ArrayList<>();
    private final ManualTicker ticker = new ManualTicker();

    private OffHeapMap.Builder options() {
        return OffHeapMap.builder().name("cache").partitions(1).ticker(ticker).evictionListener((key, value, cause) -> {
            long id = id(key);
            assertArrayEquals(value(id, length(id)), value);
            heard.add(id + " " + cause);
        });
    }

    private static long id(byte[] key) {
        return ByteBuffer.wrap(key).getLong();
    }

    private static int length(long id) {
        return (int) id * 37 % 3_000;
    }

    private static void put(OffHeapMap map, long... ids) {
        for (long id : ids) {
            map.put(bytes(id), value(id, length(id)));
        }
    }

    private static void assertHolds(OffHeapMap map, long id) {
        assertArrayEquals(value(id, length(id)), map.get(bytes(id)));
    }

    private List<String> heardOnce() {
        List<String> result = List.copyOf(heard);
        heard.clear();
        return result;
    }

    @Test
    void leastRecentlyUsedGoesFromDisk() {
        try (OffHeapMap map = options().maximumEntries(3).build()) {
            put(map, 1, 2, 3);
            pushOut();
            assertHolds(map, 1);
            assertTrue(map.containsKey(bytes(2)));
            put(map, 4);
            assertEquals(List.of("2 SIZE"), heardOnce());
            pushOut();
            try (PinnedValue pinned = map.pin(bytes(3))) {
                assertArrayEquals(value(3, length(3)), read(pinned.buffer()));
            }
            pushOut();
            map.replace(bytes(1), value(1, length(1)));
            put(map, 5);
            assertEquals(List.of("4 SIZE"), heardOnce());
            put(map, 6, 7, 8);
            assertEquals(List.of("3 SIZE", "1 SIZE", "5 SIZE"), heardOnce());
            assertNull(map.get(bytes(1)));
            pushOut();
            assertTrue(map.remove(bytes(6)));
            assertEquals(new MapStatistics(2, 1, 9, 1, 5, 0), map.statistics());
        }
    }

    @Test
    void leastFrequentlyUsedGoesFromDisk() {
        try (OffHeapMap map =
                options().maximumEntries(3).evictionPolicy(EvictionPolicy.LFU).build()) {
            put(map, 1, 2, 3);
            pushOut();
            for (long id : new long[] {1, 1, 3}) {
                assertHolds(map, id);
                pushOut();
            }
            put(map, 4);
            assertEquals(List.of("2 SIZE"), heardOnce());
            pushOut();
            put(map, 5);
            assertEquals(List.of("4 SIZE"), heardOnce());
        }
    }

    @Test
    void anExpiredEntryIsNotFoundOnDisk() {
        try (OffHeapMap map =
                options().expireAfterWrite(Duration.ofNanos(1_000)).build()) {
            put(map, 1, 2);
            pushOut();
            ticker.advance(600);
            put(map, 3);
            assertHolds(map, 1);
            pushOut();
            ticker.advance(600);
            assertNull(map.get(bytes(1)));
            assertNull(map.pin(bytes(2)));
            assertFalse(map.containsKey(bytes(2)));
            assertEquals(List.of("1 EXPIRED", "2 EXPIRED"), heardOnce());
            assertHolds(map, 3);
            drain();
            assertEquals(OverflowNatives.PAYLOAD_HEADER + length(3), STORE.bytesLive());
            ticker.advance(600);
            List<Long> walked = new ArrayList<>();
            map.forEach((key, value) -> walked.add(id(key)));
            assertEquals(List.of(), walked);
            assertEquals(3, map.statistics().expirations());
            assertEquals(new MapStatistics(2, 2, 3, 0, 0, 3), map.statistics());
        }
    }

    @Test
    void anAccessOnDiskMovesTheDeadline() {
        try (OffHeapMap map =
                options().expireAfterAccess(Duration.ofNanos(1_000)).build()) {
            put(map, 1, 2);
            pushOut();
            ticker.advance(600);
            assertHolds(map, 1);
            pushOut();
            ticker.advance(600);
            assertHolds(map, 1);
            assertNull(map.get(bytes(2)));
            assertEquals(List.of("2 EXPIRED"), heardOnce());
        }
    }

    @ParameterizedTest
    @EnumSource
    void aCacheLargerThanTheMemory(EvictionPolicy policy) {
        long limit = 2 * OverflowRuntime.MAXIMUM_BYTES;
        AtomicInteger gone = new AtomicInteger();
        try (OffHeapMap map = OffHeapMap.builder()
                .name("cache")
                .partitions(4)
                .maximumBytes(limit)
                .evictionPolicy(policy)
                .evictionListener((key, value, cause) -> {
                    assertArrayEquals(value(id(key), length(id(key))), value);
                    gone.incrementAndGet();
                })
                .build()) {
            long moved = stats().pageOuts();
            int entries = 16_000;
            for (int i = 0; i < entries; i++) {
                put(map, i);
                if (i % 7 == 0) {
                    map.get(bytes(i / 2));
                }
                assertTrue(map.bytesUsed() <= limit);
            }
            assertTrue(stats().pageOuts() > moved);
            assertTrue(map.bytesUsed() > OverflowRuntime.MAXIMUM_BYTES, "values on disk count as well");
            assertEquals(entries, map.size() + gone.get());
            assertEquals(gone.get(), map.statistics().sizeEvictions());
            int[] walked = {0};
            map.forEach((key, value) -> {
                assertArrayEquals(value(id(key), length(id(key))), value);
                walked[0]++;
            });
            assertEquals(map.size(), walked[0]);
            map.clear();
            assertEquals(0, map.bytesUsed());
            drain();
            assertEquals(0, STORE.bytesLive());
        }
    }

    @Test
    void withoutAListenerNothingIsReadForAnEviction() {
        try (OffHeapMap map =
                OffHeapMap.builder().partitions(1).maximumEntries(1).build()) {
            put(map, 100);
            pushOut();
            long reads = STORE.reads();
            put(map, 101);
            assertEquals(reads, STORE.reads());
            assertEquals(1, map.statistics().sizeEvictions());
            assertNotNull(map.get(bytes(101)));
            drain();
            assertEquals(0, STORE.bytesLive());
        }
    }

    @Test
    void theBoundFollowsReplacementsOnDisk() {
        try (OffHeapMap map =
                OffHeapMap.builder().partitions(1).maximumBytes(1 << 20).build()) {
            for (int round = 0; round < 20; round++) {
                for (int i = 0; i < 20; i++) {
                    map.put(bytes(i), value(i, 100 * round));
                }
                pushOut();
            }
            long expected;
            try (OffHeapMap fresh = OffHeapMap.builder().partitions(1).build()) {
                for (int i = 0; i < 20; i++) {
                    fresh.put(bytes(i), value(i, 1_900));
                }
                expected = fresh.bytesUsed();
            }
            assertEquals(expected, map.bytesUsed());
            for (int i = 0; i < 20; i++) {
                assertTrue(map.remove(bytes(i)));
            }
            assertEquals(0, map.bytesUsed());
            assertEquals(0, map.statistics().sizeEvictions());
        }
    }
}
