package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.ConcurrentLinkedQueue;
import org.junit.jupiter.api.Test;

/**
 * A native map and a heap map side by side under random operations. A failure prints the seed; the system property
 * nimbra.test.seed repeats it.
 */
class OracleTest extends MapTestBase {
    private static final int KEYS = 200;
    private static final int OPERATIONS = 20_000;

    private final long seed = Long.getLong("nimbra.test.seed", System.nanoTime());

    /** What the heap knows of an entry. */
    private record Expected(byte[] value, int owner, long revision) {}

    @Test
    void oneThreadAgreesWithTheHeap() {
        try {
            Map<String, Expected> oracle = new HashMap<>();
            work("k", new Random(seed), oracle);
            assertEquals(oracle.size(), MAPS.size(map));
            checkAll(oracle);
        } catch (AssertionError e) {
            throw new AssertionError("with -Dnimbra.test.seed=" + seed, e);
        }
    }

    @Test
    void threadsWithKeysOfTheirOwnAgreeWithTheHeap() throws InterruptedException {
        ConcurrentLinkedQueue<Throwable> failures = new ConcurrentLinkedQueue<>();
        Thread[] threads = new Thread[4];
        Map<String, Expected> all = new HashMap<>();
        for (int i = 0; i < threads.length; i++) {
            int number = i;
            threads[i] = new Thread(() -> {
                try {
                    Map<String, Expected> oracle = new HashMap<>();
                    work("t" + number + "-", new Random(seed + number), oracle);
                    synchronized (all) {
                        all.putAll(oracle);
                    }
                } catch (Throwable e) {
                    failures.add(e);
                }
            });
            threads[i].start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        if (!failures.isEmpty()) {
            throw new AssertionError("with -Dnimbra.test.seed=" + seed, failures.peek());
        }
        assertEquals(all.size(), MAPS.size(map));
        checkAll(all);
    }

    private void work(String prefix, Random random, Map<String, Expected> oracle) {
        for (int i = 0; i < OPERATIONS; i++) {
            String key = prefix + random.nextInt(KEYS);
            byte[] keyBytes = key.getBytes(StandardCharsets.US_ASCII);
            // Few hash codes, so that chains grow long.
            int hash = key.hashCode() & 0x3f;
            Expected before = oracle.get(key);
            byte[] value = new byte[random.nextInt(300)];
            random.nextBytes(value);
            Expected after = new Expected(value, random.nextInt(3), i);
            switch (random.nextInt(8)) {
                case 0, 1, 2 -> {
                    if (insert(keyBytes, hash, after, random.nextBoolean())) {
                        assertNull(before, key);
                        oracle.put(key, after);
                    } else {
                        check(before, keyBytes, hash);
                    }
                }
                case 3, 4 -> {
                    long snapshot = update(keyBytes, hash, after, random.nextBoolean());
                    assertEquals(before != null, snapshot != 0, key);
                    if (snapshot != 0) {
                        checkEntry(before, snapshot);
                        assertEquals(0, unpin(snapshot));
                        oracle.put(key, after);
                    }
                }
                case 5 -> {
                    long removed = MAPS.removeAndGetAndPinWithHashCodeBA(map, keyBytes, hash);
                    assertEquals(before != null, removed != 0, key);
                    if (removed != 0) {
                        checkEntry(before, removed);
                        assertEquals(0, unpin(removed));
                        oracle.remove(key);
                    }
                }
                default -> check(before, keyBytes, hash);
            }
        }
    }

    private boolean insert(byte[] key, int hash, Expected entry, boolean arrays) {
        long inserted;
        short owner = (short) entry.owner;
        if (arrays) {
            inserted = MAPS.insertAndGetNewAndPinWithHashCodeAndBA(
                    map,
                    key,
                    key.length,
                    (byte) 0,
                    hash,
                    entry.value,
                    entry.value.length,
                    (byte) 0,
                    owner,
                    entry.revision);
        } else {
            ByteBuffer keyBuffer = key(key);
            ByteBuffer valueBuffer = value(entry.value);
            inserted = MAPS.insertAndGetNewAndPinWithHashCode(map, keyBuffer, hash, valueBuffer, owner, entry.revision);
            free(keyBuffer, valueBuffer);
        }
        if (inserted != 0) {
            assertEquals(PINS_OF_MAP, unpin(inserted));
        }
        return inserted != 0;
    }

    private long update(byte[] key, int hash, Expected entry, boolean arrays) {
        short owner = (short) entry.owner;
        if (arrays) {
            return MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                    map, key, hash, entry.value, entry.value.length, (byte) 0, owner, entry.revision);
        }
        ByteBuffer value = value(entry.value);
        long snapshot = MAPS.updateAndGetNewAndPinWithHashCodeBA(map, key, hash, value, owner, entry.revision);
        free(value);
        return snapshot;
    }

    private void check(Expected expected, byte[] key, int hash) {
        assertEquals(expected != null, MAPS.containsKeyWithHashCodeBA(map, key, hash));
        long[] attributes = new long[4];
        long entry = MAPS.getLuValue_ByteArray(map, attributes, key, hash, 0, false, 0);
        assertEquals(expected != null, entry != 0);
        if (entry != 0) {
            assertArrayEquals(key, bytesAt(attributes[0], attributes[1]));
            checkEntry(expected, entry);
            unpin(entry);
        }
    }

    private void checkEntry(Expected expected, long entry) {
        assertArrayEquals(expected.value, valueOf(entry));
        assertEquals(expected.owner, VALUES.getRevisionOwner(entry));
        assertEquals(expected.revision, VALUES.getRevisionNumber(entry));
    }

    private void checkAll(Map<String, Expected> oracle) {
        oracle.forEach(
                (key, expected) -> check(expected, key.getBytes(StandardCharsets.US_ASCII), key.hashCode() & 0x3f));
    }
}
