package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.UUID;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

@ExtendWith(LeakCheck.class)
class CodecsTest {
    @SafeVarargs
    private static <T> void roundTrip(Codec<T> codec, T... objects) {
        for (T object : objects) {
            assertEquals(object, codec.decode(codec.encode(object).clone()));
        }
    }

    @Test
    void everyTypeComesBack() {
        roundTrip(Codecs.string(), "", "a", "naïve", "日本", "\ud83d\ude00", "\0", "\ufffd", "x".repeat(70_000));
        roundTrip(Codecs.integer(), 0, 1, -1, Integer.MIN_VALUE, Integer.MAX_VALUE);
        roundTrip(Codecs.longs(), 0L, 1L, -1L, Long.MIN_VALUE, Long.MAX_VALUE);
        roundTrip(
                Codecs.doubles(),
                0.0,
                -0.0,
                Double.NaN,
                Double.MIN_VALUE,
                Double.MAX_VALUE,
                Double.POSITIVE_INFINITY,
                Double.NEGATIVE_INFINITY);
        roundTrip(Codecs.uuid(), new UUID(0, 0), new UUID(-1, Long.MIN_VALUE), UUID.randomUUID());
        roundTrip(Codecs.byteBuffer(), ByteBuffer.allocate(0), ByteBuffer.wrap(new byte[] {1, -2, 3}));
        byte[] raw = {1, 2, 3};
        assertSame(raw, Codecs.bytes().encode(raw));
        assertSame(raw, Codecs.bytes().decode(raw));
    }

    @Test
    void numbersAreBigEndian() {
        assertArrayEquals(new byte[] {1, 2, 3, 4}, Codecs.integer().encode(0x01020304));
        assertArrayEquals(new byte[] {0, 0, 0, 0, 0, 0, 1, 0}, Codecs.longs().encode(256L));
        assertArrayEquals(
                new byte[] {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2},
                Codecs.uuid().encode(new UUID(1, 2)));
    }

    /** The bytes of two doubles are equal exactly when the doubles are. */
    @Test
    void doublesAreEqualAsTheirBytesAre() {
        double otherNaN = Double.longBitsToDouble(0x7ff8_0000_0000_0123L);
        assertArrayEquals(Codecs.doubles().encode(Double.NaN), Codecs.doubles().encode(otherNaN));
        assertFalse(Arrays.equals(Codecs.doubles().encode(0.0), Codecs.doubles().encode(-0.0)));
    }

    @Test
    void bufferKeepsItsPositionAndShowsOnlyWhatRemains() {
        ByteBuffer buffer = ByteBuffer.allocateDirect(10);
        for (int i = 0; i < 10; i++) {
            buffer.put(i, (byte) i);
        }
        buffer.position(3).limit(6);
        assertArrayEquals(new byte[] {3, 4, 5}, Codecs.byteBuffer().encode(buffer.asReadOnlyBuffer()));
        assertArrayEquals(new byte[] {3, 4, 5}, Codecs.byteBuffer().encode(buffer));
        assertEquals(3, buffer.position());
        assertEquals(6, buffer.limit());
    }

    @Test
    void halfOfASurrogatePairIsRefusedByName() {
        for (String half : List.of("\ud83d", "ab\ude00", "\ude00\ud83d", "\ud83d\ud83d\ude00")) {
            String message = assertThrows(IllegalArgumentException.class, () -> Codecs.string()
                            .encode(half))
                    .getMessage();
            assertTrue(message.contains(" has half of a surrogate pair at index "), message);
        }
        assertEquals(
                "the string \"ab\\ude00\" has half of a surrogate pair at index 2: \\ude00",
                assertThrows(IllegalArgumentException.class, () -> Codecs.string()
                                .encode("ab\ude00"))
                        .getMessage());
    }

