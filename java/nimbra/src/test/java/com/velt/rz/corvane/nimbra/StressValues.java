package com.velt.rz.corvane.nimbra;

import java.nio.ByteBuffer;

/**
 * Keys and values that can be told from each other: every byte of a value, and its length, follow from its key's number
 * and its generation, so that one that is torn, of another key or of another time is recognised.
 */
final class StressValues {
    private static final int HEADER = 2 * Integer.BYTES;

    private StressValues() {}

    static byte[] key(int number) {
        byte[] key = new byte[Integer.BYTES + number % 40];
        ByteBuffer.wrap(key).putInt(number);
        return key;
    }

    static int number(byte[] key) {
        int number = ByteBuffer.wrap(key).getInt();
        if (number < 0 || key.length != Integer.BYTES + number % 40) {
            throw new AssertionError("a key of " + key.length + " bytes with the number " + number);
        }
        return number;
    }

    static byte[] value(int number, int generation) {
        byte[] value = new byte[length(number, generation)];
        ByteBuffer.wrap(value).putInt(number).putInt(generation);
        for (int i = HEADER; i < value.length; i++) {
            value[i] = expected(number, generation, i);
        }
        return value;
    }

    /** Returns the generation of a value of this key, all of whose bytes are compared. */
    static int generation(int number, ByteBuffer value) {
        if (value.remaining() < HEADER) {
            throw new AssertionError("key " + number + " has a value of " + value.remaining() + " bytes");
        }
        int whose = value.getInt(0);
        int generation = value.getInt(Integer.BYTES);
        if (whose != number) {
            throw new AssertionError("key " + number + " has a value of key " + whose);
        }
        if (value.remaining() != length(number, generation)) {
            throw new AssertionError("generation " + generation + " of key " + number + " has " + value.remaining()
                    + " bytes instead of " + length(number, generation));
        }
        for (int i = HEADER; i < value.limit(); i++) {
            if (value.get(i) != expected(number, generation, i)) {
                throw new AssertionError("generation " + generation + " of key " + number + " is torn at byte " + i
                        + " of " + value.limit());
            }
        }
        return generation;
    }

    private static byte expected(int number, int generation, int place) {
        return (byte) (number * 7 + generation * 17 + place);
    }

    /** Mostly some kilobytes, now and then next to nothing or a hundred kilobytes. */
    private static int length(int number, int generation) {
        int mixed = (number * 0x9e3779b9 + generation) * 0x85ebca6b;
        int chosen = (mixed ^ mixed >>> 15) & 0x7fffffff;
        int kind = chosen % 100;
        int spread = chosen / 100;
        if (kind < 20) {
            return HEADER + spread % 200;
        }
        if (kind < 90) {
            return 500 + spread % 4_000;
        }
        return kind < 99 ? 4_500 + spread % 15_500 : 20_000 + spread % 80_000;
    }
}
