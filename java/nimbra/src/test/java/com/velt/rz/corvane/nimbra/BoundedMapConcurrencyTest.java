package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.Executor;
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
class BoundedMapConcurrencyTest {
    private static final int USERS = 6;

    private final ExecutorService threads = Executors.newCachedThreadPool();

    @AfterEach
    void stopThreads() throws InterruptedException {
        threads.shutdown();
        assertTrue(threads.awaitTermination(60, TimeUnit.SECONDS));
    }

    /** A value that tells whose it is and whether it is whole. */
    private static byte[] signed(long key, int length) {
        byte[] value = new byte[Long.BYTES + length];
        ByteBuffer.wrap(value).putLong(key);
        for (int i = Long.BYTES; i < value.length; i++) {
            value[i] = (byte) (key + value.length + i);
        }
        return value;
    }

    private static void checkSigned(byte[] key, byte[] value) {
        long number = ByteBuffer.wrap(key).getLong();
        assertArrayEquals(signed(number, value.length - Long.BYTES), value);
    }

    private static void useOnce(OffHeapMap map, Random random, String reader, long[] position) {
        long number = random.nextInt(2_000);
        byte[] key = bytes(number);
        switch (random.nextInt(12)) {
            case 0, 1, 2, 3 -> map.put(key, signed(number, random.nextInt(500)));
            case 4 -> map.putIfAbsent(key, signed(number, random.nextInt(500)));
            case 5 -> map.replace(key, signed(number, random.nextInt(500)));
            case 6 -> map.remove(key);
            case 7 -> map.containsKey(key);
            case 8 -> {
                try (PinnedValue pinned = map.pin(key)) {
                    if (pinned != null) {
                        checkSigned(key, TestRuntime.read(pinned.buffer()));
                    }
                }
            }
            case 9 -> {
                switch (random.nextInt(200)) {
                    case 0 -> map.clear();
                    case 1 -> map.forEach(BoundedMapConcurrencyTest::checkSigned);
                    case 2 -> {
                        try (ChangeIterator changes = map.changesSince(reader, position[0])) {
                            int limit = random.nextInt(3_000);
                            for (int i = 0; i < limit && changes.hasNext(); i++) {
                                Change change = changes.next();
                                checkSigned(change.key(), change.copyValue());
                            }
                            position[0] = changes.lastRevision();
                        }
                    }
                    default -> assertTrue(map.size() >= 0);
                }
            }
            default -> {
                byte[] value = map.get(key);
                if (value != null) {
                    checkSigned(key, value);
                }
            }
        }
    }

    /** Everything at once, under every policy; a sampler looks at the limits all the time. */
    private void run(OffHeapMap.Builder options, long maximumBytes, long maximumEntries, String test) throws Exception {
        long seed = TestRuntime.seed("BoundedMapConcurrencyTest." + test);
        AtomicLong announced = new AtomicLong();
        options.evictionListener((key, value, cause) -> {
            checkSigned(key, value);
            announced.incrementAndGet();
        });
        try (OffHeapMap map = options.build()) {
            AtomicBoolean done = new AtomicBoolean();
            Future<Long> sampler = threads.submit(() -> {
                long samples = 0;
                while (!done.get()) {
                    long[] figures = figures(map);
                    assertTrue(figures[0] >= 0 && figures[0] <= maximumBytes, figures[0] + " bytes");
                    assertTrue(figures[1] >= 0 && figures[1] <= maximumEntries, figures[1] + " entries");
                    samples++;
                }
                return samples;
            });
            List<Future<?>> users = new ArrayList<>();
            for (int user = 0; user < USERS; user++) {
                Random random = new Random(seed + user);
                String reader = "user " + user;
                users.add(threads.submit(() -> {
                    long[] position = new long[1];
                    for (int i = 0; i < 15_000; i++) {
                        useOnce(map, random, reader, position);
                    }
                }));
            }
            try {
                for (Future<?> user : users) {
                    user.get();
                }
            } finally {
                done.set(true);
            }
            assertTrue(sampler.get() > 0);
            // The executor may be between counting and announcing; what stays unequal meets the time limit.
            MapStatistics statistics = map.statistics();
            while (statistics.sizeEvictions() + statistics.expirations() != announced.get()) {
                Thread.onSpinWait();
                statistics = map.statistics();
            }
            // Entries may expire in between; what stays wrong would be found by the time limit of the test.
            while (!Arrays.equals(walk(map), figures(map))) {
                Thread.onSpinWait();
            }
            // Whoever is left can still be evicted: nothing has fallen out of the queues.
            for (int i = 0; i < 3_000; i++) {
                map.put(bytes(1_000_000L + i), signed(1_000_000L + i, 100));
            }
        }
    }

    @Test
    void leastRecentlyUsedByBytes() throws Exception {
        run(
                OffHeapMap.builder().partitions(4).maximumBytes(100_000),
                100_000,
                Long.MAX_VALUE,
                "leastRecentlyUsedByBytes");
    }

    @Test
    void leastFrequentlyUsedByEntries() throws Exception {
        run(
                OffHeapMap.builder().partitions(2).maximumEntries(300).evictionPolicy(EvictionPolicy.LFU),
                Long.MAX_VALUE,
                300,
                "leastFrequentlyUsedByEntries");
    }

