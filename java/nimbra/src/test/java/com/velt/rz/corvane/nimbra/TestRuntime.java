package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.Random;

/** The runtime that all tests of this package share, and small helpers. */
final class TestRuntime {
    static final long MAXIMUM_BYTES = 1L << 30;

    private TestRuntime() {}

    /** Starts the runtime and sets the maximum, which another test of the process may have changed. */
    static Nimbra start() {
        Nimbra nimbra = Nimbra.builder().maximumBytes(MAXIMUM_BYTES).start();
        new OffHeapManager().setCurrentMaxOffHeapSize(MAXIMUM_BYTES);
        return nimbra;
    }

    /** Runs an action under another maximum and restores the one before. */
    static void withMaximum(long bytes, Runnable action) {
        OffHeapManager manager = new OffHeapManager();
        long before = manager.setCurrentMaxOffHeapSize(bytes);
        try {
            action.run();
        } finally {
            manager.setCurrentMaxOffHeapSize(before);
        }
    }

    /** A seed to be printed with the test's name, so that a failure can be repeated with -Dnimbra.test.seed. */
    static long seed(String test) {
        long seed = Long.getLong("nimbra.test.seed", System.nanoTime());
        System.out.println(test + ": -Dnimbra.test.seed=" + seed);
        return seed;
    }

    static byte[] bytes(String text) {
        return text.getBytes(StandardCharsets.UTF_8);
    }

    static byte[] bytes(long number) {
        return ByteBuffer.allocate(Long.BYTES).putLong(number).array();
    }

    static byte[] random(Random random, int length) {
        byte[] bytes = new byte[length];
        random.nextBytes(bytes);
        return bytes;
    }

    static byte[] read(ByteBuffer buffer) {
        byte[] bytes = new byte[buffer.remaining()];
        buffer.get(bytes);
        return bytes;
    }
}
