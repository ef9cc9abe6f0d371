package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The walks over all revision queues of a map, with and without keys, and the clear of a map. */
class RevisionWalkTest extends MapTestBase {
    private static final int ITERATOR = 2;

    private final List<Long> expected = new ArrayList<>();

    /** Owners 1 and 4 have entries; those of owner 4 come last, and each owner's by revision. */
    private void fill() {
        long late = put(map, bytes(1), bytes(11), 4, 1);
        long third = put(map, bytes(2), bytes(12), 1, 30);
        long first = put(map, bytes(3), bytes(13), 1, 10);
        long second = put(map, bytes(4), bytes(14), 1, 20);
        expected.addAll(List.of(first, second, third, late));
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void aWalkVisitsEveryOwnerInOrderOfRevision(boolean lock) {
        fill();
        List<Long> visited = new ArrayList<>();
        long entry = MAPS.getAndPinFirstInQueue(map, ITERATOR, lock);
        while (entry != 0) {
            visited.add(entry);
            assertEquals(PINS_OF_MAP + 1, VALUES.getReferenceCount(entry));
            assertEquals(1, pinsOfKey(entry), "the walk pins no key");
            long next = MAPS.getAndPinNextInQueue(map, entry, ITERATOR, lock);
            assertEquals(PINS_OF_MAP, MANAGER.unpinLuOffHeapValue_native(entry, ITERATOR));
            entry = next;
        }
        assertEquals(expected, visited);
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void withoutAnEntryTheWalkBegins(boolean lock) {
        fill();
        assertEquals(expected.get(0), MAPS.getAndPinNextInQueue(map, 0, ITERATOR, lock));
        assertEquals(PINS_OF_MAP, unpin(expected.get(0)));
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void anEmptyMapHasNoFirst(boolean lock) {
        assertEquals(0, MAPS.getAndPinFirstInQueue(map, ITERATOR, lock));
        assertEquals(0, MAPS.getAndPinNextInQueue(map, 0, ITERATOR, lock));
        assertEquals(0, MAPS.getAndPinNextKeyWithAttributes(map, 0, new long[6], ITERATOR));
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void theReasonOfAWalksPinIsTheCallers(boolean lock) {
        fill();
        long first = expected.get(0);
        long second = expected.get(1);
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            MAPS.getAndPinFirstInQueue(map, ITERATOR, lock);
            MAPS.getAndPinNextInQueue(map, first, 16384, lock);
            assertEquals(List.of("JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN"), trace.pinsOf(first));
            assertEquals(List.of("JAVA_REMOVED_LIST_TRACKING_PIN"), trace.pinsOf(second));
        }
        unpin(first);
        unpin(second);
    }

    @Test
    void aKeyWalkPinsEntryAndKey() {
        fill();
        List<Long> visited = new ArrayList<>();
        long[] attributes = new long[6];
        long entry = 0;
        for (long next; (next = MAPS.getAndPinNextKeyWithAttributes(map, entry, attributes, ITERATOR)) != 0; ) {
            if (entry != 0) {
                assertEquals(PINS_OF_MAP, unpin(entry));
            }
            entry = next;
            visited.add(entry);
            assertEquals(PINS_OF_MAP + 1, VALUES.getReferenceCount(entry));
            assertEquals(2, pinsOfKey(entry));
            assertEquals(1, pinsOfValue(entry), "the value is not pinned");
            assertArrayEquals(keyOf(entry), bytesAt(attributes[0], attributes[1]));
            assertEquals(VALUES.getRevisionOwner(entry), attributes[2]);
            assertEquals(VALUES.getRevisionNumber(entry), attributes[3]);
            assertEquals(BINARY, attributes[4]);
            assertEquals(attributes[0] - HEADER, attributes[5]);
            assertEquals(1, MANAGER.unpin_native(attributes[5], ITERATOR));
        }
        assertEquals(expected, visited);
        assertEquals(PINS_OF_MAP, unpin(entry));
    }

    @Test
    void theKeyWalkTellsTheKeysType() {
        putTyped(map, JSTRING, 5, utf16("k"));
        long[] attributes = new long[6];
        long entry = MAPS.getAndPinNextKeyWithAttributes(map, 0, attributes, ITERATOR);
        assertEquals(JSTRING, attributes[4]);
        MANAGER.unpin_native(attributes[5], ITERATOR);
        assertEquals(0, MAPS.getAndPinNextKeyWithAttributes(map, entry, attributes, ITERATOR), "it was the last");
        assertEquals(PINS_OF_MAP, unpin(entry));
    }

    @Test
    void bothPinsOfAKeyWalkHaveTheCallersReason() {
        fill();
        long[] attributes = new long[6];
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            long entry = MAPS.getAndPinNextKeyWithAttributes(map, 0, attributes, ITERATOR);
            assertEquals(List.of("JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN"), trace.pinsOf(entry));
            assertEquals(List.of("JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN"), trace.pinsOf(attributes[5]));
            MANAGER.unpin_native(attributes[5], ITERATOR);
            unpin(entry);
        }
    }

    @Test
    void aPinnedEntryOutlivesTheClear() {
        fill();
        long blocks = liveBlocks();
        long entry = MAPS.getAndPinFirstInQueue(map, ITERATOR, true);
        assertTrue(MAPS.clear(map));
        assertEquals(0, MAPS.size(map));
        assertEquals(0, MAPS.getCurrentBytesUsed(map));
        assertEquals(blocks - 9, liveBlocks(), "three of four entries are gone");
        assertEquals(1, VALUES.getReferenceCount(entry));
        assertArrayEquals(bytes(3), keyOf(entry));
        assertArrayEquals(bytes(13), valueOf(entry));
        assertEquals(0, unpin(entry));
    }

    @Test
    void aClearedMapIsFilledAgain() {
        for (int round = 0; round < 3; round++) {
            expected.clear();
            fill();
            assertEquals(4, MAPS.size(map));
            assertEquals(expected.get(0), MAPS.getAndPinFirstInQueue(map, ITERATOR, true));
            unpin(expected.get(0));
            assertTrue(MAPS.clear(map));
            assertEquals(0, MAPS.getAndPinFirstInQueue(map, ITERATOR, true));
        }
        assertEquals(4, MAPS.maxSize(map), "the high-water marks stay");
    }

    @Test
    void anEmptyMapMayBeCleared() {
        assertTrue(MAPS.clear(map));
        assertTrue(MAPS.clear(map));
    }
}
