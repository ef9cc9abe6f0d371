package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/** A queue in order of the number of uses: the head is the least frequently used record. */
public class LuOffHeapLFUEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapLFUEvictionQueue() {}

    /**
     * Inserts a record by its number of uses.
     *
     * @param queue handle
     * @param record address of a record that is in no queue; the queue takes pins of its own
     * @return the number of records after the insert, or -1
     */
    public native int insertLFU(long queue, long record);

    /**
     * Counts one more use and moves the record to its new place.
     *
     * @param queue handle
     * @param record address of a record in this queue
     * @return false when it failed
     */
    public native boolean updateLFU(long queue, long record);
}
