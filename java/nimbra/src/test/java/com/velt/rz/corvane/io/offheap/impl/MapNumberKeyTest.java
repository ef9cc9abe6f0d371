package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.MethodSource;

/** The 28 natives that insert and update under number keys, and what finds such keys. */
class MapNumberKeyTest extends MapTestBase {
    private static final int HASH = -77;

    private static Stream<NumberKey> numbers() {
        return Stream.of(NumberKey.values()).filter(kind -> kind != NumberKey.BOOLEAN);
    }

    private static Stream<Arguments> pairsOfNumbers() {
        return numbers().flatMap(stored -> numbers().map(searched -> Arguments.of(stored, searched)));
    }

    private void check(long entry, NumberKey kind, double key, byte[] value, int valueTag, int owner, long revision) {
        assertArrayEquals(kind.stored(key), keyOf(entry));
        assertEquals(kind.tag, VALUES.getKeyType(entry));
        assertEquals(HASH, VALUES.getKeyHashCode(entry));
        assertArrayEquals(value, valueOf(entry));
        assertEquals(valueTag, VALUES.getValueType(entry));
        assertEquals(owner, VALUES.getRevisionOwner(entry));
        assertEquals(revision, VALUES.getRevisionNumber(entry));
    }

    @ParameterizedTest
    @EnumSource
    void anInsertStoresTheNumberInNativeOrderAndCopiesTheArray(NumberKey kind) {
        byte[] value = bytes(1, 2, 3);
        long entry = kind.insert(map, 7, HASH, value, 1, 5);
        value[0] = 99;
        check(entry, kind, 7, bytes(1, 2, 3), NumberKey.VALUE_TAG, 1, 5);
        assertEquals(PINS_OF_MAP + 1, VALUES.getReferenceCount(entry));
        assertEquals(1, pinsOfKey(entry), "only the entry holds its key");
        assertEquals(1, pinsOfValue(entry), "only the entry holds its value");
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertEquals(3 + 1, liveBlocks() - blocksOfEmptyMap, "record, key and value; the queue of owner 1");
    }

    @ParameterizedTest
    @EnumSource
    void anInsertSharesTheBufferOfItsTwin(NumberKey kind) {
        ByteBuffer value = value(bytes(4, 5));
        long entry = kind.insert(map, 7, HASH, value, 0, 6);
        check(entry, kind, 7, bytes(4, 5), BINARY, 0, 6);
        assertEquals(2, MANAGER.getReferenceCountImpl(value), "this test and the entry");
        assertEquals(PINS_OF_MAP, unpin(entry));
        free(value);
        assertEquals(1, pinsOfValue(entry));
    }

    @ParameterizedTest
    @MethodSource("numbers")
    void anExistingKeyRefusesTheInsert(NumberKey kind) {
        long entry = kind.insert(map, 7, HASH, bytes(1), 0, 5);
        unpin(entry);
        long blocks = liveBlocks();
        ByteBuffer value = value(bytes(2));
        assertEquals(0, kind.insert(map, 7, HASH, bytes(2), 0, 6));
        assertEquals(0, kind.insert(map, 7, HASH, value, 0, 6));
        assertEquals(1, MANAGER.getReferenceCountImpl(value));
        free(value);
        assertEquals(blocks, liveBlocks());
        check(entry, kind, 7, bytes(1), NumberKey.VALUE_TAG, 0, 5);
    }

