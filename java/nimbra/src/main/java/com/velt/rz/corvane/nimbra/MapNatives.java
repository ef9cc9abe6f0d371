package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/**
 * The natives of the map face: one crossing an operation, with the copy made or the pin taken while
 * the entry's bucket set is held.
 *
 * <p>{@code map} is always a native map handle, as {@code LuOffHeapMapImpl.allocateLuOffHeapMap}
 * returns it. Nothing here checks a handle: the caller keeps the map from being deleted while a call
 * is inside. Keys are stored as opaque bytes; {@code hash} is the caller's hash of the key and has
 * to be the same on every call with that key. Every call copies its arrays and leaves no pin behind,
 * except {@link #pin} and {@link #scan}, whose pins belong to the caller. Any thread may call.
 *
 * <p>A write that the memory limits refuse returns -1, usually with an {@link
 * IllegalStateException} or {@link OutOfMemoryError} pending; without one, the allocator itself had
 * nothing left. A refused write has changed nothing.
 */
final class MapNatives {
    static {
        NativeLoader.load();
    }

    private MapNatives() {}

    /**
     * Inserts the entry or replaces its value.
     *
     * @return 1 when the key was new, 0 when its value was replaced, -1 when refused
     */
    static native int put(long map, byte[] key, int hash, byte[] value, long revision);

    /**
     * Inserts the entry unless the key is present.
     *
     * @return 1 when inserted, 0 when the key was present, -1 when refused
     */
    static native int putIfAbsent(long map, byte[] key, int hash, byte[] value, long revision);

    /**
     * Replaces the value of a key that is present.
     *
     * @return 1 when replaced, 0 when the key was absent, -1 when refused
     */
    static native int replace(long map, byte[] key, int hash, byte[] value, long revision);

    /**
     * Copies the value of a key.
     *
     * @param onDisk null without disk overflow; otherwise element 0 receives the entry's record, pinned for the caller
     *     ({@link OverflowNatives#unpinRecord}), when the value is on disk, and is left alone when it is not
     * @return a new array, or null when the key is absent or its value on disk
     */
    static native byte[] get(long map, byte[] key, int hash, long[] onDisk);

    /**
     * Removes the entry. Its buffers are freed with their last pin.
     *
     * @return 1 when removed, 0 when the key was absent, -1 when a lock failed
     */
    static native int remove(long map, byte[] key, int hash);

    /** Whether the key is present. */
    static native boolean containsKey(long map, byte[] key, int hash);

    /**
     * Pins the value buffer of a key for the caller. The buffer stays readable and unchanged until
     * {@link #unpin}, whatever happens to the entry or to its map.
     *
     * @param out receives the address of the value's first byte, its length in bytes, and the revision
     * @return the handle of the pinned buffer, or 0 when the key is absent; for a value on disk, minus the entry's record,
     *     pinned for the caller ({@link OverflowNatives#unpinRecord})
     */
    static native long pin(long map, byte[] key, int hash, long[] out);

    /** Drops a pin of {@link #pin}; the last pin frees the buffer. Exactly once for each pin. */
    static native void unpin(long handle);

    /**
     * One bounded step of a walk over all entries of a map.
     *
     * <p>Each entry fills five elements of {@code out}: address of the key's first byte, key length,
     * address of the value's first byte, value length, revision; lengths are in bytes. Its key and
     * value buffers are pinned for the caller until {@link #unpinAll}. For a value on disk, 0 and the entry's record, which
     * is pinned likewise, stand in place of its address and length; who unpins that himself writes 0 there. An entry that is present during
     * the whole walk is seen exactly once, also while the table grows.
     *
     * @param cursor two elements, {@code {0, 0}} at the start; element 0 is -1 after the last step
     * @param out receives the entries; its length bounds the step
     * @return the number of entries written, which may be 0 before the end; or, when one bucket alone
     *     holds more entries than fit, minus the number of entries that {@code out} has to hold, with
     *     nothing pinned and the cursor unmoved
     */
    static native int scan(long map, long[] cursor, long[] out);

    /** Drops the pins of the entries {@code [from, from + count)} of a {@link #scan} result. */
    static native void unpinAll(long[] out, int from, int count);

    /** The hard cap in bytes, which the limits derive from the maximum. */
    static native long hardCapLimit();
}
