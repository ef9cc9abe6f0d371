package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.ReadOnlyBufferException;
import java.nio.charset.StandardCharsets;
import java.util.Locale;
import org.junit.jupiter.api.Test;

/** Keys that only Java can compare: type tag 100, searched by buffer. */
class KeyCodecTest extends MapTestBase {
    private static final int HASH = 5;

    /** Text without regard to case. */
    private static class IgnoringCase implements KeyCodec {
        int deserialized;
        int compared;

        @Override
        public Object deserialize(ByteBuffer buffer) {
            deserialized++;
            return text(buffer);
        }

        @Override
        public boolean matches(Object key, ByteBuffer stored) {
            compared++;
            return key.equals(text(stored));
        }

        private static String text(ByteBuffer buffer) {
            return StandardCharsets.US_ASCII
                    .decode(buffer.duplicate().clear())
                    .toString()
                    .toLowerCase(Locale.ROOT);
        }
    }

    private static ByteBuffer other(String text) {
        return block(KEY, OTHER, text.getBytes(StandardCharsets.US_ASCII));
    }

    private long insert(LuOffHeapMapImpl maps, String text, int hash) {
        ByteBuffer key = other(text);
        ByteBuffer value = value(bytes(1));
        long entry = maps.insertAndGetNewAndPinWithHashCode(map, key, hash, value, OWNER, 1);
        if (entry != 0) {
            unpin(entry);
        }
        free(key, value);
        return entry;
    }

    @Test
    void theCodecDecidesWhichKeysAreEqual() {
        IgnoringCase codec = new IgnoringCase();
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl(codec);
        long entry = insert(maps, "Key", HASH);
        assertNotEquals(0, entry);
        ByteBuffer searched = other("kEY");
        ByteBuffer missing = other("kEX");
        assertTrue(maps.containsKeyWithHashCode(map, searched, HASH));
        assertFalse(maps.containsKeyWithHashCode(map, missing, HASH));
        assertEquals(entry, maps.getLuValue_ByteBuffer(map, searched, HASH, 0, false, 0));
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertEquals(0, insert(maps, "KEY", HASH), "equal to a key that exists");
        assertEquals(entry, maps.removeAndGetAndPinWithHashCode(map, searched, HASH));
        assertEquals(0, unpin(entry));
        free(searched, missing);
        assertTrue(codec.compared >= 5, () -> "compared " + codec.compared + " times");
    }

    @Test
    void theFirstKeyWithTheHashCodeDecides() {
        IgnoringCase codec = new IgnoringCase();
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl(codec);
        insert(maps, "a", HASH);
        insert(maps, "b", HASH);
        insert(maps, "c", HASH);
        codec.deserialized = 0;
        codec.compared = 0;
        // Which of the three stands first depends on the growth of the table, but only one of them does.
        ByteBuffer[] searched = {other("A"), other("B"), other("C")};
        int found = 0;
        for (ByteBuffer key : searched) {
            found += maps.containsKeyWithHashCode(map, key, HASH) ? 1 : 0;
        }
        assertEquals(1, found);
        assertEquals(3, codec.deserialized);
        assertEquals(3, codec.compared);
        free(searched);
    }

    @Test
    void keysOfOtherTypesAreComparedByTheirBytes() {
        IgnoringCase codec = new IgnoringCase();
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl(codec);
        putTyped(map, BINARY, HASH, "key".getBytes(StandardCharsets.US_ASCII));
        ByteBuffer same = other("key");
        ByteBuffer upper = other("KEY");
        ByteBuffer binary = key("key".getBytes(StandardCharsets.US_ASCII));
        assertTrue(maps.containsKeyWithHashCode(map, same, HASH));
        assertFalse(maps.containsKeyWithHashCode(map, upper, HASH));
        assertTrue(maps.containsKeyWithHashCode(map, binary, HASH));
        assertEquals(0, codec.compared);
        free(same, upper, binary);
    }

    @Test
    void keysWithAnotherHashCodeAreNotCompared() {
        IgnoringCase codec = new IgnoringCase();
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl(codec);
        insert(maps, "key", HASH);
        codec.compared = 0;
        ByteBuffer key = other("key");
        assertFalse(maps.containsKeyWithHashCode(map, key, HASH + 1));
        assertEquals(0, codec.compared);
        free(key);
    }

