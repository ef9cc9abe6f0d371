package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.concurrent.locks.LockSupport;
import org.jetbrains.kotlinx.lincheck.annotations.Operation;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/**
 * Every history that threads can see of a map has an order that explains it. A clear goes through the partitions one
 * after the other, so it is part of the histories of maps with one partition only.
 */
@Tag("lincheck")
@ExtendWith(LeakCheck.class)
class LinearizabilityTest {
    private static final int RUNS_AT_LEAST = 1_000;

    /** One partition and one bucket set: all keys share every lock. */
    public static class OnePartition extends LinearizableMap {
        public OnePartition() {
            this(OffHeapMap.builder().partitions(1).bucketSets(1));
        }

        OnePartition(OffHeapMap.Builder options) {
            super(options.build());
        }

        @Operation
        public void clear() {
            clearMap();
        }
    }

    public static final class ManyPartitions extends LinearizableMap {
        public ManyPartitions() {
            super(OffHeapMap.builder().build());
        }
    }

    /** A bounded map that never has to evict. */
    public static final class Bounded extends OnePartition {
        public Bounded() {
            super(OffHeapMap.builder().partitions(1).maximumEntries(1_000).maximumBytes(1 << 20));
        }
    }

    /** Tests for the key and puts it in two steps, so that two threads can both be told that they were first. */
    public static final class Broken extends LinearizableMap {
        public Broken() {
            super(OffHeapMap.builder().partitions(1).build());
        }

        @Override
        @Operation(params = {"key", "value"})
        public boolean putIfAbsent(int key, int value) {
            if (containsKey(key)) {
                return false;
            }
            // Long enough for the other threads to be between the two steps as well.
            LockSupport.parkNanos(100_000);
            put(key, value);
            return true;
        }
    }

    @Test
    void onePartition() {
        assertTrue(LinearizableMap.check(OnePartition.class) >= RUNS_AT_LEAST);
    }

    @Test
    void manyPartitions() {
        assertTrue(LinearizableMap.check(ManyPartitions.class) >= RUNS_AT_LEAST);
    }

    @Test
    void boundedMapThatIsNeverFull() {
        assertTrue(LinearizableMap.check(Bounded.class) >= RUNS_AT_LEAST);
    }

    @Test
    void twoStepsInPlaceOfOneAreRecognised() {
        assertThrows(AssertionError.class, () -> LinearizableMap.check(Broken.class));
    }
}
