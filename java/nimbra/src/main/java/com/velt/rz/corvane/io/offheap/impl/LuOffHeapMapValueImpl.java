package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * Reads the native record of a map entry or of an update's snapshot. The caller holds a pin on it during every call, and
 * no native adds one. None takes a lock, except {@link #getSize} while disk overflow is on, and none checks the address
 * beyond what it says. Every native is constant in cost and raises nothing.
 */
public class LuOffHeapMapValueImpl {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: entries are named by their addresses. */
    public LuOffHeapMapValueImpl() {}

    /**
     * Returns the hash code that the entry is stored under.
     *
     * @param value address of an entry that the caller has pinned
     */
    public native int getKeyHashCode(long value);

    /**
     * Returns 1 when the value is in memory, 0 when it is on disk or absent, -1 for address 0.
     *
     * @param value address of an entry that the caller has pinned, or 0
     */
    public native int isValueInMemory(long value);

    /**
     * Returns the number of the revision queue that the entry belongs to, 0 to 65535.
     *
     * @param value address of an entry that the caller has pinned
     */
    public native int getRevisionOwner(long value);

    /**
     * Returns the revision of the entry.
     *
     * @param value address of an entry that the caller has pinned
     */
    public native long getRevisionNumber(long value);

    /**
     * Returns the entry's pin count.
     *
     * @param value address of an entry that the caller has pinned
     */
    public native long getReferenceCount(long value);

    /**
     * Length of the key in bytes. The library exports it under a C++ name only: a call throws {@link
     * UnsatisfiedLinkError}.
     */
    public native int getKeyLength(long value);

    /**
     * Reads where the key lies. Addresses stay valid while the entry is pinned.
     *
     * @param value address of an entry that the caller has pinned
     * @param out three elements: key address, key length in bytes, hash code
     * @return 1
     */
    public native int getKeyInfo(long value, long[] out);

    /**
     * Returns the type tag of the key, 0 to 255.
     *
     * @param value address of an entry that the caller has pinned
     */
    public native int getKeyType(long value);

    /**
     * Reads where the value lies, without a lock. The value must be in memory, and an update by another thread may
     * replace and free it: pin it, or keep writers away, before reading through the address.
     *
     * @param value address of an entry that the caller has pinned, or 0
     * @param unused ignored
     * @param out two elements: value address, value length in bytes
     * @return 0 for address 0, otherwise 1
     */
    public native int getValueInfo(long value, int unused, long[] out);

    /**
     * Reads where the value lies, as {@link #getValueInfo} does.
     *
     * @param value address of an entry that the caller has pinned, or 0
     * @param out two elements: value address, value length in bytes
     * @return 0 for address 0, otherwise 1
     */
    public static native int staticGetValueInfo(long value, long[] out);

    /**
     * Returns the type tag of the value, 0 to 255, or -1 for address 0. The value must be in memory.
     *
     * @param value address of an entry that the caller has pinned, or 0
     */
    public native int getValueType(long value);

    /**
     * Sets the dirty flag, which every entry is born with. The flag word is changed without a lock or an atomic: the
     * caller keeps other changes of the same entry away.
     *
     * @param value address of an entry that the caller has pinned
     * @return whether it was set before
     */
    public native boolean markClientDirty(long value);

    /**
     * Clears the dirty flag, under the same condition as {@link #markClientDirty}.
     *
     * @param value address of an entry that the caller has pinned
     * @return whether it was set before
     */
    public native boolean unmarkClientDirty(long value);

    /**
     * Tells whether the dirty flag is set.
     *
     * @param value address of an entry that the caller has pinned
     */
    public native boolean isClientDirty(long value);

    /**
     * Returns the bytes of the entry as allocated: record, key and value blocks, headers and rounding included. A value
     * on disk counts with the length that it had.
     *
     * @param value address of an entry that the caller has pinned
     */
    public native long getSize(long value);
}
