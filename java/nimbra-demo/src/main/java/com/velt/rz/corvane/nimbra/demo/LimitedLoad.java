package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.MapStatistics;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.locks.LockSupport;

/**
 * A load into a map that holds only a part of it, as a cache is used: every name is looked up and stored when it is
 * missing. In between, the first names are looked up again and again, so that they stay, and names from long ago, which
 * have mostly gone. All the while another thread looks whether the limit holds.
 */
final class LimitedLoad implements AutoCloseable {
    private static final int HOT_NAMES = 64;
    private static final int HOT_EVERY = 16;
    private static final int LONG_AGO = 10;
    private static final long SAMPLE_NANOS = 10_000;

    private final OffHeapMap map;
    private final int names;
    private final List<byte[]> keys = new ArrayList<>();
    private final List<byte[]> hotValues = new ArrayList<>();
    private final CompletableFuture<Void> sampler;

    private volatile boolean done;

    // Written by the sampler, read after it has ended.
    private long samples;
    private long mostBytes;

    private long lookups;

    /**
     * @param map the map with the limit, which is empty
     * @param names how many names will come
     */
    LimitedLoad(OffHeapMap map, int names) {
        this.map = map;
        this.names = names;
        this.sampler = CompletableFuture.runAsync(this::sample, task -> new Thread(task, "sampler").start());
    }

    private void sample() {
        boolean last;
        do {
            last = done;
            mostBytes = Math.max(mostBytes, map.bytesUsed());
            samples++;
            LockSupport.parkNanos(SAMPLE_NANOS);
        } while (!last);
    }

    /** Takes the next name; returns what was wrong, or null. */
    String step(byte[] key, byte[] value) {
        int place = keys.size();
        keys.add(key);
        if (place < HOT_NAMES) {
            hotValues.add(value);
        }
        String wrong = lookUp(key, value);
        if (place % HOT_EVERY == 0) {
            for (int hot = 0; wrong == null && hot < hotValues.size(); hot++) {
                wrong = lookUp(keys.get(hot), hotValues.get(hot));
            }
            // Nothing is stored here: what has gone stays away.
            if (place >= names / LONG_AGO) {
                lookups++;
                map.get(keys.get(place - names / LONG_AGO));
            }
        }
        return wrong;
    }

    private String lookUp(byte[] key, byte[] value) {
        lookups++;
        byte[] found = map.get(key);
        if (found == null) {
            map.put(key, value);
            return null;
        }
        int at = Arrays.mismatch(found, value);
        return at < 0 ? null : "differs at byte " + at + " from what was stored in the limited map";
    }

    /** Ends the sampling and returns what the map has counted. */
    MapStatistics finish() {
        close();
        return map.statistics();
    }

    long lookups() {
        return lookups;
    }

    long samples() {
        return samples;
    }

    /** The most bytes that a sample has seen. */
    long mostBytes() {
        return mostBytes;
    }

    @Override
    public void close() {
        done = true;
        sampler.join();
    }
}
