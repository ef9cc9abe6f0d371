package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.Iterator;
import java.util.NoSuchElementException;

/**
 * The entries of a map that were written after a revision, in the order of their revisions over all partitions, up to
 * the revision that the map had reached when the iterator was made. {@link OffHeapMap#changesSince} makes it.
 *
 * <p>Every entry is shown with its latest value only. One that is written again while the iterator is under way may be
 * shown as it was or left out; its new state belongs to the next iterator. Removals are not shown. So a reader that
 * goes on from {@link #lastRevision} again and again sees the last write to every key that stays.
 *
 * <p>The map is asked for a window of revisions at a time. The entries of the window are pinned until they are passed or
 * the iterator is closed; an iterator that has answered false to {@link #hasNext} has closed itself, and one that is
 * given up earlier has to be closed. Used by one thread at a time.
 */
public final class ChangeIterator implements Iterator<Change>, AutoCloseable {
    /** Revisions asked for at first. */
    static final int SMALLEST_WINDOW = 1_024;

    /** Revisions asked for at most: where most of them were superseded, a wider window finds the next entry sooner. */
    static final int LARGEST_WINDOW = 16_384;

    private static final int RESULT_WORDS = 9;

    /** Value record, key address, key length, value address, value length. */
    private static final int KEPT_WORDS = 5;

    private final OffHeapMap map;
    private final ChangeReaders readers;
    private final String reader;
    private final int bookmark;
    private final long end;

    private final ByteBuffer smallestResult;
    private ByteBuffer result;
    private int window = SMALLEST_WINDOW;

    /**
     * Entries not handed out yet. Revisions are unique, so each has a place of its own: that of {@link #windowStart} + 1
     * comes first. A place whose record is 0 is empty.
     */
    private long[] entries = new long[SMALLEST_WINDOW * KEPT_WORDS];

    private long windowStart;
    private long windowEnd;

    /** Whether the last window held fewer than an entry in eight places. */
    private boolean sparse;

    /** The next place to look at. */
    private int place;

    /** The value at {@link #place}, when it was on disk and has been read. */
    private byte[] valueRead;

    private Change current;
    private long lastRevision;
    private boolean closed;

    /**
     * @param reader name of the reader, or null
     * @param bookmark the reader's number, which {@link #close} gives back
     * @param result a buffer for the smallest window, in native order; {@link #close} gives it back
     * @param start revision after which the changes begin
     * @param end revision up to which all writes are complete
     */
    ChangeIterator(
            OffHeapMap map,
            ChangeReaders readers,
            String reader,
            int bookmark,
            ByteBuffer result,
            long start,
            long end) {
        this.map = map;
        this.readers = readers;
        this.reader = reader;
        this.bookmark = bookmark;
        this.smallestResult = result;
        this.result = result;
        this.end = end;
        this.windowStart = start;
        this.windowEnd = start;
        this.lastRevision = start;
    }

    /** Bytes that the answer for a window may take. */
    static int resultBytes(int window) {
        return Long.BYTES * (1 + RESULT_WORDS * window);
    }

    /**
     * Returns whether there is another change. False closes the iterator, which ends the change handed out last.
     *
     * @throws IllegalStateException when the map was closed meanwhile; the iterator is closed then, too
     * @throws OffHeapMemoryException when there was no memory for the reader's bookmark; likewise
     * @throws OffHeapStorageException when a value is on disk and cannot be read; likewise
     */
    @Override
    public boolean hasNext() {
        if (closed) {
            return false;
        }
        while (!findEntry() || !findValue()) {
            if (place < windowEnd - windowStart) {
                continue; // an entry that has changed since was left out
            }
            if (windowEnd >= end) {
                lastRevision = end;
                close();
                return false;
            }
            nextWindow();
        }
        return true;
    }

