package com.velt.rz.corvane.nimbra.demo;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.MapStatistics;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** What the two later loads would say if something were wrong. */
class SecondLoadsTest {
    @BeforeEach
    void start() {
        Nimbra.builder().maximumBytes(2L << 30).start();
    }

    private static byte[] key(int i) {
        return new byte[] {(byte) (i >> 8), (byte) i};
    }

    @Test
    void followerFindsWhatDiffers() {
        try (OffHeapMap map = Nimbra.get().newMap();
                OffHeapMap copy = Nimbra.get().newMap()) {
            try (Follower follower = new Follower(map, copy)) {
                for (int i = 0; i < 1_000; i++) {
                    map.put(key(i), new byte[i]);
                }
                map.remove(key(5));
                follower.settle();
                assertTrue(follower.changes() >= 999, follower.changes() + " changes");
                assertTrue(follower.rounds() > 0);
                assertEquals(999, copy.size());
                for (int i = 0; i < 1_000; i++) {
                    assertNull(follower.compare(key(i)));
                }
                copy.put(key(5), new byte[1]);
                copy.put(key(6), new byte[] {0, 0, 0, 1, 0, 0});
                copy.remove(key(7));
                assertEquals("was removed and is in the copy", follower.compare(key(5)));
                assertEquals("differs from its copy at byte 3", follower.compare(key(6)));
                assertEquals("is missing in the copy", follower.compare(key(7)));
            }
        }
    }

    @Test
    void failureOfTheFollowerIsPassedOn() {
        OffHeapMap map = Nimbra.get().newMap();
        OffHeapMap copy = OffHeapMap.builder().name("gone").build();
        copy.close();
        map.put(key(1), key(1));
        try (Follower follower = new Follower(map, copy)) {
            assertEquals(
                    "map \"gone\" is closed: no put",
                    assertThrows(IllegalStateException.class, follower::settle).getMessage());
        }
        map.close();
    }

    @Test
    void limitedLoadFindsWhatDiffers() {
        try (OffHeapMap map = OffHeapMap.builder().maximumEntries(100).build();
                LimitedLoad load = new LimitedLoad(map, 1_000)) {
            for (int i = 0; i < 1_000; i++) {
                assertNull(load.step(key(i), new byte[200]));
            }
            MapStatistics statistics = load.finish();
            assertEquals(load.lookups(), statistics.hits() + statistics.misses());
            assertTrue(statistics.hits() > 0 && statistics.sizeEvictions() >= 900);
            assertEquals(100, map.size());
            assertTrue(load.samples() > 0 && load.mostBytes() > 0);
            map.put(key(2_000), new byte[] {1, 2, 3});
            assertEquals(
                    "differs at byte 1 from what was stored in the limited map",
                    load.step(key(2_000), new byte[] {1, 9, 3}));
            assertFalse(map.containsKey(key(500)));
        }
    }
}
