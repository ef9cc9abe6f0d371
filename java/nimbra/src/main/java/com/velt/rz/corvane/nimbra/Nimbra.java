package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.util.EnumSet;
import java.util.List;
import java.util.Set;

/**
 * The off-heap runtime of this process. There is one, since the native library keeps its limits in the process; it is
 * started once and runs until the process ends.
 *
 * <pre>{@code
 * Nimbra nimbra = Nimbra.builder().maximumBytes(2L << 30).start();
 * try (OffHeapMap map = nimbra.newMap()) {
 *     map.put(key, value);
 * }
 * }</pre>
 *
 * <p>All methods may be called from any thread.
 */
public final class Nimbra {
    /** The smallest maximum, in bytes, that {@link Builder#maximumBytes} takes: 1 MiB. */
    public static final long MINIMUM_BYTES = 1L << 20;

    private static final Object STARTING = new Object();

    /** Written once, under {@link #STARTING}. */
    private static volatile Nimbra started;

    private final long maximumBytes;
    private final OffHeapManager manager;
    private final Diagnostics diagnostics;

    private Nimbra(long maximumBytes, OffHeapManager manager) {
        this.maximumBytes = maximumBytes;
        this.manager = manager;
        this.diagnostics = new Diagnostics(this, manager);
    }

    /** Returns a builder with no limit set; {@link Builder#maximumBytes} is required. */
    public static Builder builder() {
        return new Builder();
    }

    /** Returns whether the runtime was started in this process. */
    public static boolean isStarted() {
        return started != null;
    }

    /**
     * Returns the runtime.
     *
     * @throws IllegalStateException when it was not started
     */
    public static Nimbra get() {
        Nimbra runtime = started;
        if (runtime == null) {
            throw new IllegalStateException(
                    "Nimbra is not started: call Nimbra.builder().maximumBytes(bytes).start() first");
        }
        return runtime;
    }

    /**
     * Creates a map with the default options.
     *
     * @throws OffHeapMemoryException when the limits leave no room for it
     */
    public OffHeapMap newMap() {
        return OffHeapMap.builder().build();
    }

    /** Returns the figures of this moment, without taking a lock. */
    public NimbraStats stats() {
        return new NimbraStats(
                manager.getAllocatingCountInOffHeap(),
                manager.getAllocatingSizeInOffHeap(),
                manager.getAllocatingInternalMetadataSize(),
                manager.getCurrentMaxOffHeapSize(),
                MapNatives.hardCapLimit());
    }

    /** Returns the levels, the reports and the management bean of this runtime; always the same object. */
    public Diagnostics diagnostics() {
        return diagnostics;
    }

    /** The limits of the runtime. Not thread safe; {@link #start} is. */
    public static final class Builder {
        private long maximumBytes;

        /** Null: as configured. */
        private Set<TraceLevel> levels;

        private Builder() {}

        /**
         * Sets the most bytes that the process may hold outside the Java heap, internal structures included.
         *
         * @param bytes at least {@link Nimbra#MINIMUM_BYTES}
         * @throws IllegalArgumentException when it is less
         */
        public Builder maximumBytes(long bytes) {
            if (bytes < MINIMUM_BYTES) {
                throw new IllegalArgumentException(
                        "maximumBytes is " + bytes + ", has to be at least " + MINIMUM_BYTES);
            }
            maximumBytes = bytes;
            return this;
        }

        /**
         * Sets the levels, before anything is allocated; by default those of the system property {@value
         * OffHeapLogger#LEVEL_PROPERTY}. The one place where pin tracking can be turned on for a process that never
         * gets rid of all its maps.
         *
         * @param levels exactly these; none for silence
         */
        public Builder traceLevels(TraceLevel... levels) {
            EnumSet<TraceLevel> wanted = EnumSet.noneOf(TraceLevel.class);
            wanted.addAll(List.of(levels));
            this.levels = wanted;
            return this;
        }

        /**
         * Starts the runtime, or returns it when it runs with the same limits, with the levels that were set here, if
         * any.
         *
         * @throws IllegalStateException when no maximum was set, when the runtime runs with other limits, when the
         *     native library could not start, or when it runs already and {@link Diagnostics#setLevels} refuses the
         *     levels
         * @throws UnsatisfiedLinkError when there is no native library for this platform; the message lists the places
         *     that were tried
         */
        public Nimbra start() {
            if (maximumBytes == 0) {
                throw new IllegalStateException("maximumBytes is not set");
            }
            synchronized (STARTING) {
                if (started == null) {
                    OffHeapManager manager = new OffHeapManager();
                    if (levels != null) {
                        Diagnostics.configure(manager, levels);
                    }
                    initialize(manager, maximumBytes);
                    started = new Nimbra(maximumBytes, manager);
                } else if (started.maximumBytes != maximumBytes) {
                    throw new IllegalStateException("Nimbra already runs with maximumBytes " + started.maximumBytes
                            + " and cannot be started again with maximumBytes " + maximumBytes);
                } else if (levels != null) {
                    started.diagnostics.setLevels(levels);
                }
                return started;
            }
        }

        private static void initialize(OffHeapManager manager, long maximumBytes) {
            if (!manager.initializeOffHeap(maximumBytes, 0, 0, false)) {
                throw new IllegalStateException("the native library did not start with maximumBytes " + maximumBytes
                        + "; its log names the step that failed");
            }
        }
    }
}
