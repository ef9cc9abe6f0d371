package com.velt.rz.corvane.io.offheap.overflow;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.nio.ByteBuffer;

/**
 * The overflow state of single entries, and the reports of native code about them. Natives do not check addresses; the
 * caller has pinned the entry.
 */
public final class NOFStruct {
    static {
        NativeLoader.load();
    }

    private NOFStruct() {}

    /** Called by native code: see {@link OverflowHandler#updating}. */
    public static void updatingNative(long[] entry) {
        Overflow.handler().updating(entry);
    }

    /** Called by native code: see {@link OverflowHandler#deleting}. */
    public static void deletingNative(long[] entry) {
        Overflow.handler().deleting(entry);
    }

    /** Called by native code: see {@link OverflowHandler#accessed}. */
    public static void getOccurred(int[] entry) {
        Overflow.handler().accessed(entry);
    }

    /**
     * Reads the overflow state of an entry under its node lock: size, node flags, map id, map set id, value length, low
     * word of the chain link.
     *
     * @param value address of an entry that the caller has pinned, or 0
     * @return six elements, or null for address 0 or a failed lock
     */
    public static native int[] getOverflowState(long value);

    /**
     * Reads where the value lies on disk: offset, size, offset of the next chunk, value length in bytes; the first
     * three are 0 while it is not on disk.
     *
     * @param value address of an entry that the caller has pinned
     * @return four elements, or null when the lock failed
     */
    public static native long[] getChunkPtrAndSize(long value);

    /**
     * Drops the value block after it was written to disk. The caller holds the locks of bucket set and node.
     *
     * @param value address of an entry that the caller has pinned
     * @param chunkPtrOffset position of the chunk
     * @param chunkSize bytes of the chunk
     * @param nextChunkPtrOffset position of the next chunk
     * @return the entry
     */
    public static native long evictedToDisk(long value, long chunkPtrOffset, int chunkSize, long nextChunkPtrOffset);

    /**
     * Puts a value that was read back from disk into its entry, which takes the block over. The caller holds the locks
     * of bucket set and node.
     *
     * @param buffer buffer of kind 4
     * @param value address of the entry
     */
    public static native void valueToLuOffHeapValue(ByteBuffer buffer, long value);

    /**
     * Tries to lock node and bucket set of an entry without waiting.
     *
     * @param value address of an entry that the caller has pinned
     * @return element 0 is 1 when both are now held by this thread; then offset, size and offset of the next chunk
     *     follow
     */
    public static native long[] lockValidAndGetChunkPtr(long value);

    /**
     * Stores the position of the chunk. The caller holds the locks.
     *
     * @param value address of an entry that the caller has pinned
     * @param offset position of the chunk
     * @return address of the node
     */
    public static native long setChunkPtrOffset(long value, long offset);

    /**
     * Stores the position of the next chunk. The caller holds the locks.
     *
     * @param value address of an entry that the caller has pinned
     * @param offset position of the chunk
     * @return address of the node
     */
    public static native long setNextChunkPtrOffset(long value, long offset);
}
