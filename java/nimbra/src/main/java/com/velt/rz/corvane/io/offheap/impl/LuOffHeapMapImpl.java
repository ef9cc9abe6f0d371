package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;
import java.util.Objects;

/**
 * Natives over hash maps of native entries, and the callbacks with which native code compares keys that only Java
 * understands.
 *
 * <p>A map is a handle: the address of a native record. Natives do not check handles, and a handle must not be used
 * once {@link #deleteLuOffHeapMap} was called. Every native may be called from any thread; inserts and updates of one
 * map exclude each other, lookups and removals lock only the key's bucket set.
 *
 * <h2>Pins</h2>
 *
 * <p>Whatever a native hands over carries one more pin, which the caller owns and must drop. Entries and snapshots are
 * dropped with {@link com.velt.rz.corvane.io.offheap.OffHeapManager#unpinLuOffHeapValue_native}, key and value blocks
 * with {@link com.velt.rz.corvane.io.offheap.OffHeapManager#unpin_native} on the address of their header, 24 bytes below
 * their data. The reason serves traces and pin reports alone; by convention a pin is dropped with the number that it
 * was taken with.
 *
 * <ul>
 *   <li>An insert pins the new entry with 8388609. The map holds three pins of its own: one for the hash chain, two for
 *       the revision queue.
 *   <li>An update hands over a snapshot with its only pin, 2097152: the caller's unpin frees it. The entry itself is not
 *       pinned.
 *   <li>A removal pins the removed entry with 8388608; nothing of the map holds it any more.
 *   <li>{@link #getLuValue_ByteArray} pins with 1024, the other three getters with 16777216. No getter pins the key or
 *       value block; the entry's pin keeps the key, an update by another thread may free the value.
 *   <li>{@link #queryRevisionAndPinWithBounds} pins each entry with 2048, and its key and its value with 8192.
 *   <li>The walks pin the entry with the caller's reason, {@link #getAndPinNextKeyWithAttributes} the key as well.
 *   <li>The containment natives leave no pin.
 * </ul>
 *
 * <p>Buffers that Java passes keep the pins that they came with; an entry takes pins of its own on the key and value
 * that it keeps. A buffer must have been made by this library: its header is looked for below its address, and a heap
 * buffer ends the process.
 *
 * <h2>Keys and searches</h2>
 *
 * <p>An entry is found by hash code first: all searches of one key must use the hash code that it was inserted with.
 *
 * <ul>
 *   <li>A byte array or a buffer finds every key with the same bytes, whatever its type tag.
 *   <li>A string finds keys of tag 20 with the same UTF-16 units, stored high byte first.
 *   <li>A number finds number keys of every width with the same value: the searched number and the stored one are
 *       compared as doubles, a stored float or double with a relative tolerance of 1e-14 of the searched number. Both
 *       zeros are one key, and longs that become the same double are. A NaN is never found and never a duplicate.
 *       Number keys are stored as their bytes in native order, floats and doubles as their IEEE bit patterns.
 *   <li>A boolean key is never a duplicate, no number finds it, and it cannot be updated as a boolean; its one byte
 *       finds it.
 *   <li>An insert looks for a duplicate by number under a number key, otherwise by the bytes: a key of other type with
 *       the same bytes and hash code refuses a string that no search by string finds.
 * </ul>
 *
 * <h2>Locks and cost</h2>
 *
 * <p>Inserts, updates and touching lookups hold the map's write lock; other lookups and removals lock the key's bucket
 * set, and a removal then its revision queue. Lookups cost one hash chain. Taking an entry out of its revision queue is
 * constant. Putting it in walks from the newest end past every entry of a higher revision: constant for the highest
 * revision, and in proportion to the entries passed for an old one. The first use of a new owner makes a queue for each
 * owner up to it.
 *
 * <p>{@link #clear} first empties the table and then the queues: an insert in between stays in the table without a
 * place in a queue, and its removal or a touching lookup then raises "not found in queue". Keep writers and touching
 * lookups away from a clear.
 *
 * <h2>Errors</h2>
 *
 * <p>Refused memory raises {@link IllegalStateException}, or {@link OutOfMemoryError} when another thread was faster;
 * the map is then as it was. A failed lock is logged; where a queue is concerned it also raises {@link
 * IllegalStateException}. An array shorter than the length given for it raises {@link ArrayIndexOutOfBoundsException}. A
 * missing or existing key raises nothing: the result is 0.
 */
