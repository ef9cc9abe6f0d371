package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * A queue in order of use: the head is the least recently used record. Insert and move cost the same in a queue of any
 * length.
 */
public class LuOffHeapLRUEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapLRUEvictionQueue() {}

    /**
     * Appends a record as the most recently used. Constant.
     *
     * @param queue handle, or 0
     * @param record address of a record that is in no queue and was never taken from between two others; the queue adds
     *     two pins of its own and leaves the caller's
     * @return the number of records after the insert; 0 for queue 0; -1 when the lock failed or the record has a
     *     neighbour, which is logged as an error and changes nothing. A record that is alone in a queue is not
     *     recognised as queued: do not insert it again
     */
    public native int insertLRU(long queue, long record);

    /**
     * Moves a record to the end: it becomes the most recently used. Constant, and no pin changes.
     *
     * @param queue handle, or 0
     * @param record address of a record in this queue
     * @return false for queue 0 or when the lock failed
     * @throws IllegalStateException for a record that is in no queue; it keeps one more pin, of reason 16777216, which
     *     the caller drops
     */
    public native boolean updateLRU(long queue, long record);
}
