package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.util.Arrays;
import java.util.List;
import org.junit.jupiter.api.Test;

/** The eviction queues: order, lists, pins, and what they refuse. */
class EvictionQueueTest extends EvictionTestBase {
    @Test
    void theLeastRecentlyUsedIsTheHead() {
        long[] r = newRecords(3);
        for (int i = 0; i < 3; i++) {
            assertEquals(i + 1, LRU.insertLRU(queue, r[i]));
        }
        assertEquals(List.of(r[0], r[1], r[2]), all(queue));
        assertTrue(LRU.updateLRU(queue, r[0]));
        assertEquals(List.of(r[1], r[2], r[0]), all(queue));
        assertTrue(LRU.updateLRU(queue, r[2]));
        assertEquals(List.of(r[1], r[0], r[2]), all(queue));
        assertTrue(LRU.updateLRU(queue, r[2]), "the last stays the last");
        assertEquals(List.of(r[1], r[0], r[2]), all(queue));
        assertEquals(3, LRU.getQueueCount(queue));
        leaveToQueue(r);
    }

    @Test
    void aQueueOfOneMayBeUsedAgainAndAgain() {
        long record = newRecord(1);
        LRU.insertLRU(queue, record);
        for (int i = 0; i < 10; i++) {
            assertTrue(LRU.updateLRU(queue, record));
            assertEquals(PINS_OF_QUEUE + 1, pins(record));
        }
        assertEquals(List.of(record), all(queue));
        leaveToQueue(record);
    }

    @Test
    void theLeastFrequentlyUsedIsTheHead() {
        long[] r = newRecords(3);
        for (int i = 0; i < 3; i++) {
            RECORDS.setMetadata(0, r[i], 100);
            assertEquals(i + 1, LFU.insertLFU(queue, r[i]));
            assertEquals(0, RECORDS.getMetadata(0, r[i]), "an insert begins to count");
        }
        assertTrue(LFU.updateLFU(queue, r[1]));
        assertEquals(List.of(r[0], r[2], r[1]), all(queue));
        assertTrue(LFU.updateLFU(queue, r[0]));
        assertEquals(List.of(r[2], r[1], r[0]), all(queue), "behind its equals");
        assertTrue(LFU.updateLFU(queue, r[1]));
        assertTrue(LFU.updateLFU(queue, r[1]));
        assertEquals(3, RECORDS.getMetadata(0, r[1]));
        assertEquals(List.of(r[2], r[0], r[1]), all(queue));
        leaveToQueue(r);
    }

    @Test
    void theNextToExpireIsTheHead() {
        long[] r = newRecords(4);
        long[] times = {30, 10, 20, 10};
        for (int i = 0; i < 4; i++) {
            assertEquals(i + 1, TTL.insertTTL(queue, r[i], times[i]));
            assertEquals(times[i], RECORDS.getMetadata(0, r[i]));
        }
        assertEquals(List.of(r[1], r[3], r[2], r[0]), all(queue), "equal times in order of arrival");
        assertEquals(10, TTL.getMinimumTime(queue));
        assertTrue(TTL.updateTTL(queue, r[1], 40));
        assertEquals(List.of(r[3], r[2], r[0], r[1]), all(queue));
        assertTrue(TTL.updateTTL(queue, r[0], -5));
        assertEquals(List.of(r[0], r[3], r[2], r[1]), all(queue));
        assertEquals(-5, TTL.getMinimumTime(queue));
        leaveToQueue(r);
    }

    @Test
    void theMinimumOfAnEmptyQueueIsNever() {
        assertEquals(Long.MAX_VALUE, TTL.getMinimumTime(queue));
        long record = newRecord(1);
        TTL.insertTTL(queue, record, 7);
        assertEquals(7, TTL.getMinimumTime(queue));
        TTL.remove(queue, record);
        assertEquals(Long.MAX_VALUE, TTL.getMinimumTime(queue));
        release(record);
    }

    @Test
    void queueZeroIsNone() {
        long record = newRecord(1);
        assertEquals(0, LRU.insertLRU(0, record));
        assertFalse(LRU.updateLRU(0, record));
        assertFalse(LFU.updateLFU(0, record));
        assertEquals(0, TTL.insertTTL(0, record, 1));
        assertFalse(TTL.updateTTL(0, record, 1));
        assertNull(TTL.getTTLEvictionList(0, 1));
        assertEquals(0, TTL.getMinimumTime(0));
        assertNull(VOSKA.getEvictionList(0, 1));
        assertFalse(LRU.clearQueue(0));
        assertFalse(LRU.freeQueue(0));
        assertEquals(1, pins(record));
        release(record);
    }