    @Test
    void aCodecThatThrowsMatchesNothingAndLeavesNoException() {
        insert(new LuOffHeapMapImpl(new IgnoringCase()), "key", HASH);
        ByteBuffer key = other("key");
        LuOffHeapMapImpl failsToRead = new LuOffHeapMapImpl(new IgnoringCase() {
            @Override
            public Object deserialize(ByteBuffer buffer) {
                throw new IllegalArgumentException("deserialize");
            }
        });
        assertFalse(failsToRead.containsKeyWithHashCode(map, key, HASH));
        assertEquals(0, failsToRead.getLuValue_ByteBuffer(map, key, HASH, 0, false, 0));
        LuOffHeapMapImpl failsToCompare = new LuOffHeapMapImpl(new IgnoringCase() {
            @Override
            public boolean matches(Object searched, ByteBuffer stored) {
                throw new IllegalArgumentException("matches");
            }
        });
        assertFalse(failsToCompare.containsKeyWithHashCode(map, key, HASH));
        LuOffHeapMapImpl readsNothing = new LuOffHeapMapImpl(new IgnoringCase() {
            @Override
            public Object deserialize(ByteBuffer buffer) {
                return null;
            }
        });
        assertFalse(readsNothing.containsKeyWithHashCode(map, key, HASH));
        assertEquals(1, MAPS.size(map));
        free(key);
    }

    @Test
    void theStoredKeyIsAReadOnlyView() {
        boolean[] refused = new boolean[1];
        long[] viewed = new long[1];
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl(new IgnoringCase() {
            @Override
            public boolean matches(Object searched, ByteBuffer stored) {
                try {
                    stored.put(0, (byte) 'X');
                } catch (ReadOnlyBufferException e) {
                    refused[0] = true;
                }
                viewed[0] = address(stored);
                return super.matches(searched, stored);
            }
        });
        long entry = insert(maps, "key", HASH);
        ByteBuffer key = other("KEY");
        assertTrue(maps.containsKeyWithHashCode(map, key, HASH));
        assertTrue(refused[0]);
        long[] info = new long[3];
        VALUES.getKeyInfo(entry, info);
        assertEquals(info[0], viewed[0], "the key itself, not a copy");
        free(key);
    }

    @Test
    void arraysOfType100AreComparedByTheCodecOnInsert() {
        IgnoringCase codec = new IgnoringCase();
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl(codec);
        byte[] lower = "key".getBytes(StandardCharsets.US_ASCII);
        byte[] upper = "KEY".getBytes(StandardCharsets.US_ASCII);
        long entry = maps.insertAndGetNewAndPinWithHashCodeAndBA(
                map, lower, 3, (byte) OTHER, HASH, bytes(1), 1, (byte) 0, OWNER, 1);
        assertEquals(PINS_OF_MAP, unpin(entry));
        assertEquals(
                0,
                maps.insertAndGetNewAndPinWithHashCodeAndBA(
                        map, upper, 3, (byte) OTHER, HASH, bytes(1), 1, (byte) 0, OWNER, 1));
        assertTrue(codec.compared > 0);
        assertFalse(maps.containsKeyWithHashCodeBA(map, upper, HASH), "an array is searched by its bytes");
        assertTrue(maps.containsKeyWithHashCodeBA(map, lower, HASH));
    }

    @Test
    void withoutACodecKeysAreTheirBytes() {
        long entry = insert(MAPS, "key", HASH);
        ByteBuffer same = other("key");
        ByteBuffer upper = other("KEY");
        same.position(2);
        assertTrue(MAPS.containsKeyWithHashCode(map, same, HASH));
        assertFalse(MAPS.containsKeyWithHashCode(map, upper, HASH));
        assertEquals(0, insert(MAPS, "key", HASH));
        assertNotEquals(0, entry);
        free(same, upper);
    }

    @Test
    void phantomsOfKeysAreViewsOfWindows() {
        ByteBuffer key = key(bytes(1, 2, 3, 4));
        ByteBuffer view = MAPS.allocateDirectFromPhantom(address(key) + 1, 2);
        assertEquals(2, view.capacity());
        assertEquals(ByteOrder.BIG_ENDIAN, view.order());
        assertEquals(0x0203, view.getShort());
        free(key);
    }
}
