package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * The natives that move values to disk and back: one crossing a step, on the same internal operations as the contract's
 * own. All of them need a library that was started with disk overflow.
 *
 * <p>A <em>record</em> is the handle of an entry's native record; the caller holds a pin on it. A <em>payload</em> is what
 * is written to disk for a value: {@value #PAYLOAD_HEADER} bytes, of which the first is the value's type and the others
 * have no meaning, then the value's bytes.
 *
 * <p>A record's node lock and bucket-set lock belong to the thread that took them. Whoever holds a node must not call a
 * map.
 */
final class OverflowNatives {
    /** Bytes of a payload in front of the value's own. */
    static final int PAYLOAD_HEADER = 8;

    /** {@link #beginRead}: the value is in memory. */
    static final int IN_MEMORY = 1;

    /** {@link #beginRead}: the value is on disk. */
    static final int ON_DISK = 2;

    static {
        NativeLoader.load();
    }

    private OverflowNatives() {}

    /**
     * Moves the sweep on to the next entry whose value may go to disk. The calling thread then holds its locks until the
     * next call or {@code CacheIter.dispose}. Has to be followed by {@link #evicted} or {@link #keep}.
     *
     * @param out receives the payload's address and length in bytes; chunk position, chunk size and next chunk of the
     *     copy on disk, and 1 when there is one, otherwise 0; the bytes in use that dropping the value gives back
     * @return the record, pinned for the caller, or 0 at the end of the sweep
     */
    static native long nextEvictable(long[] out);

    /** The value stands on disk: drops it from memory, and the pin of {@link #nextEvictable}. */
    static native void evicted(long record, long chunkPosition, int chunkSize, long nextChunk);

    /** The value stays in memory: drops the pin of {@link #nextEvictable}. */
    static native void keep(long record);

    /**
     * Begins to read the value of a record, waiting for its node and its bucket set. Inside the gate of its partition.
     *
     * <p>In memory: its buffer is pinned for the caller ({@link MapNatives#unpin}) and {@code out} receives the buffer's
     * handle, the address of its first byte, its length in bytes, and the revision; nothing is locked. On disk: the node
     * is locked for this thread until {@code Overflow.unlockMetadata}, so that the copy on disk stays, and {@code out}
     * receives chunk position, chunk size, next chunk and revision.
     *
     * @return {@link #IN_MEMORY} or {@link #ON_DISK}; -1 with an exception pending when the node could not be locked
     */
    static native int beginRead(long record, long[] out);

    /**
     * Puts a value that was read from disk back into memory, unless the entry has changed since. The calling thread
     * holds no locks.
     *
     * @param payload what was read
     * @param chunkPosition where it was read from
     * @param revision the revision that it was read under
     * @param out null, or receives the address of the value's first byte and its length in bytes; the buffer is then
     *     pinned for the caller ({@link MapNatives#unpin}), whether or not the entry took it
     * @return with {@code out}, the buffer's handle, or 0 with an exception pending when memory was refused; without, 1
     *     when the value is back in memory, and 0 otherwise
     */
    static native long pageIn(long record, byte[] payload, long chunkPosition, long revision, long[] out);

    /** Drops a pin on a record that a lookup or a walk has taken for the caller. */
    static native void unpinRecord(long record);
}