public class LuOffHeapMapImpl {
    static {
        NativeLoader.load();
    }

    private final KeyCodec keys;

    /** Compares keys by their bytes, with {@link KeyCodec#BYTES}. */
    public LuOffHeapMapImpl() {
        this(KeyCodec.BYTES);
    }

    /**
     * Compares keys of type tag 100 through the given codec; all other keys are compared natively.
     *
     * @param keys called with the key's bucket set locked, so it must not call this map
     */
    public LuOffHeapMapImpl(KeyCodec keys) {
        this.keys = Objects.requireNonNull(keys, "keys");
    }

    /**
     * Called by native code: makes the object that {@link #compare} receives.
     *
     * @param buffer the buffer of the key that is searched
     * @return the key object; null counts as no match
     */
    public Object deserialize(ByteBuffer buffer) {
        return keys.deserialize(buffer);
    }

    /**
     * Called by native code: compares a searched key with a stored one.
     *
     * @param key what {@link #deserialize} returned
     * @param stored read-only view of the stored key's bytes, valid during the call
     */
    public boolean compare(Object key, ByteBuffer stored) {
        return keys.matches(key, stored);
    }

    /**
     * Called by native code: wraps native memory without owning it. The view is a slice of a cached window, so no
     * native reference is made.
     *
     * @param address first byte
     * @param length bytes, at most {@link PhantomWindows#MAX_LENGTH}
     * @return a read-only view in big-endian order
     */
    public ByteBuffer allocateDirectFromPhantom(long address, int length) {
        return PhantomWindows.readOnlySlice(address, length);
    }

    /**
     * Creates a native map with one revision queue (owner 0).
     *
     * @param ignored not used
     * @param concurrency number of bucket sets that can be locked independently
     * @param loadFactor entries a bucket at which a bucket set grows
     * @param mapId identifier reported back with entries that are moved to disk
     * @param mapSetId identifier of the group of maps, reported likewise
     * @return the map handle, or 0 when the memory was refused
     */
    public native long allocateLuOffHeapMap(int ignored, int concurrency, float loadFactor, int mapId, int mapSetId);

    /**
     * Frees a map's table and queues. Entries still inside are not released: {@link #clear} the map first. No other
     * thread may be inside a native with this handle.
     *
     * @param map handle, or 0
     * @return false for handle 0 or when a lock failed
     */
    public native boolean deleteLuOffHeapMap(long map);

    /**
     * Returns the sum of the largest entry counts that the revision queues have had.
     *
     * @param map handle
     */
    public native long maxSize(long map);

