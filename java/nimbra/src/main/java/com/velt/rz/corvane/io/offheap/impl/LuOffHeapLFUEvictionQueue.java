package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * A queue in order of the number of uses: the head is the least frequently used record, and equal ones stand in order of
 * arrival. Insert and move walk from the head past every record that was not used more often, so their cost grows with
 * the number of such records: a queue of one million is slow to keep in this order.
 */
public class LuOffHeapLFUEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapLFUEvictionQueue() {}

    /**
     * Inserts a record with no uses yet: its ordering value becomes 0. Walks past the records without uses.
     *
     * @param queue handle
     * @param record address of a record that is in no queue; the queue adds two pins of its own and leaves the caller's
     * @return the number of records after the insert, or -1 when the lock failed
     */
    public native int insertLFU(long queue, long record);

    /**
     * Counts one more use and moves the record to its new place, behind its equals. Walks from the head to that place;
     * no pin changes.
     *
     * @param queue handle, or 0
     * @param record address of a record in this queue
     * @return false for queue 0 or when the lock failed
     * @throws IllegalStateException for a record that was in no queue; it is in this one afterwards
     */
    public native boolean updateLFU(long queue, long record);
}
