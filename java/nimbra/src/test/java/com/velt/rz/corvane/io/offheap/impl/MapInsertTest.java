package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.util.HashSet;
import java.util.Set;
import org.junit.jupiter.api.Test;

/** The five natives that insert, their pins and their refusals. */
class MapInsertTest extends MapTestBase {
    @Test
    void anInsertedBufferEntryIsPinnedForTheCaller() {
        ByteBuffer key = key(bytes('k', 0xff));
        ByteBuffer value = value(bytes(1, 2, 3));
        long entry = MAPS.insertAndGetNewAndPin(map, key, value, (short) 2, 77);
        assertNotEquals(0, entry);
        assertEquals(PINS_OF_MAP + 1, VALUES.getReferenceCount(entry));
        assertEquals(2, MANAGER.getReferenceCountImpl(key));
        assertEquals(2, MANAGER.getReferenceCountImpl(value));
        assertEquals(nativeHash(bytes('k', 0xff)), VALUES.getKeyHashCode(entry));
        assertEquals(2, VALUES.getRevisionOwner(entry));
        assertEquals(77, VALUES.getRevisionNumber(entry));
        assertArrayEquals(bytes('k', 0xff), keyOf(entry));
        assertArrayEquals(bytes(1, 2, 3), valueOf(entry));
        assertEquals(1, MAPS.size(map));
        assertEquals(PINS_OF_MAP, unpin(entry));
        free(key, value);
        assertEquals(1, pinsOfKey(entry));
        assertEquals(1, pinsOfValue(entry));
    }

    @Test
    void aGivenHashCodeIsKept() {
        ByteBuffer key = key(bytes(1));
        ByteBuffer value = value(bytes(2));
        long entry = MAPS.insertAndGetNewAndPinWithHashCode(map, key, -12345, value, OWNER, -9);
        assertEquals(-12345, VALUES.getKeyHashCode(entry));
        assertEquals(-9, VALUES.getRevisionNumber(entry));
        assertTrue(MAPS.containsKeyWithHashCode(map, key, -12345));
        assertEquals(PINS_OF_MAP, unpin(entry));
        free(key, value);
    }

