package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.OffHeapManager;

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

    private Nimbra(long maximumBytes, OffHeapManager manager) {
        this.maximumBytes = maximumBytes;
        this.manager = manager;
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

    /** The limits of the runtime. Not thread safe; {@link #start} is. */
    public static final class Builder {
        private long maximumBytes;

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
         * Starts the runtime, or returns it when it runs with the same limits.
         *
         * @throws IllegalStateException when no maximum was set, when the runtime runs with other limits, or when the
         *     native library could not start
         * @throws UnsatisfiedLinkError when there is no native library for this platform; the message lists the places
         *     that were tried
         */
        public Nimbra start() {
            if (maximumBytes == 0) {
                throw new IllegalStateException("maximumBytes is not set");
            }
            synchronized (STARTING) {
                if (started == null) {
                    started = new Nimbra(maximumBytes, initialize(maximumBytes));
                } else if (started.maximumBytes != maximumBytes) {
                    throw new IllegalStateException("Nimbra already runs with maximumBytes " + started.maximumBytes
                            + " and cannot be started again with maximumBytes " + maximumBytes);
                }
                return started;
            }
        }

        private static OffHeapManager initialize(long maximumBytes) {
            OffHeapManager manager = new OffHeapManager();
            if (!manager.initializeOffHeap(maximumBytes, 0, 0, false)) {
                throw new IllegalStateException("the native library did not start with maximumBytes " + maximumBytes
                        + "; its log names the step that failed");
            }
            return manager;
        }
    }
}
