package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.util.Collection;
import java.util.EnumSet;

/** What the native library writes to the trace, or records. The levels are independent of each other. */
public enum TraceLevel {
    /** Size dumps and detailed steps; also the native stack of every pin and unpin. Very costly. */
    DEBUG(OffHeapLogger.DEBUG),

    /** Single events such as allocations and pins. Very costly. */
    EVENT(OffHeapLogger.EVENT),

    /** Entry into and exit from operations. */
    ENTRY(OffHeapLogger.ENTRY),

    /** Extra records of long operations, each under its own level as well. */
    DETAIL(OffHeapLogger.DETAIL),

    /** Information. */
    INFO(OffHeapLogger.INFO),

    /** Warnings. */
    WARNING(OffHeapLogger.WARNING),

    /** Errors. */
    ERROR(OffHeapLogger.ERROR),

    /** Fatal errors. */
    FATAL(OffHeapLogger.FATAL),

    /** Times the phases of write operations, for {@link Diagnostics#profileReport}. Writes nothing by itself. */
    PROFILING(OffHeapLogger.PROFILING),

    /**
     * Records every pin and unpin with its native stack, for {@link Diagnostics#pinReport}, which then shows the objects
     * with outstanding pins. Writes nothing by itself. Every pin and unpin then takes some 15 microseconds and keeps
     * about a kilobyte on the C heap, outside the limits.
     */
    PIN_TRACKING(OffHeapLogger.PINTRACK),

    /** As {@link #PIN_TRACKING}, alone or together with it; the report shows balanced objects as well. */
    PIN_TRACKING_ALL(OffHeapLogger.PINTRACK_ALL);

    private final int bit;

    TraceLevel(int bit) {
        this.bit = bit;
    }

    /** Whether the word records pins. */
    static boolean tracksPins(int word) {
        return (word & (PIN_TRACKING.bit | PIN_TRACKING_ALL.bit)) != 0;
    }

    static EnumSet<TraceLevel> of(int word) {
        EnumSet<TraceLevel> levels = EnumSet.noneOf(TraceLevel.class);
        for (TraceLevel level : values()) {
            if ((word & level.bit) != 0) {
                levels.add(level);
            }
        }
        return levels;
    }

    static int bits(Collection<TraceLevel> levels) {
        int word = 0;
        for (TraceLevel level : levels) {
            word |= level.bit;
        }
        return word;
    }

    /** The word with exactly these levels; bits that no level names stay as they are. */
    static int replace(int word, Collection<TraceLevel> levels) {
        return word & ~bits(EnumSet.allOf(TraceLevel.class)) | bits(levels);
    }
}
