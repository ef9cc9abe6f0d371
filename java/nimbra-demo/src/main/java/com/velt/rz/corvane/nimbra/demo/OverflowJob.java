package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.NimbraStats;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.OverflowStats;
import java.io.PrintStream;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Random;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.LongAdder;

/**
 * Stores several times as many bytes as may be in memory, reads all of them back, changes and reads them at random, and
 * reads all of them once more; each value is compared with what it has to be. Every key belongs to one thread, which
 * alone changes it and so knows its value exactly.
 */
final class OverflowJob {
    private static final double MIB = 1 << 20;

    /** One key in so many is used as often as all the others together. */
    private static final int HOT = 10;

    private final Nimbra nimbra;
    private final CountingStore store;
    private final int threads;
    private final long seconds;
    private final Progress progress;
    private final PrintStream out;

    private final Contents contents;
    private final Findings findings = new Findings();
    private final LongAdder done = new LongAdder();
    private final AtomicBoolean stop = new AtomicBoolean();
    private final List<Row> rows = new ArrayList<>();

    /** What a phase has done, and how memory and disk looked at its end. */
    private record Row(
            String phase,
            long operations,
            long nanos,
            long written,
            long read,
            OverflowStats before,
            OverflowStats after,
            long entries,
            MemoryWatch.Pages pages) {
        double aSecond(long count) {
            return count * 1e9 / Math.max(1, nanos);
        }

        /** The share of lookups that found their value in memory. */
        String hitRatio() {
            long memory = after.memoryHits() - before.memoryHits();
            long all = memory + after.diskHits() - before.diskHits();
            return all == 0 ? "-" : String.format(Locale.ROOT, "%.1f%%", 100.0 * memory / all);
        }
    }

    private interface Worker {
        /** The share of one thread. */
        void work(OffHeapMap map, int thread);
    }

    OverflowJob(
            Nimbra nimbra,
            CountingStore store,
            Contents contents,
            int threads,
            long seconds,
            Progress progress,
            PrintStream out) {
        this.nimbra = nimbra;
        this.store = store;
        this.contents = contents;
        this.threads = threads;
        this.seconds = seconds;
        this.progress = progress;
        this.out = out;
    }

    /**
     * Runs all phases and prints the tables.
     *
     * @return what was wrong, at most ten lines and a count of the rest; empty when all was right
     */
    List<String> run() {
        NimbraStats start = nimbra.stats();
        MemoryWatch watch = new MemoryWatch(nimbra, findings);
        try (watch;
                OffHeapMap map = OffHeapMap.builder().name("overflow demo").build()) {
            phase(map, "store", this::load, contents.keys());
            phase(map, "read all", this::readAll, contents.keys());
            phase(map, "churn", this::churn, 0);
            phase(map, "read all", this::readAll, contents.keys());
        }
        print(watch, start);
        return findings.lines();
    }

    // ---- Phases ------------------------------------------------------------------------------

    /** @param total operations to come; 0 when the time decides */
    private void phase(OffHeapMap map, String name, Worker worker, long total) {
        OverflowStats before = nimbra.overflowStats();
        long written = store.bytesWritten();
        long read = store.bytesRead();
        done.reset();
        stop.set(false);
        progress.begin(name, total == 0 ? seconds : total);
        long begun = System.nanoTime();
        ExecutorService pool = Executors.newFixedThreadPool(threads);
        try {
            List<Future<?>> shares = new ArrayList<>();
            for (int thread = 0; thread < threads; thread++) {
                int number = thread;
                shares.add(pool.submit(() -> worker.work(map, number)));
            }
            for (Future<?> share : shares) {
                await(share, () -> {
                    long elapsed = TimeUnit.NANOSECONDS.toSeconds(System.nanoTime() - begun);
                    stop.compareAndSet(false, total == 0 && elapsed >= seconds);
                    progress.step(total == 0 ? Math.min(elapsed, seconds) : done.sum());
                });
            }
        } finally {
            stop.set(true);
            pool.shutdown();
        }
        long nanos = System.nanoTime() - begun;
        progress.end();
        rows.add(new Row(
                name,
                done.sum(),
                nanos,
                store.bytesWritten() - written,
                store.bytesRead() - read,
                before,
                nimbra.overflowStats(),
                map.size(),
                MemoryWatch.Pages.now(nimbra)));
    }

