package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;

/** The dirty flag of an entry, its size, and the size constants. */
class MapEntryFlagsTest extends MapTestBase {
    @Test
    void anEntryIsBornDirty() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        assertTrue(VALUES.isClientDirty(entry));
        assertTrue(VALUES.markClientDirty(entry), "it was dirty before");
        assertTrue(VALUES.unmarkClientDirty(entry));
        assertFalse(VALUES.isClientDirty(entry));
        assertFalse(VALUES.unmarkClientDirty(entry), "it was clean before");
        assertFalse(VALUES.isClientDirty(entry));
        assertFalse(VALUES.markClientDirty(entry));
        assertTrue(VALUES.isClientDirty(entry));
    }

    @Test
    void theFlagTouchesNothingElse() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long other = put(map, bytes(3), bytes(4), 0, 2);
        VALUES.unmarkClientDirty(entry);
        assertEquals(1, VALUES.isValueInMemory(entry));
        assertTrue(VALUES.isClientDirty(other));
        assertEquals(entry, MAPS.getLuValue_ByteArray(map, new long[4], bytes(1), 1, 0, true, 9));
        assertFalse(VALUES.isClientDirty(entry), "a lookup leaves it clean");
        unpin(entry);
    }

    @Test
    void theSizeIsThatOfTheThreeBlocks() {
        MANAGER.setInternalTracking(true);
        try {
            for (int length : new int[] {0, 1, 100, 5000}) {
                long before = MANAGER.getAllocatingSizeInOffHeap();
                long metadata = metadataBytes();
                long entry = put(map, nativeOrder(4, length), new byte[length], 0, length);
                long grown = metadataBytes() - metadata;
                assertEquals(MANAGER.getAllocatingSizeInOffHeap() - before - grown, VALUES.getSize(entry));
            }
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void theSizeFollowsTheValue() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long small = VALUES.getSize(entry);
        assertEquals(small, MAPS.getCurrentBytesUsed(map));
        long snapshot =
                MAPS.updateAndGetNewAndPinWithHashCodeBABA(map, bytes(1), 1, new byte[4096], 4096, (byte) 0, OWNER, 2);
        assertTrue(VALUES.getSize(entry) >= small + 4000);
        assertEquals(VALUES.getSize(entry), MAPS.getCurrentBytesUsed(map));
        assertEquals(small, VALUES.getSize(snapshot), "the snapshot has the key and the value of before");
        assertEquals(0, unpin(snapshot));
    }

    @Test
    void theSizeConstants() {
        assertEquals(88, MANAGER.getSize_LuValue(), "without disk overflow");
        assertEquals(1, MANAGER.getSize_PerEntryMetadata());
    }
}
