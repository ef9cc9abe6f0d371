package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.Change;
import com.velt.rz.corvane.nimbra.ChangeIterator;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.PinnedValue;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CompletionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;

/**
 * A reader that keeps a copy of a map while others write it: a thread that asks for the changes since the revision that
 * it has reached, again and again. Changes do not tell of removals, so {@link #settle} looks at the end which keys of
 * the copy are gone from the map.
 */
final class Follower implements AutoCloseable {
    private static final long PAUSE_NANOS = TimeUnit.MILLISECONDS.toNanos(1);

    private final OffHeapMap map;
    private final OffHeapMap copy;
    private final CompletableFuture<Void> end;

    private volatile boolean loaded;
    private volatile boolean abandoned;

    // Written by the thread, read after it has ended.
    private long changes;
    private long nanos;
    private long rounds;

    /** Starts to follow a map into another one, which is empty. */
    Follower(OffHeapMap map, OffHeapMap copy) {
        this.map = map;
        this.copy = copy;
        this.end = CompletableFuture.runAsync(this::follow, task -> new Thread(task, "follower").start());
    }

    private void follow() {
        long position = 0;
        boolean last;
        do {
            // What was written before this moment is among the changes asked for after it.
            last = loaded;
            long start = System.nanoTime();
            long before = changes;
            try (ChangeIterator iterator = map.changesSince("follower", position)) {
                while (iterator.hasNext() && !abandoned) {
                    Change change = iterator.next();
                    copy.put(change.key(), change.copyValue());
                    changes++;
                }
                position = iterator.lastRevision();
            }
            if (changes > before) {
                nanos += System.nanoTime() - start;
                rounds++;
            } else if (!last) {
                LockSupport.parkNanos(PAUSE_NANOS);
            }
        } while (!last && !abandoned);
    }

    /** Says that the last write has ended, waits until it was followed, and drops from the copy what was removed. */
    void settle() {
        loaded = true;
        join();
        copy.forEach((key, value) -> {
            if (!map.containsKey(key)) {
                copy.remove(key);
            }
        });
    }

    /** Changes followed. */
    long changes() {
        return changes;
    }

    /** Times that it found something new. */
    long rounds() {
        return rounds;
    }

    /** Time spent on rounds that found something. */
    long nanos() {
        return nanos;
    }

    /** Returns what is wrong with the copy's entry of a key, or null: it has to be there exactly when the map has one. */
    String compare(byte[] key) {
        try (PinnedValue original = map.pin(key);
                PinnedValue copied = copy.pin(key)) {
            if (original == null || copied == null) {
                if (original == copied) {
                    return null;
                }
                return original == null ? "was removed and is in the copy" : "is missing in the copy";
            }
            int at = original.buffer().mismatch(copied.buffer());
            return at < 0 ? null : "differs from its copy at byte " + at;
        }
    }

    @Override
    public void close() {
        abandoned = true;
        try {
            end.join();
        } catch (CompletionException e) {
            // Whoever asks for the copy has been told by settle.
            return;
        }
    }

    private void join() {
        try {
            end.join();
        } catch (CompletionException e) {
            if (e.getCause() instanceof RuntimeException cause) {
                throw cause;
            }
            throw e;
        }
    }
}
