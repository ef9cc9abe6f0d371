package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.code_intelligence.jazzer.api.FuzzedDataProvider;
import com.code_intelligence.jazzer.junit.FuzzTest;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;

/** Any bytes are decoded to an object that has exactly these bytes, or refused; any object survives both ways. */
class CodecsFuzzTest {
    @FuzzTest
    void decodedObjectsHaveTheSameBytes(byte[] bytes) {
        check(Codecs.string(), bytes, isUtf8(bytes));
        check(Codecs.integer(), bytes, bytes.length == Integer.BYTES);
        check(Codecs.longs(), bytes, bytes.length == Long.BYTES);
        check(Codecs.uuid(), bytes, bytes.length == 2 * Long.BYTES);
        check(Codecs.bytes(), bytes, true);
        check(Codecs.byteBuffer(), bytes, true);
        checkDouble(bytes);
    }

    private static <T> void check(Codec<T> codec, byte[] bytes, boolean accepted) {
        byte[] given = bytes.clone();
        if (!accepted) {
            IllegalArgumentException refused =
                    assertThrows(IllegalArgumentException.class, () -> codec.decode(bytes.clone()));
            assertEquals(0, refused.getMessage().indexOf(bytes.length + " bytes are not "));
            return;
        }
        assertArrayEquals(bytes, codec.encode(codec.decode(given)));
    }

    /** All NaNs have the same bytes, whatever bytes they came from. */
    private static void checkDouble(byte[] bytes) {
        boolean isNaN = bytes.length == Double.BYTES
                && Double.isNaN(ByteBuffer.wrap(bytes).getDouble());
        if (!isNaN) {
            check(Codecs.doubles(), bytes, bytes.length == Double.BYTES);
            return;
        }
        byte[] canonical =
                ByteBuffer.allocate(Double.BYTES).putDouble(Double.NaN).array();
        assertArrayEquals(canonical, Codecs.doubles().encode(Codecs.doubles().decode(bytes)));
    }

    private static boolean isUtf8(byte[] bytes) {
        try {
            StandardCharsets.UTF_8.newDecoder().decode(ByteBuffer.wrap(bytes));
            return true;
        } catch (CharacterCodingException e) {
            return false;
        }
    }

    @FuzzTest
    void stringsSurviveOrAreRefused(FuzzedDataProvider data) {
        String text = text(data);
        byte[] expected = utf8(text);
        if (expected == null) {
            assertThrows(IllegalArgumentException.class, () -> Codecs.string().encode(text));
            return;
        }
        byte[] bytes = Codecs.string().encode(text);
        assertArrayEquals(expected, bytes);
        assertEquals(text, Codecs.string().decode(bytes));
    }

    /** Any characters, halves of pairs among them. */
    private static String text(FuzzedDataProvider data) {
        StringBuilder text = new StringBuilder();
        while (data.remainingBytes() > 0) {
            text.append(data.consumeChar());
        }
        return text.toString();
    }

    /** Null for a text with half of a surrogate pair. */
    private static byte[] utf8(String text) {
        try {
            ByteBuffer encoded = StandardCharsets.UTF_8.newEncoder().encode(CharBuffer.wrap(text));
            return Arrays.copyOf(encoded.array(), encoded.limit());
        } catch (CharacterCodingException e) {
            return null;
        }
    }

    @FuzzTest
    void buffersAreReadBetweenPositionAndLimit(FuzzedDataProvider data) {
        int position = data.consumeInt(0, 64);
        int rest = data.consumeInt(0, 64);
        boolean direct = data.consumeBoolean();
        boolean readOnly = data.consumeBoolean();
        byte[] bytes = data.consumeRemainingAsBytes();
        int capacity = position + bytes.length + rest;
        ByteBuffer buffer = direct ? ByteBuffer.allocateDirect(capacity) : ByteBuffer.allocate(capacity);
        buffer.position(position).put(bytes).flip().position(position);
        ByteBuffer given = readOnly ? buffer.asReadOnlyBuffer() : buffer.slice();
        int before = given.position();
        assertArrayEquals(bytes, Codecs.byteBuffer().encode(given));
        assertEquals(before, given.position());
        assertEquals(bytes.length, given.remaining());
    }
}
