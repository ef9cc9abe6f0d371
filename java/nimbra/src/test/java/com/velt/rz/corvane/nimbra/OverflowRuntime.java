package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import java.util.Random;
import org.junit.jupiter.api.extension.AfterEachCallback;
import org.junit.jupiter.api.extension.BeforeEachCallback;
import org.junit.jupiter.api.extension.ExtensionContext;

/**
 * The runtime of a process whose values go to disk, and the check that each of its tests leaves nothing behind: neither
 * blocks nor bytes in memory, nor values on disk. Such a process runs no other tests: a runtime has disk overflow from
 * its start or never.
 */
final class OverflowRuntime implements BeforeEachCallback, AfterEachCallback {
    /** Small, so that a little data is several times as much. */
    static final long MAXIMUM_BYTES = 8 << 20;

    static final FaultyStore STORE = FaultyStore.open();

    private static final OffHeapManager MANAGER = new OffHeapManager();

    private long blocks;
    private long bytes;
    private long metadata;

    static Nimbra start() {
        return Nimbra.builder().maximumBytes(MAXIMUM_BYTES).overflowTo(STORE).start();
    }

    @Override
    public void beforeEach(ExtensionContext context) {
        start();
        blocks = MANAGER.getAllocatingCountInOffHeap();
        bytes = MANAGER.getAllocatingSizeInOffHeap();
        metadata = MANAGER.getAllocatingInternalMetadataSize();
        assertEquals(0, STORE.bytesLive());
    }

    @Override
    public void afterEach(ExtensionContext context) {
        drain();
        STORE.repair();
        assertEquals(blocks, MANAGER.getAllocatingCountInOffHeap(), "live blocks");
        assertEquals(bytes, MANAGER.getAllocatingSizeInOffHeap(), "bytes in use");
        assertEquals(metadata, MANAGER.getAllocatingInternalMetadataSize(), "internal metadata bytes");
        assertEquals(0, STORE.bytesLive(), "bytes of values on disk");
    }

    /** Moves every value to disk that may go there, whether or not it was just used. */
    static void pushOut() {
        Nimbra.get().overflow().makeRoom(MAXIMUM_BYTES);
    }

    /** Waits until the space of all values deleted so far is free. */
    static void drain() {
        Nimbra.get().overflow().drain();
    }

    static OverflowStats stats() {
        return Nimbra.get().overflowStats();
    }

    static long blocks() {
        return MANAGER.getAllocatingCountInOffHeap();
    }

    static long bytesInUse() {
        return MANAGER.getAllocatingSizeInOffHeap();
    }

    /** Bytes that tell which value they belong to. */
    static byte[] value(long number, int length) {
        return TestRuntime.random(new Random(number), length);
    }

    /** Looks at the bytes in use all the time, on a thread of its own. */
    static final class Sampler implements AutoCloseable {
        private volatile boolean stopped;
        private long greatest;
        private long samples;
        private final Thread thread = new Thread(this::run, "sampler");

        Sampler() {
            thread.setDaemon(true);
            thread.start();
        }

        private void run() {
            while (!stopped) {
                greatest = Math.max(greatest, bytesInUse());
                samples++;
                Thread.yield();
            }
        }

        /** Ends the looking, and fails when the maximum was ever exceeded. */
        @Override
        public void close() {
            stopped = true;
            try {
                thread.join();
            } catch (InterruptedException e) {
                throw new IllegalStateException(e);
            }
            assertTrue(samples > 0);
            assertTrue(greatest <= MAXIMUM_BYTES, () -> greatest + " bytes were in use");
        }
    }
}
