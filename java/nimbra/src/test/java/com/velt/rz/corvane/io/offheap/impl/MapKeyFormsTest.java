package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.util.Random;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Keys of every form at their limits: empty, very long, and beyond the basic plane; and the two character helpers. */
class MapKeyFormsTest extends MapTestBase {
    private static final int HASH = 4711;
    private static final int LONGEST = 65_535;

    private static Stream<String> strings() {
        return Stream.of(
                "",
                "a",
                "\0",
                "\u00ff\u0100\uffff",
                "\ud83d\ude00 and \ud800\udf48",
                "\ud800",
                "\udc00\ud800",
                "x".repeat(LONGEST));
    }

    private long insertString(String key) {
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndString(map, key, HASH, bytes(1), 1, (byte) 3, OWNER, 1);
        assertNotEquals(0, entry);
        assertEquals(PINS_OF_MAP, unpin(entry));
        return entry;
    }

    /** Two bytes for each UTF-16 unit, whatever it is: unpaired surrogates survive. */
    private static byte[] units(String text) {
        byte[] bytes = new byte[2 * text.length()];
        for (int i = 0; i < text.length(); i++) {
            bytes[2 * i] = (byte) (text.charAt(i) >> 8);
            bytes[2 * i + 1] = (byte) text.charAt(i);
        }
        return bytes;
    }

