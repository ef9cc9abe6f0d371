package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Eviction records: their fields, their pins, and the two slots of an entry. */
class EvictionDataTest extends MapTestBase {
    private static final LuOffHeapEvictionDataImpl RECORDS = new LuOffHeapEvictionDataImpl();
    private static final int ALLOCATION = EvictionTestBase.ALLOCATION;
    private static final int GET = EvictionTestBase.GET;

    private static int drop(long record) {
        return MANAGER.unpinLuEvictionData_native(record, ALLOCATION);
    }

    private static long newRecord() {
        return EvictionTestBase.newRecord(1);
    }

    private static long pins(long record) {
        return RECORDS.getReferenceCount(record);
    }

    @Test
    void aRecordPinsItsKeyAndIsPinnedForTheCaller() {
        ByteBuffer key = key(bytes(1, 2, 3));
        long record = RECORDS.allocateAndPinEvictionData(99, key, false);
        assertNotEquals(0, record);
        assertEquals(1, pins(record));
        assertEquals(2, MANAGER.getReferenceCountImpl(key));
        assertEquals(0, RECORDS.getMetadata(0, record), "the ordering value begins at 0");
        assertEquals(0, drop(record));
        assertEquals(1, MANAGER.getReferenceCountImpl(key));
        free(key);
    }

    @Test
    void theRecordAloneKeepsItsKeyAlive() {
        ByteBuffer key = key(bytes(4, 5));
        long record = RECORDS.allocateAndPinEvictionData(0, key, false);
        free(key);
        long blocks = liveBlocks();
        ByteBuffer seen = RECORDS.getEvictionKey(0, record);
        assertEquals(2, seen.capacity());
        assertEquals(4, seen.get(0));
        assertEquals(5, seen.get(1));
        assertEquals(1, MANAGER.getReferenceCountImpl(seen), "the view adds no pin");
        assertEquals(0, drop(record));
        assertEquals(blocks - 2, liveBlocks(), "record and key");
    }

    @Test
    void aViewOfAnEmptyKey() {
        ByteBuffer key = key();
        long record = RECORDS.allocateAndPinEvictionData(0, key, true);
        assertEquals(0, RECORDS.getEvictionKey(0, record).capacity());
        assertEquals(0, drop(record));
        free(key);
    }

    @ParameterizedTest
    @ValueSource(longs = {0, 1, -1, Long.MAX_VALUE, Long.MIN_VALUE})
    void fieldsKeepWhatTheyAreGiven(long value) {
        long record = newRecord();
        assertTrue(RECORDS.setMetadata(7, record, value));
        assertTrue(RECORDS.setExpiration(7, record, value + 1));
        assertTrue(RECORDS.setTimeout(record, (int) value));
        assertEquals(value, RECORDS.getMetadata(8, record));
        assertEquals(value + 1, RECORDS.getExpiration(8, record));
        assertEquals((int) value, RECORDS.getTimeout(record));
        assertEquals(0, drop(record));
    }

    @Test
    void addressZeroHasNoTimeoutAndNoSlots() {
        assertFalse(RECORDS.setTimeout(0, 5));
        assertEquals(0, MANAGER.getEvictionData_native(0, false));
        assertEquals(0, MANAGER.getEvictionData_native(0, true));
    }

