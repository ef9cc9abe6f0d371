package com.velt.rz.corvane.nimbra;

import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.HashMap;
import java.util.Map;
import java.util.concurrent.atomic.AtomicLong;
import org.jetbrains.kotlinx.lincheck.LinChecker;
import org.jetbrains.kotlinx.lincheck.annotations.Operation;
import org.jetbrains.kotlinx.lincheck.annotations.Param;
import org.jetbrains.kotlinx.lincheck.paramgen.IntGen;
import org.jetbrains.kotlinx.lincheck.strategy.stress.StressOptions;

/**
 * The operations of an {@link OffHeapMap} for Lincheck, which runs random scenarios of them from several threads and
 * looks for an order of the calls that explains all answers. Three keys only, so that every scenario collides. Each run
 * of a scenario makes an instance, one after the other; it gets a map of its own, and the one before it is closed.
 *
 * <p>The number of scenarios is that of the system property {@code nimbra.lincheck.iterations}.
 */
@Param(name = "key", gen = IntGen.class, conf = "1:3")
@Param(name = "value", gen = IntGen.class, conf = "1:9")
public abstract class LinearizableMap {
    private static final int RUNS_OF_A_SCENARIO = 200;

    private static final AtomicLong RUNS = new AtomicLong();

    private static OffHeapMap latest;

    private final OffHeapMap map;

    LinearizableMap(OffHeapMap map) {
        this.map = map;
        closeLatest();
        latest = map;
        RUNS.incrementAndGet();
    }

    static void closeLatest() {
        if (latest != null) {
            latest.close();
            latest = null;
        }
    }

    /** Fails with a scenario when some answers cannot be explained by any order. */
    static long check(Class<? extends LinearizableMap> operations) {
        long before = RUNS.get();
        StressOptions options = new StressOptions();
        options.iterations(Integer.getInteger("nimbra.lincheck.iterations", 8));
        options.invocationsPerIteration(RUNS_OF_A_SCENARIO);
        options.threads(3);
        options.actorsPerThread(3);
        options.actorsBefore(2);
        options.actorsAfter(2);
        options.sequentialSpecification(Expected.class);
        options.minimizeFailedScenario(false);
        try {
            LinChecker.check(operations, options);
        } finally {
            closeLatest();
        }
        return RUNS.get() - before;
    }

    @Operation(params = {"key", "value"})
    public boolean put(int key, int value) {
        return map.put(key(key), value(value));
    }

    @Operation(params = {"key", "value"})
    public boolean putIfAbsent(int key, int value) {
        return map.putIfAbsent(key(key), value(value));
    }

    @Operation(params = {"key", "value"})
    public boolean replace(int key, int value) {
        return map.replace(key(key), value(value));
    }

    @Operation(params = "key")
    public boolean remove(int key) {
        return map.remove(key(key));
    }

    @Operation(params = "key")
    public int get(int key) {
        byte[] found = map.get(key(key));
        return found == null ? 0 : number(found);
    }

    @Operation(params = "key")
    public boolean containsKey(int key) {
        return map.containsKey(key(key));
    }

    final void clearMap() {
        map.clear();
    }

    private static byte[] key(int key) {
        return ByteBuffer.allocate(Integer.BYTES).putInt(key).array();
    }

    /** As long as the number says, the number in each byte. */
    static byte[] value(int value) {
        byte[] bytes = new byte[value * 100];
        Arrays.fill(bytes, (byte) value);
        return bytes;
    }

    /** The number of a whole value, or -1. */
    static int number(byte[] value) {
        return Arrays.equals(value, value(value.length / 100)) ? value.length / 100 : -1;
    }

    /** What a map has to answer, one call after the other. */
    public static final class Expected {
        private final Map<Integer, Integer> values = new HashMap<>();

        public boolean put(int key, int value) {
            return values.put(key, value) == null;
        }

        public boolean putIfAbsent(int key, int value) {
            return values.putIfAbsent(key, value) == null;
        }

        public boolean replace(int key, int value) {
            return values.replace(key, value) != null;
        }

        public boolean remove(int key) {
            return values.remove(key) != null;
        }

        public int get(int key) {
            return values.getOrDefault(key, 0);
        }

        public boolean containsKey(int key) {
            return values.containsKey(key);
        }

        public void clear() {
            values.clear();
        }

        @Override
        public boolean equals(Object other) {
            return other instanceof Expected && ((Expected) other).values.equals(values);
        }

        @Override
        public int hashCode() {
            return values.hashCode();
        }
    }
}
