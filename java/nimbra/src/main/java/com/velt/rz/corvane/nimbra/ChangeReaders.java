package com.velt.rz.corvane.nimbra;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.BitSet;
import java.util.HashMap;
import java.util.Map;
import java.util.concurrent.atomic.AtomicReference;

/**
 * Who reads a map by revision. Every reader has a number of its own, under which each partition keeps its bookmark; a
 * named reader keeps its number, one without a name gives it back. Thread safe.
 */
final class ChangeReaders {
    /** Most readers at a time, so that the bookmarks of a partition stay few. */
    static final int MAXIMUM = 64;

    private final String mapName;

    // Guarded by this.
    private final Map<String, Integer> named = new HashMap<>();
    private final BitSet assigned = new BitSet(MAXIMUM);
    private final BitSet reading = new BitSet(MAXIMUM);

    /** A result buffer that no iterator uses; null while it is lent. */
    private final AtomicReference<ByteBuffer> spareResult = new AtomicReference<>();

    ChangeReaders(String mapName) {
        this.mapName = mapName;
    }

    /**
     * Makes the iterator of a reader, which gives back what it was lent through {@link #end}.
     *
     * @param reader name, or null for a reader without one
     * @param start revision after which the changes begin
     * @param end revision up to which all writes are complete
     * @throws IllegalStateException when the reader is reading already, or when there are too many
     */
    ChangeIterator begin(OffHeapMap map, String reader, long start, long end) {
        int number = acquire(reader);
        boolean begun = false;
        try {
            ByteBuffer result = spareResult.getAndSet(null);
            if (result == null) {
                result = ByteBuffer.allocateDirect(ChangeIterator.resultBytes(ChangeIterator.SMALLEST_WINDOW))
                        .order(ByteOrder.nativeOrder());
            }
            ChangeIterator iterator = new ChangeIterator(map, this, reader, number, result, start, end);
            begun = true;
            return iterator;
        } finally {
            if (!begun) {
                release(reader, number);
            }
        }
    }

    /** Takes back what {@link #begin} has lent. */
    void end(String reader, int number, ByteBuffer result) {
        spareResult.set(result);
        release(reader, number);
    }

    private synchronized int acquire(String reader) {
        Integer known = reader == null ? null : named.get(reader);
        if (known != null && reading.get(known)) {
            throw new IllegalStateException("map \"" + mapName + "\": reader \"" + reader
                    + "\" is reading already, in an iterator not closed yet");
        }
        int number = known != null ? known : assigned.nextClearBit(0);
        if (number >= MAXIMUM) {
            throw new IllegalStateException("map \"" + mapName + "\" has " + MAXIMUM
                    + " readers, the most that it can have: close an iterator or forget a reader");
        }
        assigned.set(number);
        reading.set(number);
        if (reader != null) {
            named.put(reader, number);
        }
        return number;
    }

    private synchronized void release(String reader, int number) {
        reading.clear(number);
        if (reader == null) {
            assigned.clear(number);
        }
    }

    /**
     * Gives up the number of a named reader.
     *
     * @return false when there is no such reader
     * @throws IllegalStateException when it is reading
     */
    synchronized boolean forget(String reader) {
        Integer known = named.get(reader);
        if (known == null) {
            return false;
        }
        if (reading.get(known)) {
            throw new IllegalStateException("map \"" + mapName + "\": reader \"" + reader + "\" is reading");
        }
        named.remove(reader);
        assigned.clear(known);
        return true;
    }
}
