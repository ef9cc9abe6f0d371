package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import org.junit.jupiter.api.Test;

class KeyedHashTest {
    /** The definition once more, with numbers of any size and the words put together byte by byte. */
    @Test
    void isTheFoldedProductOfKeyAndInput() {
        long seed = TestRuntime.seed("KeyedHashTest.isTheFoldedProductOfKeyAndInput");
        Random keys = new Random(seed);
        long[] key = {keys.nextLong(), keys.nextLong(), keys.nextLong(), keys.nextLong()};
        KeyedHash hash = new KeyedHash(new Random(seed));
        Random random = new Random(seed + 1);
        for (int length = 0; length < 100; length++) {
            byte[] data = new byte[length];
            random.nextBytes(data);
            assertEquals(reference(key, data), hash.hash(data), "length " + length);
        }
    }

    @Test
    void everyByteAndTheLengthCount() {
        KeyedHash hash = new KeyedHash(new Random(1));
        Set<Long> seen = new HashSet<>();
        for (int length = 0; length <= 70; length++) {
            assertTrue(seen.add(hash.hash(new byte[length])), "length " + length);
            for (int i = 0; i < length; i++) {
                byte[] data = new byte[length];
                data[i] = 1;
                assertTrue(seen.add(hash.hash(data)), "byte " + i + " of " + length);
            }
        }
    }

    @Test
    void orderOfWordsCounts() {
        KeyedHash hash = new KeyedHash(new Random(1));
        assertNotEquals(hash.hash(swapped(0, 8)), hash.hash(swapped(8, 0)));
        assertNotEquals(hash.hash(swapped(16, 40)), hash.hash(swapped(40, 16)));
    }

    /** 48 bytes, one of them 1 and one 2. */
    private static byte[] swapped(int one, int two) {
        byte[] data = new byte[48];
        data[one] = 1;
        data[two] = 2;
        return data;
    }

    /** What collides under one key is spread under another, so that nothing can be learnt from a map of one's own. */
    @Test
    void anotherKeyMakesOtherCollisions() {
        KeyedHash one = new KeyedHash(new Random(1));
        KeyedHash other = new KeyedHash(new Random(2));
        int[] buckets = new int[64];
        for (long i = 0, found = 0; found < 16_384; i++) {
            byte[] data = TestRuntime.bytes(i);
            if ((one.hash(data) & 63) == 0) {
                buckets[(int) other.hash(data) & 63]++;
                found++;
            }
        }
        assertEven(buckets);
    }

    /** Inputs that pile up under ordinary hashes spread evenly, over partitions and, within one, over buckets. */
    @Test
    void chosenInputsSpread() {
        Random random = new Random(TestRuntime.seed("KeyedHashTest.chosenInputsSpread"));
        KeyedHash keyed = new KeyedHash(random);
        for (List<byte[]> inputs : List.of(sequential(), singleBits(), collidingStrings())) {
            int[] partitions = new int[64];
            int[] buckets = new int[64];
            int[] bucketsOfHalf = new int[64];
            for (byte[] input : inputs) {
                long hash = keyed.hash(input);
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

    private static long reference(long[] key, byte[] data) {
        int length = data.length;
        long chain = key[0];
        int at = 0;
        for (; length - at > 16; at += 16) {
            chain = fold(word(data, at, 8) ^ key[1], word(data, at + 8, 8) ^ chain);
        }
        long first = 0;
        long last = 0;
        if (length >= 8) {
            first = word(data, length < 16 ? 0 : length - 16, 8);
            last = word(data, length - 8, 8);
        } else if (length >= 4) {
            first = (int) word(data, 0, 4);
            last = (int) word(data, length - 4, 4);
        } else if (length > 0) {
            first = word(new byte[] {data[length - 1], data[length / 2], data[0]}, 0, 3);
        }
        return fold(fold(first ^ key[2], last ^ chain), key[3] ^ length);
    }

    private static long word(byte[] data, int from, int length) {
        long word = 0;
        for (int i = length; i-- > 0; ) {
            word = word << 8 | data[from + i] & 0xff;
        }
        return word;
    }

    private static long fold(long a, long b) {
        BigInteger product = unsigned(a).multiply(unsigned(b));
        return product.longValue() ^ product.shiftRight(64).longValue();
    }

    private static BigInteger unsigned(long word) {
        return new BigInteger(Long.toUnsignedString(word));
    }
}
