package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * Natives common to the queues of eviction records. A queue is a handle that natives do not check. Each native holds
 * the queue's mutex while it works, except {@link #getQueueCount}, and takes no other lock. The handle carries no kind:
 * a queue that LFU and TTL natives share is ordered by whatever they store.
 *
 * <p>A queue holds two pins on each record, and drops them when the record leaves: a record that nobody else holds is
 * then freed with its pin on the key. Lists add one pin to each record for the caller, taken under the mutex and dropped
 * with {@link com.velt.rz.corvane.io.offheap.OffHeapManager#unpinLuEvictionData_native}: with reason 513 for {@link
 * #getEvictionList} and {@link LuOffHeapVoskaEvictionQueue#getEvictionList}, with 1024 for {@link
 * LuOffHeapTTLEvictionQueue#getTTLEvictionList}.
 *
 * <p>A record is in at most one queue. One that was removed from between two others keeps its own links: an LRU insert
 * then takes it for queued and refuses it, an LFU or TTL insert writes them anew, and a second removal damages the
 * queue. Remove a record once, and give an entry that comes back a new record.
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
     * @return the queue handle, released with {@link #freeQueue}
     * @throws IllegalStateException when the memory was refused
     */
    public native long allocateQueue();

    /**
     * Takes every record out of the queue, from the tail on, and drops the queue's pins.
     *
     * @param queue handle, or 0
     * @return false for handle 0 or when the lock failed
     */
    public native boolean clearQueue(long queue);

    /**
     * Clears and frees the queue. No other thread may be using the handle.
     *
     * @param queue handle, or 0
     * @return false for handle 0 or when the queue could not be cleared, in which case it stays
     */
    public native boolean freeQueue(long queue);

    /**
     * Takes a record out of the queue and drops the queue's two pins on it. Constant, wherever it stands.
     *
     * @param queue handle
     * @param record address of a record that the caller has pinned
     * @return the number of records left; -1 when the lock failed
     * @throws IllegalStateException for a record that is in no queue; nothing has changed
     */
    public native int remove(long queue, long record);

    /**
     * Fills an array from the head of the queue, the records to be evicted first. Costs in proportion to the array, and
     * needs 8 bytes of native memory for each of its elements during the call.
     *
     * @param queue handle
     * @param out receives record addresses, each with a pin of reason 513 for the caller; a shorter queue leaves a 0
     *     after its last record, and nothing behind the first 0 has a meaning
     * @return false when the lock failed
     * @throws IllegalStateException when the memory was refused; nothing is pinned then
     */
    public native boolean getEvictionList(long queue, long[] out);

    /**
     * Returns the number of records, read without the lock: another thread may just be changing it.
     *
     * @param queue handle
     */
    public native int getQueueCount(long queue);
}
