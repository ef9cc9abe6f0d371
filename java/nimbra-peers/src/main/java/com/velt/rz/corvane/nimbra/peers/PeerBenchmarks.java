package com.velt.rz.corvane.nimbra.peers;

import java.util.concurrent.TimeUnit;
import org.openjdk.jmh.annotations.Benchmark;
import org.openjdk.jmh.annotations.BenchmarkMode;
import org.openjdk.jmh.annotations.Level;
import org.openjdk.jmh.annotations.Mode;
import org.openjdk.jmh.annotations.OutputTimeUnit;
import org.openjdk.jmh.annotations.Scope;
import org.openjdk.jmh.annotations.Setup;
import org.openjdk.jmh.annotations.State;
import org.openjdk.jmh.annotations.TearDown;
import org.openjdk.jmh.infra.ThreadParams;

/**
 * The workloads of {@link Workload}. They run in the process of a {@link PeerProcess}, which has one store in its life,
 * so that no call here has more than one target.
 *
 * <p>{@code insert} changes the number of entries: each pass fills an empty store with all keys, every thread with its
 * part, and its tables grow on the way unless the store was told its size. All others leave the number as it is and are
 * measured by time on the store that the last pass has left. Each thread walks a part of the keys of its own in circles,
 * so that two never meet on one key but do meet on whatever the store shares.
 */
@BenchmarkMode(Mode.Throughput)
@OutputTimeUnit(TimeUnit.SECONDS)
public class PeerBenchmarks {
    /** The filled store. */
    @State(Scope.Benchmark)
    public static class Filled {
        PeerStore store;
        Keys keys;

        /** Takes over the process's store. */
        @Setup(Level.Trial)
        public void take() {
            store = Session.current().store();
            keys = Session.current().keys();
        }
    }

    /** A store that every pass finds empty; the last one stays. */
    @State(Scope.Benchmark)
    public static class Empty {
        PeerStore store;
        Keys keys;

        /** Makes the store. */
        @Setup(Level.Iteration)
        public void renew() {
            Session.current().renew();
            store = Session.current().store();
            keys = Session.current().keys();
        }

        /** Checks that the pass has inserted every key. */
        @TearDown(Level.Iteration)
        public void check() {
            Session.current().requireAllEntries();
            store = null;
        }
    }

    /** A thread's part of the keys, and its place in it. */
    @State(Scope.Thread)
    public static class Part {
        private int first;
        private int end;
        private int at;

        /** Goes to the part's first key. */
        @Setup(Level.Trial)
        public void start(ThreadParams thread) {
            long entries = Session.current().keys().entries();
            first = (int) (entries * thread.getThreadIndex() / thread.getThreadCount());
            end = (int) (entries * (thread.getThreadIndex() + 1) / thread.getThreadCount());
            at = first;
        }

        int next() {
            int current = at;
            at = current + 1 == end ? first : current + 1;
            return current;
        }
    }

    /** One pass that fills an empty store. */
    @Benchmark
    @BenchmarkMode(Mode.SingleShotTime)
    public void insert(Empty state, Part part) {
        PeerStore store = state.store;
        Keys keys = state.keys;
        for (int i = part.first; i < part.end; i++) {
            store.put(keys.toInsert(i), keys.value(i));
        }
    }

    /** Copies out the value of a key that is present; all keys are equally likely. */
    @Benchmark
    public byte[] getHit(Filled state, Part part) {
        return present(state.store.get(state.keys.inRandomOrder(part.next())));
    }

    /** Copies out the value of a key that is present; few keys are asked for most of the time. */
    @Benchmark
    public byte[] getHitZipfian(Filled state, Part part) {
        return present(state.store.get(state.keys.zipfian(part.next())));
    }

    /** Looks for a key that is absent. */
    @Benchmark
    public boolean getMiss(Filled state, Part part) {
        if (state.store.get(state.keys.absent(part.next())) != null) {
            throw new IllegalStateException("an absent key was found");
        }
        return true;
    }

    /** Reads all of a value where it stands. */
    @Benchmark
    public long readInPlace(Filled state, Part part) {
        return state.store.read(state.keys.inRandomOrder(part.next()));
    }

    /** Replaces a value by another of the same length. */
    @Benchmark
    public void overwrite(Filled state, Part part) {
        int i = part.next();
        state.store.put(state.keys.inRandomOrder(i), state.keys.value(i + 1));
    }

    /** Removes an entry and stores it again, which counts as one operation. */
    @Benchmark
    public void removeInsert(Filled state, Part part) {
        int i = part.next();
        byte[] key = state.keys.inRandomOrder(i);
        state.store.remove(key);
        state.store.put(key, state.keys.value(i + 1));
    }

    /** Nine gets for each put, in random order. */
    @Benchmark
    public byte[] mix90To10(Filled state, Part part) {
        return mixed(state, part.next(), 10);
    }

    /** As many gets as puts, in random order. */
    @Benchmark
    public byte[] mix50To50(Filled state, Part part) {
        return mixed(state, part.next(), 50);
    }

    private static byte[] mixed(Filled state, int i, int writesOfHundred) {
        byte[] key = state.keys.inRandomOrder(i);
        if (state.keys.writes(i, writesOfHundred)) {
            byte[] value = state.keys.value(i + 1);
            state.store.put(key, value);
            return value;
        }
        return present(state.store.get(key));
    }

    private static byte[] present(byte[] value) {
        if (value == null) {
            throw Words.missing();
        }
        return value;
    }
}
