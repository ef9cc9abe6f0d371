package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/** A queue in order of use: the head is the least recently used record. */
public class LuOffHeapLRUEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapLRUEvictionQueue() {}

    /**
     * Appends a record as the most recently used.
     *
     * @param queue handle
     * @param record address of a record that is in no queue; the queue takes pins of its own
     * @return the number of records after the insert, or -1
     */
    public native int insertLRU(long queue, long record);

    /**
     * Moves a record to the end: it becomes the most recently used.
     *
     * @param queue handle
     * @param record address of a record in this queue
     * @return false when it failed
     */
    public native boolean updateLRU(long queue, long record);
}
