package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.util.List;
import org.junit.jupiter.api.Test;

/** The accessors of entries, and the release of entries. */
class MapValueTest extends MapTestBase {
    private static final String PREFIX = "debug JNI:Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_";

    @Test
    void everyAccessorReadsTheEntry() {
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                map, nativeOrder(4, 7), 4, (byte) JINT, -42, bytes(1, 2, 3), 3, (byte) 200, (short) 2, 1L << 40);
        assertEquals(-42, VALUES.getKeyHashCode(entry));
        assertEquals(1, VALUES.isValueInMemory(entry));
        assertEquals(2, VALUES.getRevisionOwner(entry));
        assertEquals(1L << 40, VALUES.getRevisionNumber(entry));
        assertEquals(PINS_OF_MAP + 1, VALUES.getReferenceCount(entry));
        assertEquals(JINT, VALUES.getKeyType(entry));
        assertEquals(200, VALUES.getValueType(entry), "the tag is not signed");
        assertEquals(0, MANAGER.getOriginalLuValue(entry));

        long[] keyInfo = new long[3];
        assertEquals(1, VALUES.getKeyInfo(entry, keyInfo));
        assertArrayEquals(bytes(7, 0, 0, 0), bytesAt(keyInfo[0], keyInfo[1]));
        assertEquals(-42, keyInfo[2], "the hash code keeps its sign");

        long[] valueInfo = new long[2];
        assertEquals(1, VALUES.getValueInfo(entry, 99, valueInfo));
        assertArrayEquals(bytes(1, 2, 3), bytesAt(valueInfo[0], valueInfo[1]));
        long[] sameInfo = new long[2];
        assertEquals(1, LuOffHeapMapValueImpl.staticGetValueInfo(entry, sameInfo));
        assertArrayEquals(valueInfo, sameInfo);
        unpin(entry);
    }

    @Test
    void theOwnerIsNotSigned() {
        // Owners are 16 bits wide without a sign; a queue is made for each owner up to the highest.
        long entry = put(map, bytes(1), bytes(2), 300, 1);
        assertEquals(300, VALUES.getRevisionOwner(entry));
    }

    @Test
    void handleZeroIsNoEntry() {
        long[] untouched = {5, 6};
        assertEquals(0, VALUES.getValueInfo(0, 0, untouched));
        assertEquals(0, LuOffHeapMapValueImpl.staticGetValueInfo(0, untouched));
        assertArrayEquals(new long[] {5, 6}, untouched);
        assertEquals(-1, VALUES.getValueType(0));
        assertEquals(-1, VALUES.isValueInMemory(0));
    }

    @Test
    void nativesWithCplusplusNamesCannotBeCalled() {
        ByteBuffer key = key(bytes(1));
        ByteBuffer value = value(bytes(2));
        assertThrows(UnsatisfiedLinkError.class, () -> VALUES.getKeyLength(0));
        assertThrows(UnsatisfiedLinkError.class, () -> MAPS.allocateLuOffHeapMapValue(key, value, OWNER, 1));
        assertThrows(
                UnsatisfiedLinkError.class, () -> MAPS.allocateLuOffHeapMapValueWithHashCode(key, 1, value, OWNER, 1));
        free(key, value);
    }

    @Test
    void accessorsTraceTheEntry() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        String address = "0x" + Long.toHexString(entry);
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            VALUES.isValueInMemory(entry);
            VALUES.getReferenceCount(entry);
            LuOffHeapMapValueImpl.staticGetValueInfo(entry, new long[2]);
            assertEquals(
                    List.of(
                            PREFIX + "isValueInMemory:luValue=P luValue->flags=5 luValue->key=P luValue->value=P",
                            PREFIX + "getReferenceCount:value=P, refCount=3",
                            PREFIX + "staticGetValueInfo:value = P"),
                    trace.normal());
            trace.lines().forEach(line -> assertTrue(line.text().contains(address), line::text));
        }
    }

    @Test
    void droppingAPinTracesWhatRemains() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        long[] attributes = new long[4];
        assertEquals(entry, MAPS.getLuValue_ByteArray(map, attributes, bytes(1), 1, 0, false, 0));
        try (Trace trace = Trace.at(OffHeapLogger.ENTRY)) {
            assertEquals(PINS_OF_MAP, unpin(entry));
            assertEquals(
                    List.of(
                            "entry JNI:unpinLuOffHeapMapValue:luValue=P",
                            "exit JNI:unpinLuOffHeapMapValue:luValue=P remaining pins=3"),
                    trace.normal());
        }
    }

    @Test
    void droppingTheLastPinFreesTheEntryItsKeyAndItsValue() {
        long entry = put(map, bytes(1), bytes(2), 0, 1);
        assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), 1));
        long blocks = liveBlocks();
        try (Trace trace = Trace.at(OffHeapLogger.ENTRY | OffHeapLogger.EVENT)) {
            assertEquals(0, unpin(entry));
            List<String> lines = trace.normal();
            String name = "JNI:unpinLuOffHeapMapValue:";
            assertEquals("entry " + name + "luValue=P", lines.get(0));
            assertTrue(
                    lines.contains("event " + name + "luValue=P pins <= 0, freeing constituent members"),
                    lines::toString);
            assertEquals("exit " + name + "completed and freed LuValue=P", lines.get(lines.size() - 1));
        }
        assertEquals(blocks - 3, liveBlocks());
    }

    @Test
    void keyAndValueOutliveTheEntryWhileTheyArePinned() {
        ByteBuffer key = key(bytes(1));
        ByteBuffer value = value(bytes(2));
        long entry = MAPS.insertAndGetNewAndPin(map, key, value, OWNER, 1);
        unpin(entry);
        assertEquals(entry, MAPS.removeAndGetAndPin(map, key));
        assertEquals(0, unpin(entry));
        assertEquals(1, MANAGER.getReferenceCountImpl(key));
        assertEquals(1, MANAGER.getReferenceCountImpl(value));
        assertEquals(2, value.get(0));
        free(key, value);
    }
}
