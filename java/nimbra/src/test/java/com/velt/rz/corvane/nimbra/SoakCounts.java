package com.velt.rz.corvane.nimbra;

import java.util.concurrent.atomic.LongAdder;

/** What the threads of a soak have done so far. */
final class SoakCounts {
    final LongAdder operations = new LongAdder();
    final LongAdder mapsOpened = new LongAdder();
    final LongAdder evictions = new LongAdder();
    final LongAdder reports = new LongAdder();
    final LongAdder refusals = new LongAdder();

    /** Refusals that keep the count of blocks raised, see {@link NimbraStats}. */
    final LongAdder refusedAfterAllocation = new LongAdder();

    void refused(OffHeapMemoryException refusal) {
        refusals.increment();
        if (refusal.getCause() instanceof OutOfMemoryError) {
            refusedAfterAllocation.increment();
        }
    }

    /** Takes over what a map has counted by itself, once, when nobody uses it any more. */
    void add(StressedMap map) {
        refusals.add(map.refusals.sum());
        refusedAfterAllocation.add(map.refusedAfterAllocation.sum());
    }
}
