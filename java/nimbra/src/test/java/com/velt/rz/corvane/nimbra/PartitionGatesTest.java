package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

@Timeout(value = 60, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class PartitionGatesTest {
    private final PartitionGates gates = new PartitionGates("tested", 3);

    @Test
    void closedGateNamesMapAndOperation() {
        gates.close(1);
        IllegalStateException refused = assertThrows(IllegalStateException.class, () -> gates.enter(1, "put"));
        assertEquals("map \"tested\" is closed: no put", refused.getMessage());
    }

    @Test
    void gatesAreIndependent() {
        gates.close(0);
        gates.exclude(2);
        gates.enter(1, "put");
        gates.enter(1, "get");
        gates.exit(1);
        gates.exit(1);
        gates.close(1);
    }

    @Test
    void refusedEntriesLeaveNothingBehind() {
        gates.close(0);
        for (int i = 0; i < 100; i++) {
            assertThrows(IllegalStateException.class, () -> gates.enter(0, "put"));
        }
        gates.close(0);
    }

    @Test
    void closeWaitsForTheCallInside() throws Exception {
        gates.enter(0, "put");
        Thread closer = new Thread(() -> gates.close(0));
        closer.start();
        awaitWaiting(closer);
        gates.exit(0);
        closer.join();
    }

    @Test
    void interruptedCloseStillWaitsAndKeepsTheInterrupt() throws Exception {
        gates.enter(0, "put");
        AtomicBoolean interrupted = new AtomicBoolean();
        Thread closer = new Thread(() -> {
            gates.close(0);
            interrupted.set(Thread.currentThread().isInterrupted());
        });
        closer.start();
        awaitWaiting(closer);
        closer.interrupt();
        awaitWaiting(closer);
        assertTrue(closer.isAlive());
        gates.exit(0);
        closer.join();
        assertTrue(interrupted.get());
    }

    @Test
    void excludedEntryGoesOnOnceReadmitted() throws Exception {
        gates.exclude(0);
        AtomicBoolean inside = new AtomicBoolean();
        Thread caller = new Thread(() -> {
            gates.enter(0, "put");
            inside.set(true);
            gates.exit(0);
        });
        caller.start();
        awaitWaiting(caller);
        assertFalse(inside.get());
        gates.readmit(0);
        caller.join();
        assertTrue(inside.get());
    }

    @Test
    void closeTurnsAwayWhoWaitsForReadmission() {
        gates.exclude(0);
        CountDownLatch begun = new CountDownLatch(1);
        CompletableFuture<Void> caller = CompletableFuture.runAsync(() -> {
            begun.countDown();
            gates.enter(0, "put");
        });
        assertTrue(await(begun));
        gates.close(0);
        gates.readmit(0);
        Throwable refused = assertThrows(Exception.class, caller::join).getCause();
        assertEquals("map \"tested\" is closed: no put", refused.getMessage());
    }

    /** While a gate is excluded nobody is inside, however entries and exclusions interleave. */
    @Test
    void nobodyIsInsideAnExcludedGate() throws Exception {
        AtomicInteger inside = new AtomicInteger();
        AtomicBoolean stop = new AtomicBoolean();
        AtomicInteger violations = new AtomicInteger();
        Thread[] callers = new Thread[4];
        for (int i = 0; i < callers.length; i++) {
            callers[i] = new Thread(() -> {
                while (!stop.get()) {
                    gates.enter(0, "put");
                    inside.incrementAndGet();
                    inside.decrementAndGet();
                    gates.exit(0);
                }
            });
            callers[i].start();
        }
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(1);
        while (System.nanoTime() < end) {
            gates.exclude(0);
            for (int look = 0; look < 100; look++) {
                if (inside.get() != 0) {
                    violations.incrementAndGet();
                }
            }
            gates.readmit(0);
        }
        stop.set(true);
        for (Thread caller : callers) {
            caller.join();
        }
        assertEquals(0, violations.get());
    }

    private static void awaitWaiting(Thread thread) {
        while (thread.getState() != Thread.State.WAITING) {
            Thread.onSpinWait();
        }
    }

    private static boolean await(CountDownLatch latch) {
        try {
            return latch.await(30, TimeUnit.SECONDS);
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
    }
}
