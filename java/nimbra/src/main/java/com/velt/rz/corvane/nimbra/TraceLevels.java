package com.velt.rz.corvane.nimbra;

/** What the library traces at the moment; to be asked only where {@link RawMemory#isReadable}. */
final class TraceLevels {
    // One byte a level. Bytes 0 to 2 trace calls, 10 and 11 are profiling and pin tracking; the rest shows no call.
    private static final long CALLS = 0xff_ffffL;
    private static final int FROM = 6;
    private static final long PROFILING_AND_PINS = 0xffff_0000_0000L; // in the word from byte 6 on

    /** Static in the library, and there as long as it is. */
    private static final long LEVELS = CallNatives.traceLevels();

    private TraceLevels() {}

    /** Whether a call of the natives that succeeds would leave no trace, so that it may be done without. */
    static boolean areOff() {
        return (RawMemory.getLong(LEVELS) & CALLS | RawMemory.getLong(LEVELS + FROM) & PROFILING_AND_PINS) == 0;
    }
}
