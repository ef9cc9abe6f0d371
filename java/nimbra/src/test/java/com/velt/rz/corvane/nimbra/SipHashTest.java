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

    @Test
    void publishedVectors() {
        assertEquals(0x726fdb47dd0e0e31L, SipHash.hash(2, 4, K0, K1, ascending(0)));
        assertEquals(0x74f839c593dc67fdL, SipHash.hash(2, 4, K0, K1, ascending(1)));
        assertEquals(0x93f5f5799a932462L, SipHash.hash(2, 4, K0, K1, ascending(8)));
        assertEquals(0xa129ca6149be45e5L, SipHash.hash(2, 4, K0, K1, ascending(15)));
    }

    @Test
    void shortHandIsOneAndThreeRounds() {
        for (int length = 0; length < 40; length++) {
            byte[] data = ascending(length);
            assertEquals(SipHash.hash(1, 3, K0, K1, data), SipHash.hash13(K0, K1, data));
            assertNotEquals(SipHash.hash(2, 4, K0, K1, data), SipHash.hash13(K0, K1, data));
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

    private static byte[] ascending(int length) {
        byte[] bytes = new byte[length];
        for (int i = 0; i < length; i++) {
            bytes[i] = (byte) i;
        }
        return bytes;
    }
}