    @Test
    void bytesThatStandForNothingAreShown() {
        assertEquals(
                "3 bytes are not an Integer: 010203",
                assertThrows(IllegalArgumentException.class, () -> Codecs.integer()
                                .decode(new byte[] {1, 2, 3}))
                        .getMessage());
        assertEquals(
                "0 bytes are not a Long: ",
                assertThrows(IllegalArgumentException.class, () -> Codecs.longs()
                                .decode(new byte[0]))
                        .getMessage());
        assertEquals(
                "17 bytes are not a UUID: 00000000000000000000000000000000...",
                assertThrows(IllegalArgumentException.class, () -> Codecs.uuid().decode(new byte[17]))
                        .getMessage());
        assertThrows(IllegalArgumentException.class, () -> Codecs.doubles().decode(new byte[9]));
        assertEquals(
                "2 bytes are not a UTF-8 string: 61ff",
                assertThrows(IllegalArgumentException.class, () -> Codecs.string()
                                .decode(new byte[] {'a', -1}))
                        .getMessage());
    }

    @Test
    void typedViewHasTheMapsOperations() {
        UUID id = new UUID(1, 2);
        try (OffHeapMap map = Nimbra.get().newMap()) {
            TypedMap<UUID, String> names = map.typed(Codecs.uuid(), Codecs.string());
            assertSame(map, names.map());
            assertNull(names.get(id));
            assertNull(names.pin(id));
            assertFalse(names.replace(id, "no"));
            assertTrue(names.put(id, "one"));
            assertFalse(names.put(id, "two"));
            assertFalse(names.putIfAbsent(id, "three"));
            assertTrue(names.replace(id, "vier"));
            assertEquals("vier", names.get(id));
            assertTrue(names.containsKey(id));
            assertEquals(1, names.size());
            try (PinnedValue pinned = names.pin(id)) {
                assertArrayEquals(bytes("vier"), TestRuntime.read(pinned.buffer()));
            }
            try (ChangeIterator changes = map.changesSince(0)) {
                Change change = changes.next();
                assertEquals(id, names.key(change));
                assertEquals("vier", names.value(change));
            }
            Map<UUID, String> seen = new HashMap<>();
            names.forEach(seen::put);
            assertEquals(Map.of(id, "vier"), seen);
            assertTrue(names.remove(id));
            assertFalse(names.remove(id));
            names.put(id, "");
            names.clear();
            assertEquals(0, map.size());
            assertThrows(NullPointerException.class, () -> names.put(null, ""));
            assertThrows(NullPointerException.class, () -> names.put(id, null));
        }
        assertThrows(NullPointerException.class, () -> {
            try (OffHeapMap map = Nimbra.get().newMap()) {
                map.typed(null, Codecs.string());
            }
        });
    }

    /** What another codec stored is refused with the bytes, and left where it is. */
    @Test
    void valueOfAnotherCodecIsRefused() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.typed(Codecs.string(), Codecs.string()).put("key", "abc");
            TypedMap<String, Long> numbers = map.typed(Codecs.string(), Codecs.longs());
            assertEquals(
                    "3 bytes are not a Long: 616263",
                    assertThrows(IllegalArgumentException.class, () -> numbers.get("key"))
                            .getMessage());
            assertArrayEquals(bytes("abc"), map.get(bytes("key")));
        }
    }

    @Test
    void doublesAsKeys() {
        Random random = new Random(TestRuntime.seed("CodecsTest.doublesAsKeys"));
        Map<Double, Integer> oracle = new HashMap<>();
        try (OffHeapMap map = Nimbra.get().newMap()) {
            TypedMap<Double, Integer> numbers = map.typed(Codecs.doubles(), Codecs.integer());
            double[] odd = {0.0, -0.0, Double.NaN, Double.longBitsToDouble(-1L), 1e-300, -1e300};
            for (int i = 0; i < 2_000; i++) {
                double key = random.nextInt(4) == 0 ? odd[random.nextInt(odd.length)] : random.nextInt(200) / 7.0;
                assertEquals(oracle.put(key, i) == null, numbers.put(key, i));
            }
            oracle.forEach((key, value) -> assertEquals(value, numbers.get(key)));
            assertEquals(oracle.size(), numbers.size());
        }
    }
}
