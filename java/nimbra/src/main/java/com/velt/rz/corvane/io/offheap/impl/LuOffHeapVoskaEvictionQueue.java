package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/** A queue that is searched as a whole for records that have expired, whatever their order. */
public class LuOffHeapVoskaEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapVoskaEvictionQueue() {}

    /**
     * Lists the records of the whole queue whose ordering value or expiration lies before a time. Always walks over the
     * whole queue, and needs 8 bytes of native memory for each listed record during the call. Set the expiration of
     * every record before it is queued: until then it is undefined.
     *
     * @param queue handle, or 0
     * @param currentTime in the unit of the Java evictor
     * @return addresses of the records in order of the queue, each with a pin of reason 513 for the caller; null for
     *     queue 0 or when the lock failed. A record whose expiration is put off during the call leaves a 0 at the end
     * @throws IllegalStateException when the memory was refused; nothing is pinned then
     */
    public native long[] getEvictionList(long queue, long currentTime);
}
