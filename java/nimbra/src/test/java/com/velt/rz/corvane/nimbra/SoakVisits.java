package com.velt.rz.corvane.nimbra;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.UUID;
import java.util.function.Function;

/**
 * Maps that live for a moment: one thread opens a map with options of all kinds, uses it with the oracle beside it, and
 * closes it, sometimes with values still pinned. Used by several threads at once; the maps are the caller's alone.
 */
final class SoakVisits {
    private static final int MOST_OPERATIONS = 2_000;
    private static final int MOST_KEYS = 300;

    private final SoakCounts counts;

    SoakVisits(SoakCounts counts) {
        this.counts = counts;
    }

    void visit(Random random) {
        try {
            if (random.nextInt(3) == 0) {
                bytes(random);
            } else {
                typed(random);
            }
        } catch (OffHeapMemoryException e) {
            // Only the building of the map is not looked after further down.
            counts.refused(e);
        }
    }

    private OffHeapMap open(OffHeapMap.Builder options) {
        OffHeapMap map = options.build();
        counts.mapsOpened.increment();
        return map;
    }

    // ---- Bytes -------------------------------------------------------------------------------

    private void bytes(Random random) {
        int keys = 1 + random.nextInt(MOST_KEYS);
        OffHeapMap.Builder options = sizes(OffHeapMap.builder(), random);
        boolean evicting = random.nextBoolean();
        if (evicting) {
            limits(options, random);
        } else if (random.nextInt(4) == 0) {
            options.recordStatistics();
        }
        List<StressedMap.Held> held = new ArrayList<>();
        OffHeapMap closed;
        try (OffHeapMap map = open(options)) {
            closed = map;
            StressedMap stressed = new StressedMap(map, evicting, 1, keys);
            int operations = random.nextInt(MOST_OPERATIONS);
            for (int i = 0; i < operations; i++) {
                useOnce(stressed, random, held);
            }
            stressed.checkAll();
            counts.add(stressed);
            counts.operations.add(operations);
        } finally {
            // A pinned value outlives its map.
            held.forEach(StressedMap.Held::release);
        }
        requireClosed(closed, random);
    }

    private static OffHeapMap.Builder sizes(OffHeapMap.Builder options, Random random) {
        return options.partitions(1 << random.nextInt(5))
                .bucketSets(1 << random.nextInt(6))
                .loadFactor(0.25f + random.nextFloat() * 4);
    }

    private void limits(OffHeapMap.Builder options, Random random) {
        options.evictionPolicy(random.nextBoolean() ? EvictionPolicy.LRU : EvictionPolicy.LFU);
        switch (random.nextInt(4)) {
            case 0 -> options.maximumEntries(1 + random.nextInt(MOST_KEYS));
            case 1 -> options.maximumBytes(1_000 + random.nextInt(2 << 20));
            case 2 -> options.expireAfterWrite(Duration.ofMillis(1 + random.nextInt(50)));
            default -> options.maximumEntries(1 + random.nextInt(MOST_KEYS))
                    .expireAfterAccess(Duration.ofMillis(1 + random.nextInt(50)));
        }
        options.evictionListener((key, value, cause) -> {
            StressValues.generation(StressValues.number(key), ByteBuffer.wrap(value));
            counts.evictions.increment();
        });
    }

    private static void useOnce(StressedMap map, Random random, List<StressedMap.Held> held) {
        switch (random.nextInt(400)) {
            case 0 -> map.clear();
            case 1 -> map.walk(0);
            case 2, 3 -> map.changes(0, random);
            case 4 -> map.map.forgetReader("reader 0");
            default -> {
                switch (random.nextInt(10)) {
                    case 0, 1, 2, 3 -> map.write(0, random);
                    case 4 -> map.remove(0, random);
                    case 5 -> map.containsKey(0, random);
                    case 6 -> {
                        StressedMap.Held pinned = map.pin(0, random);
                        if (pinned != null) {
                            held.add(pinned);
                        }
                        if (held.size() > 4) {
                            held.remove(random.nextInt(held.size())).release();
                        }
                    }
                    default -> map.get(0, random);
                }
            }
        }
    }

    private static void requireClosed(OffHeapMap map, Random random) {
        try {
            byte[] value = map.get(StressValues.key(random.nextInt(MOST_KEYS)));
            throw new AssertionError(map + " was closed and answers " + value);
        } catch (IllegalStateException e) {
            if (!e.getMessage().contains("is closed")) {
                throw e;
            }
        }
    }

    // ---- Objects -----------------------------------------------------------------------------