    @Test
    void aLongArrayTakesTheWholeQueueAndAZero() {
        long[] r = newRecords(3);
        for (long record : r) {
            LRU.insertLRU(queue, record);
        }
        long[] out = {9, 9, 9, 9, 9};
        assertTrue(LRU.getEvictionList(queue, out));
        assertArrayEquals(new long[] {r[0], r[1], r[2], 0}, Arrays.copyOf(out, 4));
        for (long record : r) {
            assertEquals(PINS_OF_QUEUE + 2, pins(record), "the queue, this test and the list");
            unpinListed(record);
        }
        leaveToQueue(r);
    }

    @Test
    void aShortArrayTakesTheHead() {
        long[] r = newRecords(3);
        for (long record : r) {
            LRU.insertLRU(queue, record);
        }
        long[] out = new long[2];
        assertTrue(LRU.getEvictionList(queue, out));
        assertArrayEquals(new long[] {r[0], r[1]}, out);
        assertEquals(PINS_OF_QUEUE + 1, pins(r[2]), "what does not fit is not pinned");
        assertTrue(LRU.getEvictionList(queue, new long[0]));
        unpinListed(r[0]);
        unpinListed(r[1]);
        leaveToQueue(r);
    }

    @Test
    void anEmptyQueueListsNothing() {
        long[] out = {9, 9};
        assertTrue(LRU.getEvictionList(queue, out));
        assertEquals(0, out[0]);
        assertEquals(0, TTL.getTTLEvictionList(queue, Long.MAX_VALUE).length);
        assertEquals(0, VOSKA.getEvictionList(queue, Long.MAX_VALUE).length);
    }

    @Test
    void aTimeIsDueOnlyAfterItHasPassed() {
        long[] r = newRecords(3);
        TTL.insertTTL(queue, r[0], 10);
        TTL.insertTTL(queue, r[1], 20);
        TTL.insertTTL(queue, r[2], 30);
        assertArrayEquals(new long[0], TTL.getTTLEvictionList(queue, 10), "at its time it is not yet due");
        assertArrayEquals(new long[] {r[0]}, TTL.getTTLEvictionList(queue, 11));
        assertArrayEquals(new long[] {r[0], r[1]}, TTL.getTTLEvictionList(queue, 30));
        assertArrayEquals(r, TTL.getTTLEvictionList(queue, Long.MAX_VALUE));
        assertEquals(PINS_OF_QUEUE + 4, pins(r[0]));
        for (int i = 0; i < 3; i++) {
            for (int listed = i; listed < 3; listed++) {
                MANAGER.unpinLuEvictionData_native(r[i], GET);
            }
        }
        leaveToQueue(r);
    }

    @Test
    void theExpirationDoesNotCountInATimeQueue() {
        long record = newRecord(1);
        RECORDS.setExpiration(0, record, 5);
        TTL.insertTTL(queue, record, 100);
        assertEquals(0, TTL.getTTLEvictionList(queue, 50).length);
        leaveToQueue(record);
    }

    @Test
    void aWholeScanFindsEitherTimeAnywhere() {
        long[] r = newRecords(5);
        long[] metadata = {100, 5, 100, 50, 49};
        long[] expiration = {100, 100, 7, 50, 50};
        for (int i = 0; i < 5; i++) {
            RECORDS.setMetadata(0, r[i], metadata[i]);
            RECORDS.setExpiration(0, r[i], expiration[i]);
            LRU.insertLRU(queue, r[i]);
        }
        long[] due = VOSKA.getEvictionList(queue, 50);
        assertArrayEquals(new long[] {r[1], r[2], r[4]}, due, "in order of the queue, strictly before");
        for (long record : due) {
            assertEquals(PINS_OF_QUEUE + 2, pins(record));
            unpinListed(record);
        }
        assertEquals(PINS_OF_QUEUE + 1, pins(r[0]));
        leaveToQueue(r);
    }

