package com.velt.rz.corvane.nimbra;

import java.nio.ByteBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.util.HexFormat;
import java.util.UUID;

/**
 * The codecs of the usual types. Numbers are stored in big-endian order, so that the bytes of numbers that are not
 * negative sort as the numbers do. All codecs are stateless and may be used by any thread.
 */
public final class Codecs {
    private static final int BYTES_SHOWN = 16;

    private static final Codec<String> STRING = new StringCodec();
    private static final Codec<Integer> INTEGER = new FixedCodec<>("an Integer", Integer.BYTES) {
        @Override
        void write(Integer number, ByteBuffer target) {
            target.putInt(number);
        }

        @Override
        Integer read(ByteBuffer source) {
            return source.getInt();
        }
    };
    private static final Codec<Long> LONG = new FixedCodec<>("a Long", Long.BYTES) {
        @Override
        void write(Long number, ByteBuffer target) {
            target.putLong(number);
        }

        @Override
        Long read(ByteBuffer source) {
            return source.getLong();
        }
    };
    private static final Codec<Double> DOUBLE = new FixedCodec<>("a Double", Double.BYTES) {
        @Override
        void write(Double number, ByteBuffer target) {
            target.putLong(Double.doubleToLongBits(number));
        }

        @Override
        Double read(ByteBuffer source) {
            return Double.longBitsToDouble(source.getLong());
        }
    };
    private static final Codec<UUID> UUIDS = new FixedCodec<>("a UUID", 2 * Long.BYTES) {
        @Override
        void write(UUID id, ByteBuffer target) {
            target.putLong(id.getMostSignificantBits()).putLong(id.getLeastSignificantBits());
        }

        @Override
        UUID read(ByteBuffer source) {
            return new UUID(source.getLong(), source.getLong());
        }
    };
    private static final Codec<byte[]> BYTES = new Codec<>() {
        @Override
        public byte[] encode(byte[] bytes) {
            return bytes;
        }

        @Override
        public byte[] decode(byte[] bytes) {
            return bytes;
        }
    };
    private static final Codec<ByteBuffer> BYTE_BUFFER = new Codec<>() {
        @Override
        public byte[] encode(ByteBuffer buffer) {
            byte[] bytes = new byte[buffer.remaining()];
            buffer.get(buffer.position(), bytes);
            return bytes;
        }

        @Override
        public ByteBuffer decode(byte[] bytes) {
            return ByteBuffer.wrap(bytes);
        }
    };

    private Codecs() {}

    /**
     * Strings as UTF-8. A string with half of a surrogate pair has no UTF-8 form and is refused, rather than changed into
     * another string.
     */
    public static Codec<String> string() {
        return STRING;
    }

    /** Integers in four bytes. */
    public static Codec<Integer> integer() {
        return INTEGER;
    }

    /** Longs in eight bytes. */
    public static Codec<Long> longs() {
        return LONG;
    }

    /**
     * Doubles in eight bytes. Numbers become equal bytes exactly when {@link Double#equals} holds: all NaNs are one, the
     * two zeros are two.
     */
    public static Codec<Double> doubles() {
        return DOUBLE;
    }

    /** UUIDs in sixteen bytes. */
    public static Codec<UUID> uuid() {
        return UUIDS;
    }

    /** Byte arrays as they are, without a copy of the codec's own. */
    public static Codec<byte[]> bytes() {
        return BYTES;
    }

    /**
     * The bytes between a buffer's position and its limit, which encoding leaves where they are. Decoding makes a heap
     * buffer of its own, in big-endian order.
     */
    public static Codec<ByteBuffer> byteBuffer() {
        return BYTE_BUFFER;
    }

    private static IllegalArgumentException undecodable(String type, byte[] bytes) {
        String shown = HexFormat.of().formatHex(bytes, 0, Math.min(bytes.length, BYTES_SHOWN));
        return new IllegalArgumentException(
                bytes.length + " bytes are not " + type + ": " + shown + (bytes.length > BYTES_SHOWN ? "..." : ""));
    }

    /** Types whose objects all take the same number of bytes. */
    private abstract static class FixedCodec<T> implements Codec<T> {
        private final String type;
        private final int length;

        FixedCodec(String type, int length) {
            this.type = type;
            this.length = length;
        }

        abstract void write(T object, ByteBuffer target);

        abstract T read(ByteBuffer source);

        @Override
        public final byte[] encode(T object) {
            byte[] bytes = new byte[length];
            write(object, ByteBuffer.wrap(bytes));
            return bytes;
        }

        @Override
        public final T decode(byte[] bytes) {
            if (bytes.length != length) {
                throw undecodable(type, bytes);
            }
            return read(ByteBuffer.wrap(bytes));
        }
    }

    private static final class StringCodec implements Codec<String> {
        private static final char REPLACEMENT = '\ufffd';

        @Override
        public byte[] encode(String text) {
            for (int at = 0; at < text.length(); at++) {
                if (Character.isSurrogate(text.charAt(at))) {
                    boolean pair =
                            at + 1 < text.length() && Character.isSurrogatePair(text.charAt(at), text.charAt(at + 1));
                    if (!pair) {
                        throw new IllegalArgumentException(
                                "the string \"" + shown(text) + "\" has half of a surrogate" + " pair at index " + at
                                        + ": \\u" + HexFormat.of().toHexDigits(text.charAt(at)));
                    }
                    at++;
                }
            }
            return text.getBytes(StandardCharsets.UTF_8);
        }

        @Override
        public String decode(byte[] bytes) {
            String text = new String(bytes, StandardCharsets.UTF_8);
            // The quick way replaces what is malformed; only a text with that character needs the strict way.
            if (text.indexOf(REPLACEMENT) >= 0) {
                try {
                    StandardCharsets.UTF_8.newDecoder().decode(ByteBuffer.wrap(bytes));
                } catch (CharacterCodingException e) {
                    IllegalArgumentException refused = undecodable("a UTF-8 string", bytes);
                    refused.initCause(e);
                    throw refused;
                }
            }
            return text;
        }

        /** The beginning of the text, with halves of pairs in a form that can be printed. */
        private static String shown(String text) {
            StringBuilder shown = new StringBuilder();
            for (int at = 0; at < Math.min(text.length(), 4 * BYTES_SHOWN); at++) {
                char c = text.charAt(at);
                if (Character.isSurrogate(c)) {
                    shown.append("\\u").append(HexFormat.of().toHexDigits(c));
                } else {
                    shown.append(c);
                }
            }
            return shown.append(text.length() > 4 * BYTES_SHOWN ? "..." : "").toString();
        }
    }
}
