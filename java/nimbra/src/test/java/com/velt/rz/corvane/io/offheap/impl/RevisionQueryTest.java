package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.util.List;
import java.util.stream.Collectors;
import java.util.stream.LongStream;
import org.junit.jupiter.api.Test;

/** The bounded revision query: its words, its bounds, its bookmarks and its pins. */
class RevisionQueryTest extends MapTestBase {
    private static final int ROOM = 100;

    private static long[] longs(long... values) {
        return values;
    }

    private List<RevisionQuery.Words> query(int bookmark, long[] starts, long[] ends) {
        return RevisionQuery.run(map, ROOM, bookmark, starts, ends);
    }

    /** The revisions that a query reports, with its pins dropped. */
    private List<Long> revisions(int bookmark, long[] starts, long[] ends) {
        List<RevisionQuery.Words> found = query(bookmark, starts, ends);
        found.forEach(words -> assertEquals(PINS_OF_MAP, words.release()));
        return found.stream().map(RevisionQuery.Words::revision).collect(Collectors.toList());
    }

    private long put(int key, int owner, long revision) {
        return put(map, bytes(key), bytes(key, key), owner, revision);
    }

    private void putAll(int owner, long... revisions) {
        for (long revision : revisions) {
            put((int) (owner * 50 + revision), owner, revision);
        }
    }

    @Test
    void anEntryIsNineWords() {
        long entry = MAPS.insertAndGetNewAndPinWithInt(map, 7, -5, bytes(1, 2, 3), 3, (byte) 200, (short) 1, 42);
        assertEquals(PINS_OF_MAP, unpin(entry));
        List<RevisionQuery.Words> found = query(0, longs(0, 0), longs(100, 100));
        assertEquals(1, found.size());
        RevisionQuery.Words words = found.get(0);
        assertEquals(entry, words.entry());
        assertArrayEquals(nativeOrder(4, 7), bytesAt(words.keyAddress(), words.keyLength()));
        assertArrayEquals(bytes(1, 2, 3), bytesAt(words.valueAddress(), words.valueLength()));
        assertEquals(1, words.owner());
        assertEquals(42, words.revision());
        assertEquals(JINT, words.keyType());
        assertEquals(200, words.valueType(), "the tag is not signed");
        assertEquals(PINS_OF_MAP + 1, VALUES.getReferenceCount(entry));
        assertEquals(2, pinsOfKey(entry));
        assertEquals(2, pinsOfValue(entry));
        assertEquals(PINS_OF_MAP, words.release());
        assertEquals(1, pinsOfKey(entry));
        assertEquals(1, pinsOfValue(entry));
    }

