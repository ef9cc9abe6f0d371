package com.velt.rz.corvane.nimbra.bench;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.impl.LuOffHeapMapImpl;
import com.velt.rz.corvane.io.offheap.overflow.CacheIter;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import org.openjdk.jmh.annotations.Benchmark;
import org.openjdk.jmh.annotations.BenchmarkMode;
import org.openjdk.jmh.annotations.Fork;
import org.openjdk.jmh.annotations.Level;
import org.openjdk.jmh.annotations.Measurement;
import org.openjdk.jmh.annotations.Mode;
import org.openjdk.jmh.annotations.OperationsPerInvocation;
import org.openjdk.jmh.annotations.OutputTimeUnit;
import org.openjdk.jmh.annotations.Param;
import org.openjdk.jmh.annotations.Scope;
import org.openjdk.jmh.annotations.Setup;
import org.openjdk.jmh.annotations.State;
import org.openjdk.jmh.annotations.TearDown;
import org.openjdk.jmh.annotations.Warmup;

/**
 * What disk overflow costs while everything is in memory. The typed getter of the contract does the same with and without
 * it, apart from one node lock and one call into Java that reports the access: its difference is the measure for the
 * others.
 */
@BenchmarkMode(Mode.AverageTime)
@OutputTimeUnit(TimeUnit.NANOSECONDS)
@Fork(3)
@Warmup(iterations = 3, time = 1, timeUnit = TimeUnit.SECONDS)
@Measurement(iterations = 5, time = 1, timeUnit = TimeUnit.SECONDS)
public class OverflowBenchmarks {
    private static final int KEYS = 10_000;
    private static final int VALUE_LENGTH = 256;
    private static final long MAXIMUM_BYTES = 3L << 30;
    private static final int JNI_INSERTED_PIN = 8_388_609;
    private static final int EVICTED_PIN = 32_779;

    private static byte[] key(int i) {
        return ByteBuffer.allocate(16).putLong(i).putLong(~i).array();
    }

    private static void start(boolean overflow) throws IOException {
        Nimbra.Builder nimbra = Nimbra.builder().maximumBytes(MAXIMUM_BYTES);
        if (overflow) {
            Path directory = Files.createTempDirectory("nimbra-bench");
            directory.toFile().deleteOnExit();
            nimbra.overflowTo(directory, 1L << 30);
        }
        nimbra.start();
    }

    /** A map of the face. */
    @State(Scope.Benchmark)
    public static class Face {
        @Param({"false", "true"})
        boolean overflow;

        private final byte[][] keys = new byte[KEYS][];
        private final byte[] value = new byte[VALUE_LENGTH];
        private OffHeapMap map;
        private int next;

        /** Fills the map. */
        @Setup(Level.Trial)
        public void fill() throws IOException {
            start(overflow);
            map = OffHeapMap.builder().build();
            for (int i = 0; i < KEYS; i++) {
                keys[i] = key(i);
                map.put(keys[i], value);
            }
        }

        private byte[] nextKey() {
            next = next + 1 < KEYS ? next + 1 : 0;
            return keys[next];
        }

        /** Closes the map. */
        @TearDown(Level.Trial)
        public void close() {
            map.close();
        }
    }

    /** A map that every invocation finds empty, its tables grown. */
    @State(Scope.Benchmark)
    public static class Empty {
        /** Clears what the last invocation has put. */
        @Setup(Level.Invocation)
        public void clear(Face face) {
            face.map.clear();
        }
    }

    /** A map of the contract. */
    @State(Scope.Benchmark)
    public static class Contract {
        @Param({"false", "true"})
        boolean overflow;

        private final OffHeapManager manager = new OffHeapManager();
        private final LuOffHeapMapImpl natives = new LuOffHeapMapImpl();
        private final byte[][] keys = new byte[KEYS][];
        private final long[] attributes = new long[4];
        private long map;
        private int next;

        /** Fills the map. */
        @Setup(Level.Trial)
        public void fill() throws IOException {
            start(overflow);
            map = natives.allocateLuOffHeapMap(0, 1_024, 0.75f, 1, 1);
            byte[] value = new byte[VALUE_LENGTH];
            for (int i = 0; i < KEYS; i++) {
                keys[i] = key(i);
                manager.unpinLuOffHeapValue_native(
                        natives.insertAndGetNewAndPinWithHashCodeAndBA(
                                map,
                                keys[i],
                                keys[i].length,
                                (byte) 0,
                                i,
                                value,
                                value.length,
                                (byte) 0,
                                (short) 0,
                                i + 1),
                        JNI_INSERTED_PIN);
            }
        }

        private int nextIndex() {
            next = next + 1 < KEYS ? next + 1 : 0;
            return next;
        }
    }

    /** Entries of which none was used lately, and a sweep that stops at the first of them. */
    @State(Scope.Benchmark)
    public static class Sweep {
        @Param({"10000", "100000", "1000000"})
        int entries;

        private final OffHeapManager manager = new OffHeapManager();
        private OffHeapMap map;

        /** Fills the map and takes the marks of use away. */
        @Setup(Level.Trial)
        public void fill() throws IOException {
            start(true);
            map = OffHeapMap.builder().build();
            byte[] value = new byte[64];
            for (int i = 0; i < entries; i++) {
                map.put(key(i), value);
            }
            // One round: every entry is passed over for its mark, up to the limit.
            CacheIter.init(1, entries, false);
            if (CacheIter.advanceAndNextEvictable() != 0) {
                throw new IllegalStateException("an entry without its mark in the first round");
            }
            CacheIter.dispose();
        }

        /** Closes the map. */
        @TearDown(Level.Trial)
        public void close() {
            map.close();
        }
    }

    /** A typed get of the contract. */
    @Benchmark
    public long typedGet(Contract contract) {
        int i = contract.nextIndex();
        long record = contract.natives.getLuValue_ByteArray(
                contract.map, contract.attributes, contract.keys[i], i, 0, false, -1);
        contract.manager.unpinLuOffHeapValue_native(record, 1);
        return record;
    }

    /** A get of the face. */
    @Benchmark
    public byte[] get(Face face) {
        return face.map.get(face.nextKey());
    }

    /** A put on a key that is present. */
    @Benchmark
    public boolean replace(Face face) {
        return face.map.put(face.nextKey(), face.value);
    }

    /** Puts on keys that are absent. */
    @Benchmark
    @OperationsPerInvocation(KEYS)
    public void insert(Face face, Empty empty) {
        for (byte[] key : face.keys) {
            face.map.put(key, face.value);
        }
    }

    /** A removal, and a put on a key that is absent. */
    @Benchmark
    public boolean removeAndInsert(Face face) {
        byte[] key = face.nextKey();
        return face.map.remove(key) & face.map.put(key, face.value);
    }

    /** From the beginning of a sweep to its first entry, and its end. */
    @Benchmark
    @Fork(1)
    public long firstEvictable(Sweep sweep) {
        CacheIter.init(1, sweep.entries, false);
        long record = CacheIter.advanceAndNextEvictable();
        sweep.manager.unpinLuOffHeapValue_native(record, EVICTED_PIN);
        CacheIter.dispose();
        return record;
    }
}
