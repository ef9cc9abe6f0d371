package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/** The six natives that update, their snapshots, pins and refusals. */
class MapUpdateTest extends MapTestBase {
    private static final String STRING = "ab";
    private static final byte[] KEY_BYTES = utf16(STRING);
    private static final int HASH = nativeHash(KEY_BYTES);

    /** One native each, called so that all of them update the same entry to the same value. */
    enum Native {
        BUFFER {
            @Override
            long update(long map, ByteBuffer key, ByteBuffer value, int owner, long revision) {
                return MAPS.updateAndGetNewAndPin(map, key, value, (short) owner, revision);
            }
        },
        BUFFER_WITH_HASH {
            @Override
            long update(long map, ByteBuffer key, ByteBuffer value, int owner, long revision) {
                return MAPS.updateAndGetNewAndPinWithHashCode(map, key, HASH, value, (short) owner, revision);
            }
        },
        ARRAY {
            @Override
            long update(long map, ByteBuffer key, ByteBuffer value, int owner, long revision) {
                return MAPS.updateAndGetNewAndPinWithHashCodeBA(map, array(key), HASH, value, (short) owner, revision);
            }
        },
        ARRAY_TO_ARRAY {
            @Override
            long update(long map, ByteBuffer key, ByteBuffer value, int owner, long revision) {
                return MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                        map, array(key), HASH, array(value), value.capacity(), (byte) 5, (short) owner, revision);
            }
        },
        STRING_TO_BUFFER {
            @Override
            long update(long map, ByteBuffer key, ByteBuffer value, int owner, long revision) {
                return MAPS.updateAndGetNewAndPinWithHashCodeStringBB(
                        map, string(key), HASH, value, (short) owner, revision);
            }
        },
        STRING_TO_ARRAY {
            @Override
            long update(long map, ByteBuffer key, ByteBuffer value, int owner, long revision) {
                return MAPS.updateAndGetNewAndPinWithHashCodeStringBA(
                        map, string(key), HASH, array(value), value.capacity(), (byte) 5, (short) owner, revision);
            }
        };

        abstract long update(long map, ByteBuffer key, ByteBuffer value, int owner, long revision);

        boolean copiesValue() {
            return this == ARRAY_TO_ARRAY || this == STRING_TO_ARRAY;
        }

        static byte[] array(ByteBuffer buffer) {
            byte[] bytes = new byte[buffer.capacity()];
            buffer.get(0, bytes);
            return bytes;
        }

