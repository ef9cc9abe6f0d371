package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Random;
import java.util.function.ToLongFunction;
import java.util.stream.Collectors;
import java.util.stream.LongStream;
import org.junit.jupiter.api.Test;

/**
 * Eviction queues beside ordered lists on the heap under random operations. A failure prints the seed; the system
 * property nimbra.test.seed repeats it.
 */
class EvictionOracleTest extends EvictionTestBase {
    private static final int OPERATIONS = 4_000;
    private static final int MOST = 60;

    private final long seed = Long.getLong("nimbra.test.seed", System.nanoTime());
    private final Random random = new Random(seed);

    /** What the heap knows of a record; equal keys stand in order of arrival. */
    private static final class Model {
        final long record;
        long sortKey;
        long expiration = Long.MAX_VALUE;

        Model(long record, long sortKey) {
            this.record = record;
            this.sortKey = sortKey;
        }
    }

    private final List<Model> model = new ArrayList<>();

    private void insertInOrder(Model entry) {
        int place = 0;
        while (place < model.size() && model.get(place).sortKey <= entry.sortKey) {
            place++;
        }
        model.add(place, entry);
    }

    private Model any() {
        return model.get(random.nextInt(model.size()));
    }

    private List<Long> expected() {
        return model.stream().map(entry -> entry.record).collect(Collectors.toList());
    }

    private void checkQueue() {
        assertEquals(model.size(), LRU.getQueueCount(queue));
        assertEquals(expected(), all(queue));
        model.forEach(entry -> assertEquals(PINS_OF_QUEUE, pins(entry.record)));
    }

    private List<Long> listed(long[] records, int reason) {
        for (long record : records) {
            assertEquals(PINS_OF_QUEUE, MANAGER.unpinLuEvictionData_native(record, reason));
        }
        return LongStream.of(records).boxed().collect(Collectors.toList());
    }

    private void remove(Model entry) {
        model.remove(entry);
        assertEquals(model.size(), LRU.remove(queue, entry.record));
    }

    /** Runs a script and names the seed when it fails. */
    private void underSeed(Runnable script) {
        try {
            script.run();
        } catch (AssertionError e) {
            throw new AssertionError("with -Dnimbra.test.seed=" + seed, e);
        }
    }

    @Test
    void leastRecentlyUsed() {
        underSeed(() -> {
            for (int i = 0; i < OPERATIONS; i++) {
                int choice = random.nextInt(10);
                if (model.isEmpty() || choice < 3 && model.size() < MOST) {
                    Model entry = new Model(newRecord(i), 0);
                    model.add(entry);
                    assertEquals(model.size(), LRU.insertLRU(queue, entry.record));
                    leaveToQueue(entry.record);
                } else if (choice < 8) {
                    Model entry = any();
                    assertTrue(LRU.updateLRU(queue, entry.record));
                    model.remove(entry);
                    model.add(entry);
                } else {
                    remove(any());
                }
                checkQueue();
            }
        });
    }

    @Test
    void leastFrequentlyUsed() {
        underSeed(() -> ordered(
                entry -> {
                    entry.sortKey = 0;
                    return LFU.insertLFU(queue, entry.record);
                },
                entry -> {
                    entry.sortKey++;
                    return LFU.updateLFU(queue, entry.record) ? 1 : 0;
                }));
    }

    @Test
    void nextToExpire() {
        underSeed(() -> ordered(
                entry -> {
                    entry.sortKey = random.nextInt(50) - 10;
                    return TTL.insertTTL(queue, entry.record, entry.sortKey);
                },
                entry -> {
                    entry.sortKey = random.nextInt(50) - 10;
                    return TTL.updateTTL(queue, entry.record, entry.sortKey) ? 1 : 0;
                }));
    }

    private void ordered(ToLongFunction<Model> insert, ToLongFunction<Model> move) {
        for (int i = 0; i < OPERATIONS; i++) {
            int choice = random.nextInt(12);
            if (model.isEmpty() || choice < 3 && model.size() < MOST) {
                Model entry = new Model(newRecord(i), 0);
                long count = insert.applyAsLong(entry);
                insertInOrder(entry);
                assertEquals(model.size(), count);
                leaveToQueue(entry.record);
            } else if (choice < 7) {
                Model entry = any();
                assertEquals(1, move.applyAsLong(entry));
                model.remove(entry);
                insertInOrder(entry);
                assertEquals(entry.sortKey, RECORDS.getMetadata(0, entry.record));
            } else if (choice < 9) {
                remove(any());
            } else if (choice == 9) {
                Model entry = any();
                entry.expiration = random.nextInt(60);
                RECORDS.setExpiration(0, entry.record, entry.expiration);
            } else {
                checkLists(random.nextInt(60) - 5);
            }
            checkQueue();
        }
    }

