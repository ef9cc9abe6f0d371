package com.velt.rz.corvane.nimbra;

import java.util.concurrent.atomic.AtomicLong;
import java.util.function.LongSupplier;

/** A clock that moves only when a test says so. Starts close to the end of its range, as a real one may. */
final class ManualTicker implements LongSupplier {
    private final AtomicLong nanos = new AtomicLong(Long.MAX_VALUE - 50);

    void advance(long by) {
        nanos.addAndGet(by);
    }

    @Override
    public long getAsLong() {
        return nanos.get();
    }
}