    @ParameterizedTest
    @MethodSource("strings")
    void aStringKeyIsItsUnits(String key) {
        long entry = insertString(key);
        assertArrayEquals(units(key), keyOf(entry));
        assertTrue(MAPS.containsKeyWithHashCodeString(map, key, HASH));
        assertFalse(MAPS.containsKeyWithHashCodeString(map, key + "x", HASH));
        assertFalse(MAPS.containsKeyWithHashCodeString(map, key, HASH + 1));
        assertEquals(
                0, MAPS.insertAndGetNewAndPinWithHashCodeAndString(map, key, HASH, bytes(2), 1, (byte) 3, OWNER, 2));

        long[] attributes = new long[4];
        assertEquals(entry, MAPS.getLuValue_String(map, attributes, key, 0, HASH, 0, false, 0));
        assertArrayEquals(units(key), bytesAt(attributes[0], attributes[1]));
        unpin(entry);

        ByteBuffer value = value(bytes(9));
        long snapshot = MAPS.updateAndGetNewAndPinWithHashCodeStringBB(map, key, HASH, value, OWNER, 3);
        assertEquals(0, unpin(snapshot));
        snapshot = MAPS.updateAndGetNewAndPinWithHashCodeStringBA(map, key, HASH, bytes(8), 1, (byte) 3, OWNER, 4);
        assertArrayEquals(bytes(9), valueOf(snapshot));
        assertEquals(0, unpin(snapshot));
        free(value);
        assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeString(map, key, HASH));
        assertEquals(0, unpin(entry));
    }

    /** The whole search matrix of a string key: bytes and buffers look at the bytes alone, numbers at neither. */
    @Test
    void aStringKeyIsFoundByItsBytesAndByNoNumber() {
        long entry = insertString("\ud83d\ude00");
        byte[] units = units("\ud83d\ude00");
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, units, HASH));
        assertFalse(MAPS.containsKeyWithHashCodeNumber(map, HASH, 0));
        for (int type : new int[] {BINARY, JSTRING, JINT}) {
            ByteBuffer key = block(KEY, type, units);
            assertTrue(MAPS.containsKeyWithHashCode(map, key, HASH), "type tag " + type);
            assertEquals(entry, MAPS.getLuValue_ByteBuffer(map, key, HASH, 0, false, 0));
            unpin(entry);
            free(key);
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 1, 4, LONGEST})
    void byteKeysOfEveryLength(int length) {
        byte[] bytes = new byte[length];
        new Random(length).nextBytes(bytes);
        long entry = MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                map, bytes, length, (byte) BINARY, HASH, bytes(1), 1, (byte) 0, OWNER, 1);
        assertNotEquals(0, entry);
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertArrayEquals(bytes, keyOf(entry));
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, bytes, HASH));
        assertFalse(MAPS.containsKeyWithHashCodeBA(map, new byte[length + 1], HASH));
        ByteBuffer key = key(bytes);
        assertTrue(MAPS.containsKeyWithHashCode(map, key, HASH));
        assertFalse(MAPS.containsKeyWithHashCodeNumber(map, HASH, 0), "no number, even of the width of one");
        assertFalse(MAPS.containsKeyWithHashCodeString(map, "", HASH), "a string finds strings only");
        if (length > 0) {
            bytes[length - 1]++;
            assertFalse(MAPS.containsKeyWithHashCodeBA(map, bytes, HASH), "the last byte counts");
            bytes[length - 1]--;
        }
        assertEquals(entry, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes, HASH));
        assertEquals(0, unpin(entry));
        free(key);
    }

    /** An empty key is one key among byte arrays, and another one among strings. */
    @Test
    void emptyKeysOfTwoTypes() {
        insertString("");
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, new byte[0], HASH), "no byte differs");
        assertEquals(
                0,
                MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                        map, new byte[0], 0, (byte) BINARY, HASH, bytes(1), 1, (byte) 0, OWNER, 1));
        assertTrue(MAPS.containsKeyWithHashCodeString(map, "", HASH));
    }

    /** An insert compares bytes alone, a search by string the type as well: such a key is in the way, yet not found. */
    @Test
    void aBinaryKeyWithAStringsBytesRefusesTheStringAndHidesFromIt() {
        for (String text : new String[] {"", "ab"}) {
            putTyped(map, BINARY, HASH, units(text));
            assertTrue(MAPS.containsKeyWithHashCodeBA(map, units(text), HASH));
            assertFalse(MAPS.containsKeyWithHashCodeString(map, text, HASH));
            assertEquals(
                    0,
                    MAPS.insertAndGetNewAndPinWithHashCodeAndString(map, text, HASH, bytes(1), 1, (byte) 3, OWNER, 1));
            assertEquals(
                    0,
                    MAPS.updateAndGetNewAndPinWithHashCodeStringBA(map, text, HASH, bytes(1), 1, (byte) 3, OWNER, 1));
        }
    }

    @ParameterizedTest
    @MethodSource("strings")
    void charactersMakeTheRoundTrip(String text) {
        byte[] bytes = new byte[2 * text.length()];
        MAPS.getFullCharBytesFromString(text, text.length(), bytes, 17);
        assertArrayEquals(units(text), bytes);
        ByteBuffer source = value(bytes);
        char[] characters = new char[text.length()];
        MAPS.getChars(source, 1, 2, 3, characters, text.length());
        assertEquals(text, new String(characters));
        free(source);
    }

    @Test
    void onlyTheNamedCharactersAreWritten() {
        byte[] bytes = bytes(9, 9, 9, 9, 9, 9);
        MAPS.getFullCharBytesFromString("\u0102\u0304\u0506", 2, bytes, 0);
        assertArrayEquals(bytes(1, 2, 3, 4, 9, 9), bytes);
        MAPS.getFullCharBytesFromString("abc", 0, bytes, 0);
        assertArrayEquals(bytes(1, 2, 3, 4, 9, 9), bytes);

        ByteBuffer source = value(bytes(0xff, 0xfe, 0x80, 0x7f));
        char[] characters = {'x', 'y'};
        MAPS.getChars(source, 0, 0, 0, characters, 1);
        assertArrayEquals(new char[] {'\ufffe', 'y'}, characters);
        MAPS.getChars(source, 0, 0, 0, characters, 2);
        assertArrayEquals(new char[] {'\ufffe', '\u807f'}, characters);
        MAPS.getChars(source, 0, 0, 0, characters, 0);
        free(source);
    }

    @Test
    void theBufferPositionMeansNothingToTheHelpers() {
        ByteBuffer source = value(bytes(0, 'a', 0, 'b'));
        source.position(3).limit(3);
        char[] characters = new char[2];
        MAPS.getChars(source, 0, 0, 0, characters, 2);
        assertEquals("ab", new String(characters));
        free(source);
    }

    @Test
    void aStringKeyReadsBackThroughTheHelper() {
        String text = "Größe \ud83d\ude00";
        ByteBuffer key = block(KEY, JSTRING, units(text));
        ByteBuffer value = value(bytes(1));
        long entry = MAPS.insertAndGetNewAndPinWithHashCode(map, key, HASH, value, OWNER, 1);
        unpin(entry);
        char[] characters = new char[text.length()];
        MAPS.getChars(key, 0, 0, 0, characters, characters.length);
        assertTrue(MAPS.containsKeyWithHashCodeString(map, new String(characters), HASH));
        free(key, value);
    }
}
