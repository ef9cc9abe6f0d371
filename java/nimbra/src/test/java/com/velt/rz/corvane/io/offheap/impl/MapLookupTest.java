package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The four getters and the five containment natives. */
class MapLookupTest extends MapTestBase {
    private static final int HASH = 1234;

    @Test
    void aByteArrayFindsItsEntryAndWhereItsBytesLie() {
        long entry = put(map, bytes(1, 2, 3), bytes(4, 5), 0, 9);
        int hash = nativeHash(bytes(1, 2, 3));
        long[] attributes = new long[4];
        assertEquals(entry, MAPS.getLuValue_ByteArray(map, attributes, bytes(1, 2, 3), hash, 0, false, 100));
        assertArrayEquals(bytes(1, 2, 3), bytesAt(attributes[0], attributes[1]));
        assertArrayEquals(bytes(4, 5), bytesAt(attributes[2], attributes[3]));
        assertEquals(PINS_OF_MAP + 1, VALUES.getReferenceCount(entry));
        assertEquals(1, pinsOfValue(entry), "the value block is not pinned");
        assertEquals(9, VALUES.getRevisionNumber(entry), "an untouched entry keeps its place");
        assertEquals(PINS_OF_MAP, unpin(entry));
    }

    @Test
    void aMissingByteArrayLeavesTheAttributesAlone() {
        put(map, bytes(1), bytes(2), 0, 1);
        long[] attributes = {7, 8, 9, 10};
        assertEquals(0, MAPS.getLuValue_ByteArray(map, attributes, bytes(2), 1, 0, false, 0));
        assertEquals(0, MAPS.getLuValue_ByteArray(map, attributes, bytes(1), 2, 0, false, 0), "another hash code");
        assertEquals(0, MAPS.getLuValue_ByteArray(map, attributes, bytes(1, 0), 1, 0, false, 0), "another length");
        assertArrayEquals(new long[] {7, 8, 9, 10}, attributes);
    }

