package com.velt.rz.corvane.nimbra;

/** The sizes that a map is built with: defaults, ranges, and what they take. */
final class MapSizes {
    private MapSizes() {}

    /** Four for each processor, but at least 16 and at most 256; a power of two. */
    static int defaultPartitions(int processors) {
        return Math.min(256, Math.max(16, roundUp(4 * Math.min(processors, 64))));
    }

    /** Returns the smallest power of two that is not less. */
    static int roundUp(int count) {
        return count == 1 ? 1 : Integer.highestOneBit(count - 1) << 1;
    }

    /** Bytes that an empty map takes at most, with room for the pages of size classes not in use yet. */
    static long bytesOfEmptyMap(int partitions, int bucketSets) {
        long header = (bucketSets + 2) * 64L;
        long buckets = bucketSets * 16L;
        return partitions * ((header + buckets) * 5 / 4 + 512) + (64 << 10);
    }

    static void checkRange(String option, int value, int greatest) {
        if (value < 1 || value > greatest) {
            throw new IllegalArgumentException(
                    option + " is " + value + ", has to be at least 1 and at most " + greatest);
        }
    }
}
