package com.velt.rz.corvane.nimbra.bench;

import java.nio.ByteBuffer;
import java.util.Random;

/**
 * The keys and values of one run, the same for every store: they follow from the counts alone. Immutable once made.
 *
 * <p>Each key exists twice: once in the order of insertion and once, as another array, in a random order for everything
 * that comes later. Both are walked from the front, so that the run itself adds no cache misses for its keys and the
 * stores meet their entries in an order that their memory does not follow.
 */
final class Workload {
    static final int KEY_LENGTH = 16;

    private static final int VALUES = 256; // a power of two; few, so that sources of copies stay in the cache
    private static final long SEED = 0x5DEECE66DL;

    private final byte[][] inInsertionOrder;
    private final byte[][] inRandomOrder;
    private final byte[][] values;

    Workload(int entries, int valueLength) {
        Random random = new Random(SEED);
        inInsertionOrder = new byte[entries][];
        for (int i = 0; i < entries; i++) {
            // The number makes the key unique, the rest is noise.
            inInsertionOrder[i] = ByteBuffer.allocate(KEY_LENGTH)
                    .putLong(random.nextLong())
                    .putLong(i)
                    .array();
        }
        int[] order = shuffled(0, entries, random);
        inRandomOrder = new byte[entries][];
        for (int i = 0; i < entries; i++) {
            inRandomOrder[i] = inInsertionOrder[order[i]].clone();
        }
        values = new byte[VALUES][valueLength];
        for (byte[] value : values) {
            random.nextBytes(value);
        }
    }

    /** Returns the numbers from {@code from} up to, without, {@code to} in a random order. */
    static int[] shuffled(int from, int to, Random random) {
        int[] order = new int[to - from];
        for (int i = 0; i < order.length; i++) {
            int other = random.nextInt(i + 1);
            order[i] = order[other];
            order[other] = from + i;
        }
        return order;
    }

    int entries() {
        return inInsertionOrder.length;
    }

    byte[] keyToInsert(int i) {
        return inInsertionOrder[i];
    }

    byte[] keyToFind(int i) {
        return inRandomOrder[i];
    }

    byte[] value(int i) {
        return values[i & (VALUES - 1)];
    }
}
