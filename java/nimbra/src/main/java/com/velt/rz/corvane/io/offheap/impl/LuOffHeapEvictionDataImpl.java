package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.nio.ByteBuffer;

/**
 * Natives over eviction records: what an evictor knows about one entry. A record pins the entry's key, is itself pinned
 * by its holders, and dies with its last pin, which also drops its pin on the key. Addresses are not checked.
 *
 * <p>A record's usual life: it is created with a pin of reason 2097152; one of the entry's two slots takes a pin with
 * {@link com.velt.rz.corvane.io.offheap.OffHeapManager#setEvictionData_native}; a queue takes two; the creator drops its
 * own with {@link com.velt.rz.corvane.io.offheap.OffHeapManager#unpinLuEvictionData_native} and that reason. When the
 * entry goes, the queue's pins are dropped by {@link LuOffHeapEvictionQueue#remove} and the slot's by clearing the slot
 * or by the end of the entry. A queue does not watch the slots: an entry that is freed leaves its record in the queue.
 *
 * <p>Pins are counted atomically. The fields are read and written without a lock: the callers order these accesses.
 * Every native here is constant in cost.
 */
public class LuOffHeapEvictionDataImpl {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: records are named by their addresses. */
    public LuOffHeapEvictionDataImpl() {}

    /**
     * Creates an eviction record that pins the key. Its ordering value is 0; expiration and timeout are undefined until
     * they are set.
     *
     * @param ignored not used
     * @param key buffer of this library, which keeps the pins of its other holders
     * @param countKeyHeader whether the key block counts as internal metadata while the record lives
     * @return the record with a pin of reason 2097152 for the caller, dropped with {@link
     *     com.velt.rz.corvane.io.offheap.OffHeapManager#unpinLuEvictionData_native}
     * @throws IllegalStateException when the memory was refused
     * @throws OutOfMemoryError when another thread used up the rest meanwhile
     */
    public native long allocateAndPinEvictionData(long ignored, ByteBuffer key, boolean countKeyHeader);

    /**
     * Returns a new buffer over the key block that the record pins. Its capacity is the length of the key in bytes. The
     * buffer adds no pin: it is valid while the record or another holder keeps the key.
     *
     * @param ignored not used
     * @param record address of a record that the caller has pinned
     */
    public native ByteBuffer getEvictionKey(long ignored, long record);

    /**
     * Stores the ordering value: number of uses for LFU, expiry time for TTL. While the record is in an ordered queue
     * only that queue's own natives may change it: the order would be lost.
     *
     * @param ignored not used
     * @param record address of a record that the caller has pinned
     * @param metadata in the unit of the Java evictor
     * @return true
     */
    public native boolean setMetadata(long ignored, long record, long metadata);

    /**
     * Returns the ordering value.
     *
     * @param ignored not used
     * @param record address of a record that the caller has pinned
     */
    public native long getMetadata(long ignored, long record);

    /**
     * Stores the expiration time.
     *
     * @param ignored not used
     * @param record address of a record that the caller has pinned
     * @param expiration in the unit of the Java evictor
     * @return true
     */
    public native boolean setExpiration(long ignored, long record, long expiration);

    /**
     * Returns the expiration time; undefined before it was set.
     *
     * @param ignored not used
     * @param record address of a record that the caller has pinned
     */
    public native long getExpiration(long ignored, long record);

    /**
     * Stores the timeout.
     *
     * @param record address of a record that the caller has pinned, or 0
     * @param timeout in the unit of the Java evictor
     * @return false for address 0
     */
    public native boolean setTimeout(long record, int timeout);

    /**
     * Returns the timeout; undefined before it was set.
     *
     * @param record address of a record that the caller has pinned
     */
    public native int getTimeout(long record);

    /**
     * Returns the record's pin count, the whole 64-bit word.
     *
     * @param record address of a record that the caller has pinned
     */
    public native long getReferenceCount(long record);
}
