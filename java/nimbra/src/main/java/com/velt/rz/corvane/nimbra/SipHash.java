package com.velt.rz.corvane.nimbra;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.nio.ByteOrder;

/**
 * SipHash: a keyed 64-bit hash whose collisions cannot be chosen by someone who does not know the 128-bit key.
 *
 * <p>The numbers of rounds are arguments. Maps use one round a word and three at the end, the usual choice for tables;
 * two and four give the function of the published test vectors. Stateless, allocates nothing, and reads the input as
 * little-endian words on every platform.
 */
final class SipHash {
    private static final VarHandle WORD = MethodHandles.byteArrayViewVarHandle(long[].class, ByteOrder.LITTLE_ENDIAN);

    private SipHash() {}

    /**
     * Hashes all bytes of {@code data} with one round a word and three final rounds.
     *
     * @param k0 first eight bytes of the key, little-endian
     * @param k1 last eight bytes of the key, little-endian
     */
    static long hash13(long k0, long k1, byte[] data) {
        return hash(1, 3, k0, k1, data);
    }

    /**
     * Hashes all bytes of {@code data}.
     *
     * @param wordRounds rounds after each eight bytes of input
     * @param finalRounds rounds after the last
     * @param k0 first eight bytes of the key, little-endian
     * @param k1 last eight bytes of the key, little-endian
     */
    static long hash(int wordRounds, int finalRounds, long k0, long k1, byte[] data) {
        long v0 = k0 ^ 0x736f6d6570736575L;
        long v1 = k1 ^ 0x646f72616e646f6dL;
        long v2 = k0 ^ 0x6c7967656e657261L;
        long v3 = k1 ^ 0x7465646279746573L;

        int wordsEnd = data.length & ~7;
        for (int offset = 0; offset <= wordsEnd; offset += 8) {
            long word = offset < wordsEnd ? (long) WORD.get(data, offset) : lastWord(data, wordsEnd);
            v3 ^= word;
            for (int round = 0; round < wordRounds; round++) {
                v0 += v1;
                v1 = Long.rotateLeft(v1, 13) ^ v0;
                v0 = Long.rotateLeft(v0, 32);
                v2 += v3;
                v3 = Long.rotateLeft(v3, 16) ^ v2;
                v0 += v3;
                v3 = Long.rotateLeft(v3, 21) ^ v0;
                v2 += v1;
                v1 = Long.rotateLeft(v1, 17) ^ v2;
                v2 = Long.rotateLeft(v2, 32);
            }
            v0 ^= word;
        }

        v2 ^= 0xff;
        for (int round = 0; round < finalRounds; round++) {
            v0 += v1;
            v1 = Long.rotateLeft(v1, 13) ^ v0;
            v0 = Long.rotateLeft(v0, 32);
            v2 += v3;
            v3 = Long.rotateLeft(v3, 16) ^ v2;
            v0 += v3;
            v3 = Long.rotateLeft(v3, 21) ^ v0;
            v2 += v1;
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
