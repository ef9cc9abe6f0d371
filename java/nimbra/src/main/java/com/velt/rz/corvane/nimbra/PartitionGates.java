package com.velt.rz.corvane.nimbra;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;

/**
 * One gate a partition, which every native call on that partition passes: natives do not check handles, so a partition
 * may be deleted only when nobody is inside, and nobody may enter afterwards.
 *
 * <p>A gate is one long: the number of calls inside and two flags. Entering and leaving cost one atomic addition each
 * and allocate nothing; only when a flag is set does a call take the monitor. Gates stand 128 bytes apart, so that calls
 * on different partitions do not share a cache line.
 *
 * <p>Invariant: a call that found no flag when it entered is counted until it leaves. A call that found one has counted
 * itself only to take that back, and touches no native map; it can delay {@link #awaitEmpty} by that moment, never
 * mislead it.
 *
 * <p>{@link #close}, {@link #exclude}, {@link #readmit} and {@link #drain} are serialised by the map's lifecycle lock.
 */
final class PartitionGates {
    private static final VarHandle GATE = MethodHandles.arrayElementVarHandle(long[].class);

    private static final long CLOSED = 1L << 63;
    private static final long EXCLUSIVE = 1L << 62;
    private static final long FLAGS = CLOSED | EXCLUSIVE;
    private static final int STRIDE = 16;

    private final String mapName;
    private final long[] gates;

    /** Guards nothing by itself: threads wait here for a gate to empty or to reopen. */
    private final Object monitor = new Object();

    PartitionGates(String mapName, int count) {
        this.mapName = mapName;
        this.gates = new long[(count + 2) * STRIDE];
    }

    /**
     * Enters a gate; {@link #exit} must follow on every path. Waits while the partition is excluded.
     *
     * @param operation named when the map is closed
     * @throws IllegalStateException when the map is closed
     */
    void enter(int gate, String operation) {
        long before = (long) GATE.getAndAdd(gates, slot(gate), 1L);
        if ((before & FLAGS) != 0) {
            enterSlowly(gate, operation);
        }
    }

    /** Leaves a gate that was entered. */
    void exit(int gate) {
        long before = (long) GATE.getAndAdd(gates, slot(gate), -1L);
        if ((before & FLAGS) != 0) {
            wakeWaiters();
        }
    }

    /** Whether a call that entered now would neither wait nor be refused. */
    boolean isOpen(int gate) {
        return ((long) GATE.getAcquire(gates, slot(gate)) & FLAGS) == 0;
    }

    /** Refuses all entries from now on and waits until those inside have left. */
    void close(int gate) {
        GATE.getAndBitwiseOr(gates, slot(gate), CLOSED);
        awaitEmpty(gate);
    }

    /** Holds back all entries from now on and waits until those inside have left. */
    void exclude(int gate) {
        GATE.getAndBitwiseOr(gates, slot(gate), EXCLUSIVE);
        awaitEmpty(gate);
    }

    /** Lets the entries that {@link #exclude} holds back go on. */
    void readmit(int gate) {
        GATE.getAndBitwiseAnd(gates, slot(gate), ~EXCLUSIVE);
        wakeWaiters();
    }

    /** Waits until the calls that were inside when this one began have left. */
    void drain(int gate) {
        if (((long) GATE.getVolatile(gates, slot(gate)) & ~FLAGS) != 0) {
            exclude(gate);
            readmit(gate);
        }
    }

    /** Makes the exception of an operation on a closed map. */
    IllegalStateException closed(String operation) {
        return new IllegalStateException("map \"" + mapName + "\" is closed: no " + operation);
    }

    private void enterSlowly(int gate, String operation) {
        while (true) {
            exit(gate);
            synchronized (monitor) {
                boolean interrupted = false;
                long state;
                while (((state = (long) GATE.getVolatile(gates, slot(gate))) & FLAGS) == EXCLUSIVE) {
                    interrupted |= waitForWakeUp();
                }
                restoreInterrupt(interrupted);
                if ((state & CLOSED) != 0) {
                    throw closed(operation);
                }
            }
            long before = (long) GATE.getAndAdd(gates, slot(gate), 1L);
            if ((before & FLAGS) == 0) {
                return;
            }
        }
    }

    private void awaitEmpty(int gate) {
        synchronized (monitor) {
            boolean interrupted = false;
            while (((long) GATE.getVolatile(gates, slot(gate)) & ~FLAGS) != 0) {
                interrupted |= waitForWakeUp();
            }
            restoreInterrupt(interrupted);
        }
    }

    /** Whoever waits tests its gate under the monitor, so a change made before this call is never missed. */
    private void wakeWaiters() {
        synchronized (monitor) {
            monitor.notifyAll();
        }
    }

    /** Returns whether the wait was interrupted; an interrupt must not leave a native map half closed. */
    private boolean waitForWakeUp() {
        try {
            monitor.wait();
            return false;
        } catch (InterruptedException e) {
            return true;
        }
    }

    private static void restoreInterrupt(boolean interrupted) {
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    private static int slot(int gate) {
        return (gate + 1) * STRIDE;
    }
}
