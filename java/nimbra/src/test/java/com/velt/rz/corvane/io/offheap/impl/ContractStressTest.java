package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Queue;
import java.util.Random;
import java.util.concurrent.ConcurrentLinkedQueue;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * Many threads on one map and two eviction queues: puts, gets, removals, revision queries, queue operations and clears
 * together. Every thread checks what it can know at any moment; afterwards nothing may be left. The seed is printed by
 * a failure and repeated by the system property nimbra.test.seed.
 */
class ContractStressTest extends MapTestBase {
    private static final int THREADS = 6;
    private static final int OPERATIONS = 4_000;
    private static final int KEYS = 50;
    private static final int OWNERS = 3;
    /** A clear empties the table first: the queues then hold old entries beside new ones. */
    private static final int ROOM = 4 * KEYS;

    private static final int ALLOCATION = EvictionTestBase.ALLOCATION;
    private static final LuOffHeapEvictionDataImpl RECORDS = new LuOffHeapEvictionDataImpl();
    private static final LuOffHeapLRUEvictionQueue LRU = new LuOffHeapLRUEvictionQueue();
    private static final LuOffHeapTTLEvictionQueue TTL = new LuOffHeapTTLEvictionQueue();
    private static final LuOffHeapVoskaEvictionQueue VOSKA = new LuOffHeapVoskaEvictionQueue();

    private final long seed = Long.getLong("nimbra.test.seed", System.nanoTime());

    private long lru;
    private long ttl;

    @BeforeEach
    void createQueues() {
        lru = LRU.allocateQueue();
        ttl = TTL.allocateQueue();
    }

    @AfterEach
    void freeQueues() {
        assertTrue(LRU.freeQueue(lru));
        assertTrue(TTL.freeQueue(ttl));
    }

    @Test
    void everythingTogether() throws InterruptedException {
        Queue<Throwable> failures = new ConcurrentLinkedQueue<>();
        List<Thread> threads = new ArrayList<>();
        for (int i = 0; i < THREADS; i++) {
            int number = i;
            threads.add(new Thread(() -> {
                try {
                    new Worker(number).run();
                } catch (Throwable e) {
                    failures.add(e);
                }
            }));
        }
        threads.forEach(Thread::start);
        for (Thread thread : threads) {
            thread.join();
        }
        if (!failures.isEmpty()) {
            AssertionError error = new AssertionError("with -Dnimbra.test.seed=" + seed, failures.poll());
            failures.forEach(error::addSuppressed);
            throw error;
        }
        assertTrue(MAPS.size(map) <= KEYS);
    }

    /** A value is one byte again and again, as many as its key says: bytes of another block would show. */
    private static byte[] valueFor(int key, Random random) {
        byte[] value = new byte[16 + key];
        Arrays.fill(value, (byte) random.nextInt());
        return value;
    }

    private static void checkValue(byte[] value, byte[] key) {
        assertEquals(16 + key[0], value.length);
        for (byte b : value) {
            assertEquals(value[0], b);
        }
    }

    private final class Worker {
        private final int number;
        private final Random random;
        private final ArrayDeque<Long> used = new ArrayDeque<>();
        private final long expiring;
        private long revision;

        Worker(int number) {
            this.number = number;
            random = new Random(seed + number);
            expiring = EvictionTestBase.newRecord(number);
        }

        void run() {
            for (int i = 0; i < OPERATIONS; i++) {
                revision = i + 1;
                int choice = random.nextInt(100);
                if (choice < 25) {
                    put(random.nextInt(KEYS));
                } else if (choice < 45) {
                    get(random.nextInt(KEYS));
                } else if (choice < 55) {
                    remove(random.nextInt(KEYS));
                } else if (choice < 60) {
                    query();
                } else if (choice < 80) {
                    useQueue();
                } else if (choice < 95) {
                    useTimes();
                } else if (choice < 97) {
                    assertEquals(0, MAPS.lockMapAndQueues(map));
                    assertEquals(0, MAPS.unlockMapAndQueues(map));
                } else if (number == 0 && choice == 99) {
                    assertTrue(MAPS.clear(map));
                }
            }
            while (!used.isEmpty()) {
                leaveQueue(used.poll());
            }
            toleratingTheClear(() -> TTL.remove(ttl, expiring));
            MANAGER.unpinLuEvictionData_native(expiring, ALLOCATION);
        }

