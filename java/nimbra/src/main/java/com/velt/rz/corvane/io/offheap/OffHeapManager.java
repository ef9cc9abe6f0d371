package com.velt.rz.corvane.io.offheap;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.nio.ByteBuffer;

/**
 * The library's start-up, its limits and figures, and the blocks behind direct buffers.
 *
 * <p>A block carries a pin count; whoever drops the last pin frees it. Reason codes name the holder in traces and have
 * no other effect. Natives do not check addresses: a wrong one ends the process.
 *
 * <p>Every method may be called from any thread; pin counts and counters change atomically.
 */
public class OffHeapManager {
    static {
        NativeLoader.load();
    }

    /** Makes an object without state: all of them share the one native library. */
    public OffHeapManager() {}

    /**
     * Starts the library: fetches the trace level, sets the limits and caches the Java methods that native code calls
     * back. Meant to run once, on one thread, before any other native; a second call overwrites the limits.
     *
     * @param max most bytes the library may hold; 97 % of it is the hard cap
     * @param trimThreshold bytes; written to the trace, otherwise unused
     * @param mmapThreshold bytes; written to the trace, otherwise unused
     * @param isDiskOverflowEnabled whether values may be moved to disk by the Java side
     * @return false when a part of the start-up failed; the exception that says why may then be pending
     */
    public native boolean initializeOffHeap(
            long max, long trimThreshold, long mmapThreshold, boolean isDiskOverflowEnabled);

    /**
     * Writes a trace record. Nothing is released: memory is returned by dropping pins, never by this call.
     *
     * @return true
     */
    public native boolean finalizeOffHeap();

    /** Returns the build string of the native library. */
    public native String getLibraryVersion();

    /**
     * Makes native code fetch the level word from {@link
     * com.velt.rz.corvane.io.offheap.util.OffHeapLogger#getLogLevel()} again. A level changed in Java takes effect in
     * native code only through this call or a new start.
     */
    public native void setLogLevel();

    /** Returns the physical memory of the machine in bytes. */
    public native long getSystemTotalMemory();

    /** Returns the maximum in bytes; 0 before the library was initialised. */
    public native long getCurrentMaxOffHeapSize();

    /**
     * Replaces the maximum and, with it, the hard cap. The value is not checked.
     *
     * @param max the new maximum in bytes
     * @return the previous maximum in bytes
     */
    public native long setCurrentMaxOffHeapSize(long max);

    /** Returns the number of live native blocks, internal records included. */
    public native long getAllocatingCountInOffHeap();

    /**
     * Returns the bytes in use as the allocator counts them (whole pages), or the internal byte count while that is on.
     */
    public native long getAllocatingSizeInOffHeap();

    /** Returns the bytes that the library uses for its own structures: tables, queues, iterator buffers. */
    public native long getAllocatingInternalMetadataSize();

    /**
     * Switches between the allocator's figure and the library's own byte count as the size in use. The count is not
     * reset: frees of blocks that were allocated while it was off lower it below zero.
     *
     * @param on true to count bytes internally
     */
    public native void setInternalTracking(boolean on);

    /** Returns the allocator's full statistics report as text. */
    public native String getJemallocStats();

    /**
     * Allocates a pinned native block and wraps its data area.
     *
     * @param size length of the data area in bytes; for kind 4 the length of a stored image, 24 bytes more than the
     *     data
     * @param unchecked non-zero skips every limit
     * @param kind 0 plain, 1 key, 2 value, 3 revision-query result, 4 value read back from disk
     * @return a direct buffer whose block holds one pin that the caller owns (kind 3: no pin, released only by {@link
     *     #freeDirectInternal}), or null when the memory was refused
     * @throws IllegalStateException when the size in use would reach the maximum
     * @throws OutOfMemoryError when another thread used up the rest while the block was being allocated
     */
    public native ByteBuffer allocateDirectFromOffHeap(int size, byte unchecked, byte kind);

    /**
     * Adds one pin to the block behind a buffer; the caller owns it and drops it with {@link #unpinToFree}.
     *
     * @param buffer a buffer allocated by {@link #allocateDirectFromOffHeap}
     * @param reason names the holder in traces; has no other effect
     * @return true
     */
    public native boolean pinJavaByteBuffer(ByteBuffer buffer, int reason);

    /**
     * Adds one pin to a native record; the caller owns it.
     *
     * @param address start of the record (not of its data area)
     * @param reason names the holder in traces; has no other effect
     * @return the new pin count
     */
    public native long pin_native(long address, int reason);

    /**
     * Drops one pin of a buffer block; the block is freed when it was the last.
     *
     * @param address start of the block's header, 24 bytes below its data
     * @param reason names the holder in traces; has no other effect
     * @return the new pin count
     */
    public native long unpin_native(long address, int reason);

    /**
     * Drops one pin of the block behind a buffer; the block is freed when it was the last. The buffer object must not
     * be used afterwards.
     *
     * @param buffer a buffer allocated by {@link #allocateDirectFromOffHeap}
     * @param reason names the holder in traces; has no other effect
     * @return false when the buffer has no direct address
     */
    public native boolean unpinToFree(ByteBuffer buffer, int reason);

    /**
     * Drops one pin of every buffer, in index order.
     *
     * @param buffers buffers allocated by {@link #allocateDirectFromOffHeap}
     * @param reason names the holder in traces; has no other effect
     * @return true
     */
    public native boolean freeAllToOffHeap(ByteBuffer[] buffers, int reason);

