package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.overflow.Overflow;
import com.velt.rz.corvane.io.offheap.overflow.OverflowHandler;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import com.velt.rz.corvane.nimbra.overflow.ValueStores;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Path;
import java.util.EnumSet;
import java.util.List;
import java.util.Objects;
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

    /** The smallest maximum, in bytes, with {@link Builder#overflowTo}: 8 MiB. Native code keeps 2 MiB of it free. */
    public static final long MINIMUM_BYTES_WITH_OVERFLOW = 8L << 20;

    private static final Object STARTING = new Object();

    /** Written once, under {@link #STARTING}. */
    private static volatile Nimbra started;

    private final long maximumBytes;
    private final OffHeapManager manager;
    private final Diagnostics diagnostics;

    /** Null without disk overflow. */
    private final OverflowManager overflow;

    private Nimbra(long maximumBytes, OffHeapManager manager, OverflowManager overflow) {
        this.maximumBytes = maximumBytes;
        this.manager = manager;
        this.overflow = overflow;
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

    /** Returns whether values are moved to disk when memory runs short. */
    public boolean overflows() {
        return overflow != null;
    }

    /**
     * Returns what disk overflow has done so far.
     *
     * @throws IllegalStateException when the runtime was started without it
     */
    public OverflowStats overflowStats() {
        if (overflow == null) {
            throw new IllegalStateException("Nimbra runs without disk overflow");
        }
        return overflow.stats();
    }

    /** Null without disk overflow. */
    OverflowManager overflow() {
        return overflow;
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

        private Path overflowDirectory;
        private long diskLimit;
        private ValueStore store;

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
         * Lets values that were not used lately move to files in a directory when memory runs short; keys and the
         * records of entries stay in memory. The files belong to this process: they are deleted when it ends, and what a
         * former process left is deleted at the start.
         *
         * <p>Bytes in use are then the sum of the blocks that are alive, so that every value moved out counts at once; the
         * pages behind them may be more.
         *
         * @param directory created if it is missing; no other process may use it
         * @param limitBytes the most that the files may take, at least 262,144
         */
        public Builder overflowTo(Path directory, long limitBytes) {
            if (limitBytes < 1L << 18) {
                throw new IllegalArgumentException("the disk limit is " + limitBytes + ", has to be at least 262144");
            }
            overflowDirectory = Objects.requireNonNull(directory, "directory");
            diskLimit = limitBytes;
            store = null;
            return this;
        }

        /**
         * As {@link #overflowTo(Path, long)}, with a store of the caller's own, which the runtime closes when the process
         * ends.
         */
        public Builder overflowTo(ValueStore store) {
            this.store = Objects.requireNonNull(store, "store");
            overflowDirectory = null;
            return this;
        }

        /**
         * Starts the runtime, or returns it when it runs with the same limits, with the levels that were set here, if
         * any.
         *
         * @throws UncheckedIOException when the overflow directory cannot be used
         * @throws IllegalStateException when no maximum was set, when it is too small for disk overflow, when the
         *     runtime runs with other limits, when the
         *     native library could not start, or when it runs already and {@link Diagnostics#setLevels} refuses the
         *     levels
         * @throws UnsatisfiedLinkError when there is no native library for this platform; the message lists the places
         *     that were tried
         */
        public Nimbra start() {
            if (maximumBytes == 0) {
                throw new IllegalStateException("maximumBytes is not set");
            }
            boolean overflows = overflowDirectory != null || store != null;
            if (overflows && maximumBytes < MINIMUM_BYTES_WITH_OVERFLOW) {
                throw new IllegalStateException("maximumBytes is " + maximumBytes + ", has to be at least "
                        + MINIMUM_BYTES_WITH_OVERFLOW + " with disk overflow");
            }
            synchronized (STARTING) {
                if (started == null) {
                    OffHeapManager manager = new OffHeapManager();
                    if (levels != null) {
                        Diagnostics.configure(manager, levels);
                    }
                    OverflowManager overflow = initialize(manager);
                    started = new Nimbra(maximumBytes, manager, overflow);
                } else if (started.overflows() != overflows) {
                    throw new IllegalStateException("Nimbra already runs " + (started.overflows() ? "with" : "without")
                            + " disk overflow, which cannot be changed");
                } else if (started.maximumBytes != maximumBytes) {
                    throw new IllegalStateException("Nimbra already runs with maximumBytes " + started.maximumBytes
                            + " and cannot be started again with maximumBytes " + maximumBytes);
                } else if (levels != null) {
                    started.diagnostics.setLevels(levels);
                }
                return started;
            }
        }

        private OverflowManager initialize(OffHeapManager manager) {
            ValueStore values = store;
            if (overflowDirectory != null) {
                try {
                    values = ValueStores.open(overflowDirectory, diskLimit);
                } catch (IOException e) {
                    throw new UncheckedIOException("disk overflow to " + overflowDirectory + ": " + e.getMessage(), e);
                }
            }
            if (values == null) {
                initialize(manager, false);
                return null;
            }
            // Before the first block: the pages in use hardly fall when single values go.
            manager.setInternalTracking(true);
            OverflowManager overflow = new OverflowManager(manager, values);
            OverflowHandler before = Overflow.setHandler(overflow);
            boolean running = false;
            try {
                initialize(manager, true);
                running = true;
            } finally {
                if (!running) {
                    Overflow.setHandler(before);
                    if (overflowDirectory != null) {
                        overflow.closeStore(); // it is in nobody's way when the caller tries again
                    }
                }
            }
            overflow.startReaper();
            Runtime.getRuntime().addShutdownHook(new Thread(overflow::closeStore, "nimbra-overflow-end"));
            return overflow;
        }

        private void initialize(OffHeapManager manager, boolean overflows) {
            if (!manager.initializeOffHeap(maximumBytes, 0, 0, overflows)) {
                throw new IllegalStateException("the native library did not start with maximumBytes " + maximumBytes
                        + "; its log names the step that failed");
            }
        }
    }
}