    /** Reads the value of the entry found, if it is on disk. An entry that has changed since is left out. */
    private boolean findValue() {
        int at = place * KEPT_WORDS;
        if (entries[at + 3] != 0 || valueRead != null) {
            return true;
        }
        boolean complete = false;
        try {
            valueRead = map.valueForWalk(
                    PhantomWindows.copy(entries[at + 1], entries[at + 2]), windowStart + 1 + place, "changesSince");
            complete = true;
        } finally {
            if (!complete) {
                close();
            }
        }
        if (valueRead == null) {
            BoundedNatives.releaseQueried(entries[at], entries[at + 1], 0);
            entries[at] = 0;
            place++;
        }
        return valueRead != null;
    }

    /**
     * Returns the next change. The one before is not valid any more.
     *
     * @throws NoSuchElementException when there is none, or when the iterator is closed
     * @throws IllegalStateException as {@link #hasNext} does
     */
    @Override
    public Change next() {
        if (!hasNext()) {
            throw new NoSuchElementException("no further change of map \"" + map.name() + "\"");
        }
        releaseCurrent();
        int at = place * KEPT_WORDS;
        lastRevision = windowStart + 1 + place;
        current = new Change(
                entries[at],
                entries[at + 1],
                entries[at + 2],
                entries[at + 3],
                entries[at + 4],
                valueRead,
                lastRevision);
        valueRead = null;
        entries[at] = 0;
        place++;
        return current;
    }

    /**
     * Returns the revision from which to go on: that of the change handed out last, or, once there is no further change,
     * the revision that the map had reached when this iterator was made. Also after {@link #close}.
     */
    public long lastRevision() {
        return lastRevision;
    }

    /** Drops all pins and ends the reading. Further calls do nothing. */
    @Override
    public void close() {
        if (closed) {
            return;
        }
        closed = true;
        valueRead = null;
        try {
            releaseCurrent();
            while (findEntry()) {
                int at = place * KEPT_WORDS;
                BoundedNatives.releaseQueried(entries[at], entries[at + 1], entries[at + 3]);
                entries[at] = 0;
            }
        } finally {
            readers.end(reader, bookmark, smallestResult);
            result = null;
            entries = null;
        }
    }

    private void releaseCurrent() {
        if (current != null) {
            Change passed = current;
            current = null;
            passed.release();
        }
    }

    /** Moves to the next entry of the window, if there is one. */
    private boolean findEntry() {
        int places = (int) (windowEnd - windowStart);
        while (place < places && entries[place * KEPT_WORDS] == 0) {
            place++;
        }
        return place < places;
    }

    private void nextWindow() {
        boolean complete = false;
        try {
            if (sparse && window < LARGEST_WINDOW) {
                widen();
            }
            long from = windowEnd;
            long to = Math.min(from + window, end);
            windowStart = from;
            windowEnd = to;
            place = 0;
            int found = 0;
            for (int partition = 0; partition < map.partitions(); partition++) {
                map.query(partition, result, bookmark, from, to);
                found += keep(from);
            }
            sparse = found < window / 8;
            complete = true;
        } finally {
            if (!complete) {
                close();
            }
        }
    }

    /** Only between windows, while no entry is kept. */
    private void widen() {
        result = ByteBuffer.allocateDirect(resultBytes(2 * window)).order(ByteOrder.nativeOrder());
        window *= 2;
        entries = new long[window * KEPT_WORDS];
    }

    /** Puts the entries of one partition into their places and returns how many there were. */
    private int keep(long from) {
        int count = (int) result.getLong(0);
        for (int entry = 0; entry < count; entry++) {
            int word = Long.BYTES * (1 + RESULT_WORDS * entry);
            long revision = result.getLong(word + 6 * Long.BYTES);
            int at = (int) (revision - from - 1) * KEPT_WORDS;
            for (int i = 0; i < KEPT_WORDS; i++) {
                entries[at + i] = result.getLong(word + i * Long.BYTES);
            }
        }
        return count;
    }
}
