package com.velt.rz.corvane.nimbra.overflow;

import static com.velt.rz.corvane.nimbra.overflow.Values.SLAB;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.overflow.Values.Written;
import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.io.TempDir;

@Timeout(120)
class ValueStoreConcurrencyTest {
    private static final int THREADS = 8;

    @TempDir
    Path directory;

    /** Runs the task in every thread, and reports what one of them threw. */
    private static void inThreads(Callable<?> task) throws Exception {
        ExecutorService threads = Executors.newFixedThreadPool(THREADS);
        try {
            List<Future<?>> results = new ArrayList<>();
            for (int i = 0; i < THREADS; i++) {
                results.add(threads.submit(task));
            }
            for (Future<?> result : results) {
                result.get();
            }
        } finally {
            threads.shutdownNow();
            assertTrue(threads.awaitTermination(60, TimeUnit.SECONDS));
        }
    }

    /**
     * Writes, reads and frees against a list of what stands in the store, until told to stop. All is freed at the end.
     *
     * @return whether the limit was met
     */
    private static boolean work(ValueStore store, long seed, int steps, AtomicBoolean stop) throws IOException {
        Random random = new Random(seed);
        List<Written> live = new ArrayList<>();
        boolean full = false;
        for (int i = 0; i < steps && !stop.get(); i++) {
            if (live.size() < 20 || live.size() < 200 && random.nextBoolean()) {
                int length = random.nextInt(200) == 0 ? random.nextInt(400_000) : random.nextInt(8192);
                try {
                    live.add(Values.write(store, Values.random(random, length)));
                } catch (StoreFullException e) {
                    full = true;
                    for (Written value : live.subList(live.size() / 2, live.size())) {
                        value.free(store);
                    }
                    live.subList(live.size() / 2, live.size()).clear();
                }
            } else {
                Written value = live.get(random.nextInt(live.size()));
                value.check(store);
                if (random.nextBoolean()) {
                    live.remove(value);
                    value.free(store);
                }
            }
            assertTrue(store.bytesOnDisk() <= store.limit());
        }
        for (Written value : live) {
            value.check(store);
            value.free(store);
        }
        return full;
    }

    @Test
    void keepsEveryValueOfEightThreads() throws Exception {
        AtomicLong seeds = new AtomicLong(100);
        AtomicBoolean full = new AtomicBoolean();
        try (ValueStore store = SegmentStore.open(directory, 30L * SLAB, 4, ChannelFile::create)) {
            inThreads(() -> {
                if (work(store, seeds.incrementAndGet(), 5000, new AtomicBoolean())) {
                    full.set(true);
                }
                return null;
            });
            assertTrue(full.get());
            assertEquals(0, store.bytesLive());
            assertEquals(0, store.bytesOnDisk());
            assertTrue(Values.files(directory).isEmpty());
        }
    }

    /** An interrupt closes the channel under all threads; none of them may notice. */
    @Test
    void isNotHarmedByInterrupts() throws Exception {
        AtomicLong seeds = new AtomicLong(200);
        AtomicBoolean stop = new AtomicBoolean();
        AtomicLong seen = new AtomicLong();
        List<Thread> workers = new ArrayList<>();
        CountDownLatch started = new CountDownLatch(THREADS);
        try (ValueStore store = SegmentStore.open(directory, 200L * SLAB, 4, ChannelFile::create)) {
            Thread interrupter = new Thread(() -> {
                Random random = new Random(9);
                while (!stop.get()) {
                    synchronized (workers) {
                        if (!workers.isEmpty()) {
                            workers.get(random.nextInt(workers.size())).interrupt();
                        }
                    }
                    Thread.onSpinWait();
                }
            });
            interrupter.start();
            try {
                inThreads(() -> {
                    synchronized (workers) {
                        workers.add(Thread.currentThread());
                    }
                    started.countDown();
                    for (int i = 0; i < 20; i++) {
                        work(store, seeds.incrementAndGet(), 200, stop);
                        if (Thread.interrupted()) {
                            seen.incrementAndGet();
                        }
                    }
                    synchronized (workers) {
                        workers.remove(Thread.currentThread());
                    }
                    return null;
                });
            } finally {
                stop.set(true);
                interrupter.join();
            }
            assertTrue(seen.get() > 0);
            assertEquals(0, store.bytesLive());
        }
    }

    @Test
    void worksOnAnInterruptedThreadAndLeavesItInterrupted() throws Exception {
        try (ValueStore store = ValueStores.open(directory, 200L * SLAB)) {
            Written value = Values.write(store, new byte[] {1, 2, 3});
            Thread.currentThread().interrupt();
            value.check(store);
            Written other = Values.write(store, new byte[] {4, 5});
            assertTrue(Thread.interrupted());
            value.check(store);
            other.check(store);
        }
    }

    @Test
    void cutsCallsOffWhenItIsClosedUnderLoad() throws Exception {
        for (int round = 0; round < 10; round++) {
            AtomicLong seeds = new AtomicLong(1000 * round);
            AtomicLong steps = new AtomicLong();
            ValueStore store = SegmentStore.open(directory, 200L * SLAB, 4, ChannelFile::create);
            Thread closer = new Thread(() -> {
                while (steps.get() < THREADS * 30) {
                    Thread.onSpinWait();
                }
                try {
                    store.close();
                } catch (IOException e) {
                    throw new AssertionError(e);
                }
            });
            closer.start();
            inThreads(() -> {
                assertThrows(StoreClosedException.class, () -> {
                    while (true) {
                        work(store, seeds.incrementAndGet(), 20, new AtomicBoolean());
                        steps.addAndGet(20);
                    }
                });
                return null;
            });
            closer.join();
            assertTrue(Values.files(directory).isEmpty());
        }
    }

    /** What the oracle above is worth: a changed value ends the run. */
    @Test
    void theOracleSeesAnotherValue() throws Exception {
        try (ValueStore store = ValueStores.open(directory, 200L * SLAB)) {
            Written value = Values.write(store, new byte[] {1, 2, 3});
            Written changed = new Written(value.position(), new byte[] {1, 2, 4});
            ExecutionException e = assertThrows(
                    ExecutionException.class,
                    () -> inThreads(() -> {
                        changed.check(store);
                        return null;
                    }));
            assertFalse(e.getCause() instanceof IOException);
        }
    }
}
