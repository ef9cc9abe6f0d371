package com.velt.rz.corvane.nimbra.peers;

import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.Collection;
import java.util.Random;

/**
 * The keys and values of one run, the same for every store: they follow from the counts alone. Immutable once made.
 *
 * <p>Every workload walks an array of keys of its own from front to back, and each of its keys is an array of its own.
 * Random order, skew and absence are in the content of these arrays, so that the harness makes the same steps for all
 * workloads, adds no cache misses for its keys, and the stores meet their entries in an order that their memory does not
 * follow.
 */
final class Keys {
    static final int KEY_BYTES = 16;

    /** The skew of YCSB's zipfian distribution. */
    static final double ZIPF_EXPONENT = 0.99;

    private static final int VALUES = 256; // a power of two; few, so that sources of copies stay in the cache
    private static final int COINS = 1 << 16; // a power of two
    private static final long SEED = 0x5DEECE66DL;
    private static final int BYTES_OF_A_KEY = 40; // header, content, and the reference in its array
    private static final int SEQUENCES = 4;

    private final byte[][] inInsertionOrder;
    private final byte[][] inRandomOrder;
    private final byte[][] zipfian;
    private final byte[][] absent;
    private final byte[][] values;
    private final byte[] percent;

    Keys(int entries, int valueBytes, Collection<Workload> workloads) {
        Random random = new Random(SEED);
        inInsertionOrder = new byte[entries][];
        for (int i = 0; i < entries; i++) {
            inInsertionOrder[i] = key(random, i);
        }
        int[] order = shuffled(entries, random);
        inRandomOrder = new byte[entries][];
        for (int i = 0; i < entries; i++) {
            inRandomOrder[i] = inInsertionOrder[order[i]].clone();
        }
        zipfian = workloads.contains(Workload.GET_HIT_ZIPFIAN) ? drawn(inRandomOrder, random) : null;
        absent = workloads.contains(Workload.GET_MISS) ? new byte[entries][] : null;
        for (int i = 0; absent != null && i < entries; i++) {
            absent[i] = key(random, entries + i);
        }
        values = new byte[VALUES][valueBytes];
        for (byte[] value : values) {
            random.nextBytes(value);
        }
        percent = new byte[COINS];
        for (int i = 0; i < COINS; i++) {
            percent[i] = (byte) random.nextInt(100);
        }
    }

    /** The number makes the key unique, the rest is noise. */
    private static byte[] key(Random random, int number) {
        return ByteBuffer.allocate(KEY_BYTES)
                .putLong(random.nextLong())
                .putLong(number)
                .array();
    }

    private static int[] shuffled(int count, Random random) {
        int[] order = new int[count];
        for (int i = 0; i < count; i++) {
            int other = random.nextInt(i + 1);
            order[i] = order[other];
            order[other] = i;
        }
        return order;
    }

    /** Draws as many keys as there are, the one in place {@code i} with a weight of 1 / (i + 1) ^ {@link #ZIPF_EXPONENT}. */
    private static byte[][] drawn(byte[][] keys, Random random) {
        double[] upTo = new double[keys.length];
        double sum = 0;
        for (int i = 0; i < keys.length; i++) {
            sum += Math.pow(i + 1, -ZIPF_EXPONENT);
            upTo[i] = sum;
        }
        byte[][] drawn = new byte[keys.length][];
        for (int i = 0; i < keys.length; i++) {
            int place = Arrays.binarySearch(upTo, random.nextDouble() * sum);
            drawn[i] = keys[Math.min(place < 0 ? -place - 1 : place, keys.length - 1)].clone();
        }
        return drawn;
    }

    /** Returns the Java heap that the keys of a run take at most. */
    static long heapBytes(int entries) {
        return (long) entries * BYTES_OF_A_KEY * SEQUENCES;
    }

    int entries() {
        return inInsertionOrder.length;
    }

    byte[] toInsert(int i) {
        return inInsertionOrder[i];
    }

    byte[] inRandomOrder(int i) {
        return inRandomOrder[i];
    }

    byte[] zipfian(int i) {
        return zipfian[i];
    }

    byte[] absent(int i) {
        return absent[i];
    }

    byte[] value(int i) {
        return values[i & (VALUES - 1)];
    }

    /** Returns whether the operation with that number is a write when so many of a hundred are. */
    boolean writes(int i, int ofHundred) {
        return percent[i & (COINS - 1)] < ofHundred;
    }
}
