package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.NativeTestBase;
import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Creation, figures, clearing and deletion of maps. */
class MapLifecycleTest extends NativeTestBase {
    private static final LuOffHeapMapImpl MAPS = new LuOffHeapMapImpl();

    @ParameterizedTest
    @CsvSource({"0, 0, 0.75", "-7, 1, 0.5", "99, 5, 1", "0, 64, 4"})
    void anEmptyMapIsEmptyAndLeavesNothing(int ignored, int concurrency, float loadFactor) {
        long map = MAPS.allocateLuOffHeapMap(ignored, concurrency, loadFactor, -1, -2);
        assertNotEquals(0, map);
        assertEquals(0, MAPS.size(map));
        assertEquals(0, MAPS.getCurrentBytesUsed(map));
        assertEquals(0, MAPS.maxSize(map));
        assertTrue(liveBlocks() > 0);
        assertTrue(metadataBytes() > 0);
        assertTrue(MAPS.clear(map));
        assertTrue(MAPS.deleteLuOffHeapMap(map));
        assertEquals(0, liveBlocks());
        assertEquals(0, metadataBytes());
    }

    @Test
    void theFirstNumberIsIgnored() {
        long few = MAPS.allocateLuOffHeapMap(1, 1, 0.75f, 0, 0);
        long blocks = liveBlocks();
        long metadata = metadataBytes();
        long many = MAPS.allocateLuOffHeapMap(1 << 20, 1, 0.75f, 0, 0);
        assertEquals(2 * blocks, liveBlocks());
        assertEquals(2 * metadata, metadataBytes());
        assertTrue(MAPS.deleteLuOffHeapMap(few));
        assertTrue(MAPS.deleteLuOffHeapMap(many));
    }

    @Test
    void moreBucketSetsTakeMoreMetadata() {
        long one = MAPS.allocateLuOffHeapMap(0, 1, 0.75f, 0, 0);
        long metadataOfOne = metadataBytes();
        long many = MAPS.allocateLuOffHeapMap(0, 256, 0.75f, 0, 0);
        assertTrue(metadataBytes() - metadataOfOne > metadataOfOne);
        assertTrue(MAPS.deleteLuOffHeapMap(one));
        assertTrue(MAPS.deleteLuOffHeapMap(many));
    }

    @Test
    void thereIsNoMapZeroToDelete() {
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            assertFalse(MAPS.deleteLuOffHeapMap(0));
            assertEquals(1, trace.lines().size());
            assertTrue(trace.lines().get(0).text().contains("luMap="));
        }
    }

    @Test
    void aMapThatGetsNoMemoryIsNotMade() {
        MANAGER.setCurrentMaxOffHeapSize(0);
        IllegalStateException refused =
                assertThrows(IllegalStateException.class, () -> MAPS.allocateLuOffHeapMap(0, 4, 0.75f, 0, 0));
        assertTrue(refused.getMessage().startsWith("[malloc_nb] "), refused::getMessage);
        assertEquals(0, liveBlocks());
    }
}
