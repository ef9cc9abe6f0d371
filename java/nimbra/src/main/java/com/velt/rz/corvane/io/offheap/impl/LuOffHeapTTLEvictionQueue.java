package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * A queue in order of expiry time: the head is the next record to expire, and equal times stand in order of arrival.
 * Insert and move walk from the head past every record that does not expire later, so a record that expires last costs a
 * walk over the whole queue. Times are compared as signed numbers; their unit is the caller's.
 */
public class LuOffHeapTTLEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapTTLEvictionQueue() {}

    /**
     * Inserts a record by its expiry time, which becomes its ordering value. Walks from the head to its place.
     *
     * @param queue handle, or 0
     * @param record address of a record that is in no queue; the queue adds two pins of its own and leaves the caller's
     * @param time expiry, in the unit of the Java evictor
     * @return the number of records after the insert; 0 for queue 0; -1 when the lock failed
     */
    public native int insertTTL(long queue, long record, long time);

    /**
     * Gives a record a new expiry time and moves it to its new place, behind its equals. Walks from the head to that
     * place; no pin changes.
     *
     * @param queue handle, or 0
     * @param record address of a record in this queue
     * @param time expiry, in the unit of the Java evictor
     * @return false for queue 0 or when the lock failed
     * @throws IllegalStateException for a record that was in no queue; it is in this one afterwards
     */
    public native boolean updateTTL(long queue, long record, long time);

    /**
     * Lists the records whose expiry time lies before a time; one that expires at that very time is not yet listed. Walks
     * over the listed records and needs 8 bytes of native memory for each during the call. The expiration that {@link
     * LuOffHeapEvictionDataImpl#setExpiration} stores plays no part.
     *
     * @param queue handle, or 0
     * @param currentTime in the unit of the Java evictor
     * @return addresses of the records, the earliest first, each with a pin of reason 1024 for the caller, unlike those
     *     of the other lists; null for queue 0 or when a lock failed
     * @throws IllegalStateException when the memory was refused; nothing is pinned then
     */
    public native long[] getTTLEvictionList(long queue, long currentTime);

    /**
     * Returns the earliest expiry time, or {@link Long#MAX_VALUE} for an empty queue; 0 for queue 0 or a failed lock.
     * Constant.
     *
     * @param queue handle, or 0
     */
    public native long getMinimumTime(long queue);
}
