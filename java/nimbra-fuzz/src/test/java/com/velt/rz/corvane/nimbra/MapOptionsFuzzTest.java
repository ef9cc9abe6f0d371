package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.code_intelligence.jazzer.api.FuzzedDataProvider;
import com.code_intelligence.jazzer.junit.FuzzTest;
import java.time.Duration;
import java.util.function.Consumer;

/** Every value of every option is accepted or refused as documented, and a map that was built works. */
class MapOptionsFuzzTest {
    private static final int MOST_BUCKET_SETS = 1 << 12;

    /** What of the accepted options decides how the map behaves. */
    private static final class Accepted {
        int partitions = 16;
        int bucketSets = 16;
        int longestValue = OffHeapMap.MAX_VALUE_LENGTH;
        long entries;
        long bytes;
        boolean writeExpiry;
        boolean accessExpiry;
        boolean listener;
    }

    @FuzzTest
    void optionsAreCheckedAndMapsWork(FuzzedDataProvider data) {
        if (!Nimbra.isStarted()) {
            Nimbra.builder().maximumBytes(1L << 28).start();
        }
        OffHeapMap.Builder builder = OffHeapMap.builder().partitions(1);
        Accepted accepted = new Accepted();
        accepted.partitions = 1;
        for (int steps = data.consumeInt(0, 8); steps > 0; steps--) {
            step(data, builder, accepted);
        }
        if ((long) accepted.partitions * accepted.bucketSets > MOST_BUCKET_SETS) {
            return; // a table of millions of buckets shows nothing more
        }
        boolean evicts = accepted.entries > 0 || accepted.bytes > 0 || accepted.writeExpiry || accepted.accessExpiry;
        if (accepted.writeExpiry && accepted.accessExpiry || accepted.listener && !evicts) {
            assertThrows(IllegalStateException.class, builder::build);
            return;
        }
        try (OffHeapMap map = builder.build()) {
            use(data, map, accepted, evicts);
        }
    }

    private static void step(FuzzedDataProvider data, OffHeapMap.Builder builder, Accepted accepted) {
        switch (data.consumeInt(0, 8)) {
            case 0 -> {
                int count = data.consumeBoolean() ? data.consumeInt(-1, 64) : data.consumeInt();
                if (taken(count >= 1 && count <= 4_096, count, builder::partitions)) {
                    accepted.partitions = count;
                }
            }
            case 1 -> {
                int count = data.consumeBoolean() ? data.consumeInt(-1, 64) : data.consumeInt();
                if (taken(count >= 1 && count <= 65_536, count, builder::bucketSets)) {
                    accepted.bucketSets = count;
                }
            }
            case 2 -> {
                float factor = data.consumeFloat();
                taken(factor > 0 && factor <= 64, factor, builder::loadFactor);
            }
            case 3 -> {
                int bytes = data.consumeBoolean() ? data.consumeInt(-1, 64) : data.consumeInt();
                if (taken(bytes >= 1 && bytes <= OffHeapMap.MAX_VALUE_LENGTH, bytes, builder::maximumValueLength)) {
                    accepted.longestValue = bytes;
                }
            }
            case 4 -> {
                long entries = data.consumeBoolean() ? data.consumeLong(-1, 20) : data.consumeLong();
                if (taken(entries >= 1, entries, builder::maximumEntries)) {
                    accepted.entries = entries;
                }
            }
            case 5 -> {
                long bytes = data.consumeBoolean() ? data.consumeLong(-1, 20_000) : data.consumeLong();
                if (taken(bytes >= 1, bytes, builder::maximumBytes)) {
                    accepted.bytes = bytes;
                }
            }
            case 6 -> {
                Duration duration = duration(data);
                boolean positive = !duration.isNegative() && !duration.isZero();
                accepted.writeExpiry |= taken(positive, duration, builder::expireAfterWrite);
            }
            case 7 -> {
                Duration duration = duration(data);
                boolean positive = !duration.isNegative() && !duration.isZero();
                accepted.accessExpiry |= taken(positive, duration, builder::expireAfterAccess);
            }
            default -> {
                builder.evictionPolicy(data.pickValue(EvictionPolicy.values()));
                if (data.consumeBoolean()) {
                    builder.evictionListener((key, value, cause) -> assertNotNull(cause));
                    accepted.listener = true;
                }
            }
        }
    }

    private static Duration duration(FuzzedDataProvider data) {
        return Duration.ofSeconds(data.consumeLong(), data.consumeInt(0, 999_999_999));
    }

    private static <T> boolean taken(boolean expected, T value, Consumer<T> option) {
        if (expected) {
            option.accept(value);
        } else {
            assertThrows(IllegalArgumentException.class, () -> option.accept(value), String.valueOf(value));
        }
        return expected;
    }

    private static void use(FuzzedDataProvider data, OffHeapMap map, Accepted accepted, boolean evicts) {
        byte[] key = data.consumeBytes(8);
        byte[] value = data.consumeBytes(100);
        if (value.length > accepted.longestValue) {
            assertThrows(IllegalArgumentException.class, () -> map.put(key, value));
            return;
        }
        for (int round = 0; round < 40; round++) {
            try {
                map.put(new byte[] {(byte) round}, value);
            } catch (OffHeapMemoryException e) {
                assertTrue(accepted.bytes > 0, "only a limit of the map can refuse so little");
            }
            if (accepted.entries > 0) {
                assertTrue(map.size() <= accepted.entries, () -> map.size() + " of " + accepted.entries);
            }
            if (accepted.bytes > 0) {
                assertTrue(map.bytesUsed() <= accepted.bytes, () -> map.bytesUsed() + " of " + accepted.bytes);
            }
        }
        if (evicts) {
            return;
        }
        assertEquals(40, map.size());
        map.put(key, value);
        assertArrayEquals(value, map.get(key));
    }
}
