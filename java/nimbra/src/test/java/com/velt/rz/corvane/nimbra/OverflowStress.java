package com.velt.rz.corvane.nimbra;

import java.lang.management.ManagementFactory;
import java.lang.management.ThreadInfo;
import java.nio.ByteBuffer;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Random;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.AtomicLongArray;
import java.util.concurrent.atomic.AtomicReference;
import java.util.concurrent.locks.LockSupport;

/**
 * Eight threads use two maps in every way under a limit that holds half of what they store, so that values go to disk and
 * come back all the time. Every answer is compared with what the threads know. A watchdog prints the stacks of all
 * threads and ends the process when one of them makes no progress.
 *
 * <p>Arguments: directory for the values, seconds, and optionally a seed and the maximum in MiB. Ends with status 0, 1 for a wrong answer, 3
 * for a thread without progress.
 */
final class OverflowStress {
    private static final int THREADS = 8;
    private static final int KEYS_EACH = 1_500;
    private static final int MAXIMUM_MIB = 28;
    private static final long DISK_LIMIT = 1L << 30;
    private static final int MOST_PINS = 6;
    private static final long PATIENCE_NANOS = TimeUnit.SECONDS.toNanos(30);
    private static final int STUCK = 3;

    private final Nimbra nimbra;
    private final long maximum;
    private final List<StressedMap> maps;
    private final long seed;
    private final long deadline;

    private final AtomicLongArray operations = new AtomicLongArray(THREADS);
    private final AtomicReference<Throwable> failure = new AtomicReference<>();
    private final AtomicLong nextClear = new AtomicLong();
    private final AtomicLong walks = new AtomicLong();
    private volatile boolean done;
    private long samples;
    private long mostBytes;

    private OverflowStress(Nimbra nimbra, List<StressedMap> maps, long seed, long seconds) {
        this.nimbra = nimbra;
        this.maximum = nimbra.stats().maximumBytes();
        this.maps = maps;
        this.seed = seed;
        long now = System.nanoTime();
        this.deadline = now + TimeUnit.SECONDS.toNanos(seconds);
        this.nextClear.set(now + TimeUnit.SECONDS.toNanos(2));
    }

    public static void main(String[] arguments) throws InterruptedException {
        long seed = arguments.length > 2 ? Long.parseLong(arguments[2]) : System.nanoTime();
        long mebibytes = arguments.length > 3 ? Long.parseLong(arguments[3]) : MAXIMUM_MIB;
        System.out.println("seed " + seed + ", at most " + mebibytes + " MiB");
        Nimbra nimbra = Nimbra.builder()
                .maximumBytes(mebibytes << 20)
                .overflowTo(Path.of(arguments[0]), DISK_LIMIT)
                .start();
        NimbraStats before = nimbra.stats();
        AtomicLong evictions = new AtomicLong();
        long refusedAfterAllocation = 0;
        try (OffHeapMap plain = OffHeapMap.builder().name("plain").build();
                OffHeapMap bounded = OffHeapMap.builder()
                        .name("bounded")
                        .partitions(4)
                        .maximumBytes(20 << 20)
                        .expireAfterWrite(Duration.ofSeconds(2))
                        .evictionListener((key, value, cause) -> {
                            StressValues.generation(StressValues.number(key), ByteBuffer.wrap(value));
                            evictions.incrementAndGet();
                        })
                        .build()) {
            List<StressedMap> maps = List.of(
                    new StressedMap(plain, false, THREADS, KEYS_EACH),
                    new StressedMap(bounded, true, THREADS, KEYS_EACH));
            OverflowStress stress = new OverflowStress(nimbra, maps, seed, Long.parseLong(arguments[1]));
            stress.run();
            stress.watchEnd(Thread.currentThread());
            System.out.println("evictions: " + evictions);
            for (StressedMap map : maps) {
                map.checkAll();
                System.out.println(map.map + ": " + map.clears() + " clears, " + map.refusals + " refusals, "
                        + map.refusedAfterAllocation + " of them late, " + map.map.size() + " entries left");
                refusedAfterAllocation += map.refusedAfterAllocation.sum();
            }
            System.out.println(nimbra.overflowStats());
        }
        require(nimbra.overflowStats().bytesLive(), 0, "bytes of values on disk");
        require(nimbra.stats().blocks(), before.blocks() + refusedAfterAllocation, "live blocks");
        require(nimbra.stats().internalMetadataBytes(), before.internalMetadataBytes(), "internal metadata bytes");
        System.out.println("passed");
    }

    private static void require(long found, long expected, String what) {
        if (found != expected) {
            throw new AssertionError(what + " after the end: " + found + " instead of " + expected);
        }
    }