    @Test
    void aStringFindsOnlyStringKeys() {
        long entry = putTyped(map, JSTRING, HASH, utf16("ab"));
        long[] attributes = new long[4];
        assertEquals(entry, MAPS.getLuValue_String(map, attributes, "ab", 0, HASH, 0, false, 0));
        assertArrayEquals(utf16("ab"), bytesAt(attributes[0], attributes[1]));
        assertArrayEquals(bytes(1), bytesAt(attributes[2], attributes[3]));
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertEquals(0, MAPS.getLuValue_String(map, attributes, "aB", 0, HASH, 0, false, 0));
        assertEquals(0, MAPS.getLuValue_String(map, attributes, "abc", 0, HASH, 0, false, 0));

        putTyped(map, BINARY, HASH, utf16("xy"));
        assertEquals(0, MAPS.getLuValue_String(map, attributes, "xy", 0, HASH, 0, false, 0));
        assertFalse(MAPS.containsKeyWithHashCodeString(map, "xy", HASH));
        assertTrue(MAPS.containsKeyWithHashCodeString(map, "ab", HASH));
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, utf16("ab"), HASH), "bytes find a string key");
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, utf16("xy"), HASH));
    }

    @Test
    void aBufferFindsItsEntryUnderAGivenOrComputedHash() {
        long entry = put(map, bytes(9, 8, 7), bytes(1), 0, 1);
        ByteBuffer key = key(bytes(9, 8, 7));
        int hash = nativeHash(bytes(9, 8, 7));
        assertEquals(entry, MAPS.getLuValue_ByteBuffer(map, key, hash, 0, false, 0));
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertEquals(entry, MAPS.getLuValue_ByteBuffer(map, key, -1, 0, false, 0));
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertEquals(0, MAPS.getLuValue_ByteBuffer(map, key, hash + 1, 0, false, 0));
        assertTrue(MAPS.containsKey(map, key));
        assertTrue(MAPS.containsKeyWithHashCode(map, key, hash));
        assertFalse(MAPS.containsKeyWithHashCode(map, key, -1), "only the getter computes for -1");
        ByteBuffer other = key(bytes(9, 8, 6));
        assertEquals(0, MAPS.getLuValue_ByteBuffer(map, other, -1, 0, false, 0));
        assertFalse(MAPS.containsKey(map, other));
        free(key, other);
    }

    @Test
    void theBufferPositionMeansNothing() {
        put(map, bytes(9, 8, 7), bytes(1), 0, 1);
        ByteBuffer key = key(bytes(9, 8, 7));
        key.position(2).limit(2);
        assertTrue(MAPS.containsKey(map, key));
        free(key);
    }

    @Test
    void aTouchedEntryMovesToItsNewRevision() {
        long entry = put(map, bytes(1), bytes(2), 1, 5);
        long other = put(map, bytes(3), bytes(4), 1, 6);
        ByteBuffer key = key(bytes(1));
        long[] attributes = new long[4];
        assertEquals(entry, MAPS.getLuValue_ByteArray(map, attributes, bytes(1), 1, 0, true, 50));
        assertEquals(50, VALUES.getRevisionNumber(entry));
        assertEquals(entry, MAPS.getLuValue_ByteBuffer(map, key, -1, 0, true, 51));
        assertEquals(51, VALUES.getRevisionNumber(entry));
        assertEquals(entry, MAPS.getLuValue_ByteBuffer(map, key, -1, 0, true, -1));
        assertEquals(51, VALUES.getRevisionNumber(entry), "-1 keeps the revision");
        assertEquals(1, VALUES.getRevisionOwner(entry));
        for (int i = PINS_OF_MAP + 2; i >= PINS_OF_MAP; i--) {
            assertEquals(i, unpin(entry));
        }
        assertEquals(PINS_OF_MAP, VALUES.getReferenceCount(other));
        free(key);
    }

    @Test
    void touchedStringsAndNumbersMoveToo() {
        long string = putTyped(map, JSTRING, HASH, utf16("s"));
        long number = putTyped(map, JINT, HASH, nativeOrder(4, 7));
        assertEquals(string, MAPS.getLuValue_String(map, new long[4], "s", 0, HASH, 0, true, 60));
        assertEquals(60, VALUES.getRevisionNumber(string));
        assertEquals(number, MAPS.getLuValue_Number(map, HASH, 0, true, 61, 7));
        assertEquals(61, VALUES.getRevisionNumber(number));
        assertEquals(0, MAPS.getLuValue_Number(map, HASH, 0, true, 62, 8));
        assertEquals(PINS_OF_MAP, unpin(string));
        assertEquals(PINS_OF_MAP, unpin(number));
    }

    @ParameterizedTest
    @CsvSource({
        "12, 1, 7, 7, true",
        "12, 1, -7, -7, true",
        "12, 1, 7, 8, false",
        "15, 2, -300, -300, true",
        "16, 4, 123456, 123456, true",
        "16, 4, 7, 7.5, false",
        "17, 8, -9007199254740992, -9007199254740992, true",
        "0, 4, 7, 7, false",
        "13, 1, 1, 1, false",
        "20, 2, 7, 7, false",
    })
    void aNumberFindsIntegersOfEveryWidth(int type, int size, long stored, double searched, boolean found) {
        long entry = putTyped(map, type, HASH, nativeOrder(size, stored));
        assertEquals(found, MAPS.containsKeyWithHashCodeNumber(map, HASH, searched));
        assertEquals(found ? entry : 0, MAPS.getLuValue_Number(map, HASH, 0, false, 0, searched));
        assertFalse(MAPS.containsKeyWithHashCodeNumber(map, HASH + 1, searched));
        if (found) {
            assertEquals(PINS_OF_MAP, unpin(entry));
        }
    }

    @ParameterizedTest
    @CsvSource({
        "1e20, 1e20, true",
        "100000000000000100000, 1e20, true",
        "100000000000010000000, 1e20, false",
        "-0.0, 0.0, true",
        "0.0, -0.0, true",
        "1e-300, 0.0, false",
        "0.0, 1e-300, false",
        "NaN, NaN, false",
        "1.0, NaN, false",
        "Infinity, Infinity, false",
        "1.0, Infinity, true",
    })
    void doublesAreFoundWithinARelativeTolerance(double stored, double searched, boolean found) {
        putTyped(map, JDOUBLE, HASH, nativeOrder(8, Double.doubleToRawLongBits(stored)));
        assertEquals(found, MAPS.containsKeyWithHashCodeNumber(map, HASH, searched));
    }

    @ParameterizedTest
    @CsvSource({"1.0, 1.0, true", "1.5, 1.5, true", "0.1, 0.1, false", "-0.0, 0.0, true", "NaN, NaN, false"})
    void floatsAreComparedAsDoubles(float stored, double searched, boolean found) {
        putTyped(map, JFLOAT, HASH, nativeOrder(4, Float.floatToRawIntBits(stored)));
        assertEquals(found, MAPS.containsKeyWithHashCodeNumber(map, HASH, searched));
    }

    @Test
    void oneNumberIsFoundAcrossTypes() {
        putTyped(map, JLONG, HASH, nativeOrder(8, 7));
        assertTrue(MAPS.containsKeyWithHashCodeNumber(map, HASH, 7));
        assertFalse(MAPS.containsKeyWithHashCodeBA(map, nativeOrder(4, 7), HASH), "as bytes they differ");
    }

    @Test
    void anEmptyMapFindsNothing() {
        ByteBuffer key = key(bytes(1));
        assertFalse(MAPS.containsKey(map, key));
        assertFalse(MAPS.containsKeyWithHashCode(map, key, 1));
        assertFalse(MAPS.containsKeyWithHashCodeBA(map, bytes(1), 1));
        assertFalse(MAPS.containsKeyWithHashCodeString(map, "a", 1));
        assertFalse(MAPS.containsKeyWithHashCodeNumber(map, 1, 1));
        assertEquals(0, MAPS.getLuValue_ByteArray(map, new long[4], bytes(1), 1, 0, true, 1));
        assertEquals(0, MAPS.getLuValue_String(map, new long[4], "a", 0, 1, 0, true, 1));
        assertEquals(0, MAPS.getLuValue_Number(map, 1, 0, true, 1, 1));
        assertEquals(0, MAPS.getLuValue_ByteBuffer(map, key, 1, 0, true, 1));
        free(key);
    }
}