    /**
     * Creates an entry record outside any map. The library exports it under a C++ name only: a call throws {@link
     * UnsatisfiedLinkError}.
     */
    public native long allocateLuOffHeapMapValue(
            ByteBuffer key, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Creates an entry record outside any map, with a given hash code. The library exports it under a C++ name only: a
     * call throws {@link UnsatisfiedLinkError}.
     */
    public native long allocateLuOffHeapMapValueWithHashCode(
            ByteBuffer key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Inserts an entry under a key buffer, hashed natively over its bytes. Nothing changes when the key exists.
     *
     * @param map handle
     * @param key buffer of this library; the entry keeps a pin of its own
     * @param value buffer of this library; the entry keeps a pin of its own
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return the new entry, with a pin of reason 8388609 for the caller, or 0 when the key exists or a lock failed
     */
    public native long insertAndGetNewAndPin(
            long map, ByteBuffer key, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Inserts an entry under a key buffer, with the given hash code. Nothing changes when the key exists.
     *
     * @param map handle
     * @param key buffer of this library; the entry keeps a pin of its own
     * @param hashCode hash code of the key
     * @param value buffer of this library; the entry keeps a pin of its own
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return the new entry, with a pin of reason 8388609 for the caller, or 0 when the key exists or a lock failed
     */
    public native long insertAndGetNewAndPinWithHashCode(
            long map, ByteBuffer key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Inserts an entry under a byte array, with the given hash code. Nothing changes when the key exists.
     *
     * @param map handle
     * @param keyLength bytes of the key to copy
     * @param keyType type tag of the stored key
     * @param hashCode hash code of the key
     * @param value bytes, copied into a new block that belongs to the entry
     * @param valueLength bytes of the value to copy
     * @param valueType type tag of the stored value
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return the new entry, with a pin of reason 8388609 for the caller, or 0 when the key exists or a lock failed
     */
    public native long insertAndGetNewAndPinWithHashCodeAndBA(
            long map,
            byte[] key,
            int keyLength,
            byte keyType,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /**
     * Inserts an entry under a string, with the given hash code. Nothing changes when the key exists.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @param value bytes, copied into a new block that belongs to the entry
     * @param valueLength bytes of the value to copy
     * @param valueType type tag of the stored value
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return the new entry, with a pin of reason 8388609 for the caller, or 0 when the key exists or a lock failed
     */
    public native long insertAndGetNewAndPinWithHashCodeAndString(
            long map,
            String key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /**
     * Inserts an entry under a string, with the given hash code. Nothing changes when the key exists.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @param value buffer of this library; the entry keeps a pin of its own
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return the new entry, with a pin of reason 8388609 for the caller, or 0 when the key exists or a lock failed
     */
    public native long insertAndGetNewAndPinWithHashCodeAndStringBB(
            long map, String key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Replaces value and revision of the entry under a key buffer, hashed natively over its bytes. The previous state
     * is handed to the caller.
     *
     * @param map handle
     * @param key buffer of this library
     * @param value buffer of this library; the entry keeps a pin of its own
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return a snapshot with the key and the previous value, owner and revision; its only pin, of reason 2097152, is
     *     the caller's; 0 when there is no such key or a lock failed
     */
    public native long updateAndGetNewAndPin(
            long map, ByteBuffer key, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Replaces value and revision of the entry under a key buffer, with the given hash code. The previous state is
     * handed to the caller.
     *
     * @param map handle
     * @param key buffer of this library
     * @param hashCode hash code of the key
     * @param value buffer of this library; the entry keeps a pin of its own
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return a snapshot with the key and the previous value, owner and revision; its only pin, of reason 2097152, is
     *     the caller's; 0 when there is no such key or a lock failed
     */
    public native long updateAndGetNewAndPinWithHashCode(
            long map, ByteBuffer key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Replaces value and revision of the entry under a byte array, with the given hash code. The previous state is
     * handed to the caller.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @param value buffer of this library; the entry keeps a pin of its own
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return a snapshot with the key and the previous value, owner and revision; its only pin, of reason 2097152, is
     *     the caller's; 0 when there is no such key or a lock failed
     */
    public native long updateAndGetNewAndPinWithHashCodeBA(
            long map, byte[] key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Replaces value and revision of the entry under a byte array, with the given hash code. The previous state is
     * handed to the caller.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @param value bytes, copied into a new block that belongs to the entry
     * @param valueLength bytes of the value to copy
     * @param valueType type tag of the stored value
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return a snapshot with the key and the previous value, owner and revision; its only pin, of reason 2097152, is
     *     the caller's; 0 when there is no such key or a lock failed
     */
    public native long updateAndGetNewAndPinWithHashCodeBABA(
            long map,
            byte[] key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /**
     * Replaces value and revision of the entry under a string, with the given hash code. The previous state is handed
     * to the caller.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @param value buffer of this library; the entry keeps a pin of its own
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return a snapshot with the key and the previous value, owner and revision; its only pin, of reason 2097152, is
     *     the caller's; 0 when there is no such key or a lock failed
     */
    public native long updateAndGetNewAndPinWithHashCodeStringBB(
            long map, String key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Replaces value and revision of the entry under a string, with the given hash code. The previous state is handed
     * to the caller.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @param value bytes, copied into a new block that belongs to the entry
     * @param valueLength bytes of the value to copy
     * @param valueType type tag of the stored value
     * @param revisionOwner queue that the entry joins
     * @param revisionNumber place of the entry in that queue
     * @return a snapshot with the key and the previous value, owner and revision; its only pin, of reason 2097152, is
     *     the caller's; 0 when there is no such key or a lock failed
     */
    public native long updateAndGetNewAndPinWithHashCodeStringBA(
            long map,
            String key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /**
     * Removes the entry under a key buffer, hashed natively over its bytes.
     *
     * @param map handle
     * @param key buffer of this library
     * @return the removed entry, with a pin of reason 8388608 for the caller, or 0 when there is no such key or a lock
     *     failed
     */
    public native long removeAndGetAndPin(long map, ByteBuffer key);

    /**
     * Removes the entry under a key buffer, with the given hash code.
     *
     * @param map handle
     * @param key buffer of this library
     * @param hashCode hash code of the key
     * @return the removed entry, with a pin of reason 8388608 for the caller, or 0 when there is no such key or a lock
     *     failed
     */
    public native long removeAndGetAndPinWithHashCode(long map, ByteBuffer key, int hashCode);

    /**
     * Removes the entry under a byte array, with the given hash code.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @return the removed entry, with a pin of reason 8388608 for the caller, or 0 when there is no such key or a lock
     *     failed
     */
    public native long removeAndGetAndPinWithHashCodeBA(long map, byte[] key, int hashCode);

    /**
     * Removes the entry under a string, with the given hash code.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @return the removed entry, with a pin of reason 8388608 for the caller, or 0 when there is no such key or a lock
     *     failed
     */
    public native long removeAndGetAndPinWithHashCodeString(long map, String key, int hashCode);

    /**
     * Removes the entry under a number, with the given hash code.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @return the removed entry, with a pin of reason 8388608 for the caller, or 0 when there is no such key or a lock
     *     failed
     */
    public native long removeAndGetAndPinWithHashCodeNumber(long map, int hashCode, double key);

    /** Inserts under a key of 1 byte with type tag 12, as {@link #insertAndGetNewAndPinWithHashCodeAndBA} does. */
    public native long insertAndGetNewAndPinWithByte(
            long map,
            byte key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Inserts under a key of 1 byte with type tag 12, as {@link #insertAndGetNewAndPinWithHashCode} does. */
    public native long insertAndGetNewAndPinWithByteBB(
            long map, byte key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Inserts under a key of 2 bytes with type tag 15, as {@link #insertAndGetNewAndPinWithHashCodeAndBA} does. */
    public native long insertAndGetNewAndPinWithShort(
            long map,
            short key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Inserts under a key of 2 bytes with type tag 15, as {@link #insertAndGetNewAndPinWithHashCode} does. */
    public native long insertAndGetNewAndPinWithShortBB(
            long map, short key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Inserts under a key of 4 bytes with type tag 16, as {@link #insertAndGetNewAndPinWithHashCodeAndBA} does. */
    public native long insertAndGetNewAndPinWithInt(
            long map,
            int key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Inserts under a key of 4 bytes with type tag 16, as {@link #insertAndGetNewAndPinWithHashCode} does. */
    public native long insertAndGetNewAndPinWithIntBB(
            long map, int key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Inserts under a key of 8 bytes with type tag 17, as {@link #insertAndGetNewAndPinWithHashCodeAndBA} does. */
    public native long insertAndGetNewAndPinWithLong(
            long map,
            long key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Inserts under a key of 8 bytes with type tag 17, as {@link #insertAndGetNewAndPinWithHashCode} does. */
    public native long insertAndGetNewAndPinWithLongBB(
            long map, long key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Inserts under a key of 4 bytes with type tag 18, as {@link #insertAndGetNewAndPinWithHashCodeAndBA} does. */
    public native long insertAndGetNewAndPinWithFloat(
            long map,
            float key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Inserts under a key of 4 bytes with type tag 18, as {@link #insertAndGetNewAndPinWithHashCode} does. */
    public native long insertAndGetNewAndPinWithFloatBB(
            long map, float key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Inserts under a key of 8 bytes with type tag 19, as {@link #insertAndGetNewAndPinWithHashCodeAndBA} does. */
    public native long insertAndGetNewAndPinWithDouble(
            long map,
            double key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Inserts under a key of 8 bytes with type tag 19, as {@link #insertAndGetNewAndPinWithHashCode} does. */
    public native long insertAndGetNewAndPinWithDoubleBB(
            long map, double key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Inserts under a key of 1 byte with type tag 13, as {@link #insertAndGetNewAndPinWithHashCodeAndBA} does; the key
     * is never taken for a duplicate.
     */
    public native long insertAndGetNewAndPinWithBoolean(
            long map,
            boolean key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /**
     * Inserts under a key of 1 byte with type tag 13, as {@link #insertAndGetNewAndPinWithHashCode} does; the key is
     * never taken for a duplicate.
     */
    public native long insertAndGetNewAndPinWithBooleanBB(
            long map, boolean key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCodeBABA} does. */
    public native long updateAndGetNewAndPinWithByte(
            long map,
            byte key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCode} does. */
    public native long updateAndGetNewAndPinWithByteBB(
            long map, byte key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCodeBABA} does. */
    public native long updateAndGetNewAndPinWithShort(
            long map,
            short key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCode} does. */
    public native long updateAndGetNewAndPinWithShortBB(
            long map, short key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCodeBABA} does. */
    public native long updateAndGetNewAndPinWithInt(
            long map,
            int key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCode} does. */
    public native long updateAndGetNewAndPinWithIntBB(
            long map, int key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCodeBABA} does. */
    public native long updateAndGetNewAndPinWithLong(
            long map,
            long key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCode} does. */
    public native long updateAndGetNewAndPinWithLongBB(
            long map, long key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCodeBABA} does. */
    public native long updateAndGetNewAndPinWithFloat(
            long map,
            float key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCode} does. */
    public native long updateAndGetNewAndPinWithFloatBB(
            long map, float key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCodeBABA} does. */
    public native long updateAndGetNewAndPinWithDouble(
            long map,
            double key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Updates the entry of an equal number of any width, as {@link #updateAndGetNewAndPinWithHashCode} does. */
    public native long updateAndGetNewAndPinWithDoubleBB(
            long map, double key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Finds nothing, since boolean keys are not searched, and returns 0; memory may be refused before that. */
    public native long updateAndGetNewAndPinWithBoolean(
            long map,
            boolean key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Finds nothing, since boolean keys are not searched, and returns 0; memory may be refused before that. */
    public native long updateAndGetNewAndPinWithBooleanBB(
            long map, boolean key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Finds the entry under a byte array.
     *
     * @param map handle
     * @param attributes four elements, left alone when nothing is found: address of the key's data, its length in
     *     bytes, address of the value's data, its length in bytes; the last two are 0 while the value is on disk
     * @param hashCode hash code of the key
     * @param unused ignored
     * @param touch whether to move the entry in its revision queue, under the map's write lock
     * @param revisionNumber new revision of a touched entry; -1 keeps its revision and moves it behind its equals
     * @return the entry, with a pin of reason 1024 for the caller, or 0; its value block is not pinned
     */
    public native long getLuValue_ByteArray(
            long map, long[] attributes, byte[] key, int hashCode, long unused, boolean touch, long revisionNumber);

    /**
     * Finds the entry under a string.
     *
     * @param map handle
     * @param attributes four elements, left alone when nothing is found: address of the key's data, its length in
     *     bytes, address of the value's data, its length in bytes; the last two are 0 while the value is on disk
     * @param unused ignored
     * @param hashCode hash code of the key
     * @param unused2 ignored
     * @param touch whether to move the entry in its revision queue, under the map's write lock
     * @param revisionNumber new revision of a touched entry; -1 keeps its revision and moves it behind its equals
     * @return the entry, with a pin of reason 16777216 for the caller, or 0; its value block is not pinned
     */
    public native long getLuValue_String(
            long map,
            long[] attributes,
            String key,
            int unused,
            int hashCode,
            long unused2,
            boolean touch,
            long revisionNumber);

    /**
     * Finds the entry under a number.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @param unused ignored
     * @param touch whether to move the entry in its revision queue, under the map's write lock
     * @param revisionNumber new revision of a touched entry; -1 keeps its revision and moves it behind its equals
     * @return the entry, with a pin of reason 16777216 for the caller, or 0; its value block is not pinned
     */
    public native long getLuValue_Number(
            long map, int hashCode, int unused, boolean touch, long revisionNumber, double key);

    /**
     * Finds the entry under a key buffer.
     *
     * @param map handle
     * @param key buffer of this library
     * @param hashCode hash code of the key; -1 to have it computed
     * @param unused ignored
     * @param touch whether to move the entry in its revision queue, under the map's write lock
     * @param revisionNumber new revision of a touched entry; -1 keeps its revision and moves it behind its equals
     * @return the entry, with a pin of reason 16777216 for the caller, or 0; its value block is not pinned
     */
    public native long getLuValue_ByteBuffer(
            long map, ByteBuffer key, int hashCode, int unused, boolean touch, long revisionNumber);

    /**
     * Tells whether a key buffer is present, hashed natively over its bytes. Leaves no pin.
     *
     * @param map handle
     * @param key buffer of this library; its position and limit mean nothing
     */
    public native boolean containsKey(long map, ByteBuffer key);

    /**
     * Tells whether a key buffer is present. Leaves no pin.
     *
     * @param map handle
     * @param key buffer of this library
     * @param hashCode hash code of the key
     */
    public native boolean containsKeyWithHashCode(long map, ByteBuffer key, int hashCode);

    /**
     * Tells whether a byte array is present, among keys of every type. Leaves no pin.
     *
     * @param map handle
     * @param hashCode hash code of the key
     */
    public native boolean containsKeyWithHashCodeBA(long map, byte[] key, int hashCode);

    /**
     * Tells whether a string is present, among string keys. Leaves no pin.
     *
     * @param map handle
     * @param hashCode hash code of the key
     */
    public native boolean containsKeyWithHashCodeString(long map, String key, int hashCode);

    /**
     * Tells whether a number is present, among number keys of every width. Leaves no pin.
     *
     * @param map handle
     * @param hashCode hash code of the key
     */
    public native boolean containsKeyWithHashCodeNumber(long map, int hashCode, double key);

    /**
     * Returns the number of entries.
     *
     * @param map handle
     */
    public native long size(long map);

    /**
     * Returns the bytes that the entries hold: record, key and value blocks as allocated.
     *
     * @param map handle
     */
    public native long getCurrentBytesUsed(long map);

    /**
     * Takes the map's write lock and then every revision queue's mutex, in ascending order of owners. Until {@link
     * #unlockMapAndQueues}, inserts, updates, touching lookups, queries, locked walks and clears of other threads wait,
     * and removals wait with their entry already out of the table; other lookups go on. The locks are not reentrant:
     * the owner makes none of the waiting calls itself. A queue whose mutex fails after another's was taken leaves the
     * call without an end and the map locked.
     *
     * @param map handle
     * @return 0 when everything is held; 1 for handle 0 or when the map lock failed, and then nothing is held
     */
    public native int lockMapAndQueues(long map);

    /**
     * Lets go what {@link #lockMapAndQueues} took, on the thread that took it.
     *
     * @param map handle
     * @return 0 on success, otherwise the error of the map lock
     */
    public native int unlockMapAndQueues(long map);

    /**
     * Decodes big-endian UTF-16 units from the start of a buffer's data area, as string keys are stored. Nothing is
     * checked: the buffer must hold twice {@code count} bytes and the target {@code count} characters. No pin and no
     * lock is taken.
     *
     * @param source direct buffer; its position and limit mean nothing
     * @param unused1 ignored: decoding starts at the first byte
     * @param unused2 ignored
     * @param unused3 ignored
     * @param count number of characters
     */
    public native void getChars(ByteBuffer source, int unused1, int unused2, int unused3, char[] target, int count);

    /**
     * Writes a string's UTF-16 units, high byte first, from the target's first byte on: the form in which string keys
     * are stored. Nothing is checked: the source must have {@code count} characters and the target twice as many bytes.
     *
     * @param count number of characters
     * @param unused ignored
     */
    public native void getFullCharBytesFromString(String source, int count, byte[] target, int unused);

    /**
     * Collects every entry whose revision lies above its owner's start and at or below its owner's end, owners in
     * ascending order and each owner's entries in order of revision, equal ones in order of arrival. An owner is left
     * out when its start is not below its end, when its end is below 1, or when the arrays have no element for it.
     *
     * <p>Word 0 of the result is the number of entries, each of which has nine words: address of the entry; address of
     * the key's data, its length in bytes; address of the value's data and its length, or 0 and 0 while the value is on
     * disk; owner; revision; type tag of the key; type tag of the value, or 0. The result buffer is not checked: it must
     * have room for 8 bytes and 72 more for each entry that can qualify.
     *
     * <p>Each reported entry is pinned with 2048, its key and its value with 8192, all for the caller: drop the value's
     * and the key's with {@link com.velt.rz.corvane.io.offheap.OffHeapManager#unpin_native} on the data address less 24,
     * then the entry's with {@link com.velt.rz.corvane.io.offheap.OffHeapManager#unpinLuOffHeapValue_native}. What was
     * reported stays readable meanwhile, even when the entry is updated or removed.
     *
     * <p>The map's write lock is held for a moment, then its read lock, and one queue at a time while it is walked. A
     * client that asks from where its last query ended walks only what lies behind; otherwise the walk begins at the
     * queue's oldest entry. A bookmark never hides an entry. It holds no pin and takes 8 bytes for each index up to it
     * in every queue, which is granted even when the memory is used up and returns with the map.
     *
     * <p>A failed lock ends the query: word 0 is then 0 and the pins already taken stay.
     *
     * @param map handle; 0 reports nothing
     * @param result direct buffer for words in native byte order
     * @param bookmarkIndex names the querying client; keep these numbers small. A negative one has no bookmark
     * @param startRevisions exclusive lower bounds, one for each owner from 0 on; without elements nothing is reported
     * @param endRevisions inclusive upper bounds, at least as many
     * @return 0
     */
    public native long queryRevisionAndPinWithBounds(
            long map, ByteBuffer result, int bookmarkIndex, long[] startRevisions, long[] endRevisions);

    /**
     * Returns the first entry of the first revision queue that is not empty. Constant for each owner passed.
     *
     * @param map handle
     * @param reason the caller's reason for its pin on the entry
     * @param lock whether the map's read lock, and each queue's mutex in turn, is taken to read; without it, and beside
     *     removals in any case, the caller keeps the entries from being freed
     * @return the entry, pinned for the caller, or 0 when every queue is empty or a lock failed
     */
    public native long getAndPinFirstInQueue(long map, int reason, boolean lock);

    /**
     * Returns the entry after the given one in its owner's queue, or the first of the next queue that is not empty. The
     * given entry keeps its pin, which the caller drops.
     *
     * @param map handle
     * @param value an entry that the caller has pinned and that is still in its queue, or 0 to begin; an entry removed
     *     meanwhile may lead to freed memory
     * @param reason the caller's reason for its pin on the next entry
     * @param lock as for {@link #getAndPinFirstInQueue}
     * @return the entry, pinned for the caller, or 0 at the end
     */
    public native long getAndPinNextInQueue(long map, long value, int reason, boolean lock);

    /**
     * Walks like {@link #getAndPinNextInQueue} without locks, and pins the key as well. The caller keeps structural
     * changes away.
     *
     * @param map handle
     * @param value an entry that the caller has pinned and that is still in its queue, or 0 to begin
     * @param attributes six elements, left alone at the end: address of the key's data, its length in bytes, revision
     *     owner, revision, type tag of the key, address of the key's header
     * @param reason the caller's reason for its pins; that on the key is dropped with {@link
     *     com.velt.rz.corvane.io.offheap.OffHeapManager#unpin_native} on the sixth element
     * @return the entry, pinned for the caller; -1 when it has no key, and then it stays pinned; 0 at the end
     */
    public native long getAndPinNextKeyWithAttributes(long map, long value, long[] attributes, int reason);

    /**
     * Removes every entry, from the table first and then from the queues, and forgets every bookmark. The map's pins are
     * dropped; those that callers hold keep their entries alive. Not to be run beside writers or touching lookups of
     * the same map.
     *
     * @param map handle
     * @return false when a lock failed
     */
    public native boolean clear(long map);
}