    @ParameterizedTest
    @MethodSource("numbers")
    void anUpdateHandsOverThePreviousState(NumberKey kind) {
        long entry = kind.insert(map, -3, HASH, bytes(1), 0, 5);
        unpin(entry);
        long snapshot = kind.update(map, -3, HASH, bytes(2, 2), 1, 6);
        check(snapshot, kind, -3, bytes(1), NumberKey.VALUE_TAG, 0, 5);
        check(entry, kind, -3, bytes(2, 2), NumberKey.VALUE_TAG, 1, 6);
        assertEquals(1, VALUES.getReferenceCount(snapshot), "the caller's");
        assertEquals(0, unpin(snapshot));

        ByteBuffer value = value(bytes(3));
        snapshot = kind.update(map, -3, HASH, value, 2, 7);
        check(snapshot, kind, -3, bytes(2, 2), NumberKey.VALUE_TAG, 1, 6);
        check(entry, kind, -3, bytes(3), BINARY, 2, 7);
        assertEquals(2, MANAGER.getReferenceCountImpl(value));
        assertEquals(0, unpin(snapshot));
        free(value);
        assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(entry));
    }

    @ParameterizedTest
    @EnumSource
    void anUpdateOfAMissingKeyChangesNothing(NumberKey kind) {
        unpin(kind.insert(map, 1, HASH + 1, bytes(1), 0, 5));
        long blocks = liveBlocks();
        ByteBuffer value = value(bytes(2));
        assertEquals(0, kind.update(map, 1, HASH, bytes(2), 0, 6));
        assertEquals(0, kind.update(map, 1, HASH, value, 0, 6));
        assertEquals(1, MANAGER.getReferenceCountImpl(value));
        free(value);
        assertEquals(blocks, liveBlocks());
        assertEquals(1, MAPS.size(map));
    }

    @ParameterizedTest
    @EnumSource
    void onlyTheNamedBytesOfAnArrayAreTaken(NumberKey kind) {
        long entry = kind.insert(map, 0, HASH, new byte[0], 0, 5);
        check(entry, kind, 0, new byte[0], NumberKey.VALUE_TAG, 0, 5);
        assertEquals(PINS_OF_MAP, unpin(entry));
    }

    @Test
    void anArrayShorterThanItsLengthIsRefused() {
        long blocks = liveBlocks();
        assertThrows(
                ArrayIndexOutOfBoundsException.class,
                () -> MAPS.insertAndGetNewAndPinWithInt(map, 7, HASH, bytes(1), 2, (byte) 0, OWNER, 1));
        assertThrows(
                ArrayIndexOutOfBoundsException.class,
                () -> MAPS.updateAndGetNewAndPinWithInt(map, 7, HASH, bytes(1), 2, (byte) 0, OWNER, 1));
        assertEquals(blocks, liveBlocks());
        assertEquals(0, MAPS.size(map));
    }

    /** Every number type finds every other: by the getter, as a duplicate, in an update and in a removal. */
    @ParameterizedTest
    @MethodSource("pairsOfNumbers")
    void aNumberIsOneKeyAcrossTypes(NumberKey stored, NumberKey searched) {
        for (double key : new double[] {0, 1, -1, 7, 100, 127, -128}) {
            long entry = stored.insert(map, key, HASH, bytes(1), 0, 1);
            unpin(entry);
            assertEquals(entry, MAPS.getLuValue_Number(map, HASH, 0, false, 0, key));
            assertEquals(PINS_OF_MAP, unpin(entry));
            assertTrue(MAPS.containsKeyWithHashCodeNumber(map, HASH, key));
            assertEquals(0, searched.insert(map, key, HASH, bytes(2), 0, 1), "a duplicate");
            long snapshot = searched.update(map, key, HASH, bytes(3), 0, 2);
            check(snapshot, stored, key, bytes(1), NumberKey.VALUE_TAG, 0, 1);
            check(entry, stored, key, bytes(3), NumberKey.VALUE_TAG, 0, 2);
            assertEquals(0, unpin(snapshot));
            assertEquals(0, searched.update(map, key == 127 ? 126 : key + 1, HASH, bytes(3), 0, 2));
            assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeNumber(map, HASH, key));
            assertEquals(0, unpin(entry));
        }
    }

    /** As bytes, keys of different types differ, unless their bit patterns happen to be the same. */
    @ParameterizedTest
    @MethodSource("pairsOfNumbers")
    void bytesFindOnlyTheSameBitPattern(NumberKey stored, NumberKey searched) {
        unpin(stored.insert(map, 7, HASH, bytes(1), 0, 1));
        boolean same = stored == searched;
        assertEquals(same, MAPS.containsKeyWithHashCodeBA(map, searched.stored(7), HASH));
        ByteBuffer key = block(KEY, searched.tag, searched.stored(7));
        assertEquals(same, MAPS.containsKeyWithHashCode(map, key, HASH));
        long found = MAPS.getLuValue_ByteBuffer(map, key, HASH, 0, false, 0);
        assertEquals(same, found != 0);
        if (found != 0) {
            unpin(found);
        }
        free(key);
        assertFalse(MAPS.containsKeyWithHashCodeString(map, "7", HASH));
    }

    @ParameterizedTest
    @CsvSource({
        // stored as, stored value, searched as, searched value, found
        "INT, 16777217, FLOAT, 16777216, false",
        "FLOAT, 16777216, INT, 16777217, false",
        "INT, 2147483647, DOUBLE, 2147483647, true",
        "INT, -2147483648, LONG, -2147483648, true",
        "INT, 300, BYTE, 44, false",
        "SHORT, -32768, DOUBLE, -32768, true",
        "LONG, 4294967303, INT, 7, false",
        "DOUBLE, 7.5, INT, 7, false",
        "FLOAT, 0.1, FLOAT, 0.1, true",
        "FLOAT, 0.1, DOUBLE, 0.1, false",
        "DOUBLE, 0.1, FLOAT, 0.1, false",
        "FLOAT, 0.5, DOUBLE, 0.5, true",
        "DOUBLE, -0.0, INT, 0, true",
        "DOUBLE, 0.0, DOUBLE, -0.0, true",
        "FLOAT, -0.0, DOUBLE, 0.0, true",
        "INT, 0, DOUBLE, -0.0, true",
        "DOUBLE, 4.9e-324, DOUBLE, 0.0, false",
        "DOUBLE, 0.0, DOUBLE, 4.9e-324, false",
        // The relative tolerance is 1e-14 of the searched number.
        "DOUBLE, 1.000000000000005, DOUBLE, 1.0, true",
        "DOUBLE, 1.00000000000002, DOUBLE, 1.0, false",
        "DOUBLE, -1.000000000000005, DOUBLE, -1.0, true",
        "DOUBLE, -1.0, DOUBLE, 1.0, false",
        "FLOAT, 1e30, DOUBLE, 1e30, false",
        "DOUBLE, NaN, DOUBLE, NaN, false",
        "FLOAT, NaN, FLOAT, NaN, false",
        "INT, 0, DOUBLE, NaN, false",
        // The tolerance of an infinite number is infinite; its distance to itself is no number.
        "DOUBLE, Infinity, DOUBLE, Infinity, false",
        "DOUBLE, 5, DOUBLE, Infinity, true",
        "FLOAT, 5, DOUBLE, -Infinity, true",
        "INT, 5, DOUBLE, Infinity, false",
        "DOUBLE, Infinity, DOUBLE, 5, false",
    })
    void fractionsAndLargeNumbers(
            NumberKey stored, double storedValue, NumberKey searched, double searchedValue, boolean found) {
        // A csv value of a float is the float next to it, as an int's is the int.
        long entry = stored.insert(map, storedValue, HASH, bytes(1), 0, 1);
        unpin(entry);
        long snapshot = searched.update(map, searchedValue, HASH, bytes(2), 0, 2);
        assertEquals(found, snapshot != 0);
        if (found) {
            assertEquals(0, unpin(snapshot));
        }
        if (searched == NumberKey.DOUBLE) {
            assertEquals(found, MAPS.containsKeyWithHashCodeNumber(map, HASH, searchedValue));
            assertEquals(found ? entry : 0, MAPS.removeAndGetAndPinWithHashCodeNumber(map, HASH, searchedValue));
            if (found) {
                assertEquals(0, unpin(entry));
            }
        }
    }

    /** Numbers are compared as doubles: neighbours beyond 53 bits are one key. */
    @Test
    void longsBeyondThePrecisionOfADoubleAreOneKey() {
        long number = (1L << 53) + 1;
        long entry = MAPS.insertAndGetNewAndPinWithLong(map, number, HASH, bytes(1), 1, (byte) 0, OWNER, 1);
        unpin(entry);
        assertTrue(MAPS.containsKeyWithHashCodeNumber(map, HASH, number - 1));
        assertFalse(MAPS.containsKeyWithHashCodeNumber(map, HASH, number + 1));
        assertEquals(0, MAPS.insertAndGetNewAndPinWithLong(map, number - 1, HASH, bytes(1), 1, (byte) 0, OWNER, 1));
        assertEquals(number, longAt(entry), "the stored bits are exact");
    }

    private static long longAt(long entry) {
        return ByteBuffer.wrap(keyOf(entry)).order(ByteOrder.nativeOrder()).getLong();
    }

    @Test
    void notANumberIsNeverADuplicate() {
        long first = NumberKey.DOUBLE.insert(map, Double.NaN, HASH, bytes(1), 0, 1);
        long second = NumberKey.DOUBLE.insert(map, Double.NaN, HASH, bytes(2), 0, 2);
        assertNotEquals(0, first);
        assertNotEquals(0, second);
        assertNotEquals(first, second);
        assertEquals(2, MAPS.size(map));
        unpin(first);
        unpin(second);
        byte[] pattern = NumberKey.DOUBLE.stored(Double.NaN);
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, pattern, HASH), "its bit pattern is found");
    }

    @Test
    void signedZerosAreOneKey() {
        unpin(NumberKey.DOUBLE.insert(map, -0.0, HASH, bytes(1), 0, 1));
        for (NumberKey kind : numbers().toArray(NumberKey[]::new)) {
            assertEquals(0, kind.insert(map, 0.0, HASH, bytes(2), 0, 2), kind::name);
        }
    }

    @Test
    void aBooleanKeyIsNeverADuplicateAndNoTypedSearchFindsIt() {
        long first = NumberKey.BOOLEAN.insert(map, 1, HASH, bytes(1), 0, 1);
        long second = NumberKey.BOOLEAN.insert(map, 1, HASH, bytes(2), 0, 2);
        assertNotEquals(0, first);
        assertNotEquals(0, second);
        assertEquals(2, MAPS.size(map));
        unpin(first);
        unpin(second);
        assertEquals(0, NumberKey.BOOLEAN.update(map, 1, HASH, bytes(3), 0, 3));
        assertFalse(MAPS.containsKeyWithHashCodeNumber(map, HASH, 1));
        assertEquals(0, MAPS.getLuValue_Number(map, HASH, 0, false, 0, 1));
        assertEquals(0, MAPS.removeAndGetAndPinWithHashCodeNumber(map, HASH, 1));
        assertFalse(MAPS.containsKeyWithHashCodeString(map, "1", HASH));
    }

    /** Bytes are compared without regard to the type, so they are the way to remove a boolean key. */
    @Test
    void theByteOfABooleanKeyFindsIt() {
        long entry = NumberKey.BOOLEAN.insert(map, 1, HASH, bytes(1), 0, 1);
        unpin(entry);
        assertFalse(MAPS.containsKeyWithHashCodeBA(map, bytes(0), HASH));
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, bytes(1), HASH));
        assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), HASH));
        assertEquals(0, unpin(entry));
    }

    @ParameterizedTest
    @EnumSource
    void aRefusalAtAnyStepLeavesTheMapAsItWas(NumberKey kind) {
        unpin(kind.insert(map, 1, HASH + 1, bytes(0), 0, 1));
        long blocks = liveBlocks();
        long used = MAPS.getCurrentBytesUsed(map);
        MANAGER.setInternalTracking(true);
        try {
            long entry = 0;
            int refusals = 0;
            for (long room = 0; entry == 0; room += 8) {
                assertTrue(room < 4096, "an insert needs less than a page");
                entry = withRoom(room, () -> kind.insert(map, 2, HASH, new byte[50], 0, 2));
                if (entry == 0) {
                    refusals++;
                    assertEquals(blocks, liveBlocks(), "blocks after a refusal with " + room + " bytes left");
                    assertEquals(1, MAPS.size(map));
                    assertEquals(used, MAPS.getCurrentBytesUsed(map));
                }
            }
            assertTrue(refusals > 3, "key, value and record were each refused, but only " + refusals + " refusals");
            assertEquals(PINS_OF_MAP, unpin(entry));
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @ParameterizedTest
    @MethodSource("numbers")
    void aRefusedUpdateLeavesTheEntryAsItWas(NumberKey kind) {
        long entry = kind.insert(map, 1, HASH, bytes(1), 0, 1);
        unpin(entry);
        long blocks = liveBlocks();
        long used = MAPS.getCurrentBytesUsed(map);
        MANAGER.setInternalTracking(true);
        try {
            long snapshot = 0;
            for (long room = 0; snapshot == 0; room += 8) {
                assertTrue(room < 4096, "an update needs less than a page");
                snapshot = withRoom(room, () -> kind.update(map, 1, HASH, new byte[50], 0, 2));
                if (snapshot == 0) {
                    assertEquals(blocks, liveBlocks(), "blocks after a refusal with " + room + " bytes left");
                    check(entry, kind, 1, bytes(1), NumberKey.VALUE_TAG, 0, 1);
                    assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(entry));
                    assertEquals(used, MAPS.getCurrentBytesUsed(map));
                }
            }
            assertEquals(0, unpin(snapshot));
            check(entry, kind, 1, new byte[50], NumberKey.VALUE_TAG, 0, 2);
        } finally {
            MANAGER.setInternalTracking(false);
        }
    }

    @Test
    void theReasonsOfThePinsAreThoseOfTheirHolders() {
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            long entry = NumberKey.INT.insert(map, 7, HASH, bytes(1), 0, 1);
            assertReason(trace, "JNI_INSERTED_PIN", entry);
            long snapshot = NumberKey.LONG.update(map, 7, HASH, bytes(2), 0, 2);
            assertReason(trace, "ALLOCATION_PIN", snapshot);
            MAPS.getLuValue_Number(map, HASH, 0, false, 0, 7);
            assertReason(trace, "NATIVE_TRANSIENT_GET_PIN", entry);
            MAPS.removeAndGetAndPinWithHashCodeNumber(map, HASH, 7);
            assertReason(trace, "JNI_REMOVED_PIN", entry);
            unpin(snapshot);
            unpin(entry);
            unpin(entry);
            assertEquals(0, unpin(entry));
        }
    }

    /** Each getter pins with its own reason. */
    @Test
    void theByteArrayGetterPinsUnlikeTheOthers() {
        long bytes = putTyped(map, BINARY, HASH, bytes(1));
        long string = putTyped(map, JSTRING, HASH, utf16("s"));
        ByteBuffer key = key(bytes(1));
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            MAPS.getLuValue_ByteArray(map, new long[4], bytes(1), HASH, 0, false, 0);
            assertReason(trace, "JNI_GET_PIN", bytes);
            MAPS.getLuValue_ByteBuffer(map, key, HASH, 0, false, 0);
            assertReason(trace, "NATIVE_TRANSIENT_GET_PIN", bytes);
            MAPS.getLuValue_String(map, new long[4], "s", 0, HASH, 0, false, 0);
            assertReason(trace, "NATIVE_TRANSIENT_GET_PIN", string);
        }
        unpin(bytes);
        unpin(bytes);
        unpin(string);
        free(key);
    }

    private static void assertReason(Trace trace, String reason, long record) {
        List<String> pins = trace.pinsOf(record);
        assertTrue(pins.contains(reason), () -> reason + " is not among " + pins);
        trace.lines().clear();
    }
}
