package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.overflow.NotEnoughResourcesException;
import java.util.concurrent.atomic.LongAdder;

/**
 * An operation that asked for memory, made only once it was refused: it becomes the exception that the caller sees, is
 * counted, and is recorded as an event. Immutable.
 *
 * @param operation the method, or what is being made
 * @param mapName the map that it worked on
 * @param bytes what it asked for, as far as it is known: the lengths of key and value, or the needs of a new map;
 *     otherwise {@link #UNKNOWN}
 * @param what all of this in words, as messages begin
 */
record MemoryRequest(String operation, String mapName, long bytes, String what) {
    static final long UNKNOWN = -1;

    private static final String REFUSAL = "All available memory is used";
    private static final LongAdder REFUSED = new LongAdder();

    /** A write of one entry. */
    static MemoryRequest entry(String operation, String mapName, byte[] key, byte[] value) {
        return new MemoryRequest(
                operation,
                mapName,
                (long) key.length + value.length,
                operation + " on map \"" + mapName + "\" with a key of " + key.length + " bytes and a value of "
                        + value.length + " bytes");
    }

    /** The operations of this process that ended in an {@link OffHeapMemoryException}. */
    static long refused() {
        return REFUSED.sum();
    }

    /** Returns the exception of a native that has answered with nothing; it is to be thrown. */
    OffHeapMemoryException refuse() {
        return record(OffHeapMemoryException.refused(what, null));
    }

    /** As {@link #convert}, for an exception that is thrown whichever it is. */
    RuntimeException refuse(Throwable raised) {
        RuntimeException converted = convert(raised);
        return converted instanceof OffHeapMemoryException refused ? record(refused) : converted;
    }

    /**
     * Turns what a native raised into the exception of this face where it was a refusal, and passes it on as it is where
     * it was not: natives raise the same classes for locks that fail, and the heap runs out with the same class too.
     * Nothing is counted, since the operation may go on.
     */
    RuntimeException convert(Throwable raised) {
        String text = raised.getMessage();
        if (raised instanceof NotEnoughResourcesException || text != null && text.contains(REFUSAL)) {
            return OffHeapMemoryException.refused(what, raised);
        }
        if (raised instanceof Error error) {
            throw error;
        }
        return (RuntimeException) raised;
    }

    /** Counts and records a refusal that is about to be thrown, and returns it. */
    OffHeapMemoryException record(OffHeapMemoryException refusal) {
        REFUSED.increment();
        RefusedAllocationEvent event = new RefusedAllocationEvent();
        if (event.shouldCommit()) {
            NimbraStats stats = Nimbra.get().stats();
            event.operation = operation;
            event.map = mapName;
            event.requestedBytes = bytes;
            event.bytesInUse = stats.bytesInUse();
            event.maximumBytes = stats.maximumBytes();
            event.commit();
        }
        return refusal;
    }
}
