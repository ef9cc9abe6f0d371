package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/** A queue in order of expiry time: the head is the next record to expire. */
public class LuOffHeapTTLEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapTTLEvictionQueue() {}

    /**
     * Inserts a record by its expiry time.
     *
     * @param queue handle
     * @param record address of a record that is in no queue; the queue takes pins of its own
     * @param time expiry, in the unit of the Java evictor
     * @return the number of records after the insert; -1 when it failed, 0 for queue 0
     */
    public native int insertTTL(long queue, long record, long time);

    /**
     * Gives a record a new expiry time and moves it to its new place.
     *
     * @param queue handle
     * @param record address of a record in this queue
     * @param time expiry, in the unit of the Java evictor
     * @return false when it failed
     */
    public native boolean updateTTL(long queue, long record, long time);

    /**
     * Lists the records whose expiry time lies before a time.
     *
     * @param queue handle
     * @param currentTime in the unit of the Java evictor
     * @return addresses of the records, each with a pin that the caller drops; null when the list could not be made
     */
    public native long[] getTTLEvictionList(long queue, long currentTime);

    /**
     * Returns the earliest expiry time, or {@link Long#MAX_VALUE} for an empty queue; 0 for queue 0 or a failed lock.
     *
     * @param queue handle
     */
    public native long getMinimumTime(long queue);
}
