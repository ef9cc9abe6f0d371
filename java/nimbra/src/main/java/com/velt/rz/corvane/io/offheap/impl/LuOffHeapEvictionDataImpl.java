package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.nio.ByteBuffer;

/**
 * Natives over eviction records: what an evictor knows about one entry. A record pins the entry's key, is itself pinned
 * by its holders, and dies with its last pin. Only the pin count is safe to change from several threads at once.
 */
public class LuOffHeapEvictionDataImpl {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: records are named by their addresses. */
    public LuOffHeapEvictionDataImpl() {}

    /**
     * Creates an eviction record that pins the key.
     *
     * @param ignored not used
     * @param key buffer of this library
     * @param countKeyHeader whether the key block counts as internal metadata while the record lives
     * @return the record with one pin that the caller owns, or 0 when the memory was refused
     */
    public native long allocateAndPinEvictionData(long ignored, ByteBuffer key, boolean countKeyHeader);

    /**
     * Returns a new buffer over the key block that the record pins. Its capacity is the length of the key in bytes.
     *
     * @param ignored not used
     * @param record address of a record that the caller has pinned
     */
    public native ByteBuffer getEvictionKey(long ignored, long record);

    /**
     * Stores the ordering value: uses for LFU, expiry time for TTL. Never change it while the record is queued.
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
     * Returns the record's pin count.
     *
     * @param record address of a record that the caller has pinned
     */
    public native long getReferenceCount(long record);
}