        static String string(ByteBuffer buffer) {
            return new String(array(buffer), StandardCharsets.UTF_16BE);
        }
    }

    private long putString() {
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndString(
                map, STRING, HASH, bytes(1, 2, 3), 3, (byte) 9, OWNER, 10);
        assertEquals(PINS_OF_MAP, unpin(entry));
        return entry;
    }

    @ParameterizedTest
    @EnumSource(Native.class)
    void anUpdateReplacesTheValueAndHandsOutTheOldState(Native variant) {
        long entry = putString();
        ByteBuffer key = key(KEY_BYTES);
        ByteBuffer value = block(VALUE, 5, bytes(7, 8));
        long snapshot = variant.update(map, key, value, 2, 20);
        assertNotEquals(0, snapshot);
        assertNotEquals(entry, snapshot);

        assertArrayEquals(bytes(7, 8), valueOf(entry));
        assertEquals(5, VALUES.getValueType(entry));
        assertEquals(2, VALUES.getRevisionOwner(entry));
        assertEquals(20, VALUES.getRevisionNumber(entry));
        assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(entry));
        assertEquals(1, MAPS.size(map));

        assertEquals(1, VALUES.getReferenceCount(snapshot));
        assertArrayEquals(KEY_BYTES, keyOf(snapshot));
        assertArrayEquals(bytes(1, 2, 3), valueOf(snapshot));
        assertEquals(9, VALUES.getValueType(snapshot));
        assertEquals(0, VALUES.getRevisionOwner(snapshot));
        assertEquals(10, VALUES.getRevisionNumber(snapshot));
        assertEquals(HASH, VALUES.getKeyHashCode(snapshot));
        assertEquals(1, VALUES.isValueInMemory(snapshot));
        assertEquals(0, MANAGER.getOriginalLuValue(snapshot));
        assertEquals(1, pinsOfValue(snapshot), "the snapshot alone holds the old value");
        assertEquals(2, pinsOfKey(snapshot), "entry and snapshot share the key");

        assertEquals(1, MANAGER.getReferenceCountImpl(key), "the entry keeps its own key");
        assertEquals(variant.copiesValue() ? 1 : 2, MANAGER.getReferenceCountImpl(value));
        free(key, value);
        assertEquals(1, pinsOfValue(entry));

        long blocks = liveBlocks();
        assertEquals(0, unpin(snapshot));
        assertEquals(blocks - 2, liveBlocks(), "the snapshot and the old value");
        assertEquals(1, pinsOfKey(entry));
    }

    @ParameterizedTest
    @EnumSource(Native.class)
    void aMissingKeyIsNotUpdated(Native variant) {
        long entry = putString();
        ByteBuffer key = key(utf16("xy"));
        ByteBuffer value = value(bytes(7));
        long blocks = liveBlocks();
        assertEquals(0, variant.update(map, key, value, 0, 20));
        assertEquals(blocks, liveBlocks());
        assertEquals(10, VALUES.getRevisionNumber(entry));
        assertEquals(1, MANAGER.getReferenceCountImpl(key));
        assertEquals(1, MANAGER.getReferenceCountImpl(value));
        free(key, value);
    }

    @ParameterizedTest
    @EnumSource(Native.class)
    void aRefusedUpdateLeavesTheEntryAsItWas(Native variant) {
        long entry = putString();
        ByteBuffer key = key(KEY_BYTES);
        ByteBuffer value = value(new byte[30]);
        long blocks = liveBlocks();
        MANAGER.setCurrentMaxOffHeapSize(0);
        assertThrows(IllegalStateException.class, () -> variant.update(map, key, value, 0, 20));
        MANAGER.setCurrentMaxOffHeapSize(GIGABYTE);
        assertEquals(blocks, liveBlocks());
        assertArrayEquals(bytes(1, 2, 3), valueOf(entry));
        assertEquals(10, VALUES.getRevisionNumber(entry));
        assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(entry));
        assertEquals(1, pinsOfKey(entry));
        assertEquals(1, MANAGER.getReferenceCountImpl(value));
        free(key, value);
    }

    @Test
    void aRefusalAtAnyStepLeavesTheEntryAsItWas() {
        long entry = putString();
        long blocks = liveBlocks();
        MANAGER.setInternalTracking(true);
        try {
            long snapshot = 0;
            int refusals = 0;
            for (long room = 0; snapshot == 0; room += 8) {
                assertTrue(room < 4096, "an update needs less than a page");
                MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + room);
                try {
                    snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                            map, KEY_BYTES, HASH, new byte[200], 200, (byte) 0, OWNER, 20);
                } catch (IllegalStateException e) {
                    refusals++;
                } catch (OutOfMemoryError e) {
                    refusals++;
                    countRefusalAfterAllocation();
                }
                if (snapshot == 0) {
                    assertEquals(blocks, liveBlocks(), "blocks after a refusal with " + room + " bytes left");
                    assertArrayEquals(bytes(1, 2, 3), valueOf(entry));
                    assertEquals(10, VALUES.getRevisionNumber(entry));
                    assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(entry));
                    assertEquals(1, pinsOfKey(entry));
                }
            }
            assertTrue(refusals > 2, "value and snapshot were each refused, but only " + refusals + " refusals");
            assertEquals(200, valueOf(entry).length);
            assertEquals(0, unpin(snapshot));
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void bytesUsedFollowTheValue() {
        long entry = putString();
        long used = MAPS.getCurrentBytesUsed(map);
        MANAGER.setInternalTracking(true);
        try {
            long size = MANAGER.getAllocatingSizeInOffHeap();
            long snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                    map, KEY_BYTES, HASH, new byte[5000], 5000, (byte) 0, OWNER, 20);
            assertEquals(0, unpin(snapshot));
            long grown = MANAGER.getAllocatingSizeInOffHeap() - size;
            assertTrue(grown > 4000, () -> "grew by " + grown);
            assertEquals(used + grown, MAPS.getCurrentBytesUsed(map));

            snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                    map, KEY_BYTES, HASH, bytes(1, 2, 3), 3, (byte) 0, OWNER, 21);
            assertEquals(0, unpin(snapshot));
            assertEquals(used, MAPS.getCurrentBytesUsed(map));
            assertEquals(size, MANAGER.getAllocatingSizeInOffHeap());
        } finally {
            MANAGER.setInternalTracking(false);
        }
        assertArrayEquals(bytes(1, 2, 3), valueOf(entry));
    }

    @Test
    void aChainOfUpdatesKeepsEveryPreviousState() {
        long entry = putString();
        List<Long> snapshots = new ArrayList<>();
        for (int i = 0; i < 20; i++) {
            snapshots.add(MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                    map, KEY_BYTES, HASH, bytes(100 + i), 1, (byte) 0, (short) (i % 4), 11 + i));
        }
        assertArrayEquals(bytes(1, 2, 3), valueOf(snapshots.get(0)));
        for (int i = 1; i < 20; i++) {
            assertArrayEquals(bytes(99 + i), valueOf(snapshots.get(i)));
            assertEquals((i - 1) % 4, VALUES.getRevisionOwner(snapshots.get(i)));
            assertEquals(10 + i, VALUES.getRevisionNumber(snapshots.get(i)));
        }
        assertEquals(21, pinsOfKey(entry));
        snapshots.forEach(snapshot -> assertEquals(0, unpin(snapshot)));
        assertArrayEquals(bytes(119), valueOf(entry));
    }

    @Test
    void aPinnedValueOutlivesItsReplacement() {
        ByteBuffer oldValue = value(bytes(1, 2, 3));
        ByteBuffer key = key(bytes(5));
        unpin(MAPS.insertAndGetNewAndPin(map, key, oldValue, OWNER, 1));
        ByteBuffer newValue = value(bytes(4));
        assertEquals(0, unpin(MAPS.updateAndGetNewAndPin(map, key, newValue, OWNER, 2)));
        assertEquals(1, MANAGER.getReferenceCountImpl(oldValue));
        assertArrayEquals(bytes(1, 2, 3), bytesAt(address(oldValue), 3));
        free(key, oldValue, newValue);
    }

    @Test
    void anUpdateToTheSameOwnerKeepsTheOrderOfRevisions() {
        long[] entries = new long[5];
        for (int i = 0; i < entries.length; i++) {
            entries[i] = put(map, bytes(i), bytes(i), 0, i);
        }
        ByteBuffer key = key(bytes(2));
        ByteBuffer value = value(bytes(0));
        assertEquals(0, unpin(MAPS.updateAndGetNewAndPin(map, key, value, OWNER, -1)));
        assertEquals(-1, VALUES.getRevisionNumber(entries[2]), "-1 is a revision like any other");
        assertEquals(5, MAPS.maxSize(map));
        for (long entry : entries) {
            assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(entry));
        }
        free(key, value);
    }
}
