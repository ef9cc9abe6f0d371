package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import org.junit.jupiter.api.Test;

class SipHashTest {
    // The key of the published vectors: bytes 00 to 0f.
    private static final long K0 = 0x0706050403020100L;
    private static final long K1 = 0x0f0e0d0c0b0a0908L;

    /** The reference that {@link SipHash} is compared with. */
    @Test
    void publishedVectors() {
        assertEquals(0x726fdb47dd0e0e31L, reference(2, 4, K0, K1, ascending(0)));
        assertEquals(0x74f839c593dc67fdL, reference(2, 4, K0, K1, ascending(1)));
        assertEquals(0x93f5f5799a932462L, reference(2, 4, K0, K1, ascending(8)));
        assertEquals(0xa129ca6149be45e5L, reference(2, 4, K0, K1, ascending(15)));
    }

    @Test
    void isTheReferenceWithOneAndThreeRounds() {
        for (int length = 0; length < 40; length++) {
            byte[] data = ascending(length);
            assertEquals(reference(1, 3, K0, K1, data), SipHash.hash13(K0, K1, data));
            assertNotEquals(reference(2, 4, K0, K1, data), SipHash.hash13(K0, K1, data));
        }
    }

    @Test
    void everyByteAndTheLengthCount() {
        Set<Long> seen = new HashSet<>();
        for (int length = 0; length <= 24; length++) {
            assertTrue(seen.add(SipHash.hash13(K0, K1, new byte[length])), "length " + length);
            for (int i = 0; i < length; i++) {
                byte[] data = new byte[length];
                data[i] = 1;
                assertTrue(seen.add(SipHash.hash13(K0, K1, data)), "byte " + i + " of " + length);
            }
        }
    }

    @Test
    void aBitOfTheKeyChangesTheHash() {
        byte[] data = ascending(20);
        Set<Long> seen = new HashSet<>(Set.of(SipHash.hash13(K0, K1, data)));
        for (int bit = 0; bit < 64; bit++) {
            assertTrue(seen.add(SipHash.hash13(K0 ^ 1L << bit, K1, data)));
            assertTrue(seen.add(SipHash.hash13(K0, K1 ^ 1L << bit, data)));
        }
    }

    /** Inputs that pile up under ordinary hashes spread evenly, over partitions and, within one, over buckets. */
    @Test
    void chosenInputsSpread() {
        Random random = new Random(TestRuntime.seed("SipHashTest.chosenInputsSpread"));
        long k0 = random.nextLong();
        long k1 = random.nextLong();
        for (List<byte[]> inputs : List.of(sequential(), singleBits(), collidingStrings())) {
            int[] partitions = new int[64];
            int[] buckets = new int[64];
            int[] bucketsOfHalf = new int[64];
            for (byte[] input : inputs) {
                long hash = SipHash.hash13(k0, k1, input);
                partitions[(int) (hash >>> 58)]++;
                buckets[(int) hash & 63]++;
                if (hash < 0) {
                    bucketsOfHalf[(int) hash & 63]++;
                }
            }
            assertEven(partitions);
            assertEven(buckets);
            assertEven(bucketsOfHalf);
        }
    }

    /** Chi-squared with 63 degrees of freedom: an even spread stays below 150 in all but one of 10^8 runs. */
    private static void assertEven(int[] counts) {
        double total = 0;
        for (int count : counts) {
            total += count;
        }
        double expected = total / counts.length;
        double chiSquared = 0;
        for (int count : counts) {
            chiSquared += (count - expected) * (count - expected) / expected;
        }
        assertTrue(chiSquared < 150, "chi-squared " + chiSquared);
    }

    private static List<byte[]> sequential() {
        List<byte[]> inputs = new ArrayList<>();
        for (int i = 0; i < 16_384; i++) {
            inputs.add(TestRuntime.bytes((long) i << 20));
        }
        return inputs;
    }

    private static List<byte[]> singleBits() {
        List<byte[]> inputs = new ArrayList<>();
        for (int bit = 0; bit < 16_384; bit++) {
            byte[] input = new byte[2_048];
            input[bit >> 3] = (byte) (1 << (bit & 7));
            inputs.add(input);
        }
        return inputs;
    }

    /** Strings with one and the same String.hashCode. */
    private static List<byte[]> collidingStrings() {
        return HashFlooding.collidingKeys(14);
    }

    /** SipHash with any numbers of rounds, byte by byte. */
    private static long reference(int wordRounds, int finalRounds, long k0, long k1, byte[] data) {
        long[] v = {
            k0 ^ 0x736f6d6570736575L, k1 ^ 0x646f72616e646f6dL, k0 ^ 0x6c7967656e657261L, k1 ^ 0x7465646279746573L
        };
        for (int at = 0; at <= data.length; at += 8) {
            long word = 0;
            for (int i = 0; i < 8; i++) {
                int octet = at + i < data.length ? data[at + i] : at + i == (data.length | 7) ? data.length : 0;
                word |= (octet & 0xffL) << 8 * i;
            }
            v[3] ^= word;
            rounds(v, wordRounds);
            v[0] ^= word;
        }
        v[2] ^= 0xff;
        rounds(v, finalRounds);
        return v[0] ^ v[1] ^ v[2] ^ v[3];
    }

    private static void rounds(long[] v, int count) {
        for (int round = 0; round < count; round++) {
            mix(v, 0, 1, 13);
            mix(v, 2, 3, 16);
            v[0] = Long.rotateLeft(v[0], 32);
            mix(v, 0, 3, 21);
            mix(v, 2, 1, 17);
            v[2] = Long.rotateLeft(v[2], 32);
        }
    }

    private static void mix(long[] v, int sum, int term, int rotation) {
        v[sum] += v[term];
        v[term] = Long.rotateLeft(v[term], rotation) ^ v[sum];
    }

    private static byte[] ascending(int length) {
        byte[] bytes = new byte[length];
        for (int i = 0; i < length; i++) {
            bytes[i] = (byte) i;
        }
        return bytes;
    }
}