    private void typed(Random random) {
        switch (random.nextInt(5)) {
            case 0 -> typed(random, Codecs.string(), n -> "key " + n, Codecs.longs(), Random::nextLong);
            case 1 -> typed(random, Codecs.integer(), n -> n, Codecs.string(), SoakVisits::text);
            case 2 -> typed(random, Codecs.longs(), n -> (long) n << 33, Codecs.uuid(), SoakVisits::uuid);
            case 3 -> typed(random, Codecs.uuid(), n -> new UUID(n, ~n), Codecs.doubles(), Random::nextDouble);
            default -> typed(random, Codecs.doubles(), n -> n / 7.0, Codecs.byteBuffer(), SoakVisits::buffer);
        }
    }

    private static UUID uuid(Random random) {
        return new UUID(random.nextLong(), random.nextLong());
    }

    private static String text(Random random) {
        return "\u00e4 text ".repeat(random.nextInt(500)) + random.nextInt();
    }

    private static ByteBuffer buffer(Random random) {
        return ByteBuffer.wrap(TestRuntime.random(random, random.nextInt(9_000)));
    }

    private <K, V> void typed(
            Random random, Codec<K> keys, Function<Integer, K> key, Codec<V> values, Function<Random, V> value) {
        int count = 1 + random.nextInt(MOST_KEYS);
        Map<K, V> oracle = new HashMap<>();
        int operations = random.nextInt(MOST_OPERATIONS);
        try (OffHeapMap map = open(sizes(OffHeapMap.builder(), random))) {
            TypedMap<K, V> typed = map.typed(keys, values);
            for (int i = 0; i < operations; i++) {
                try {
                    useOnce(random, typed, oracle, key.apply(random.nextInt(count)), value, values);
                } catch (OffHeapMemoryException e) {
                    // The map is as it was, and so is the oracle: it changes after the map has.
                    counts.refused(e);
                }
            }
            compareAll(typed, oracle);
        }
        counts.operations.add(operations);
    }

    private <K, V> void useOnce(
            Random random, TypedMap<K, V> typed, Map<K, V> oracle, K key, Function<Random, V> maker, Codec<V> values) {
        switch (random.nextInt(200)) {
            case 0 -> {
                typed.clear();
                oracle.clear();
            }
            case 1 -> compareAll(typed, oracle);
            case 2, 3 -> compareChanges(typed, oracle);
            default -> {
                switch (random.nextInt(9)) {
                    case 0, 1 -> {
                        V value = maker.apply(random);
                        require(typed, key, "put", typed.put(key, value), !oracle.containsKey(key));
                        oracle.put(key, value);
                    }
                    case 2 -> {
                        V value = maker.apply(random);
                        require(typed, key, "putIfAbsent", typed.putIfAbsent(key, value), !oracle.containsKey(key));
                        oracle.putIfAbsent(key, value);
                    }
                    case 3 -> {
                        V value = maker.apply(random);
                        require(typed, key, "replace", typed.replace(key, value), oracle.containsKey(key));
                        oracle.replace(key, value);
                    }
                    case 4 -> require(typed, key, "remove", typed.remove(key), oracle.remove(key) != null);
                    case 5 -> require(typed, key, "containsKey", typed.containsKey(key), oracle.containsKey(key));
                    case 6 -> comparePinned(typed, oracle, key, values);
                    default -> require(typed, key, "get", typed.get(key), oracle.get(key));
                }
            }
        }
    }

    private static <K, V> void comparePinned(TypedMap<K, V> typed, Map<K, V> oracle, K key, Codec<V> values) {
        try (PinnedValue pinned = typed.pin(key)) {
            V value = pinned == null ? null : values.decode(TestRuntime.read(pinned.buffer()));
            require(typed, key, "pin", value, oracle.get(key));
        }
    }

    private static <K, V> void compareAll(TypedMap<K, V> typed, Map<K, V> oracle) {
        Map<K, V> found = new HashMap<>();
        typed.forEach((key, value) -> require(typed, key, "forEach", found.put(key, value), null));
        require(typed, "all keys", "forEach", found, oracle);
        require(typed, "no key", "size", typed.size(), (long) oracle.size());
    }

    private static <K, V> void compareChanges(TypedMap<K, V> typed, Map<K, V> oracle) {
        Map<K, V> found = new HashMap<>();
        try (ChangeIterator changes = typed.map().changesSince(0)) {
            while (changes.hasNext()) {
                Change change = changes.next();
                K key = typed.key(change);
                require(typed, key, "changesSince", found.put(key, typed.value(change)), null);
            }
        }
        require(typed, "all keys", "changesSince", found, oracle);
    }

    private static void require(TypedMap<?, ?> map, Object key, String operation, Object found, Object expected) {
        if (found == null ? expected != null : !found.equals(expected)) {
            throw new AssertionError(
                    map + ": " + operation + " of " + key + " answers " + found + " instead of " + expected);
        }
    }
}
