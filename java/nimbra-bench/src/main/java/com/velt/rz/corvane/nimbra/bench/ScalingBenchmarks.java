package com.velt.rz.corvane.nimbra.bench;

import com.velt.rz.corvane.nimbra.Change;
import com.velt.rz.corvane.nimbra.ChangeIterator;
import com.velt.rz.corvane.nimbra.EvictionPolicy;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import java.nio.ByteBuffer;
import java.time.Duration;
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

/**
 * How the cost of one operation follows the number of entries in the map. Each operation works on the same thousand keys
 * whatever the size, so that what grows is the algorithm's share, not the number of cache misses for keys and values.
 */
@BenchmarkMode(Mode.AverageTime)
@OutputTimeUnit(TimeUnit.NANOSECONDS)
@Fork(1)
@Warmup(iterations = 3, time = 1, timeUnit = TimeUnit.SECONDS)
@Measurement(iterations = 5, time = 1, timeUnit = TimeUnit.SECONDS)
public class ScalingBenchmarks {
    /** The keys that are used, and the changes that a reader finds when it comes back. */
    static final int USED_KEYS = 1_000;

    private static final int VALUE_LENGTH = 64;
    private static final long MAXIMUM_BYTES = 3L << 30;

    private static byte[] key(int i) {
        return ByteBuffer.allocate(16).putLong(i).putLong(~i).array();
    }

    /** A map and the keys of a sample of its entries, in equal distances. */
    private static final class Sample implements AutoCloseable {
        final OffHeapMap map;
        final byte[][] keys;
        final byte[] value = new byte[VALUE_LENGTH];
        private int next;

        Sample(OffHeapMap.Builder options, int entries) {
            Nimbra.builder().maximumBytes(MAXIMUM_BYTES).start();
            map = options.build();
            for (int i = 0; i < entries; i++) {
                map.put(key(i), value);
            }
            keys = new byte[Math.min(entries, USED_KEYS)][];
            for (int i = 0; i < keys.length; i++) {
                keys[i] = key((int) ((long) i * entries / keys.length));
            }
        }

        byte[] nextKey() {
            next = next + 1 < keys.length ? next + 1 : 0;
            return keys[next];
        }

        @Override
        public void close() {
            map.close();
        }
    }

    /** A map whose changes a named reader has followed; before each invocation, a thousand entries change. */
    @State(Scope.Benchmark)
    public static class Followed {
        @Param({"10000", "100000", "1000000"})
        int entries;

        private Sample sample;
        private long position;

        /** Fills the map and reads it once. */
        @Setup(Level.Trial)
        public void fill() {
            sample = new Sample(OffHeapMap.builder(), entries);
            read();
        }

        /** Changes the sample. */
        @Setup(Level.Invocation)
        public void change() {
            for (byte[] key : sample.keys) {
                sample.map.put(key, sample.value);
            }
        }

        private long read() {
            long bytes = 0;
            try (ChangeIterator changes = sample.map.changesSince("reader", position)) {
                while (changes.hasNext()) {
                    Change change = changes.next();
                    bytes += change.value().remaining();
                }
                position = changes.lastRevision();
            }
            return bytes;
        }

        /** Frees the map. */
        @TearDown(Level.Trial)
        public void close() {
            sample.close();
        }
    }

    /** A reader comes back and reads what has changed: a thousand entries. */
    @Benchmark
    public long resume(Followed followed) {
        long bytes = followed.read();
        if (bytes != (long) VALUE_LENGTH * followed.sample.keys.length) {
            throw new IllegalStateException("read " + bytes + " bytes");
        }
        return bytes;
    }

    /** A plain map. */
    @State(Scope.Benchmark)
    public static class Plain {
        @Param({"1000", "10000", "100000", "1000000"})
        int entries;

        private Sample sample;

        @Setup(Level.Trial)
        public void fill() {
            sample = new Sample(OffHeapMap.builder(), entries);
        }

        @TearDown(Level.Trial)
        public void close() {
            sample.close();
        }
    }

    /** A replacement moves its entry to the newest end of the revisions. */
    @Benchmark
    public boolean revisionAppend(Plain plain) {
        return plain.sample.map.put(plain.sample.nextKey(), plain.sample.value);
    }

    /** A map that keeps the order of use. */
    @State(Scope.Benchmark)
    public static class LeastRecentlyUsed {
        @Param({"1000", "10000", "100000", "1000000"})
        int entries;

        private Sample sample;

        @Setup(Level.Trial)
        public void fill() {
            sample = new Sample(OffHeapMap.builder().maximumEntries(2L * entries), entries);
        }

        @TearDown(Level.Trial)
        public void close() {
            sample.close();
        }
    }

    /** A use moves its entry to the end of the queue. */
    @Benchmark
    public byte[] lruAccess(LeastRecentlyUsed used) {
        return used.sample.map.get(used.sample.nextKey());
    }

    /** A map of one partition that keeps its entries by the number of uses. */
    @State(Scope.Benchmark)
    public static class LeastFrequentlyUsed {
        @Param({"1000", "10000", "100000"})
        int entries;

        private Sample sample;

        @Setup(Level.Trial)
        public void fill() {
            sample = new Sample(
                    OffHeapMap.builder()
                            .partitions(1)
                            .maximumEntries(2L * entries)
                            .evictionPolicy(EvictionPolicy.LFU),
                    entries);
        }

        @TearDown(Level.Trial)
        public void close() {
            sample.close();
        }
    }

    /** A use moves its entry past all that were used less: here, past those that were never used. */
    @Benchmark
    public byte[] lfuAccess(LeastFrequentlyUsed used) {
        return used.sample.map.get(used.sample.nextKey());
    }

    /** A map of one partition with deadlines. */
    @State(Scope.Benchmark)
    public static class Expiring {
        @Param({"1000", "10000", "100000"})
        int entries;

        private Sample sample;
        private long time;

        @Setup(Level.Trial)
        public void fill() {
            sample = new Sample(
                    OffHeapMap.builder()
                            .partitions(1)
                            .expireAfterWrite(Duration.ofDays(10_000))
                            .ticker(() -> time),
                    entries);
        }

        @TearDown(Level.Trial)
        public void close() {
            sample.close();
        }
    }

    /** As {@link Expiring}, with one entry that expires after all others. */
    @State(Scope.Benchmark)
    public static class OvertakenExpiring extends Expiring {
        @Override
        public void fill() {
            super.fill();
            super.time = Long.MAX_VALUE / 4;
            super.sample.map.put(key(-1), super.sample.value);
            super.time = 0;
        }
    }

    /** A deadline behind all others goes to the end of the queue. */
    @Benchmark
    public boolean ttlInOrder(Expiring expiring) {
        expiring.time++;
        return expiring.sample.map.put(expiring.sample.nextKey(), expiring.sample.value);
    }

    /** A deadline before the last one looks for its place from the head of the queue. */
    @Benchmark
    public boolean ttlOutOfOrder(OvertakenExpiring expiring) {
        ((Expiring) expiring).time++;
        return ((Expiring) expiring)
                .sample.map.put(((Expiring) expiring).sample.nextKey(), ((Expiring) expiring).sample.value);
    }
}