        private void put(int key) {
            byte[] value = valueFor(key, random);
            short owner = (short) random.nextInt(OWNERS);
            long entry = MAPS.insertAndGetNewAndPinWithByte(
                    map, (byte) key, key, value, value.length, (byte) 0, owner, revision);
            if (entry == 0) {
                entry = MAPS.updateAndGetNewAndPinWithLong(
                        map, key, key, value, value.length, (byte) 0, owner, revision);
                if (entry != 0) {
                    checkValue(valueOf(entry), keyOf(entry));
                }
            }
            if (entry != 0) {
                unpin(entry);
            }
        }

        private void get(int key) {
            long entry = MAPS.getLuValue_Number(map, key, 0, false, 0, key);
            if (entry != 0) {
                assertArrayEquals(bytes(key), keyOf(entry));
                assertEquals(key, VALUES.getKeyHashCode(entry));
                unpin(entry);
            }
            MAPS.containsKeyWithHashCodeNumber(map, key, key);
            assertTrue(MAPS.size(map) <= KEYS);
        }

        private void remove(int key) {
            toleratingTheClear(() -> {
                long entry = MAPS.removeAndGetAndPinWithHashCodeNumber(map, key, key);
                if (entry != 0) {
                    unpin(entry);
                }
            });
        }

        private void query() {
            long[] starts = new long[OWNERS];
            long[] ends = new long[OWNERS];
            Arrays.setAll(starts, i -> Math.max(0, revision - random.nextInt(200)));
            Arrays.fill(ends, OPERATIONS);
            for (RevisionQuery.Words words : RevisionQuery.run(map, ROOM, number, starts, ends)) {
                assertTrue(words.revision() > starts[(int) words.owner()]);
                checkValue(
                        bytesAt(words.valueAddress(), words.valueLength()),
                        bytesAt(words.keyAddress(), words.keyLength()));
                words.release();
            }
        }

        /** This thread's records in the common queue: nobody else moves them. */
        private void useQueue() {
            if (used.size() < 20) {
                long record = EvictionTestBase.newRecord(used.size());
                assertTrue(LRU.insertLRU(lru, record) > 0);
                used.add(record);
            }
            if (random.nextInt(4) == 0) {
                leaveQueue(used.poll());
            } else {
                long record = used.poll();
                assertTrue(LRU.updateLRU(lru, record));
                used.add(record);
            }
            long[] heads = new long[5];
            assertTrue(LRU.getEvictionList(lru, heads));
            for (int i = 0; i < heads.length && heads[i] != 0; i++) {
                assertEquals(4, RECORDS.getEvictionKey(0, heads[i]).capacity());
                MANAGER.unpinLuEvictionData_native(heads[i], EvictionTestBase.EVICT_LIST);
            }
        }

        private void leaveQueue(long record) {
            LRU.remove(lru, record);
            MANAGER.unpinLuEvictionData_native(record, ALLOCATION);
        }

        private void useTimes() {
            long time = random.nextInt(100);
            toleratingTheClear(() -> TTL.updateTTL(ttl, expiring, time));
            for (long record : TTL.getTTLEvictionList(ttl, random.nextInt(100))) {
                MANAGER.unpinLuEvictionData_native(record, EvictionTestBase.GET);
            }
            for (long record : VOSKA.getEvictionList(ttl, random.nextInt(100))) {
                MANAGER.unpinLuEvictionData_native(record, EvictionTestBase.EVICT_LIST);
            }
            assertTrue(TTL.getMinimumTime(ttl) >= 0);
            if (random.nextInt(50) == 0) {
                assertTrue(TTL.clearQueue(ttl));
            }
        }

        /** A clear may empty a queue under an operation's hands, which then says that its record is not there. */
        private void toleratingTheClear(Runnable operation) {
            try {
                operation.run();
            } catch (IllegalStateException e) {
                assertTrue(e.getMessage().contains("not found in queue"), e::toString);
            }
        }
    }
}
