package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.lang.management.ManagementFactory;
import java.util.Collection;
import java.util.EnumSet;
import java.util.List;
import java.util.concurrent.locks.ReentrantLock;
import java.util.concurrent.locks.ReentrantReadWriteLock;
import javax.management.InstanceAlreadyExistsException;
import javax.management.InstanceNotFoundException;
import javax.management.JMException;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/**
 * Finds what goes wrong in a running process: trace levels, the pin report, the profile report, the allocator's figures.
 *
 * <p>All methods may be called from any thread; level changes and reports come one after the other. They are the one way
 * to change levels while the runtime runs: whoever calls {@link OffHeapLogger#setLogLevel} and {@link
 * OffHeapManager#setLogLevel} beside it has to see to the rule of {@link #setLevels} himself.
 *
 * <p>A report sends its lines to the logger and the sink as well, on the calling thread and with the pin table partly
 * locked: a sink must neither use maps nor pins, nor ask for a report, which throws {@link IllegalStateException}.
 */
public final class Diagnostics {
    /** The name under which {@link #registerMBean} registers: {@value}. */
    public static final String OBJECT_NAME = "com.velt.rz.corvane.nimbra:type=Nimbra";

    /**
     * Held for reading while a map is made and for writing while pin tracking is turned on: the first blocks come with a
     * map, so none comes to life unrecorded between the check and the switch.
     */
    static final ReentrantReadWriteLock BIRTHS = new ReentrantReadWriteLock();

    private final Nimbra nimbra;
    private final OffHeapManager manager;

    /** Serialises level changes and reports. */
    private final ReentrantLock lock = new ReentrantLock();

    /** Whether the bean is registered, as far as this object has done it. Guarded by {@link #lock}. */
    private boolean registered;

    Diagnostics(Nimbra nimbra, OffHeapManager manager) {
        this.nimbra = nimbra;
        this.manager = manager;
    }

    // ---- Levels ------------------------------------------------------------------------------

    /** Returns the levels that are on, in a set that belongs to the caller. */
    public EnumSet<TraceLevel> levels() {
        return TraceLevel.of(OffHeapLogger.getLogLevel());
    }

    /**
     * Turns exactly these levels on, at once and for all threads.
     *
     * <p>Pin tracking can be turned on only while no block is live, that is, with all maps and pinned values closed, or
     * by {@link Nimbra.Builder#traceLevels} at the start: the unpin of an object whose pin was not recorded would block
     * a part of the pin table for good. It starts with no events. When it is turned off, events stay until {@link
     * #discardPins} or until it is turned on again; they are freed at once when no block is live.
     *
     * @throws IllegalStateException when pin tracking was to be turned on while blocks are live, with their number; no
     *     level has changed then
     */
    public void setLevels(Collection<TraceLevel> levels) {
        enter();
        try {
            change(TraceLevel.replace(OffHeapLogger.getLogLevel(), levels));
        } finally {
            lock.unlock();
        }
    }

    /** Turns these levels on and leaves the others as they are; otherwise as {@link #setLevels}. */
    public void enable(TraceLevel... levels) {
        enter();
        try {
            change(OffHeapLogger.getLogLevel() | TraceLevel.bits(List.of(levels)));
        } finally {
            lock.unlock();
        }
    }

    /** Turns these levels off and leaves the others as they are; otherwise as {@link #setLevels}. */
    public void disable(TraceLevel... levels) {
        enter();
        try {
            change(OffHeapLogger.getLogLevel() & ~TraceLevel.bits(List.of(levels)));
        } finally {
            lock.unlock();
        }
    }

    /** Sets levels for a library that is about to start. */
    static void configure(OffHeapManager manager, Collection<TraceLevel> levels) {
        int word = OffHeapLogger.getLogLevel();
        int wanted = TraceLevel.replace(word, levels);
        if (TraceLevel.tracksPins(wanted) && !TraceLevel.tracksPins(word)) {
            checkNoBlocks(manager);
        }
        OffHeapLogger.setLogLevel(wanted);
    }

    /** REQUIRES: the lock. */
    private void change(int word) {
        boolean tracking = TraceLevel.tracksPins(OffHeapLogger.getLogLevel());
        if (tracking == TraceLevel.tracksPins(word)) {
            apply(word);
            return;
        }
        if (BIRTHS.getReadHoldCount() > 0) {
            throw new IllegalStateException("pin tracking cannot be switched while this thread makes a map");
        }
        BIRTHS.writeLock().lock();
        try {
            if (tracking) {
                apply(word);
                if (manager.getAllocatingCountInOffHeap() == 0) {
                    discard();
                }
            } else {
                checkNoBlocks(manager);
                discard();
                apply(word);
            }
        } finally {
            BIRTHS.writeLock().unlock();
        }
    }

    private void apply(int word) {
        OffHeapLogger.setLogLevel(word);
        manager.setLogLevel();
    }

