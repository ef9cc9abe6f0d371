package com.velt.rz.corvane.nimbra;

import java.lang.management.ManagementFactory;
import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.EnumSet;
import java.util.List;
import java.util.Random;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLongArray;
import java.util.concurrent.atomic.AtomicReference;
import java.util.concurrent.locks.LockSupport;
import javax.management.JMException;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/**
 * Threads that use one plain map, four limited ones, one that is closed under their hands, and short-lived maps of their
 * own, while another thread asks for reports and empties maps. A thread that finds something wrong ends them all.
 *
 * <p>Life: {@link #run} once, then {@link #checkAll}, {@link #clear} and {@link #close} by the same thread.
 */
final class SoakWork implements AutoCloseable {
    private static final int THREADS = 6;
    private static final int KEYS_EACH = 1_000;
    private static final int SHARED_KEYS = 400;
    private static final int MOST_PINS = 6;
    private static final long LRU_BYTES = 10 << 20;
    private static final long LFU_ENTRIES = 2_500;

    private final Nimbra nimbra;
    private final SoakCounts counts;
    private final SoakVisits visits;
    private final long seed;
    private final ExecutorService evictions = Executors.newSingleThreadExecutor(SoakWork::daemon);
    private final List<StressedMap> maps = new ArrayList<>();

    /** Everybody uses it and anybody may close it, having put another one in its place. */
    private final AtomicReference<OffHeapMap> shared = new AtomicReference<>();

    private final AtomicLongArray progress = new AtomicLongArray(THREADS);
    private final AtomicReference<Throwable> failure = new AtomicReference<>();
    private volatile boolean stop;

    SoakWork(Nimbra nimbra, SoakCounts counts, long seed) {
        this.nimbra = nimbra;
        this.counts = counts;
        this.visits = new SoakVisits(counts);
        this.seed = seed;
        add(OffHeapMap.builder().name("plain"), false);
        add(limited("lru").maximumBytes(LRU_BYTES), true);
        add(limited("lfu").maximumEntries(LFU_ENTRIES).evictionPolicy(EvictionPolicy.LFU), true);
        add(limited("expires after write").expireAfterWrite(Duration.ofSeconds(2)), true);
        add(
                limited("expires after access")
                        .expireAfterAccess(Duration.ofSeconds(1))
                        .executor(evictions),
                true);
        shared.set(open(OffHeapMap.builder().name("shared")));
    }

    private static Thread daemon(Runnable work) {
        Thread thread = new Thread(work, "evictions");
        thread.setDaemon(true);
        return thread;
    }

    private OffHeapMap.Builder limited(String name) {
        return OffHeapMap.builder().name(name).partitions(4).evictionListener((key, value, cause) -> {
            StressValues.generation(StressValues.number(key), ByteBuffer.wrap(value));
            counts.evictions.increment();
        });
    }

    private OffHeapMap open(OffHeapMap.Builder options) {
        OffHeapMap map = options.build();
        counts.mapsOpened.increment();
        return map;
    }

    private void add(OffHeapMap.Builder options, boolean evicting) {
        maps.add(new StressedMap(open(options), evicting, THREADS, KEYS_EACH));
    }

    // ---- Running -----------------------------------------------------------------------------

    /**
     * Works for a time.
     *
     * @param eachSecond runs on the calling thread about once a second, with what each thread has done; what it throws
     *     ends the work
     */
    void run(long nanos, Runnable eachSecond) throws InterruptedException {
        List<Thread> threads = new ArrayList<>();
        for (int user = 0; user < THREADS; user++) {
            int number = user;
            threads.add(start("user " + user, () -> use(number)));
        }
        threads.add(start("keeper", this::keep));
        long end = System.nanoTime() + nanos;
        try {
            while (System.nanoTime() - end < 0 && failure.get() == null) {
                threads.get(0).join(1_000);
                eachSecond.run();
            }
        } finally {
            stop = true;
        }
        for (Thread thread : threads) {
            while (thread.isAlive()) {
                thread.join(1_000);
                eachSecond.run();
            }
        }
        if (failure.get() != null) {
            throw new AssertionError("a thread has failed", failure.get());
        }
    }

