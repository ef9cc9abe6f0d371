package com.velt.rz.corvane.nimbra;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.nio.ByteOrder;

/**
 * SipHash-1-3: a keyed 64-bit hash whose collisions cannot be chosen by someone who does not know the 128-bit key. One
 * round for each eight bytes and three at the end are the usual choice for tables.
 *
 * <p>The rounds are written out where they are used: a lookup waits for the result, and calls or loops around them cost
 * more than they do. Stateless, allocates nothing, and reads the input as little-endian words on every platform.
 */
final class SipHash {
    private static final VarHandle WORD = MethodHandles.byteArrayViewVarHandle(long[].class, ByteOrder.LITTLE_ENDIAN);

    private SipHash() {}

    /**
     * Hashes all bytes of {@code data}.
     *
     * @param k0 first eight bytes of the key, little-endian
     * @param k1 last eight bytes of the key, little-endian
     */
    static long hash13(long k0, long k1, byte[] data) {
        long v0 = k0 ^ 0x736f6d6570736575L;
        long v1 = k1 ^ 0x646f72616e646f6dL;
        long v2 = k0 ^ 0x6c7967656e657261L;
        long v3 = k1 ^ 0x7465646279746573L;
        int at = 0;
        boolean more = true;
        while (more) {
            more = data.length - at >= Long.BYTES;
            long word = more ? (long) WORD.get(data, at) : lastWord(data, at);
            at += Long.BYTES;
            v3 ^= word;
            v0 += v1;
            v2 += v3;
            v1 = Long.rotateLeft(v1, 13) ^ v0;
            v3 = Long.rotateLeft(v3, 16) ^ v2;
            v0 = Long.rotateLeft(v0, 32) + v3;
            v2 += v1;
            v3 = Long.rotateLeft(v3, 21) ^ v0;
            v1 = Long.rotateLeft(v1, 17) ^ v2;
            v2 = Long.rotateLeft(v2, 32);
            v0 ^= word;
        }
        v2 ^= 0xff;
        for (int round = 0; round < 3; round++) {
            v0 += v1;
            v2 += v3;
            v1 = Long.rotateLeft(v1, 13) ^ v0;
            v3 = Long.rotateLeft(v3, 16) ^ v2;
            v0 = Long.rotateLeft(v0, 32) + v3;
            v2 += v1;
            v3 = Long.rotateLeft(v3, 21) ^ v0;
            v1 = Long.rotateLeft(v1, 17) ^ v2;
            v2 = Long.rotateLeft(v2, 32);
        }
        return v0 ^ v1 ^ v2 ^ v3;
    }

    /** The bytes behind the last whole word, with the low byte of the length on top. */
    private static long lastWord(byte[] data, int from) {
        long word = (long) data.length << 56;
        for (int i = from; i < data.length; i++) {
            word |= (data[i] & 0xffL) << (8 * (i - from));
        }
        return word;
    }
}