    private static void await(Future<?> share, Runnable meanwhile) {
        for (; ; ) {
            try {
                share.get(50, TimeUnit.MILLISECONDS);
                return;
            } catch (TimeoutException e) {
                meanwhile.run();
            } catch (InterruptedException e) {
                throw new IllegalStateException("interrupted", e);
            } catch (ExecutionException e) {
                if (e.getCause() instanceof RuntimeException cause) {
                    throw cause;
                }
                throw new IllegalStateException(e.getCause());
            }
        }
    }

    private void load(OffHeapMap map, int thread) {
        for (int key = thread; key < contents.keys() && !stop.get(); key += threads) {
            store(map, key, contents.originalFile(key));
            done.increment();
        }
    }

    private void readAll(OffHeapMap map, int thread) {
        // In an order that has nothing to do with that of the stores.
        int count = (contents.keys() - thread + threads - 1) / threads;
        int step = stepThrough(count);
        for (int i = 0, place = 0; i < count && !stop.get(); i++, place = (place + step) % count) {
            readOwn(map, thread + place * threads);
            done.increment();
        }
    }

    /** A step that visits every place below {@code count} once and jumps far each time. */
    static int stepThrough(int count) {
        int step = Math.max(1, (int) (count * 0.381966));
        while (greatestCommonDivisor(step, count) > 1) {
            step++;
        }
        return step;
    }

    private static int greatestCommonDivisor(int a, int b) {
        return b == 0 ? a : greatestCommonDivisor(b, a % b);
    }

    private void churn(OffHeapMap map, int thread) {
        Random random = new Random(thread);
        while (!stop.get()) {
            int any = pick(random);
            int own = any - any % threads + thread;
            int choice = random.nextInt(10);
            if (choice < 3 && own < contents.keys()) {
                if (choice == 0 && contents.present(own)) {
                    remove(map, own);
                } else {
                    store(map, own, random.nextInt(contents.files()));
                }
            } else if (choice < 7 && own < contents.keys()) {
                readOwn(map, own);
            } else {
                int before = contents.generation(any);
                note(any, contents.checkBetween(any, map.get(contents.key(any)), before));
            }
            done.increment();
        }
    }

    private int pick(Random random) {
        int keys = contents.keys();
        return random.nextInt(random.nextBoolean() ? Math.max(1, keys / HOT) : keys);
    }

    // ---- Single operations -------------------------------------------------------------------

    private void store(OffHeapMap map, int key, int file) {
        int generation = contents.generation(key) + 1;
        byte[] name = contents.key(key);
        byte[] value = contents.value(key, file, generation);
        if (contents.present(key)) {
            note(key, map.replace(name, value) ? null : "was missing when it was to be replaced");
        } else {
            note(key, map.put(name, value) ? null : "was found when it was to be stored for the first time");
        }
        contents.stored(key, file, generation);
    }

    private void remove(OffHeapMap map, int key) {
        note(key, map.remove(contents.key(key)) ? null : "was missing when it was to be removed");
        contents.removed(key, contents.generation(key) + 1);
    }

    private void readOwn(OffHeapMap map, int key) {
        note(key, contents.check(key, map.get(contents.key(key))));
    }

    private void note(int key, String wrong) {
        if (wrong != null) {
            findings.add(contents.name(key) + " " + wrong);
        }
    }

    // ---- The end -----------------------------------------------------------------------------