    /** Operations of each thread, for those who look whether it stands still. */
    long[] progress() {
        long[] each = new long[THREADS];
        for (int user = 0; user < THREADS; user++) {
            each[user] = progress.get(user);
        }
        return each;
    }

    private Thread start(String name, Runnable work) {
        Thread thread = new Thread(
                () -> {
                    try {
                        work.run();
                    } catch (Throwable e) {
                        failure.compareAndSet(null, e);
                    }
                },
                name);
        thread.setDaemon(true);
        thread.start();
        return thread;
    }

    private boolean working() {
        return !stop && failure.get() == null;
    }

    // ---- Users -------------------------------------------------------------------------------

    private void use(int user) {
        Random random = new Random(seed * 31 + user);
        ArrayDeque<StressedMap.Held> held = new ArrayDeque<>();
        try {
            while (working()) {
                int choice = random.nextInt(20_000);
                StressedMap map = maps.get(random.nextInt(maps.size()));
                if (choice < 8) {
                    visits.visit(random);
                } else if (choice < 12) {
                    map.walk(user);
                } else if (choice < 20) {
                    map.changes(user, random);
                } else if (choice == 20) {
                    map.map.forgetReader("reader " + user);
                } else if (choice == 21) {
                    replaceShared();
                } else if (choice < 2_000) {
                    useShared(random);
                } else {
                    useOnce(map, user, random, held);
                }
                counts.operations.increment();
                progress.incrementAndGet(user);
            }
        } finally {
            held.forEach(StressedMap.Held::release);
        }
    }

    private static void useOnce(StressedMap map, int user, Random random, ArrayDeque<StressedMap.Held> held) {
        switch (random.nextInt(16)) {
            case 0, 1, 2, 3, 4, 5 -> map.write(user, random);
            case 6 -> map.remove(user, random);
            case 7 -> map.containsKey(user, random);
            case 8, 9 -> {
                StressedMap.Held pinned = map.pin(user, random);
                if (pinned != null) {
                    held.add(pinned);
                }
                if (held.size() > MOST_PINS) {
                    held.remove().release();
                }
            }
            default -> map.get(user, random);
        }
    }

    private void replaceShared() {
        try {
            shared.getAndSet(open(OffHeapMap.builder().name("shared"))).close();
        } catch (OffHeapMemoryException e) {
            counts.refused(e);
        }
    }

    /** Nobody owns the keys of this map, but every value in it tells whose it is. */
    private void useShared(Random random) {
        OffHeapMap map = shared.get();
        int number = random.nextInt(SHARED_KEYS);
        byte[] key = StressValues.key(number);
        try {
            switch (random.nextInt(100)) {
                case 0 -> map.forEach(
                        (other, value) -> StressValues.generation(StressValues.number(other), ByteBuffer.wrap(value)));
                case 1 -> {
                    try (ChangeIterator changes = map.changesSince(0)) {
                        while (changes.hasNext()) {
                            Change change = changes.next();
                            StressValues.generation(
                                    StressValues.number(change.key()), ByteBuffer.wrap(change.copyValue()));
                        }
                    }
                }
                default -> useShared(map, random, number, key);
            }
        } catch (OffHeapMemoryException e) {
            counts.refused(e);
        } catch (IllegalStateException e) {
            if (!e.getMessage().contains("closed")) {
                throw e;
            }
        }
    }

    private static void useShared(OffHeapMap map, Random random, int number, byte[] key) {
        switch (random.nextInt(6)) {
            case 0, 1 -> map.put(key, StressValues.value(number, random.nextInt()));
            case 2 -> map.remove(key);
            case 3 -> {
                try (PinnedValue pinned = map.pin(key)) {
                    if (pinned != null) {
                        StressValues.generation(number, pinned.buffer());
                    }
                }
            }
            default -> {
                byte[] value = map.get(key);
                if (value != null) {
                    StressValues.generation(number, ByteBuffer.wrap(value));
                }
            }
        }
    }

    // ---- Reports and limits ------------------------------------------------------------------

