package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;

import java.nio.ByteBuffer;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The five natives that remove. */
class MapRemoveTest extends MapTestBase {
    @Test
    void aRemovedEntryBelongsToTheCaller() {
        long entry = put(map, bytes(1, 2), bytes(3), 1, 5);
        ByteBuffer key = key(bytes(1, 2));
        assertEquals(entry, MAPS.removeAndGetAndPin(map, key));
        assertEquals(0, MAPS.size(map));
        assertEquals(0, MAPS.getCurrentBytesUsed(map));
        assertEquals(1, VALUES.getReferenceCount(entry));
        assertArrayEquals(bytes(1, 2), keyOf(entry));
        assertArrayEquals(bytes(3), valueOf(entry));
        assertEquals(5, VALUES.getRevisionNumber(entry));
        assertFalse(MAPS.containsKey(map, key));
        assertEquals(0, MAPS.removeAndGetAndPin(map, key), "a second time");
        long blocks = liveBlocks();
        assertEquals(0, unpin(entry));
        assertEquals(blocks - 3, liveBlocks(), "record, key and value");
        free(key);
    }

    @Test
    void everyFormOfKeyRemoves() {
        ByteBuffer key = key(bytes(1));
        putTyped(map, BINARY, 50, bytes(1));
        assertEquals(0, MAPS.removeAndGetAndPinWithHashCode(map, key, 51), "another hash code");
        assertGone(MAPS.removeAndGetAndPinWithHashCode(map, key, 50));

        putTyped(map, BINARY, 50, bytes(1));
        assertEquals(0, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(2), 50), "another key");
        assertGone(MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), 50));

        putTyped(map, JSTRING, 50, utf16("k"));
        assertEquals(0, MAPS.removeAndGetAndPinWithHashCodeString(map, "K", 50), "another string");
        assertGone(MAPS.removeAndGetAndPinWithHashCodeString(map, "k", 50));

        putTyped(map, JINT, 50, nativeOrder(4, 7));
        assertEquals(0, MAPS.removeAndGetAndPinWithHashCodeNumber(map, 50, 8), "another number");
        assertGone(MAPS.removeAndGetAndPinWithHashCodeNumber(map, 50, 7));
        free(key);
    }

    @Test
    void aPinnedEntryOutlivesItsRemoval() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long[] attributes = new long[4];
        assertEquals(entry, MAPS.getLuValue_ByteArray(map, attributes, bytes(1), 1, 0, false, 0));
        assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), 1));
        assertEquals(1, unpin(entry));
        assertArrayEquals(bytes(2), bytesAt(attributes[2], attributes[3]));
        assertEquals(0, unpin(entry));
    }

    @Test
    void removalKeepsTheHighWaterMark() {
        for (int i = 0; i < 3; i++) {
            put(map, bytes(i), bytes(i), 0, i);
        }
        assertGone(MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(0), 0));
        assertGone(MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(2), 2));
        assertEquals(1, MAPS.size(map));
        assertEquals(3, MAPS.maxSize(map));
    }

    @ParameterizedTest
    @ValueSource(strings = {"012", "021", "102", "120", "201", "210"})
    void aChainStaysLinkedInWhateverOrderItShrinks(String order) {
        long[] entries = new long[3];
        for (int i = 0; i < 3; i++) {
            entries[i] = putTyped(map, BINARY, 99, bytes(i));
        }
        for (char digit : order.toCharArray()) {
            int i = digit - '0';
            assertEquals(entries[i], MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(i), 99));
            assertEquals(1, VALUES.getReferenceCount(entries[i]));
            assertEquals(0, unpin(entries[i]));
        }
        assertEquals(0, MAPS.size(map));
        assertEquals(blocksOfEmptyMap, liveBlocks());
    }

    @Test
    void aKeyCanBeInsertedAgainAfterItsRemoval() {
        for (int i = 0; i < 100; i++) {
            long entry = put(map, bytes(1), bytes(i), i % 3, i);
            assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), 1));
            assertArrayEquals(bytes(i), valueOf(entry));
            assertEquals(0, unpin(entry));
        }
        assertEquals(3, MAPS.maxSize(map), "one for each of three owners");
    }

    @Test
    void clearingKeepsWhatCallersHold() {
        long held = put(map, bytes(1), bytes(11), 0, 1);
        put(map, bytes(2), bytes(22), 3, 1);
        long[] attributes = new long[4];
        assertEquals(held, MAPS.getLuValue_ByteArray(map, attributes, bytes(1), 1, 0, false, 0));
        assertEquals(true, MAPS.clear(map));
        assertEquals(0, MAPS.size(map));
        assertEquals(0, MAPS.getCurrentBytesUsed(map));
        assertEquals(1, VALUES.getReferenceCount(held));
        assertArrayEquals(bytes(11), valueOf(held));
        assertEquals(0, unpin(held));
        put(map, bytes(1), bytes(3), 0, 2);
        assertEquals(1, MAPS.size(map));
    }

    private static void assertGone(long entry) {
        assertNotEquals(0, entry);
        assertEquals(0, unpin(entry));
    }
}