    @Test
    void thePinsAreThoseOfAQuery() {
        long entry = put(1, 0, 5);
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            RevisionQuery.Words words = query(0, longs(0), longs(9)).get(0);
            assertEquals(List.of("JNI_QUERYREVISION_PIN"), trace.pinsOf(entry));
            assertEquals(List.of("JAVA_TRANSPORT_PIN"), trace.pinsOf(words.keyAddress() - HEADER));
            assertEquals(List.of("JAVA_TRANSPORT_PIN"), trace.pinsOf(words.valueAddress() - HEADER));
            words.release();
        }
    }

    @Test
    void theLowerBoundIsExclusiveAndTheUpperInclusive() {
        putAll(0, 3, 1, 4, 2, 5);
        assertEquals(List.of(2L, 3L, 4L), revisions(0, longs(1), longs(4)));
        assertEquals(List.of(1L, 2L, 3L, 4L, 5L), revisions(1, longs(0), longs(5)));
        assertEquals(List.of(5L), revisions(2, longs(4), longs(Long.MAX_VALUE)));
        assertEquals(List.of(), revisions(3, longs(5), longs(9)));
    }

    @Test
    void equalRevisionsKeepTheirOrderOfArrival() {
        long first = put(1, 0, 5);
        long second = put(2, 0, 5);
        long third = put(3, 0, 5);
        List<RevisionQuery.Words> found = query(0, longs(4), longs(5));
        assertEquals(
                List.of(first, second, third),
                found.stream().map(RevisionQuery.Words::entry).collect(Collectors.toList()));
        found.forEach(RevisionQuery.Words::release);
    }

    @Test
    void ownersAreReportedInTheirOrder() {
        putAll(2, 1, 2);
        putAll(0, 9);
        putAll(1, 4, 3);
        List<RevisionQuery.Words> found = query(0, longs(0, 0, 0), longs(10, 10, 10));
        assertEquals(
                List.of("0:9", "1:3", "1:4", "2:1", "2:2"),
                found.stream()
                        .map(words -> words.owner() + ":" + words.revision())
                        .collect(Collectors.toList()));
        found.forEach(RevisionQuery.Words::release);
    }

    @Test
    void everyOwnerHasItsOwnBounds() {
        putAll(0, 1, 2, 3);
        putAll(1, 1, 2, 3);
        assertEquals(List.of(3L, 1L), revisions(0, longs(2, 0), longs(3, 1)));
    }

    @Test
    void ownersWithoutBoundsAndBoundsWithoutOwnersAreLeftOut() {
        putAll(0, 1);
        putAll(1, 2);
        assertEquals(List.of(1L), revisions(0, longs(0), longs(9)));
        assertEquals(
                List.of(1L, 2L),
                revisions(0, new long[8], LongStream.generate(() -> 9).limit(8).toArray()));
    }

    @Test
    void anOwnerIsSkippedWhoseBoundsAreEmptyOrEndBelowOne() {
        putAll(0, 1, 2);
        put(40, 0, -5);
        put(41, 0, 0);
        assertEquals(List.of(), revisions(0, longs(2), longs(2)));
        assertEquals(List.of(), revisions(0, longs(3), longs(2)));
        assertEquals(List.of(), revisions(0, longs(-9), longs(0)), "an end below 1 is no end");
        assertEquals(List.of(-5L, 0L, 1L), revisions(0, longs(-9), longs(1)));
        putAll(1, 7);
        assertEquals(List.of(7L), revisions(0, longs(5, 0), longs(5, 9)), "the others are queried");
    }

    @Test
    void noBoundsNoResult() {
        putAll(0, 1);
        long metadata = metadataBytes();
        assertEquals(List.of(), revisions(50, new long[0], new long[0]));
        assertEquals(metadata, metadataBytes(), "no bookmark was made");
    }

    @Test
    void handleZeroHasNoEntries() {
        assertEquals(List.of(), RevisionQuery.run(0, 1, 0, longs(0), longs(9)));
    }

    @Test
    void anEmptyMapHasNoEntries() {
        assertEquals(List.of(), revisions(0, longs(0), longs(9)));
    }

    @Test
    void aClientResumesWhereItEnded() {
        putAll(0, 1, 5, 10, 11, 20, 21);
        assertEquals(List.of(1L, 5L, 10L), revisions(0, longs(0), longs(10)));
        assertEquals(List.of(11L, 20L), revisions(0, longs(10), longs(20)));
        assertEquals(List.of(21L), revisions(0, longs(20), longs(30)));
        assertEquals(List.of(), revisions(0, longs(30), longs(40)));
        put(99, 0, 35);
        assertEquals(List.of(35L), revisions(0, longs(30), longs(40)));
    }

    @Test
    void aClientMayGoBack() {
        putAll(0, 1, 2, 3, 4);
        assertEquals(List.of(1L, 2L, 3L, 4L), revisions(0, longs(0), longs(4)));
        assertEquals(List.of(2L, 3L), revisions(0, longs(1), longs(3)), "its bookmark lies beyond");
        assertEquals(List.of(4L), revisions(0, longs(3), longs(4)));
    }

    /** The mark moves, yet what lies before it and above the start is reported all the same. */
    @Test
    void aBookmarkNeverHidesAnEntry() {
        putAll(0, 1, 2, 8, 9);
        assertEquals(List.of(1L, 2L, 8L), revisions(0, longs(0), longs(8)));
        put(70, 0, 5);
        assertEquals(List.of(5L, 8L), revisions(0, longs(4), longs(8)));
        assertEquals(List.of(9L), revisions(0, longs(8), longs(9)));
    }

    @Test
    void clientsDoNotDisturbEachOther() {
        putAll(0, 1, 2, 3);
        assertEquals(List.of(1L, 2L, 3L), revisions(0, longs(0), longs(3)));
        assertEquals(List.of(1L, 2L), revisions(1, longs(0), longs(2)));
        put(60, 0, 4);
        assertEquals(List.of(4L), revisions(0, longs(3), longs(9)));
        assertEquals(List.of(3L, 4L), revisions(1, longs(2), longs(9)));
    }

    @Test
    void aNewClientGrowsTheBookmarksOfEveryQueue() {
        putAll(2, 1);
        assertEquals(List.of(1L), revisions(0, new long[3], longs(9, 9, 9)));
        long blocks = liveBlocks();
        long metadata = metadataBytes();
        assertEquals(List.of(1L), revisions(5000, new long[3], longs(9, 9, 9)));
        assertEquals(blocks, liveBlocks(), "each of the three arrays was replaced");
        assertTrue(metadataBytes() >= metadata + 3 * 8 * 4900);
        assertEquals(List.of(), revisions(5000, longs(0, 0, 1), longs(9, 9, 9)));
    }

    @Test
    void aNegativeBookmarkIsNone() {
        putAll(0, 1, 2);
        long metadata = metadataBytes();
        assertEquals(List.of(1L, 2L), revisions(-1, longs(0), longs(9)));
        assertEquals(List.of(2L), revisions(-1, longs(1), longs(9)));
        assertEquals(metadata, metadataBytes());
    }

    @Test
    void aMarkedEntryMayBeRemoved() {
        putAll(0, 1, 2, 3);
        assertEquals(List.of(1L, 2L), revisions(0, longs(0), longs(2)));
        assertEquals(List.of(1L), revisions(1, longs(0), longs(1)));
        for (int key : new int[] {2, 1}) {
            long removed = MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(key), key);
            assertEquals(0, unpin(removed));
        }
        put(50, 0, 2);
        assertEquals(List.of(3L), revisions(0, longs(2), longs(9)));
        assertEquals(List.of(2L, 3L), revisions(1, longs(1), longs(9)));
    }

    @Test
    void aMarkedEntryMayBeUpdatedOrTouched() {
        putAll(0, 1, 2, 3);
        assertEquals(List.of(1L, 2L, 3L), revisions(0, longs(0), longs(3)));
        long snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBABA(map, bytes(3), 3, bytes(9), 1, (byte) 0, OWNER, 8);
        assertEquals(0, unpin(snapshot));
        assertEquals(List.of(8L), revisions(0, longs(3), longs(9)));
        unpin(MAPS.getLuValue_ByteArray(map, new long[4], bytes(3), 3, 0, true, 11));
        assertEquals(List.of(11L), revisions(0, longs(8), longs(20)));
        snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBABA(map, bytes(3), 3, bytes(9), 1, (byte) 0, (short) 1, 12);
        assertEquals(0, unpin(snapshot));
        assertEquals(List.of(12L), revisions(0, longs(11, 11), longs(20, 20)), "it has changed its owner");
    }

    @Test
    void aClearForgetsTheBookmarks() {
        putAll(0, 5, 6);
        assertEquals(List.of(5L, 6L), revisions(0, longs(0), longs(9)));
        assertTrue(MAPS.clear(map));
        assertEquals(List.of(), revisions(0, longs(0), longs(9)));
        putAll(0, 7, 8);
        assertEquals(List.of(7L, 8L), revisions(0, longs(6), longs(9)));
    }

    @Test
    void whatAQueryReportedOutlivesUpdateAndClear() {
        put(1, 0, 1);
        RevisionQuery.Words words = query(0, longs(0), longs(9)).get(0);
        long snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBABA(map, bytes(1), 1, bytes(7), 1, (byte) 0, OWNER, 2);
        assertEquals(0, unpin(snapshot));
        assertTrue(MAPS.clear(map));
        assertArrayEquals(bytes(1), bytesAt(words.keyAddress(), words.keyLength()));
        assertArrayEquals(bytes(1, 1), bytesAt(words.valueAddress(), words.valueLength()));
        assertEquals(0, words.release());
    }

    @Test
    void anEntryThatWasReportedTwiceIsPinnedTwice() {
        long entry = put(1, 0, 1);
        RevisionQuery.Words first = query(0, longs(0), longs(9)).get(0);
        RevisionQuery.Words second = query(1, longs(0), longs(9)).get(0);
        assertEquals(PINS_OF_MAP + 2, VALUES.getReferenceCount(entry));
        assertEquals(3, pinsOfKey(entry));
        assertEquals(PINS_OF_MAP + 1, first.release());
        assertEquals(PINS_OF_MAP, second.release());
    }

    /** A store that is full can still be replicated. */
    @Test
    void aQueryNeedsNoRoom() {
        putAll(0, 1, 2);
        MANAGER.setInternalTracking(true);
        try {
            MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap());
            assertEquals(List.of(1L, 2L), revisions(9, longs(0), longs(9)));
        } finally {
            MANAGER.setCurrentMaxOffHeapSize(GIGABYTE);
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void aRefusedQueueRefusesTheInsertOfANewOwner() {
        put(1, 0, 1);
        MANAGER.setInternalTracking(true);
        try {
            long entry = 0;
            int refusals = 0;
            for (long room = 200; entry == 0; room += 40) {
                assertTrue(room < 65_536, "forty queues need less");
                entry = withRoom(
                        room, () -> MAPS.insertAndGetNewAndPinWithInt(map, 2, 2, bytes(1), 1, (byte) 0, (short) 40, 2));
                if (entry == 0) {
                    refusals++;
                    assertEquals(1, MAPS.size(map), "after a refusal with " + room + " bytes left");
                    assertEquals(List.of(1L), revisions(0, new long[41], nines(41)));
                }
            }
            assertTrue(refusals > 3, "only " + refusals + " refusals");
            assertEquals(PINS_OF_MAP, unpin(entry));
            assertEquals(List.of(1L, 2L), revisions(0, new long[41], nines(41)));
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void aRefusedQueueRefusesTheUpdateToANewOwner() {
        long entry = put(1, 0, 1);
        MANAGER.setInternalTracking(true);
        try {
            long snapshot = 0;
            int refusals = 0;
            for (long room = 200; snapshot == 0; room += 40) {
                assertTrue(room < 65_536, "forty queues need less");
                snapshot = withRoom(
                        room,
                        () -> MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                                map, bytes(1), 1, bytes(5), 1, (byte) 0, (short) 40, 2));
                if (snapshot == 0) {
                    refusals++;
                    assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(entry));
                    assertEquals(List.of(1L), revisions(0, new long[41], nines(41)));
                    assertArrayEquals(bytes(1, 1), valueOf(entry));
                }
            }
            assertTrue(refusals > 3, "only " + refusals + " refusals");
            assertNotEquals(entry, snapshot);
            assertEquals(0, unpin(snapshot));
            assertEquals(List.of(2L), revisions(0, new long[41], nines(41)));
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    private static long[] nines(int count) {
        return LongStream.generate(() -> 9).limit(count).toArray();
    }
}
