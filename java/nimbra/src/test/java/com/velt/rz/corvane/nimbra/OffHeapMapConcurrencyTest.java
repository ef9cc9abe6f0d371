package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;

@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OffHeapMapConcurrencyTest {
    private final ExecutorService threads = Executors.newCachedThreadPool();

    @AfterEach
    void stopThreads() throws InterruptedException {
        threads.shutdown();
        assertTrue(threads.awaitTermination(60, TimeUnit.SECONDS));
    }

    /** Eight threads use a map in every way while two others close it: each ends with the exception that says so. */
    @Test
    void closingDuringUse() throws Exception {
        long seed = TestRuntime.seed("OffHeapMapConcurrencyTest.closingDuringUse");
        for (int round = 0; round < 20; round++) {
            OffHeapMap map = OffHeapMap.builder().name("in use").build();
            AtomicLong calls = new AtomicLong();
            List<Future<String>> users = new ArrayList<>();
            for (int user = 0; user < 8; user++) {
                Random random = new Random(seed + round * 8L + user);
                users.add(threads.submit(() -> {
                    while (true) {
                        try {
                            useOnce(map, random);
                        } catch (IllegalStateException e) {
                            return e.getMessage();
                        }
                        calls.incrementAndGet();
                    }
                }));
            }
            while (calls.get() < 4_000) {
                Thread.onSpinWait();
            }
            List<Future<IllegalStateException>> closers = new ArrayList<>();
            for (int closer = 0; closer < 2; closer++) {
                closers.add(threads.submit(() -> {
                    map.close();
                    return assertThrows(IllegalStateException.class, map::size);
                }));
            }
            for (Future<IllegalStateException> closer : closers) {
                closer.get();
            }
            for (Future<String> user : users) {
                String message = user.get();
                assertTrue(message.startsWith("map \"in use\" is closed: no "), message);
            }
        }
    }

    private static void useOnce(OffHeapMap map, Random random) {
        byte[] key = bytes(random.nextInt(500));
        switch (random.nextInt(12)) {
            case 0, 1, 2 -> map.put(key, new byte[random.nextInt(2_000)]);
            case 3 -> map.putIfAbsent(key, new byte[random.nextInt(2_000)]);
            case 4 -> map.replace(key, new byte[random.nextInt(2_000)]);
            case 5 -> map.get(key);
            case 6 -> map.remove(key);
            case 7 -> map.containsKey(key);
            case 8 -> {
                if (random.nextInt(50) == 0) {
                    map.forEach((k, v) -> assertEquals(Long.BYTES, k.length));
                }
            }
            case 9 -> {
                if (random.nextInt(50) == 0) {
                    map.clear();
                }
            }
            case 10 -> {
                if (random.nextInt(50) == 0) {
                    assertTrue(map.size() >= 0);
                    assertTrue(map.bytesUsed() >= 0);
                }
            }
            default -> {
                try (PinnedValue pinned = map.pin(key)) {
                    if (pinned != null) {
                        assertEquals(pinned.size(), pinned.buffer().remaining());
                    }
                }
            }
        }
    }

    /** A walk whose consumer waits does not keep others from closing the map, and ends when it goes on. */
    @Test
    void waitingConsumerDoesNotHoldUpClose() throws Exception {
        OffHeapMap map = Nimbra.get().newMap();
        for (int i = 0; i < 1_000; i++) {
            map.put(bytes(i), bytes(i));
        }
        CountDownLatch inside = new CountDownLatch(1);
        CountDownLatch closed = new CountDownLatch(1);
        Future<IllegalStateException> walk = threads.submit(() -> assertThrows(
                IllegalStateException.class,
                () -> map.forEach((key, value) -> {
                    inside.countDown();
                    try {
                        closed.await();
                    } catch (InterruptedException e) {
                        throw new AssertionError(e);
                    }
                    assertEquals(ByteBuffer.wrap(key), ByteBuffer.wrap(value));
                })));
        inside.await();
        map.close();
        closed.countDown();
        assertTrue(walk.get().getMessage().endsWith("is closed: no forEach"));
    }

    /** Clearing while others write leaves a map whose parts agree, and which is empty after the last clear. */
    @Test
    void clearingDuringUse() throws Exception {
        AtomicBoolean stop = new AtomicBoolean();
        try (OffHeapMap map = OffHeapMap.builder().partitions(4).bucketSets(2).build()) {
            List<Future<?>> users = new ArrayList<>();
            for (int user = 0; user < 4; user++) {
                long first = user * 1_000_000L;
                users.add(threads.submit(() -> {
                    for (long i = 0; !stop.get(); i++) {
                        byte[] key = bytes(first + i % 2_000);
                        map.put(key, key);
                        byte[] value = map.get(key);
                        assertTrue(value == null || ByteBuffer.wrap(value).equals(ByteBuffer.wrap(key)));
                    }
                }));
            }
            for (int round = 0; round < 200; round++) {
                map.clear();
                Thread.yield();
            }
            stop.set(true);
            for (Future<?> user : users) {
                user.get();
            }
            AtomicLong seen = new AtomicLong();
            map.forEach((key, value) -> seen.incrementAndGet());
            assertEquals(seen.get(), map.size());
            map.clear();
            assertEquals(0, map.size());
            assertEquals(0, map.bytesUsed());
        }
    }

    /** Others insert, replace and remove during walks: what stays is seen exactly once, and every value is whole. */
    @Test
    void forEachUnderConcurrentChange() throws Exception {
        int stable = 3_000;
        AtomicBoolean stop = new AtomicBoolean();
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (long i = 0; i < stable; i++) {
                map.put(bytes(i), bytes(i));
            }
            List<Future<?>> writers = new ArrayList<>();
            for (int writer = 0; writer < 3; writer++) {
                long first = stable + writer * 1_000_000L;
                Random random = new Random(writer);
                writers.add(threads.submit(() -> {
                    for (long i = 0; !stop.get(); i++) {
                        // Ever new keys make the tables grow; stable entries get a new buffer with the same bytes.
                        byte[] key = bytes(first + i % 30_000);
                        map.put(key, key);
                        byte[] kept = bytes(random.nextInt(stable));
                        map.replace(kept, kept);
                        if (i % 3 == 0) {
                            map.remove(bytes(first + random.nextInt(30_000)));
                        }
                    }
                }));
            }
            for (int walk = 0; walk < 10; walk++) {
                int[] seen = new int[stable];
                map.forEach((key, value) -> {
                    assertEquals(ByteBuffer.wrap(key), ByteBuffer.wrap(value));
                    long number = ByteBuffer.wrap(key).getLong();
                    if (number < stable) {
                        seen[(int) number]++;
                    }
                });
                for (int i = 0; i < stable; i++) {
                    assertEquals(1, seen[i], "entry " + i + " in walk " + walk);
                }
            }
            stop.set(true);
            for (Future<?> writer : writers) {
                writer.get();
            }
        }
    }

    /** Of several threads that insert one key at the same time, exactly one is told that it was the first. */
    @Test
    void oneInsertionWins() throws Exception {
        int keys = 2_000;
        try (OffHeapMap map = Nimbra.get().newMap()) {
            List<Future<Integer>> winners = new ArrayList<>();
            for (int thread = 0; thread < 4; thread++) {
                boolean plain = thread % 2 == 0;
                winners.add(threads.submit(() -> {
                    int won = 0;
                    for (int i = 0; i < keys; i++) {
                        byte[] key = bytes(i);
                        if (plain ? map.put(key, key) : map.putIfAbsent(key, key)) {
                            won++;
                        }
                    }
                    return won;
                }));
            }
            int total = 0;
            for (Future<Integer> winner : winners) {
                total += winner.get();
            }
            assertEquals(keys, total);
            assertEquals(keys, map.size());
            assertFalse(map.putIfAbsent(bytes(0), bytes(0)));
        }
    }
}
