package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * Natives common to the queues of eviction records. A queue is a handle that natives do not check. Each native holds
 * the queue's mutex while it works, except {@link #getQueueCount}.
 */
public class LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapEvictionQueue() {}

    /**
     * Creates an empty queue.
     *
     * @return the queue handle, or 0 when the memory was refused
     */
    public native long allocateQueue();

    /**
     * Takes every record out of the queue and drops the queue's pins.
     *
     * @param queue handle
     * @return false when the lock failed
     */
    public native boolean clearQueue(long queue);

    /**
     * Clears and frees the queue. No other thread may be using the handle.
     *
     * @param queue handle
     * @return false when the queue could not be cleared, in which case it stays
     */
    public native boolean freeQueue(long queue);

    /**
     * Takes a record out of the queue and drops the queue's pins on it.
     *
     * @param queue handle
     * @param record address of the record
     * @return the number of records left, or -1
     */
    public native int remove(long queue, long record);

    /**
     * Fills an array from the head of the queue; a shorter queue leaves a 0 after its last record. Every record gains a
     * pin that the caller drops with {@link com.velt.rz.corvane.io.offheap.OffHeapManager#unpinLuEvictionData_native}.
     *
     * @param queue handle
     * @param out receives record addresses
     * @return false when nothing could be listed
     */
    public native boolean getEvictionList(long queue, long[] out);

    /**
     * Returns the number of records, read without the lock.
     *
     * @param queue handle
     */
    public native int getQueueCount(long queue);
}
