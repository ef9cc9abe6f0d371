package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.nio.ByteBuffer;

/**
 * The natives behind bounded and expiring maps and behind the queries by revision: the counterparts of {@link
 * MapNatives} that also keep the eviction queues and the map's bound, each in one crossing.
 *
 * <p>{@code map} is a native map handle, {@code bound} a bound of {@link #allocateBound}, {@code queue} the eviction
 * queue of the partition's size policy or 0, {@code ttl} its time queue or 0. {@code policy} is {@link #NO_POLICY},
 * {@link #LRU} or {@link #LFU}. Nothing here checks a handle: the caller keeps all of them from being freed while a call
 * is inside. A bound may be shared by the partitions of one map; a queue belongs to one partition.
 *
 * <p>{@code now} and deadlines are nanoseconds of the map's ticker. An entry is expired when its deadline is not after
 * {@code now}; an expired entry counts as absent. Lengths are in bytes. Every call copies its arrays and leaves no pin
 * behind, except where it says so. Any thread may call, unless it says otherwise.
 */
final class BoundedNatives {
    static {
        NativeLoader.load();
    }

    /** The map has no size policy. */
    static final int NO_POLICY = 0;

    /** The least recently used entry goes first. */
    static final int LRU = 1;

    /** The least frequently used entry goes first. */
    static final int LFU = 2;

    /** {@link #put}: store in any case. */
    static final int PUT = 0;

    /** {@link #put}: store unless the key is present. */
    static final int PUT_IF_ABSENT = 1;

    /** {@link #put}: store only when the key is present. */
    static final int REPLACE = 2;

    /** {@link #put} found no room inside the bound; nothing changed. */
    static final int NO_ROOM = -2;

    /** Given to {@link #get} and {@link #pin} as the new deadline: leave the deadline as it is. */
    static final long KEEP_DEADLINE = Long.MIN_VALUE;

    private BoundedNatives() {}

    /**
     * Makes a bound: limits and live figures that all partitions of one map share.
     *
     * @param maximumBytes most bytes of the entries, as {@link OffHeapMap#bytesUsed} counts them; 0 or {@link
     *     Long#MAX_VALUE} for no limit
     * @param maximumEntries most entries; 0 or {@link Long#MAX_VALUE} for no limit
     * @return the bound, to be freed by {@link #freeBound}; or 0, with an exception pending, when memory was refused
     */
    static native long allocateBound(long maximumBytes, long maximumEntries);

    /** Frees a bound that no map uses any more. */
    static native void freeBound(long bound);

    /** Returns the reserved bytes of the live entries. Never above the limit, at no moment. */
    static native long bytes(long bound);

    /** Returns the number of live entries. Never above the limit, at no moment. */
    static native long entries(long bound);

    /**
     * Stores the entry as {@code mode} says, marks it used and puts it into its queues.
     *
     * @param mode {@link #PUT}, {@link #PUT_IF_ABSENT} or {@link #REPLACE}
     * @return 1 when inserted ({@link #REPLACE}: when replaced); 0 when replaced ({@link #PUT}), present ({@link
     *     #PUT_IF_ABSENT}) or absent ({@link #REPLACE}); -1 when refused, with an exception pending unless the allocator
     *     itself had nothing left; {@link #NO_ROOM} when the bound has no room
     */
    static native int put(
            long map,
            long bound,
            long queue,
            int policy,
            long ttl,
            byte[] key,
            int hash,
            byte[] value,
            long revision,
            long now,
            long deadline,
            int mode);

    /**
     * Copies the value of a key, marks the entry used and moves its deadline.
     *
     * @param newDeadline the deadline from now on, or {@link #KEEP_DEADLINE}
     * @param onDisk as in {@link MapNatives#get}
     * @return a new array, or null when the key is absent or expired, or its value on disk
     */
    static native byte[] get(
            long map,
            long queue,
            int policy,
            long ttl,
            byte[] key,
            int hash,
            long now,
            long newDeadline,
            long[] onDisk);

    /**
     * Pins the value buffer of a key for the caller as {@link MapNatives#pin} does, marks the entry used and moves its
     * deadline. Dropped by {@link MapNatives#unpin}.
     *
     * @param newDeadline the deadline from now on, or {@link #KEEP_DEADLINE}
     * @param out receives the address of the value's first byte, its length, and the revision
     * @return the handle of the pinned buffer, or 0 when the key is absent or expired; for a value on disk as in {@link
     *     MapNatives#pin}
     */
    static native long pin(
            long map, long queue, int policy, long ttl, byte[] key, int hash, long now, long newDeadline, long[] out);

    /** Returns whether the key is present and not expired. Marks nothing used and moves no deadline. */
    static native boolean containsKey(long map, byte[] key, int hash, long now);

    /**
     * Removes the entry. Its buffers are freed with their last pin.
     *
     * @return 1 when removed; 0 when the key was absent, or expired, in which case it is removed all the same; -1 when a
     *     lock failed
     */
    static native int remove(long map, long bound, long queue, long ttl, byte[] key, int hash, long now);

    /**
     * Removes up to {@code count} entries from the head of a queue. Each fills five elements of {@code out} as {@link
     * MapNatives#scan} does, with the key and value buffers pinned for the caller until {@link MapNatives#unpinAll}.
     *
     * @param byDeadline false: from {@code queue}, the least recently or least frequently used first; true: from {@code
     *     ttl}, only entries that are expired
     * @return the number of entries removed, at most {@code out.length / 5}
     */
    static native int evict(
            long map, long bound, long queue, long ttl, int count, boolean byDeadline, long now, long[] out);

    /**
     * Removes all entries. No other call may be inside the partition.
     *
     * @return false when a lock failed
     */
    static native boolean clear(long map, long bound, long queue, long ttl);

    /**
     * Finds the entries of one partition with {@code start < revision <= end}, at most {@code end - start} of them, and
     * pins the value record, the key buffer and the value buffer of each for the caller until {@link #releaseQueried}.
     *
     * @param result a direct buffer of {@code 8 + 72 * (end - start)} bytes, filled with 64-bit words in the platform's
     *     byte order: the count, then nine for each entry: value record, key address, key length, value address, value
     *     length, owner, revision, key type, value type
     * @param bookmark index of the reader whose place in the revision queue is used and moved, or -1 for none
     */
    static native void query(long map, ByteBuffer result, int bookmark, long start, long end);

    /** Drops what {@link #query} pinned for one entry. Exactly once for each. */
    static native void releaseQueried(long valueRecord, long keyData, long valueData);
}