    @Test
    void tinyLimit() throws Exception {
        run(OffHeapMap.builder().partitions(8).maximumEntries(3), Long.MAX_VALUE, 3, "tinyLimit");
    }

    @Test
    void limitsAndExpiryWithAnExecutor() throws Exception {
        Executor executor = threads;
        run(
                OffHeapMap.builder()
                        .partitions(4)
                        .maximumBytes(200_000)
                        .maximumEntries(1_000)
                        .expireAfterAccess(Duration.ofMillis(2))
                        .executor(executor),
                200_000,
                1_000,
                "limitsAndExpiryWithAnExecutor");
    }

    @Test
    void expiryAlone() throws Exception {
        run(
                OffHeapMap.builder().partitions(2).expireAfterWrite(Duration.ofMillis(1)),
                Long.MAX_VALUE,
                Long.MAX_VALUE,
                "expiryAlone");
    }

    /** Users, evictions, readers and an executor's tasks are under way when the map closes. */
    @Test
    void closingDuringUse() throws Exception {
        long seed = TestRuntime.seed("BoundedMapConcurrencyTest.closingDuringUse");
        for (int round = 0; round < 20; round++) {
            OffHeapMap map = OffHeapMap.builder()
                    .name("in use")
                    .partitions(4)
                    .maximumBytes(100_000)
                    .expireAfterWrite(Duration.ofMillis(5))
                    .executor(threads)
                    .build();
            AtomicLong calls = new AtomicLong();
            List<Future<String>> users = new ArrayList<>();
            for (int user = 0; user < USERS; user++) {
                Random random = new Random(seed + round * USERS + user);
                String reader = "user " + user;
                users.add(threads.submit(() -> {
                    long[] position = new long[1];
                    while (true) {
                        try {
                            useOnce(map, random, reader, position);
                        } catch (IllegalStateException e) {
                            return e.getMessage();
                        }
                        calls.incrementAndGet();
                    }
                }));
            }
            while (calls.get() < 3_000) {
                Thread.onSpinWait();
            }
            map.close();
            for (Future<String> user : users) {
                String message = user.get();
                assertTrue(message.startsWith("map \"in use\" is closed: no "), message);
            }
        }
    }

    /**
     * Nobody gets a value whose time was over when the call began. A store notes the time after it has ended, which its
     * entry cannot outlive by more than the duration; of a store that has not noted it yet nothing can be said.
     */
    @Test
    void expiredEntriesAreNeverReturned() throws Exception {
        long seed = TestRuntime.seed("BoundedMapConcurrencyTest.expiredEntriesAreNeverReturned");
        ManualTicker ticker = new ManualTicker();
        long start = ticker.getAsLong();
        AtomicLong clock = new AtomicLong();
        try (OffHeapMap map = OffHeapMap.builder()
                .partitions(2)
                .ticker(() -> start + clock.get())
                .expireAfterWrite(Duration.ofNanos(1_000))
                .build()) {
            AtomicBoolean done = new AtomicBoolean();
            AtomicLong stores = new AtomicLong();
            AtomicLong judged = new AtomicLong();
            Map<Long, Long> storedBy = new ConcurrentHashMap<>();
            List<Future<?>> users = new ArrayList<>();
            for (int user = 0; user < USERS; user++) {
                Random random = new Random(seed + user);
                users.add(threads.submit(() -> {
                    while (!done.get()) {
                        byte[] key = bytes(random.nextInt(100));
                        if (random.nextInt(20) == 0) {
                            long store = stores.incrementAndGet();
                            map.put(key, bytes(store));
                            storedBy.put(store, clock.get());
                        } else {
                            long before = clock.get();
                            byte[] value = map.get(key);
                            if (value != null) {
                                Long stored =
                                        storedBy.get(ByteBuffer.wrap(value).getLong());
                                if (stored != null) {
                                    assertTrue(stored + 1_000 > before, stored + " read at " + before);
                                    judged.incrementAndGet();
                                }
                            }
                        }
                    }
                }));
            }
            for (int i = 0; i < 3_000 || judged.get() < 1_000 && !users.stream().allMatch(Future::isDone); i++) {
                clock.addAndGet(7);
                for (int spin = 0; spin < 200; spin++) {
                    Thread.onSpinWait();
                }
            }
            done.set(true);
            for (Future<?> user : users) {
                user.get();
            }
            assertTrue(judged.get() >= 1_000, judged.get() + " values judged");
            assertTrue(map.statistics().expirations() > 0);
            clock.addAndGet(1_000);
            for (int i = 0; i < 100; i++) {
                assertEquals(null, map.get(bytes(i)));
            }
        }
    }

    /** Bytes and entries as a walk finds them. */
    private static long[] walk(OffHeapMap map) {
        long[] found = new long[2];
        map.forEach((key, value) -> {
            found[0] += map.bounded().entryBytes(key.length, value.length);
            found[1]++;
        });
        return found;
    }

    /** Bytes and entries as the limits count them. */
    private static long[] figures(OffHeapMap map) {
        return new long[] {map.bytesUsed(), map.size()};
    }
}
