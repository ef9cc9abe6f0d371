package com.velt.rz.corvane.nimbra;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;

/** A little work on a small map, by twice as many threads as the native allocator has arenas. */
final class SoakIdling implements AutoCloseable {
    private static final int THREADS = 8;
    private static final int ROUNDS = 1_000;

    /** Too large for the allocator's caches of single threads, so that every block comes from an arena. */
    private static final int LENGTH = 40_000;

    private final OffHeapMap map;

    /** As many threads as tasks: each task gets a thread that is alive as long as this object. */
    private final ExecutorService pool = Executors.newFixedThreadPool(THREADS);

    SoakIdling(Nimbra nimbra) {
        map = nimbra.newMap();
    }

    void oneSecond() throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(1);
        List<Future<?>> tasks = new ArrayList<>();
        for (int thread = 0; thread < THREADS; thread++) {
            byte[] key = {(byte) thread};
            tasks.add(pool.submit(() -> {
                for (int i = 0; i < ROUNDS; i++) {
                    map.put(key, new byte[LENGTH]);
                    map.remove(key);
                }
            }));
        }
        for (Future<?> task : tasks) {
            try {
                task.get();
            } catch (ExecutionException e) {
                throw new IllegalStateException(e);
            }
        }
        for (long left = end - System.nanoTime(); left > 0; left = end - System.nanoTime()) {
            LockSupport.parkNanos(left);
        }
    }

    @Override
    public void close() throws InterruptedException {
        pool.shutdown();
        if (!pool.awaitTermination(1, TimeUnit.MINUTES)) {
            throw new IllegalStateException("the threads do not end");
        }
        map.close();
    }
}
