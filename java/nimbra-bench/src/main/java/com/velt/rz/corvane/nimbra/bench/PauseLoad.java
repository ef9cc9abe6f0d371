package com.velt.rz.corvane.nimbra.bench;

import java.nio.ByteBuffer;
import java.util.Random;

/**
 * What every store of the pause benchmark is put under.
 *
 * @param rate operations a second of all threads together: nine gets for each put that replaces a value
 * @param warmUpSeconds under load, not recorded
 * @param seconds under load, recorded
 */
record PauseLoad(int entries, int valueBytes, int rate, int threads, int warmUpSeconds, int seconds) {
    static final int KEY_BYTES = 16;

    /** Puts among a hundred operations. */
    static final int PUT_PERCENT = 10;

    private static final int SOURCES = 256; // a power of two; few, so that they stay in the cache
    private static final long ENTRY_OVERHEAD = 160; // bytes of key, records and table of an entry, generously

    /** Bytes that the entries occupy in the store that needs most, roughly. */
    long liveBytes() {
        return entries * (valueBytes + ENTRY_OVERHEAD);
    }

    /** The key with a number; made anew for each operation, so that the driver keeps nothing alive. */
    static byte[] key(long number) {
        return ByteBuffer.allocate(KEY_BYTES)
                .putLong(mixed(number))
                .putLong(number)
                .array();
    }

    /** Spreads a number over all 64 bits, each number to another. */
    static long mixed(long number) {
        long bits = number + 0x9E3779B97F4A7C15L;
        bits = (bits ^ (bits >>> 30)) * 0xBF58476D1CE4E5B9L;
        bits = (bits ^ (bits >>> 27)) * 0x94D049BB133111EBL;
        return bits ^ (bits >>> 31);
    }

    /** Values to store copies of. */
    byte[][] values() {
        Random random = new Random(valueBytes);
        byte[][] values = new byte[SOURCES][valueBytes];
        for (byte[] value : values) {
            random.nextBytes(value);
        }
        return values;
    }
}
