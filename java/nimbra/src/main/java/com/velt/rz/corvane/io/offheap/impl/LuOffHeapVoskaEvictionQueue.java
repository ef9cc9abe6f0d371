package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/** A queue that is searched as a whole for records that have expired. */
public class LuOffHeapVoskaEvictionQueue extends LuOffHeapEvictionQueue {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: queues are named by their handles. */
    public LuOffHeapVoskaEvictionQueue() {}

    /**
     * Lists the records of the whole queue whose ordering value or expiration lies before a time.
     *
     * @param queue handle
     * @param currentTime in the unit of the Java evictor
     * @return addresses of the records, each with a pin that the caller drops; null when the list could not be made
     */
    public native long[] getEvictionList(long queue, long currentTime);
}