    /** The lists do not all pin with one reason. */
    @Test
    void theTimeListPinsUnlikeTheOtherLists() {
        long record = newRecord(1);
        RECORDS.setExpiration(0, record, 0);
        TTL.insertTTL(queue, record, 1);
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            LRU.getEvictionList(queue, new long[1]);
            assertEquals(List.of("JNI_EVICTLIST_PIN"), trace.pinsOf(record));
            trace.lines().clear();
            TTL.getTTLEvictionList(queue, 9);
            assertEquals(List.of("JNI_GET_PIN"), trace.pinsOf(record));
            trace.lines().clear();
            VOSKA.getEvictionList(queue, 9);
            assertEquals(List.of("JNI_EVICTLIST_PIN"), trace.pinsOf(record));
        }
        unpinListed(record);
        MANAGER.unpinLuEvictionData_native(record, GET);
        unpinListed(record);
        leaveToQueue(record);
    }

    @Test
    void removingDropsThePinsOfTheQueue() {
        long[] r = newRecords(4);
        for (long record : r) {
            LRU.insertLRU(queue, record);
            assertEquals(PINS_OF_QUEUE + 1, pins(record));
        }
        assertEquals(3, LRU.remove(queue, r[1]), "from the middle");
        assertEquals(2, LRU.remove(queue, r[0]), "the head");
        assertEquals(1, LRU.remove(queue, r[3]), "the tail");
        assertEquals(List.of(r[2]), all(queue));
        assertEquals(0, LRU.remove(queue, r[2]), "the only one");
        assertEquals(List.of(), all(queue));
        release(r);
    }

    @Test
    void aRemovedRecordThatNobodyElseHoldsIsGone() {
        long blocks = liveBlocks();
        long[] r = newRecords(2);
        LRU.insertLRU(queue, r[0]);
        LRU.insertLRU(queue, r[1]);
        leaveToQueue(r);
        assertEquals(blocks + 4, liveBlocks());
        assertEquals(1, LRU.remove(queue, r[0]));
        assertEquals(blocks + 2, liveBlocks(), "record and key");
        assertTrue(LRU.clearQueue(queue));
        assertEquals(blocks, liveBlocks());
        assertEquals(0, LRU.getQueueCount(queue));
    }

    @Test
    void aRecordInNoQueueCannotBeRemoved() {
        long[] r = newRecords(2);
        LRU.insertLRU(queue, r[0]);
        Throwable refused = assertThrows(IllegalStateException.class, () -> LRU.remove(queue, r[1]));
        assertTrue(refused.getMessage().matches(".*Node=0x[0-9a-f]+ not found in queue\\."), refused::getMessage);
        assertEquals(1, LRU.getQueueCount(queue));
        assertEquals(1, pins(r[1]));
        leaveToQueue(r[0]);
        release(r[1]);
    }

    @Test
    void aFailedMoveToTheEndKeepsOnePin() {
        long record = newRecord(1);
        assertThrows(IllegalStateException.class, () -> LRU.updateLRU(queue, record));
        assertEquals(2, pins(record), "the pin of the move stays");
        MANAGER.unpinLuEvictionData_native(record, 16_777_216);
        release(record);
    }

    /** An ordered move puts a record in that was in no queue, and yet reports that it was not found. */
    @Test
    void anOrderedMoveInsertsWhatWasNotThere() {
        long[] r = newRecords(2);
        assertThrows(IllegalStateException.class, () -> TTL.updateTTL(queue, r[0], 5));
        assertThrows(IllegalStateException.class, () -> LFU.updateLFU(queue, r[1]));
        assertEquals(2, LRU.getQueueCount(queue));
        assertEquals(List.of(r[1], r[0]), all(queue));
        leaveToQueue(r);
    }

    @Test
    void aQueuedRecordWithANeighbourIsNotAppendedTwice() {
        long[] r = newRecords(2);
        LRU.insertLRU(queue, r[0]);
        LRU.insertLRU(queue, r[1]);
        try (Trace trace = Trace.at(OffHeapLogger.ERROR)) {
            assertEquals(-1, LRU.insertLRU(queue, r[0]));
            assertEquals(1, trace.lines().size());
            assertEquals("OFFHEAP_GENERIC_ERROR_KTZAR7929", trace.lines().get(0).key());
            assertTrue(trace.lines().get(0).text().contains("Failure appending to LRU_Eviction_Queue. queue=0x"));
        }
        assertEquals(2, LRU.getQueueCount(queue));
        assertEquals(List.of(r[0], r[1]), all(queue));
        leaveToQueue(r);
    }

    /** A removal from the middle leaves the record's own links as they were; the ordered inserts write them anew. */
    @Test
    void aRecordTakenFromTheMiddleCannotBeAppendedAgain() {
        long[] r = newRecords(3);
        for (long record : r) {
            LRU.insertLRU(queue, record);
        }
        LRU.remove(queue, r[1]);
        try (Trace trace = Trace.at(OffHeapLogger.ERROR)) {
            assertEquals(-1, LRU.insertLRU(queue, r[1]));
            assertEquals(1, trace.lines().size());
        }
        assertEquals(List.of(r[0], r[2]), all(queue));
        assertEquals(3, TTL.insertTTL(queue, r[1], Long.MAX_VALUE));
        assertEquals(List.of(r[0], r[2], r[1]), all(queue));
        assertTrue(LRU.updateLRU(queue, r[0]), "the move to the end clears the links itself");
        assertEquals(List.of(r[2], r[1], r[0]), all(queue));
        leaveToQueue(r);
    }

    @Test
    void clearingReleasesWhatOnlyTheQueueHolds() {
        long blocks = liveBlocks();
        long[] r = newRecords(100);
        for (long record : r) {
            TTL.insertTTL(queue, record, record % 7);
        }
        for (int i = 1; i < r.length; i++) {
            leaveToQueue(r[i]);
        }
        assertTrue(TTL.clearQueue(queue));
        assertEquals(0, TTL.getQueueCount(queue));
        assertEquals(blocks + 2, liveBlocks(), "the one that this test holds, and its key");
        assertEquals(1, pins(r[0]));
        assertTrue(TTL.clearQueue(queue), "an empty queue may be cleared");
        release(r[0]);
    }

    @Test
    void freeingAQueueClearsIt() {
        long blocks = liveBlocks();
        long metadata = metadataBytes();
        long other = LFU.allocateQueue();
        assertTrue(liveBlocks() > blocks);
        assertTrue(metadataBytes() >= metadata);
        long[] r = newRecords(3);
        for (long record : r) {
            LFU.insertLFU(other, record);
        }
        leaveToQueue(r);
        assertTrue(LFU.freeQueue(other));
        assertEquals(blocks, liveBlocks());
        assertEquals(metadata, metadataBytes());
    }

    @Test
    void aListedRecordOutlivesTheQueue() {
        long record = newRecord(77);
        LRU.insertLRU(queue, record);
        leaveToQueue(record);
        assertTrue(LRU.getEvictionList(queue, new long[1]));
        LRU.clearQueue(queue);
        assertEquals(77, RECORDS.getEvictionKey(0, record).get(0));
        assertEquals(0, MANAGER.unpinLuEvictionData_native(record, EVICT_LIST));
    }

    @Test
    void refusedListsPinNothing() {
        long[] r = newRecords(50);
        for (long record : r) {
            RECORDS.setExpiration(0, record, 0);
            TTL.insertTTL(queue, record, 1);
        }
        MANAGER.setInternalTracking(true);
        try {
            long blocks = liveBlocks();
            assertEquals(0, withRoom(8, () -> LRU.getEvictionList(queue, new long[100]) ? 1 : 0));
            assertEquals(0, withRoom(8, () -> TTL.getTTLEvictionList(queue, 9) == null ? 0 : 1));
            assertEquals(0, withRoom(8, () -> VOSKA.getEvictionList(queue, 9) == null ? 0 : 1));
            assertEquals(blocks, liveBlocks());
            for (long record : r) {
                assertEquals(PINS_OF_QUEUE + 1, pins(record));
            }
            long[] listed = TTL.getTTLEvictionList(queue, 9);
            assertNotNull(listed, "the queue is unlocked");
            for (long record : listed) {
                MANAGER.unpinLuEvictionData_native(record, GET);
            }
        } finally {
            MANAGER.setInternalTracking(false);
        }
        leaveToQueue(r);
    }

    @Test
    void aRefusedQueueIsNone() {
        MANAGER.setInternalTracking(true);
        try {
            long blocks = liveBlocks();
            long metadata = metadataBytes();
            assertEquals(0, withRoom(8, LRU::allocateQueue));
            assertEquals(blocks, liveBlocks());
            assertEquals(metadata, metadataBytes());
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    /** No queue needs memory to take a record, move it or let it go. */
    @Test
    void queueOperationsNeedNoRoom() {
        long[] r = newRecords(3);
        MANAGER.setInternalTracking(true);
        try {
            MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap());
            assertEquals(1, LRU.insertLRU(queue, r[0]));
            assertEquals(2, TTL.insertTTL(queue, r[1], 5));
            assertEquals(3, LFU.insertLFU(queue, r[2]));
            assertTrue(LRU.updateLRU(queue, r[0]));
            assertTrue(LFU.updateLFU(queue, r[1]));
            assertTrue(TTL.updateTTL(queue, r[2], 9));
            assertEquals(2, LRU.remove(queue, r[0]));
        } finally {
            MANAGER.setCurrentMaxOffHeapSize(GIGABYTE);
            MANAGER.setInternalTracking(false);
        }
        release(r[0]);
        leaveToQueue(r[1], r[2]);
    }
}
