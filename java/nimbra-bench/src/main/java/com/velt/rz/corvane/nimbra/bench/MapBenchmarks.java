package com.velt.rz.corvane.nimbra.bench;

import java.util.Random;
import java.util.concurrent.TimeUnit;
import org.openjdk.jmh.annotations.Benchmark;
import org.openjdk.jmh.annotations.BenchmarkMode;
import org.openjdk.jmh.annotations.Fork;
import org.openjdk.jmh.annotations.Level;
import org.openjdk.jmh.annotations.Measurement;
import org.openjdk.jmh.annotations.Mode;
import org.openjdk.jmh.annotations.OutputTimeUnit;
import org.openjdk.jmh.annotations.Param;
import org.openjdk.jmh.annotations.Scope;
import org.openjdk.jmh.annotations.Setup;
import org.openjdk.jmh.annotations.State;
import org.openjdk.jmh.annotations.TearDown;
import org.openjdk.jmh.annotations.Warmup;
import org.openjdk.jmh.infra.ThreadParams;

/**
 * The measured operations. {@code get}, {@code pinnedRead} and {@code replace} leave the number of entries as it is and
 * are measured one by one. {@code put} and {@code remove} change it and are measured in passes over many keys, which
 * the report divides by {@link #operationsInPass}.
 */
@BenchmarkMode(Mode.AverageTime)
@OutputTimeUnit(TimeUnit.NANOSECONDS)
@Fork(1)
@Warmup(iterations = 2, time = 1500, timeUnit = TimeUnit.MILLISECONDS)
@Measurement(iterations = 6, time = 1, timeUnit = TimeUnit.SECONDS)
public class MapBenchmarks {
    /** The part of the entries that one pass of {@code remove} takes out. */
    private static final int REMOVED_PART = 4;

    /** Returns how many operations one invocation stands for, on all threads together. */
    static int operationsInPass(String benchmark, int entries, int threads) {
        return switch (benchmark) {
            case "put" -> entries / threads * threads;
            case "remove" -> entries / REMOVED_PART / threads * threads;
            default -> threads;
        };
    }

    /** The competitors, the sizes, and the keys and values that follow from them. */
    @State(Scope.Benchmark)
    public static class Setting {
        @Param({"nimbra", "heap"})
        String store;

        @Param("256")
        int valueLength;

        @Param("1000000")
        int entries;

        Workload workload;

        /** Makes keys and values, once for a process. */
        @Setup(Level.Trial)
        public void prepare() {
            workload = new Workload(entries, valueLength);
        }

        Store newStore() {
            return switch (store) {
                case "nimbra" -> new NimbraStore();
                case "heap" -> new HeapStore();
                default -> throw new IllegalArgumentException("no store is called " + store);
            };
        }

        Store newFilledStore() {
            Store filled = newStore();
            for (int i = 0; i < entries; i++) {
                filled.put(workload.keyToInsert(i), workload.value(i));
            }
            requireSize(filled, entries);
            return filled;
        }

        static void requireSize(Store store, long entries) {
            if (store.size() != entries) {
                throw new IllegalStateException("the store holds " + store.size() + " entries instead of " + entries);
            }
        }
    }

    /** A store with all entries. */
    @State(Scope.Benchmark)
    public static class Filled {
        Store store;
        Workload workload;

        /** Fills the store before the first iteration. */
        @Setup(Level.Trial)
        public void fill(Setting setting) {
            workload = setting.workload;
            store = setting.newFilledStore();
        }

        /** Checks that no measured operation has changed the number of entries. */
        @TearDown(Level.Trial)
        public void close() {
            Setting.requireSize(store, workload.entries());
            store.close();
        }
    }

    /** A thread's place in the random order; threads start at equal distances. */
    @State(Scope.Thread)
    public static class Cursor {
        private int entries;
        private int at;

        /** Goes to the thread's first key. */
        @Setup(Level.Trial)
        public void start(Setting setting, ThreadParams thread) {
            entries = setting.entries;
            at = (int) ((long) entries * thread.getThreadIndex() / thread.getThreadCount());
        }

        int next() {
            int current = at;
            at = current + 1 == entries ? 0 : current + 1;
            return current;
        }
    }

