package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.nio.ByteBuffer;

/**
 * The natives of {@link MapNatives} for short keys and values, whose bytes stand in memory of the calling thread.
 *
 * <p>What {@link MapNatives} says of handles, hashes, pins and refusals holds here. {@code memory} is the address of a
 * {@link CallMemory} that no other thread uses meanwhile, with the key and, for writes, the value in it; lengths are in
 * bytes and at most what the memory holds.
 */
final class CallNatives {
    static {
        NativeLoader.load();
    }

    private CallNatives() {}

    /** Returns the address of a direct buffer's first byte. */
    static native long address(ByteBuffer memory);

    /**
     * Returns the address of the stamps of all bucket sets, 1,024 of 64 bytes each, or 0 when nothing may be read
     * without a lock: memory that was freed might become inaccessible, or the layouts are not those of {@link
     * UnlockedReads}.
     */
    static native long stamps();

    /** Returns the address of the trace levels, one byte each in the order of their numbers. */
    static native long traceLevels();

    /** Returns the address of a map's bucket sets, which follow each other; valid as long as the map. */
    static native long bucketSets(long map);

    /**
     * Copies the value of a key to the memory.
     *
     * @return its length; {@link CallMemory#ABSENT}; or {@link CallMemory#ORDINARY} when the value is too long, is on
     *     disk, or stands behind a lock that cannot be had
     */
    static native int get(long map, long memory, int keyLength, int hash);

    /** As {@link MapNatives#pin}; address, length and revision are left in the memory. */
    static native long pin(long map, long memory, int keyLength, int hash);

    /** As {@link MapNatives#containsKey}. */
    static native boolean containsKey(long map, long memory, int keyLength, int hash);

    /** As {@link MapNatives#remove}. */
    static native int remove(long map, long memory, int keyLength, int hash);

    /**
     * As {@link MapNatives#put}, or {@link CallMemory#ORDINARY} when the thread used its memory again, in a callback,
     * before the value was read.
     */
    static native int put(long map, long memory, int keyLength, int hash, int valueLength, long revision);

    /** As {@link MapNatives#putIfAbsent}, or {@link CallMemory#ORDINARY}, as {@link #put}. */
    static native int putIfAbsent(long map, long memory, int keyLength, int hash, int valueLength, long revision);

    /** As {@link MapNatives#replace}, or {@link CallMemory#ORDINARY}, as {@link #put}. */
    static native int replace(long map, long memory, int keyLength, int hash, int valueLength, long revision);
}