    /**
     * Frees a block of kind 3 at once, whatever its pin count, and takes it off the internal-metadata figure.
     *
     * @param buffer a revision-query result buffer
     */
    public native void freeDirectInternal(ByteBuffer buffer);

    /**
     * Returns the type tag of a block, 0 to 255.
     *
     * @param buffer a buffer allocated by {@link #allocateDirectFromOffHeap}
     */
    public native int getOffHeapByteBufferDeserializedType(ByteBuffer buffer);

    /**
     * Replaces the type tag of a block.
     *
     * @param buffer a buffer allocated by {@link #allocateDirectFromOffHeap}
     * @param type the tag; only its low 8 bits are kept
     * @return the previous tag
     */
    public native int setOffHeapByteBufferDeserializedType(ByteBuffer buffer, int type);

    /**
     * Returns the pin count of the block behind a buffer.
     *
     * @param buffer a buffer allocated by {@link #allocateDirectFromOffHeap}
     */
    public native long getReferenceCountImpl(ByteBuffer buffer);

    /**
     * Returns the pin count of any native record.
     *
     * @param address start of the record; not checked
     */
    public native long getReferenceCountImpl(long address);

    /**
     * Returns the address of a buffer's first data byte.
     *
     * @param buffer a direct buffer
     */
    public native long getOffHeapAddressImpl(ByteBuffer buffer);

    /**
     * Copies from the start of a buffer's data area. Nothing is checked: both sides must hold {@code length} bytes.
     *
     * @param length number of bytes
     */
    public native void copyByteBufferToByteArray(ByteBuffer source, byte[] target, int length);

    /**
     * Decodes big-endian UTF-16 units from the start of a buffer's data area. Nothing is checked.
     *
     * @param unused1 ignored: decoding starts at the first byte
     * @param unused2 ignored
     * @param unused3 ignored
     * @param count number of characters
     */
    public native void getChars(ByteBuffer source, int unused1, int unused2, int unused3, char[] target, int count);

    /**
     * Wraps 2147483647 bytes from an address, whatever lies there. The buffer object is kept alive by the library for
     * ever; use {@link com.velt.rz.corvane.io.offheap.util.PhantomWindows}, which asks once for each stretch of memory.
     *
     * @param address any native address
     * @return the buffer, or null when the virtual machine cannot make it
     */
    public native ByteBuffer allocatePhantom(long address);

    /** Returns the reported size of a block's header record in bytes. Data begins 24 bytes after the header's start. */
    public native int getSize_ByteBufferHeader();

    /**
     * Size of the pin count in bytes. The library exports it under a C++ name only: a call throws {@link
     * UnsatisfiedLinkError}.
     */
    public static native int getSize_Pinnable();

    /** Writes the report of recorded pins and unpins to the trace. */
    public native void pinTrack();

    /** Returns the size in bytes of the default hash table entry. */
    public static native int getSize_DefaultEntry();

    /**
     * Drops one pin of an entry or of an update's snapshot; the last one frees it and drops its pins on its key, its
     * value and the eviction records in its slots.
     *
     * @param value address of the entry
     * @param reason names the holder in traces; has no other effect
     * @return the remaining pins
     */
    public native int unpinLuOffHeapValue_native(long value, int reason);

    /**
     * Returns the entry that an update's snapshot stands for, or 0 without disk overflow.
     *
     * @param value address of the snapshot
     */
    public native long getOriginalLuValue(long value);

    /** Returns the size of an entry record in bytes, without key and value: 88, or 232 while disk overflow is on. */
    public native int getSize_LuValue();

    /** Returns 1, the bytes that an entry is said to need beside its record. */
    public native int getSize_PerEntryMetadata();

    /**
     * Puts an eviction record into one of an entry's two slots. The slot adds a pin of its own to the new record, then
     * drops its pin on the old one, which may free that; the caller's pins stay. One record may be in both slots. No
     * lock is taken: callers serialise changes and reads of one entry's slots.
     *
     * @param value address of an entry that the caller has pinned
     * @param record address of the eviction record, or 0 to clear the slot
     * @param forTTL true for the time-to-live slot
     * @return false when the slot already held that record
     */
    public native boolean setEvictionData_native(long value, long record, boolean forTTL);

    /**
     * Returns the eviction record in a slot, with a pin of reason 1024 for the caller, dropped with {@link
     * #unpinLuEvictionData_native}; 0 when there is none.
     *
     * @param value address of an entry that the caller has pinned, or 0
     * @param forTTL true for the time-to-live slot
     */
    public native long getEvictionData_native(long value, boolean forTTL);

    /**
     * Adds one pin to an eviction record; the caller owns it and drops it with {@link #unpinLuEvictionData_native}.
     *
     * @param record address of a record that somebody holds during the call
     * @param reason names the holder in traces; has no other effect
     * @return the new pin count
     */
    public native int pinLuEvictionData_native(long record, int reason);

    /**
     * Drops one pin of an eviction record; the last one frees it and drops its pin on the key.
     *
     * @param record address of the record
     * @param reason names the holder in traces; has no other effect
     * @return the remaining pins
     */
    public native int unpinLuEvictionData_native(long record, int reason);

    /** Writes the collected timing samples to the trace. */
    public native void printProfileStats();
}