    /** A thread's part of a pass. */
    @State(Scope.Thread)
    public static class Part {
        private int thread;
        private int threads;

        /** Remembers which thread this is. */
        @Setup(Level.Trial)
        public void start(ThreadParams params) {
            thread = params.getThreadIndex();
            threads = params.getThreadCount();
        }

        int first(int keys) {
            return keys / threads * thread;
        }

        int end(int keys) {
            return keys / threads * (thread + 1);
        }
    }

    /** A store that every iteration finds empty. */
    @State(Scope.Benchmark)
    public static class Empty {
        Store store;
        Workload workload;
        private int threads;

        /** Makes the store. */
        @Setup(Level.Iteration)
        public void create(Setting setting, ThreadParams params) {
            workload = setting.workload;
            threads = params.getThreadCount();
            store = setting.newStore();
        }

        /** Checks that the pass has inserted every key; its garbage is not the next pass's business. */
        @TearDown(Level.Iteration)
        public void close() {
            Setting.requireSize(store, operationsInPass("put", workload.entries(), threads));
            store.close();
            store = null;
            System.gc();
        }
    }

    /** A store that every iteration finds with all entries; one part of them after the other is removed. */
    @State(Scope.Benchmark)
    public static class Refilled {
        Store store;
        Workload workload;
        int first;
        int keys;
        private int threads;
        private Random random;

        /** Fills the store before the first iteration. */
        @Setup(Level.Trial)
        public void fill(Setting setting, ThreadParams params) {
            workload = setting.workload;
            threads = params.getThreadCount();
            keys = operationsInPass("remove", workload.entries(), threads);
            random = new Random(1);
            store = setting.newFilledStore();
        }

        /** Puts back what the pass has removed, in another order, and moves on to the next part. */
        @TearDown(Level.Iteration)
        public void refill() {
            Setting.requireSize(store, workload.entries() - keys);
            for (int i : Workload.shuffled(first, first + keys, random)) {
                store.put(workload.keyToFind(i), workload.value(i));
            }
            Setting.requireSize(store, workload.entries());
            first += keys;
            if (first + keys > workload.entries()) {
                first = 0;
            }
        }

        /** Gives the memory back. */
        @TearDown(Level.Trial)
        public void close() {
            store.close();
        }
    }

    /** Fills an empty store: every put inserts a new key, and the tables grow on the way. */
    @Benchmark
    @BenchmarkMode(Mode.SingleShotTime)
    @Warmup(iterations = 2)
    @Measurement(iterations = 6)
    public void put(Empty state, Part part) {
        Store store = state.store;
        Workload workload = state.workload;
        int end = part.end(workload.entries());
        for (int i = part.first(workload.entries()); i < end; i++) {
            store.put(workload.keyToInsert(i), workload.value(i));
        }
    }

    /** Copies a value out. */
    @Benchmark
    public byte[] get(Filled state, Cursor cursor) {
        byte[] value = state.store.get(state.workload.keyToFind(cursor.next()));
        if (value == null) {
            throw new IllegalStateException("a key is missing");
        }
        return value;
    }

    /** Reads every byte of a value: where it stands when the store can pin it, in a copy otherwise. */
    @Benchmark
    public long pinnedRead(Filled state, Cursor cursor) {
        return state.store.read(state.workload.keyToFind(cursor.next()));
    }

    /** Replaces a value by another one of the same length. */
    @Benchmark
    public void replace(Filled state, Cursor cursor) {
        int i = cursor.next();
        if (!state.store.replace(state.workload.keyToFind(i), state.workload.value(i + 1))) {
            throw new IllegalStateException("a key is missing");
        }
    }

    /** Removes a part of the entries. Putting them back is not measured. */
    @Benchmark
    @BenchmarkMode(Mode.SingleShotTime)
    @Warmup(iterations = 4)
    @Measurement(iterations = 8)
    public void remove(Refilled state, Part part) {
        Store store = state.store;
        Workload workload = state.workload;
        int end = state.first + part.end(state.keys);
        for (int i = state.first + part.first(state.keys); i < end; i++) {
            if (!store.remove(workload.keyToFind(i))) {
                throw new IllegalStateException("a key is missing");
            }
        }
    }
}
