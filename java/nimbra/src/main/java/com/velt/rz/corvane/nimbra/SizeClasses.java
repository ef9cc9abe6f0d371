package com.velt.rz.corvane.nimbra;

/**
 * How the native allocator rounds requests: to multiples of 16 bytes up to 128, then to four sizes for each doubling.
 * Only for telling beforehand how much of a limit an entry takes; the native bound counts what it really took.
 */
final class SizeClasses {
    private static final int BUFFER_HEADER = 24;
    private static final long LINEAR = 128;
    private static final long QUANTUM = 16;

    private SizeClasses() {}

    /** Bytes of a native buffer with so many bytes of data. */
    static long bufferBytes(long length) {
        return round(BUFFER_HEADER + length);
    }

    static long round(long bytes) {
        if (bytes <= LINEAR) {
            return roundTo(bytes, QUANTUM);
        }
        // A quarter of the greatest power of two below the request.
        return roundTo(bytes, Long.highestOneBit(bytes - 1) / 4);
    }

    private static long roundTo(long bytes, long multiple) {
        return (bytes + multiple - 1) & -multiple;
    }
}