    private static void checkNoBlocks(OffHeapManager manager) {
        long blocks = manager.getAllocatingCountInOffHeap();
        if (blocks != 0) {
            throw new IllegalStateException("pin tracking cannot be turned on while " + blocks
                    + " blocks are live: close all maps and pinned values first, or turn it on at the start with"
                    + " Nimbra.builder().traceLevels(...)");
        }
    }

    // ---- Reports -----------------------------------------------------------------------------

    /**
     * Reports who holds pins. The objects are visited one part of the table at a time, so with others at work the report
     * is no snapshot; pins and unpins wait while their part is being written. An entry of an open map takes some hundred
     * lines: a report over many of them needs much heap.
     *
     * @return an empty report, for which no native is called, while pin tracking is off; otherwise what the library
     *     writes to the trace, whether or not {@link TraceLevel#INFO} is on
     * @throws IllegalStateException when a sink or a logger asks for it during a report
     */
    public PinReport pinReport() {
        enter();
        try {
            // While tracking is off the native would discard the events.
            boolean tracking = TraceLevel.tracksPins(OffHeapLogger.getLogLevel());
            return PinReport.parse(tracking ? collect(manager::pinTrack) : List.of());
        } finally {
            lock.unlock();
        }
    }

    /**
     * Frees the events that were recorded before pin tracking was turned off. Call it when the calls that were under way
     * at that moment have returned: one that drops a pin and finds its record gone would block a part of the table.
     * Records of objects, some hundred bytes each, stay allocated for the life of the process.
     *
     * @throws IllegalStateException when pin tracking is on
     */
    public void discardPins() {
        enter();
        try {
            if (TraceLevel.tracksPins(OffHeapLogger.getLogLevel())) {
                throw new IllegalStateException("pins cannot be discarded while pin tracking is on: turn it off first");
            }
            discard();
        } finally {
            lock.unlock();
        }
    }

    /** REQUIRES: the lock, and pin tracking off. */
    private void discard() {
        manager.pinTrack();
    }

    /**
     * Reports how long the phases of timed operations take, whether or not {@link TraceLevel#PROFILING} and {@link
     * TraceLevel#INFO} are on now.
     *
     * @throws IllegalStateException when a sink or a logger asks for it during a report
     */
    public ProfileReport profileReport() {
        enter();
        try {
            return ProfileReport.parse(collect(manager::printProfileStats));
        } finally {
            lock.unlock();
        }
    }

    /** Returns the allocator's figures. Takes some milliseconds. */
    public AllocatorStatistics allocatorStatistics() {
        return new AllocatorStatistics(nimbra.stats(), refusedOperations(), manager.getJemallocStats());
    }

    /** Returns how many operations of this process have ended in an {@link OffHeapMemoryException}. */
    public long refusedOperations() {
        return MemoryRequest.refused();
    }

    /** Runs a native that reports at info level, which is turned on for it. REQUIRES: the lock. */
    private List<String> collect(Runnable reporting) {
        int word = OffHeapLogger.getLogLevel();
        boolean silent = (word & OffHeapLogger.INFO) == 0;
        if (silent) {
            apply(word | OffHeapLogger.INFO);
        }
        try {
            return OffHeapLogger.collectInfo(reporting);
        } finally {
            if (silent) {
                apply(word);
            }
        }
    }

    private void enter() {
        if (lock.isHeldByCurrentThread()) {
            throw new IllegalStateException("a report is under way on this thread: its sink and its logger cannot ask"
                    + " for another one, nor change levels");
        }
        lock.lock();
    }

    // ---- Management --------------------------------------------------------------------------

    /**
     * Registers a {@link NimbraMXBean} with the platform's MBean server under {@link #OBJECT_NAME}. Nothing is
     * registered without this call; one bean serves the whole process.
     *
     * @return the name; also when the bean was registered before
     * @throws IllegalStateException when the name is taken by something else, such as the runtime of another class
     *     loader
     */
    public ObjectName registerMBean() {
        MBeanServer server = ManagementFactory.getPlatformMBeanServer();
        enter();
        try {
            ObjectName name = new ObjectName(OBJECT_NAME);
            if (!registered) {
                server.registerMBean(new NimbraBean(nimbra, this), name);
                registered = true;
            }
            return name;
        } catch (InstanceAlreadyExistsException e) {
            throw new IllegalStateException("another bean is registered as " + OBJECT_NAME, e);
        } catch (JMException e) {
            throw new IllegalStateException("cannot register " + OBJECT_NAME, e);
        } finally {
            lock.unlock();
        }
    }

    /** Takes the bean off the server again; returns false when it was not registered. */
    public boolean unregisterMBean() {
        MBeanServer server = ManagementFactory.getPlatformMBeanServer();
        enter();
        try {
            boolean was = registered;
            registered = false;
            if (was) {
                server.unregisterMBean(new ObjectName(OBJECT_NAME));
            }
            return was;
        } catch (InstanceNotFoundException e) {
            // Somebody has taken it off by its name.
            return false;
        } catch (JMException e) {
            throw new IllegalStateException("cannot unregister " + OBJECT_NAME, e);
        } finally {
            lock.unlock();
        }
    }
}