    private void checkLists(long now) {
        assertEquals(
                model.stream()
                        .filter(entry -> entry.sortKey < now)
                        .map(entry -> entry.record)
                        .collect(Collectors.toList()),
                listed(TTL.getTTLEvictionList(queue, now), GET));
        assertEquals(
                model.stream()
                        .filter(entry -> entry.sortKey < now || entry.expiration < now)
                        .map(entry -> entry.record)
                        .collect(Collectors.toList()),
                listed(VOSKA.getEvictionList(queue, now), EVICT_LIST));
        assertEquals(model.isEmpty() ? Long.MAX_VALUE : model.get(0).sortKey, TTL.getMinimumTime(queue));
        int length = random.nextInt(MOST);
        assertEquals(expected().subList(0, Math.min(length, model.size())), head(queue, length));
    }

    /** A map that evicts as its users would build it: the head of the queue goes when the map is full. */
    @Test
    void aFullMapEvictsWhatAModelCacheEvicts() {
        underSeed(() -> {
            LuOffHeapMapImpl maps = new LuOffHeapMapImpl();
            long map = maps.allocateLuOffHeapMap(0, 4, 0.75f, 1, 2);
            LinkedHashSet<Integer> cache = new LinkedHashSet<>();
            int most = 20;
            for (int i = 0; i < OPERATIONS; i++) {
                int key = random.nextInt(40);
                long entry = maps.getLuValue_Number(map, key, 0, false, 0, key);
                assertEquals(cache.contains(key), entry != 0);
                if (entry != 0) {
                    long record = MANAGER.getEvictionData_native(entry, false);
                    assertTrue(LRU.updateLRU(queue, record));
                    MANAGER.unpinLuEvictionData_native(record, GET);
                    MANAGER.unpinLuOffHeapValue_native(entry, MapTestBase.ENTRY);
                    cache.remove(key);
                    cache.add(key);
                    continue;
                }
                if (cache.size() == most) {
                    int victim = cache.iterator().next();
                    cache.remove(victim);
                    evictHead(maps, map, victim);
                }
                cache.add(key);
                insertWithRecord(maps, map, key, i);
                assertEquals(cache.size(), LRU.getQueueCount(queue));
                assertEquals(cache.size(), maps.size(map));
            }
            assertTrue(LRU.clearQueue(queue));
            assertTrue(maps.clear(map));
            assertTrue(maps.deleteLuOffHeapMap(map));
        });
    }

    private void insertWithRecord(LuOffHeapMapImpl maps, long map, int key, long revision) {
        long entry = maps.insertAndGetNewAndPinWithInt(
                map, key, key, nativeInt(key), 4, (byte) 0, MapTestBase.OWNER, revision);
        long record = newRecord(key);
        assertTrue(MANAGER.setEvictionData_native(entry, record, false));
        LRU.insertLRU(queue, record);
        assertEquals(PINS_OF_QUEUE + 1, MANAGER.unpinLuEvictionData_native(record, ALLOCATION));
        MANAGER.unpinLuOffHeapValue_native(entry, MapTestBase.ENTRY);
    }

    private void evictHead(LuOffHeapMapImpl maps, long map, int expectedKey) {
        long[] heads = new long[1];
        assertTrue(LRU.getEvictionList(queue, heads));
        int key = RECORDS.getEvictionKey(0, heads[0])
                .order(ByteOrder.nativeOrder())
                .getInt(0);
        assertEquals(expectedKey, key);
        long removed = maps.removeAndGetAndPinWithHashCodeNumber(map, key, key);
        LRU.remove(queue, heads[0]);
        assertEquals(0, MANAGER.unpinLuOffHeapValue_native(removed, MapTestBase.ENTRY));
        assertEquals(0, MANAGER.unpinLuEvictionData_native(heads[0], EVICT_LIST), "nobody holds it any more");
    }
}