    private void print(MemoryWatch watch, NimbraStats start) {
        out.println();
        out.printf(
                "%-10s %10s %9s %9s %9s %9s %9s %8s %8s %6s%n",
                "phase", "operations", "a second", "out/s", "MB/s out", "in/s", "MB/s in", "sweeps", "s each", "hits");
        for (Row row : rows) {
            OverflowStats before = row.before();
            OverflowStats after = row.after();
            long sweeps = after.sweeps() - before.sweeps();
            out.printf(
                    Locale.ROOT,
                    "%-10s %,10d %,9.0f %,9.0f %,9.1f %,9.0f %,9.1f %,8d %8.6f %6s%n",
                    row.phase(),
                    row.operations(),
                    row.aSecond(row.operations()),
                    row.aSecond(after.pageOuts() - before.pageOuts()),
                    row.aSecond(row.written()) / 1e6,
                    row.aSecond(after.diskHits() - before.diskHits()),
                    row.aSecond(row.read()) / 1e6,
                    sweeps,
                    (after.sweepNanos() - before.sweepNanos()) / 1e9 / Math.max(1, sweeps),
                    row.hitRatio());
        }
        out.println("out: values dropped from memory, and bytes written for them; in: values read from disk");
        out.println();
        out.printf(
                "%-10s %10s %9s %9s %9s %9s %9s %9s%n",
                "MiB after", "entries", "in use", "active", "ratio", "process", "on disk", "live");
        for (Row row : rows) {
            MemoryWatch.Pages pages = row.pages();
            out.printf(
                    Locale.ROOT,
                    "%-10s %,10d %,9.1f %,9.1f %9.3f %,9.1f %,9.1f %,9.1f%n",
                    row.phase(),
                    row.entries(),
                    pages.inUse() / MIB,
                    pages.active() / MIB,
                    (double) pages.active() / pages.inUse(),
                    pages.process() / MIB,
                    row.after().bytesOnDisk() / MIB,
                    row.after().bytesLive() / MIB);
        }
        out.println("in use: blocks that are alive; active: the pages behind them; process: with the Java heap");
        out.println();
        printTotals(watch, start);
    }

    private void printTotals(MemoryWatch watch, NimbraStats start) {
        OverflowStats overflow = nimbra.overflowStats();
        NimbraStats end = nimbra.stats();
        total("maximum, bytes", end.maximumBytes());
        total("most bytes in use seen", watch.mostBytes());
        total("most bytes in active pages seen", watch.mostActive());
        total("times looked", watch.looks());
        total("values moved out", overflow.pageOuts());
        total("of them without writing", overflow.copiesReused());
        total("values moved back", overflow.pageIns());
        total("sweeps", overflow.sweeps());
        total("milliseconds in sweeps", TimeUnit.NANOSECONDS.toMillis(overflow.sweepNanos()));
        total("writes that failed", overflow.failedWrites());
        total("live bytes on disk at the end", overflow.bytesLive());
        total("bytes on disk at the end", overflow.bytesOnDisk());
        out.println();
        compare("bytes in use at most, as seen", watch.mostBytes() <= end.maximumBytes(), watch.mostBytes());
        compare("live bytes on disk after close", overflow.bytesLive() == 0, overflow.bytesLive());
        compare("live blocks after close, " + start.blocks() + " before", end.blocks() == start.blocks(), end.blocks());
        compare(
                "internal metadata bytes after close, " + start.internalMetadataBytes() + " before",
                end.internalMetadataBytes() == start.internalMetadataBytes(),
                end.internalMetadataBytes());
        compare("writes that failed", overflow.failedWrites() == 0, overflow.failedWrites());
        if (findings.count() == 0) {
            out.printf(
                    Locale.ROOT,
                    "Every value agrees with the source, and bytes in use never passed the maximum. After close: no live"
                            + " value on disk, %,d live blocks as before.%n",
                    end.blocks());
        }
    }

    private void total(String name, long value) {
        out.printf(Locale.ROOT, "%-32s %,15d%n", name, value);
    }

    private void compare(String what, boolean right, long value) {
        if (!right) {
            findings.add(what + ": " + value);
        }
    }
}