    private void keep() {
        Random random = new Random(~seed);
        MapStatistics[] before = new MapStatistics[maps.size()];
        while (working()) {
            int place = random.nextInt(maps.size());
            if (random.nextInt(20) == 0) {
                maps.get(place).clear();
            }
            if (random.nextInt(5) == 0) {
                report(random);
                counts.reports.increment();
            }
            OffHeapMap map = maps.get(place).map;
            if (map.recordsStatistics()) {
                before[place] = compareStatistics(map, before[place]);
            }
            compareLimits();
            LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(100));
        }
        nimbra.diagnostics().setLevels(EnumSet.noneOf(TraceLevel.class));
    }

    private void compareLimits() {
        NimbraStats stats = nimbra.stats();
        atMost(stats.bytesInUse(), stats.maximumBytes(), "bytes in use");
        atMost(maps.get(1).map.bytesUsed(), LRU_BYTES, "bytes of the map with a limit of bytes");
        atMost(maps.get(2).map.size(), LFU_ENTRIES, "entries of the map with a limit of entries");
        atMost(maps.get(0).map.size(), (long) THREADS * KEYS_EACH, "entries of the plain map");
    }

    private static void atMost(long found, long limit, String what) {
        if (found < 0 || found > limit) {
            throw new AssertionError(what + ": " + found + ", the limit is " + limit);
        }
    }

    private static MapStatistics compareStatistics(OffHeapMap map, MapStatistics before) {
        MapStatistics now = map.statistics();
        if (before != null
                && (now.hits() < before.hits()
                        || now.misses() < before.misses()
                        || now.puts() < before.puts()
                        || now.removals() < before.removals()
                        || now.sizeEvictions() < before.sizeEvictions()
                        || now.expirations() < before.expirations())) {
            throw new AssertionError(map + " counts backwards: " + before + ", then " + now);
        }
        return now;
    }

    private void report(Random random) {
        Diagnostics diagnostics = nimbra.diagnostics();
        switch (random.nextInt(8)) {
            case 0 -> diagnostics.enable(TraceLevel.PROFILING);
            case 1 -> diagnostics.disable(TraceLevel.PROFILING);
            case 2 -> diagnostics.profileReport();
            case 3 -> require(!diagnostics.allocatorStatistics().text().isEmpty(), "the allocator's report is empty");
            case 4 -> require(diagnostics.pinReport().objects().isEmpty(), "pins are reported without being tracked");
            case 5 -> {
                // Everything traced for a moment, by all threads.
                EnumSet<TraceLevel> levels = diagnostics.levels();
                diagnostics.enable(TraceLevel.DEBUG, TraceLevel.EVENT, TraceLevel.ENTRY, TraceLevel.DETAIL);
                LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(10));
                diagnostics.setLevels(levels);
            }
            case 6 -> require(
                    nimbra.overflowStats().bytesLive() <= nimbra.overflowStats().diskLimit(),
                    "the disk limit is passed");
            default -> manage(diagnostics);
        }
    }

    private static void manage(Diagnostics diagnostics) {
        try {
            MBeanServer server = ManagementFactory.getPlatformMBeanServer();
            ObjectName name = diagnostics.registerMBean();
            require(server.getAttribute(name, "Stats") != null, "the bean has no figures");
            require(diagnostics.unregisterMBean(), "the bean was not registered");
        } catch (JMException e) {
            throw new AssertionError("the bean does not answer", e);
        }
    }

    private static void require(boolean right, String otherwise) {
        if (!right) {
            throw new AssertionError(otherwise);
        }
    }

    // ---- The end -----------------------------------------------------------------------------

    /** Reads every value of the lasting maps once more. */
    void checkAll() {
        maps.forEach(StressedMap::checkAll);
    }

    void clear() {
        for (StressedMap map : maps) {
            map.clear();
            require(map.map.size() == 0, map.map + " is not empty after a clear");
        }
        shared.get().clear();
    }

    @Override
    public void close() {
        for (StressedMap map : maps) {
            map.map.close();
            counts.add(map);
        }
        maps.clear();
        shared.get().close();
        evictions.shutdown();
        try {
            require(evictions.awaitTermination(1, TimeUnit.MINUTES), "the executor of a map does not end");
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }
}
