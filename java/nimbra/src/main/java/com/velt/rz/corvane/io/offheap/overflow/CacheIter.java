package com.velt.rz.corvane.io.offheap.overflow;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * The sweep that finds entries whose values may be moved to disk. One thread drives it at a time; the entry it rests on
 * is locked for that thread.
 */
public final class CacheIter {
    static {
        NativeLoader.load();
    }

    private CacheIter() {}

    /**
     * Begins a sweep over the entries that may be moved to disk. There is one sweep at a time, driven by one thread.
     *
     * @param onEntryNumItems kept and reported by {@link #getSweepState}
     * @param maxNumItems most entries that the sweep may lock
     * @param trackStats whether the statistics are refreshed after every step
     */
    public static native void init(long onEntryNumItems, long maxNumItems, boolean trackStats);

    /**
     * Lets go the current entry and moves to the next one that may be moved to disk.
     *
     * @return the entry, whose locks this thread then holds, with a pin of reason 256 that the caller drops before the
     *     next call here or in {@link #dispose}; or 0 at the end of the sweep
     */
    public static native long advanceAndNextEvictable();

    /** Ends the sweep, lets its locks go and keeps its place for the next one. Once after each {@link #init}. */
    public static native void dispose();

    /** Returns the fourteen figures of the sweep: the first is current, the others are as of the last refresh. */
    public static native long[] getSweepState();
}