    @Test
    void pinsAreCounted() {
        long record = newRecord();
        assertEquals(2, MANAGER.pinLuEvictionData_native(record, 8));
        assertEquals(3, MANAGER.pinLuEvictionData_native(record, 8));
        assertEquals(3, pins(record));
        assertEquals(2, MANAGER.unpinLuEvictionData_native(record, 8));
        assertEquals(1, MANAGER.unpinLuEvictionData_native(record, 8));
        assertEquals(0, drop(record));
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void theRecordIsInternalMetadataAndItsKeyOnRequest(boolean countKey) {
        ByteBuffer key = key(new byte[1000]);
        long before = metadataBytes();
        long record = RECORDS.allocateAndPinEvictionData(0, key, countKey);
        long counted = metadataBytes() - before;
        assertTrue(counted >= (countKey ? 56 + 1024 : 56), () -> counted + " bytes");
        assertTrue(counted < (countKey ? 56 + 1024 + 512 : 128), () -> counted + " bytes");
        assertEquals(0, drop(record));
        assertEquals(before, metadataBytes());
        free(key);
    }

    @Test
    void aRefusedRecordLeavesTheKeyAlone() {
        ByteBuffer key = key(bytes(1));
        long blocks = liveBlocks();
        long metadata = metadataBytes();
        MANAGER.setInternalTracking(true);
        try {
            long record = 0;
            int refusals = 0;
            for (long room = 0; record == 0; room += 8) {
                record = withRoom(room, () -> RECORDS.allocateAndPinEvictionData(0, key, true));
                if (record == 0) {
                    refusals++;
                    assertEquals(blocks, liveBlocks());
                    assertEquals(metadata, metadataBytes());
                    assertEquals(1, MANAGER.getReferenceCountImpl(key));
                }
            }
            assertTrue(refusals > 0);
            assertEquals(0, drop(record));
        } finally {
            MANAGER.setInternalTracking(false);
        }
        free(key);
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void aSlotHoldsOnePin(boolean forTTL) {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long record = newRecord();
        assertTrue(MANAGER.setEvictionData_native(entry, record, forTTL));
        assertEquals(2, pins(record));
        assertFalse(MANAGER.setEvictionData_native(entry, record, forTTL), "it is there already");
        assertEquals(2, pins(record));
        assertEquals(0, MANAGER.getEvictionData_native(entry, !forTTL), "the other slot is empty");
        assertEquals(record, MANAGER.getEvictionData_native(entry, forTTL));
        assertEquals(3, pins(record));
        assertEquals(2, MANAGER.unpinLuEvictionData_native(record, GET));
        assertEquals(1, drop(record));
        assertTrue(MANAGER.setEvictionData_native(entry, 0, forTTL), "clearing frees the record");
        assertFalse(MANAGER.setEvictionData_native(entry, 0, forTTL), "it was clear already");
        assertEquals(0, MANAGER.getEvictionData_native(entry, forTTL));
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void replacingARecordFreesTheOldOne(boolean forTTL) {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long old = newRecord();
        MANAGER.setEvictionData_native(entry, old, forTTL);
        drop(old);
        long record = newRecord();
        long blocks = liveBlocks();
        assertTrue(MANAGER.setEvictionData_native(entry, record, forTTL));
        assertEquals(blocks - 2, liveBlocks(), "the old record and its key");
        assertEquals(2, pins(record));
        assertEquals(1, drop(record));
    }

    @Test
    void oneRecordMayFillBothSlots() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long record = newRecord();
        assertTrue(MANAGER.setEvictionData_native(entry, record, false));
        assertTrue(MANAGER.setEvictionData_native(entry, record, true));
        assertEquals(3, pins(record));
        assertEquals(2, drop(record));
        assertTrue(MANAGER.setEvictionData_native(entry, 0, false));
        assertEquals(1, pins(record));
        assertEquals(record, MANAGER.getEvictionData_native(entry, true));
        assertEquals(1, MANAGER.unpinLuEvictionData_native(record, GET));
    }

    @Test
    void theEndOfAnEntryEmptiesItsSlots() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long ordinary = newRecord();
        long ttl = newRecord();
        MANAGER.setEvictionData_native(entry, ordinary, false);
        MANAGER.setEvictionData_native(entry, ttl, true);
        assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), 1));
        assertEquals(2, pins(ordinary), "the removed entry still holds them");
        assertEquals(0, unpin(entry));
        assertEquals(1, pins(ordinary));
        assertEquals(1, pins(ttl));
        assertEquals(0, drop(ordinary));
        assertEquals(0, drop(ttl));
    }

    @Test
    void anUpdateLeavesTheSlotsWithTheEntry() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long record = newRecord();
        MANAGER.setEvictionData_native(entry, record, false);
        long snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBABA(map, bytes(1), 1, bytes(3), 1, (byte) 0, OWNER, 2);
        assertEquals(0, MANAGER.getEvictionData_native(snapshot, false));
        assertEquals(0, unpin(snapshot));
        assertEquals(2, pins(record));
        assertEquals(record, MANAGER.getEvictionData_native(entry, false));
        MANAGER.unpinLuEvictionData_native(record, GET);
        assertEquals(1, drop(record));
    }

    @Test
    void theReasonsOfTheHolders() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        ByteBuffer key = key(bytes(1));
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            long record = RECORDS.allocateAndPinEvictionData(0, key, false);
            MANAGER.setEvictionData_native(entry, record, true);
            MANAGER.getEvictionData_native(entry, true);
            MANAGER.pinLuEvictionData_native(record, 128);
            assertEquals(
                    List.of("ALLOCATION_PIN", "LUOFFHEAPMAPVALUE_EVICTION_PIN", "JNI_GET_PIN", "JAVA_EVICTED_PIN"),
                    trace.pinsOf(record));
            assertEquals(List.of("LUOFFHEAPEVICTIONDATA_KEY_PIN"), trace.pinsOf(address(key) - HEADER));
            MANAGER.unpinLuEvictionData_native(record, 128);
            MANAGER.unpinLuEvictionData_native(record, GET);
            assertEquals(1, drop(record));
        }
        free(key);
    }
}
