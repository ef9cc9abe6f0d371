package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/** Counting, limits and statistics. */
class AllocatorTest extends NativeTestBase {
    private static final String REFUSED =
            "[malloc_nb] Allocation by the Nimbra library failed. All available memory is used.";
    /** Data bytes of the blocks below; with its header such a block requests 88 bytes and occupies 96. */
    private static final int DATA = 64;

    private static final int REQUESTED = 88;
    private static final int USABLE = 96;

    @AfterEach
    void countPagesAgain() {
        MANAGER.setInternalTracking(false);
    }

    @Test
    void everyBlockIsCounted() {
        ByteBuffer first = allocate(10, PLAIN);
        assertEquals(1, liveBlocks());
        ByteBuffer second = allocate(100_000, PLAIN);
        assertEquals(2, liveBlocks());
        free(first);
        assertEquals(1, liveBlocks());
        free(second);
        assertEquals(0, liveBlocks());
    }

    @Test
    void theSizeInUseGrowsWithALargeBlockAndShrinksWithIt() {
        long before = MANAGER.getAllocatingSizeInOffHeap();
        ByteBuffer block = allocate(8 << 20, PLAIN);
        long with = MANAGER.getAllocatingSizeInOffHeap();
        free(block);
        assertTrue(with - before >= 8 << 20, () -> "grew by " + (with - before));
        assertTrue(with - before < 12 << 20, () -> "grew by " + (with - before));
        // What the thread cache kept of other tests' blocks may go back meanwhile: some pages, not megabytes.
        long after = MANAGER.getAllocatingSizeInOffHeap();
        assertTrue(after <= before && before - after < 1 << 20, () -> before + " before, " + after + " after");
        assertEquals(0, before % 4096, "whole pages");
    }

    @Test
    void internalCountingAddsUsableSizes() {
        MANAGER.setInternalTracking(true);
        long before = MANAGER.getAllocatingSizeInOffHeap();
        ByteBuffer block = allocate(DATA, PLAIN);
        assertEquals(before + USABLE, MANAGER.getAllocatingSizeInOffHeap());
        free(block);
        assertEquals(before, MANAGER.getAllocatingSizeInOffHeap());
    }

    @Test
    void internalCountingIsNotResetAndMayGoBelowWhatItWas() {
        MANAGER.setInternalTracking(true);
        long before = MANAGER.getAllocatingSizeInOffHeap();
        MANAGER.setInternalTracking(false);
        ByteBuffer uncounted = allocate(DATA, PLAIN);
        MANAGER.setInternalTracking(true);
        assertEquals(before, MANAGER.getAllocatingSizeInOffHeap());
        free(uncounted);
        assertEquals(before - USABLE, MANAGER.getAllocatingSizeInOffHeap());
    }

    @Test
    void switchingTheCountingSaysTheSameWordsBothWays() {
        try (Trace trace = Trace.at(OffHeapLogger.INFO)) {
            long pages = MANAGER.getAllocatingSizeInOffHeap();
            MANAGER.setInternalTracking(true);
            long counted = MANAGER.getAllocatingSizeInOffHeap();
            MANAGER.setInternalTracking(false);
            String text = "info Internal use only: Using internal byte counting. Current OffHeapSize=";
            assertEquals(List.of(text + pages, text + counted), trace.normal());
        }
    }

    @Test
    void aRequestThatWouldReachTheMaximumIsRefusedBeforeItIsMade() {
        MANAGER.setInternalTracking(true);
        MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + REQUESTED);
        IllegalStateException refused = assertThrows(IllegalStateException.class, () -> allocate(DATA, PLAIN));
        assertEquals(REFUSED, refused.getMessage());
        assertEquals(0, liveBlocks());
    }

    @Test
    void aBlockThatExceedsTheMaximumIsTakenBackButStaysCounted() {
        MANAGER.setInternalTracking(true);
        long before = MANAGER.getAllocatingSizeInOffHeap();
        MANAGER.setCurrentMaxOffHeapSize(before + USABLE - 1);
        OutOfMemoryError refused = assertThrows(OutOfMemoryError.class, () -> allocate(DATA, PLAIN));
        assertEquals(REFUSED, refused.getMessage());
        assertEquals(1, liveBlocks());
        assertEquals(before + USABLE, MANAGER.getAllocatingSizeInOffHeap());
        countRefusalAfterAllocation();
    }

    @Test
    void aBlockThatFillsTheMaximumExactlyIsGranted() {
        MANAGER.setInternalTracking(true);
        MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + USABLE);
        ByteBuffer block = allocate(DATA, PLAIN);
        assertNotNull(block);
        free(block);
    }

    @Test
    void refusalsWithoutInternalCountingGoByPages() {
        MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + (1 << 20));
        assertThrows(IllegalStateException.class, () -> allocate(2 << 20, PLAIN));
        assertEquals(0, liveBlocks());
    }

    @Test
    void uncheckedRequestsPassEveryLimit() {
        MANAGER.setCurrentMaxOffHeapSize(0);
        assertThrows(IllegalStateException.class, () -> allocate(DATA, PLAIN));
        ByteBuffer block = MANAGER.allocateDirectFromOffHeap(DATA, UNCHECKED, PLAIN);
        assertNotNull(block);
        ByteBuffer another = MANAGER.allocateDirectFromOffHeap(DATA, (byte) -1, PLAIN);
        assertEquals(2, liveBlocks());
        free(block, another);
    }

    @Test
    void aNegativeMaximumRefusesEverything() {
        MANAGER.setCurrentMaxOffHeapSize(-1);
        assertThrows(IllegalStateException.class, () -> allocate(DATA, PLAIN));
    }

    @Test
    void theStatisticsReportComesFromTheAllocator() {
        String report = MANAGER.getJemallocStats();
        assertTrue(report.contains("Begin jemalloc statistics"), report);
        assertTrue(report.contains("End jemalloc statistics"), () -> report.substring(report.length() - 200));
    }
}