    private void run() throws InterruptedException {
        List<Thread> users = new ArrayList<>();
        for (int user = 0; user < THREADS; user++) {
            int number = user;
            users.add(start("user " + user, () -> use(number)));
        }
        Thread sampler = start("sampler", this::sample);
        watch(users);
        done = true;
        sampler.join();
        if (failure.get() != null) {
            throw new AssertionError("a thread has failed", failure.get());
        }
        long count = 0;
        for (int user = 0; user < THREADS; user++) {
            count += operations.get(user);
        }
        System.out.printf(
                Locale.ROOT,
                "%,d operations, %d walks; %,d samples, at most %,d bytes in use of %,d%n",
                count,
                walks.get(),
                samples,
                mostBytes,
                maximum);
        OverflowStats overflow = nimbra.overflowStats();
        if (overflow.sweeps() == 0 || overflow.pageIns() == 0) {
            throw new AssertionError("the maximum was never near: " + overflow);
        }
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

    private void sample() {
        while (!done) {
            long bytes = nimbra.stats().bytesInUse();
            if (bytes > maximum) {
                throw new AssertionError(bytes + " bytes in use, at most " + maximum + " are allowed");
            }
            mostBytes = Math.max(mostBytes, bytes);
            samples++;
            LockSupport.parkNanos(50_000);
        }
    }

    /** Returns when all users have ended; does not, when one of them stands still. */
    private void watch(List<Thread> users) throws InterruptedException {
        long[] counts = new long[THREADS];
        long[] changed = new long[THREADS];
        for (int user = 0; user < THREADS; user++) {
            changed[user] = System.nanoTime();
        }
        for (int user = 0; user < THREADS; ) {
            users.get(user).join(1_000);
            for (int other = 0; other < THREADS; other++) {
                long count = operations.get(other);
                long now = System.nanoTime();
                if (count != counts[other] || !users.get(other).isAlive()) {
                    counts[other] = count;
                    changed[other] = now;
                } else if (now - changed[other] > PATIENCE_NANOS) {
                    dump(users.get(other));
                    Runtime.getRuntime().halt(STUCK);
                }
            }
            if (!users.get(user).isAlive()) {
                user++;
            }
        }
    }

    /** Gives the rest of the process, in which maps are read and closed by one thread, its time. */
    private void watchEnd(Thread last) {
        long limit = System.nanoTime() + 2 * PATIENCE_NANOS;
        start("end watch", () -> {
            while (System.nanoTime() - limit < 0) {
                LockSupport.parkNanos(limit - System.nanoTime());
            }
            dump(last);
            Runtime.getRuntime().halt(STUCK);
        });
    }

    private void dump(Thread stuck) {
        System.out.println("no progress of \"" + stuck.getName() + "\"; " + nimbra.stats() + " "
                + nimbra.overflowStats() + "; failure so far: " + failure);
        for (ThreadInfo thread : ManagementFactory.getThreadMXBean().dumpAllThreads(true, true)) {
            System.out.println("\"" + thread.getThreadName() + "\" " + thread.getThreadState() + " on "
                    + thread.getLockName() + " of \"" + thread.getLockOwnerName() + "\"");
            for (StackTraceElement frame : thread.getStackTrace()) {
                System.out.println("    at " + frame);
            }
        }
        System.out.flush();
    }

    private void use(int user) {
        Random random = new Random(seed + user);
        ArrayDeque<StressedMap.Held> held = new ArrayDeque<>();
        long nextWalk = System.nanoTime();
        try {
            while (failure.get() == null) {
                long now = System.nanoTime();
                if (now - deadline >= 0) {
                    return;
                }
                StressedMap map = maps.get(random.nextInt(maps.size()));
                if (now - nextWalk >= 0) {
                    walk(map, user, random);
                    nextWalk = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(200 + random.nextInt(1_500));
                } else {
                    useOnce(map, user, random, held);
                }
                long clearAt = nextClear.get();
                if (now - clearAt >= 0
                        && nextClear.compareAndSet(
                                clearAt, now + TimeUnit.MILLISECONDS.toNanos(500 + random.nextInt(2_500)))) {
                    map.clear();
                }
                operations.incrementAndGet(user);
            }
        } finally {
            held.forEach(StressedMap.Held::release);
        }
    }

    private void walk(StressedMap map, int user, Random random) {
        walks.incrementAndGet();
        if (random.nextBoolean()) {
            map.walk(user);
        } else {
            map.changes(user, random);
        }
    }

    private static void useOnce(StressedMap map, int user, Random random, ArrayDeque<StressedMap.Held> held) {
        switch (random.nextInt(16)) {
            case 0, 1, 2, 3, 4, 5, 6 -> map.write(user, random);
            case 7 -> map.remove(user, random);
            case 8 -> map.containsKey(user, random);
            case 9, 10 -> {
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
}
