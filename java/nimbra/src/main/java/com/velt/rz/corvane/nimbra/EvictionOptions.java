package com.velt.rz.corvane.nimbra;

import java.time.Duration;
import java.util.concurrent.Executor;
import java.util.function.LongSupplier;

/** What a builder was told about limits, expiry and statistics. Not thread safe. */
final class EvictionOptions {
    /** 0 for no limit. */
    long maximumBytes;

    /** 0 for no limit. */
    long maximumEntries;

    EvictionPolicy policy = EvictionPolicy.LRU;

    /** Nanoseconds; 0 for none. At most one of the two is set when a map is built. */
    long afterWrite;

    long afterAccess;
    EvictionListener listener;
    Executor executor;
    LongSupplier ticker = System::nanoTime;
    boolean statistics;

    /** Whether the map needs anything of this at all. */
    boolean wanted() {
        return limited() || expiring() || statistics;
    }

    boolean limited() {
        return maximumBytes != 0 || maximumEntries != 0;
    }

    boolean expiring() {
        return afterWrite != 0 || afterAccess != 0;
    }

    /** Nanoseconds an entry lives. */
    long timeToLive() {
        return afterWrite != 0 ? afterWrite : afterAccess;
    }

    /** @throws IllegalStateException when the options do not go together */
    void check() {
        if (afterWrite != 0 && afterAccess != 0) {
            throw new IllegalStateException(
                    "expireAfterWrite and expireAfterAccess exclude each other: an entry has one" + " deadline");
        }
        if (!limited() && !expiring()) {
            if (listener != null) {
                throw new IllegalStateException("evictionListener needs a limit or an expiry: nothing is evicted");
            }
            if (executor != null) {
                throw new IllegalStateException("executor needs a limit or an expiry: nothing is evicted");
            }
        }
    }

    static long checkLimit(String option, long limit) {
        if (limit < 1) {
            throw new IllegalArgumentException(option + " is " + limit + ", has to be at least 1");
        }
        return limit;
    }

    /** Returns the duration in nanoseconds; one of more than 146 years counts as that. */
    static long checkDuration(String option, Duration duration) {
        if (duration.isNegative() || duration.isZero()) {
            throw new IllegalArgumentException(option + " is " + duration + ", has to be longer than nothing");
        }
        long longest = Long.MAX_VALUE / 2;
        return duration.compareTo(Duration.ofNanos(longest)) >= 0 ? longest : duration.toNanos();
    }
}