    @Test
    void byteArraysAreCopied() {
        byte[] key = bytes(5, 6, 7);
        byte[] value = bytes(1, 2, 3, 4, 5, 6);
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                map, key, 3, (byte) 33, 11, value, 4, (byte) 44, (short) 1, 5);
        key[0] = 0;
        value[0] = 0;
        assertArrayEquals(bytes(5, 6, 7), keyOf(entry));
        assertArrayEquals(bytes(1, 2, 3, 4), valueOf(entry));
        assertEquals(33, VALUES.getKeyType(entry));
        assertEquals(44, VALUES.getValueType(entry));
        assertEquals(11, VALUES.getKeyHashCode(entry));
        assertEquals(1, VALUES.getRevisionOwner(entry));
        assertEquals(5, VALUES.getRevisionNumber(entry));
        assertEquals(1, pinsOfKey(entry), "only the entry holds the copy of the key");
        assertEquals(1, pinsOfValue(entry), "only the entry holds the copy of the value");
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertEquals(3, liveBlocks() - blocksOfEmptyMap - extraQueueBlocks(1), "record, key and value");
    }

    @Test
    void emptyArraysAreStored() {
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                map, new byte[0], 0, (byte) 0, 0, new byte[0], 0, (byte) 0, OWNER, 1);
        assertNotEquals(0, entry);
        assertArrayEquals(new byte[0], keyOf(entry));
        assertArrayEquals(new byte[0], valueOf(entry));
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, new byte[0], 0));
    }

    @Test
    void stringKeysAreStoredHighByteFirst() {
        String key = "aé€\ud83d\ude00";
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndString(
                map, key, key.hashCode(), bytes(9), 1, (byte) 8, OWNER, 1);
        assertArrayEquals(utf16(key), keyOf(entry));
        assertEquals(JSTRING, VALUES.getKeyType(entry));
        assertEquals(8, VALUES.getValueType(entry));
        assertArrayEquals(bytes(9), valueOf(entry));
        assertEquals(1, pinsOfKey(entry));
        assertEquals(1, pinsOfValue(entry));
        assertEquals(PINS_OF_MAP, unpin(entry));
    }

    @Test
    void stringKeysTakeValueBuffers() {
        ByteBuffer value = block(VALUE, 3, bytes(1, 2));
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndStringBB(map, "", 0, value, OWNER, 1);
        assertArrayEquals(new byte[0], keyOf(entry));
        assertEquals(JSTRING, VALUES.getKeyType(entry));
        assertEquals(3, VALUES.getValueType(entry));
        assertEquals(2, MANAGER.getReferenceCountImpl(value));
        assertEquals(PINS_OF_MAP, unpin(entry));
        free(value);
        assertEquals(1, pinsOfValue(entry));
    }

    @Test
    void aKeyThatExistsIsRefusedAndNothingChanges() {
        put(map, bytes(1, 2), bytes(3), 0, 10);
        ByteBuffer key = key(bytes(1, 2));
        ByteBuffer value = value(bytes(4));
        long blocks = liveBlocks();
        long used = MAPS.getCurrentBytesUsed(map);
        int hash = nativeHash(bytes(1, 2));
        assertEquals(0, MAPS.insertAndGetNewAndPin(map, key, value, OWNER, 11));
        assertEquals(0, MAPS.insertAndGetNewAndPinWithHashCode(map, key, hash, value, OWNER, 11));
        assertEquals(
                0,
                MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                        map, bytes(1, 2), 2, (byte) 0, hash, bytes(4), 1, (byte) 0, OWNER, 11));
        assertEquals(blocks, liveBlocks());
        assertEquals(used, MAPS.getCurrentBytesUsed(map));
        assertEquals(1, MAPS.size(map));
        assertEquals(1, MAPS.maxSize(map));
        assertEquals(1, MANAGER.getReferenceCountImpl(key));
        assertEquals(1, MANAGER.getReferenceCountImpl(value));
        free(key, value);
    }

    @Test
    void aStringThatExistsIsRefusedAndNothingChanges() {
        ByteBuffer value = value(bytes(4));
        unpin(MAPS.insertAndGetNewAndPinWithHashCodeAndStringBB(map, "key", 7, value, OWNER, 1));
        long blocks = liveBlocks();
        assertEquals(0, MAPS.insertAndGetNewAndPinWithHashCodeAndStringBB(map, "key", 7, value, OWNER, 2));
        assertEquals(
                0, MAPS.insertAndGetNewAndPinWithHashCodeAndString(map, "key", 7, bytes(4), 1, (byte) 0, OWNER, 2));
        assertEquals(blocks, liveBlocks());
        assertEquals(1, MAPS.size(map));
        assertEquals(2, MANAGER.getReferenceCountImpl(value), "this test and the entry");
        free(value);
    }

    @Test
    void theNativeHashIsThatOfSignedBytesFromZero() {
        byte[][] keys = {{}, {-1}, {1, 2, 3}, "the quick brown fox jumps over".getBytes()};
        for (byte[] bytes : keys) {
            long entry = put(map, bytes, bytes(1), 0, 1);
            assertEquals(nativeHash(bytes), VALUES.getKeyHashCode(entry));
        }
        assertEquals(0, nativeHash());
        assertEquals(-1, nativeHash((byte) 0xff));
    }

    @Test
    void keysWithOneHashCodeAreKeptApart() {
        Set<Long> entries = new HashSet<>();
        for (int i = 0; i < 50; i++) {
            entries.add(putTyped(map, BINARY, 42, bytes(i, i)));
        }
        assertEquals(50, entries.size());
        assertEquals(50, MAPS.size(map));
        for (int i = 0; i < 50; i++) {
            assertTrue(MAPS.containsKeyWithHashCodeBA(map, bytes(i, i), 42));
        }
    }

    @Test
    void everyEntryIsFoundWhileTheTableGrows() {
        int count = 3000;
        for (int i = 0; i < count; i++) {
            put(map, nativeOrder(4, i), nativeOrder(8, i * 3L), i % 3, i);
        }
        assertEquals(count, MAPS.size(map));
        assertEquals(count, MAPS.maxSize(map));
        for (int i = 0; i < count; i++) {
            byte[] bytes = nativeOrder(4, i);
            long[] attributes = new long[4];
            long entry = MAPS.getLuValue_ByteArray(map, attributes, bytes, nativeHash(bytes), 0, false, 0);
            assertArrayEquals(nativeOrder(8, i * 3L), valueOf(entry));
            assertEquals(PINS_OF_MAP, unpin(entry));
        }
    }

    @Test
    void bytesUsedAreTheBlocksOfTheEntries() {
        MANAGER.setInternalTracking(true);
        try {
            long size = MANAGER.getAllocatingSizeInOffHeap();
            long metadata = metadataBytes();
            for (int i = 0; i < 100; i++) {
                put(map, new byte[] {(byte) i}, new byte[i * 7], 0, i);
            }
            // What was allocated and is no part of an entry is the growth of the table's own structures.
            long grown = metadataBytes() - metadata;
            assertEquals(MANAGER.getAllocatingSizeInOffHeap() - size - grown, MAPS.getCurrentBytesUsed(map));
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void aRefusalAtAnyStepLeavesTheMapAsItWas() {
        put(map, bytes(0), bytes(0), 0, 1);
        long blocks = liveBlocks();
        long used = MAPS.getCurrentBytesUsed(map);
        MANAGER.setInternalTracking(true);
        try {
            int refusals = 0;
            long entry = 0;
            for (long room = 0; entry == 0; room += 8) {
                assertTrue(room < 4096, "an insert needs less than a page");
                MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + room);
                try {
                    entry = MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                            map, bytes(1), 1, (byte) 0, 31, new byte[50], 50, (byte) 0, OWNER, 2);
                } catch (IllegalStateException e) {
                    refusals++;
                } catch (OutOfMemoryError e) {
                    refusals++;
                    countRefusalAfterAllocation();
                }
                if (entry == 0) {
                    assertEquals(blocks, liveBlocks(), "blocks after a refusal with " + room + " bytes left");
                    assertEquals(1, MAPS.size(map));
                    assertEquals(used, MAPS.getCurrentBytesUsed(map));
                }
            }
            assertTrue(refusals > 3, "key, value and record were each refused, but only " + refusals + " refusals");
            assertEquals(2, MAPS.size(map));
            assertEquals(PINS_OF_MAP, unpin(entry));
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void aFailedGrowthOfTheTableDoesNotFailTheInsert() {
        MANAGER.setInternalTracking(true);
        try {
            ByteBuffer value = value(bytes(1));
            int inserted = 0;
            for (int i = 0; i < 200; i++) {
                ByteBuffer key = key(nativeOrder(4, i));
                // Room for the record of 96 bytes; bucket arrays soon need more.
                MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + 96);
                long entry = MAPS.insertAndGetNewAndPin(map, key, value, OWNER, i);
                MANAGER.setCurrentMaxOffHeapSize(GIGABYTE);
                assertNotEquals(0, entry);
                assertEquals(PINS_OF_MAP, unpin(entry));
                free(key);
                inserted++;
                assertEquals(inserted, MAPS.size(map));
            }
            free(value);
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void anInsertAnnouncesItself() {
        ByteBuffer key = key(bytes(1));
        ByteBuffer value = value(bytes(2));
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            long entry = MAPS.insertAndGetNewAndPinWithHashCode(map, key, 99, value, (short) 1, 5);
            assertEquals(
                    "event JNI:insertAndPin:luMap=P key=P hashCode=99 value=P revisionOwner=1 revisionNumber=5"
                            + " withHashCode=true",
                    trace.normal().get(0));
            unpin(entry);
        }
        free(key, value);
    }

    /** Queues and their list are blocks too: an owner above 0 adds one queue for each owner up to it. */
    private static long extraQueueBlocks(int owner) {
        return owner;
    }
}
