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
 * <p>Every entry that a native returns carries one pin for the caller, dropped with {@link
 * com.velt.rz.corvane.io.offheap.OffHeapManager#unpinLuOffHeapValue_native}.
 *
 * <p>A number key is stored as its bytes in native order, a float or double as its IEEE bit pattern, under the type tag
 * of its Java type. A lookup by number finds it from any number type that has the same value. No lookup finds a boolean
 * key, so none can be updated.
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
     * @return the new entry, pinned for the caller, or 0 when the key exists, memory was refused or a lock failed
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
     * @return the new entry, pinned for the caller, or 0 when the key exists, memory was refused or a lock failed
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
     * @return the new entry, pinned for the caller, or 0 when the key exists, memory was refused or a lock failed
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
     * @return the new entry, pinned for the caller, or 0 when the key exists, memory was refused or a lock failed
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
     * @return the new entry, pinned for the caller, or 0 when the key exists, memory was refused or a lock failed
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
     * @return a snapshot with the previous value, owner and revision, which the caller owns and unpins; 0 when there is
     *     no such key, memory was refused or a lock failed
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
     * @return a snapshot with the previous value, owner and revision, which the caller owns and unpins; 0 when there is
     *     no such key, memory was refused or a lock failed
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
     * @return a snapshot with the previous value, owner and revision, which the caller owns and unpins; 0 when there is
     *     no such key, memory was refused or a lock failed
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
     * @return a snapshot with the previous value, owner and revision, which the caller owns and unpins; 0 when there is
     *     no such key, memory was refused or a lock failed
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
     * @return a snapshot with the previous value, owner and revision, which the caller owns and unpins; 0 when there is
     *     no such key, memory was refused or a lock failed
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
     * @return a snapshot with the previous value, owner and revision, which the caller owns and unpins; 0 when there is
     *     no such key, memory was refused or a lock failed
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
     * @return the removed entry, pinned for the caller, or 0
     */
    public native long removeAndGetAndPin(long map, ByteBuffer key);

    /**
     * Removes the entry under a key buffer, with the given hash code.
     *
     * @param map handle
     * @param key buffer of this library
     * @param hashCode hash code of the key
     * @return the removed entry, pinned for the caller, or 0
     */
    public native long removeAndGetAndPinWithHashCode(long map, ByteBuffer key, int hashCode);

    /**
     * Removes the entry under a byte array, with the given hash code.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @return the removed entry, pinned for the caller, or 0
     */
    public native long removeAndGetAndPinWithHashCodeBA(long map, byte[] key, int hashCode);

    /**
     * Removes the entry under a string, with the given hash code.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @return the removed entry, pinned for the caller, or 0
     */
    public native long removeAndGetAndPinWithHashCodeString(long map, String key, int hashCode);

    /**
     * Removes the entry under a number, with the given hash code.
     *
     * @param map handle
     * @param hashCode hash code of the key
     * @return the removed entry, pinned for the caller, or 0
     */
    public native long removeAndGetAndPinWithHashCodeNumber(long map, int hashCode, double key);

    /** Same as {@link #insertAndGetNewAndPinWithHashCodeAndBA}, under a number key. */
    public native long insertAndGetNewAndPinWithByte(
            long map,
            byte key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCode}, under a number key. */
    public native long insertAndGetNewAndPinWithByteBB(
            long map, byte key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCodeAndBA}, under a number key. */
    public native long insertAndGetNewAndPinWithShort(
            long map,
            short key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCode}, under a number key. */
    public native long insertAndGetNewAndPinWithShortBB(
            long map, short key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCodeAndBA}, under a number key. */
    public native long insertAndGetNewAndPinWithInt(
            long map,
            int key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCode}, under a number key. */
    public native long insertAndGetNewAndPinWithIntBB(
            long map, int key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCodeAndBA}, under a number key. */
    public native long insertAndGetNewAndPinWithLong(
            long map,
            long key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCode}, under a number key. */
    public native long insertAndGetNewAndPinWithLongBB(
            long map, long key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCodeAndBA}, under a number key. */
    public native long insertAndGetNewAndPinWithFloat(
            long map,
            float key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCode}, under a number key. */
    public native long insertAndGetNewAndPinWithFloatBB(
            long map, float key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCodeAndBA}, under a number key. */
    public native long insertAndGetNewAndPinWithDouble(
            long map,
            double key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCode}, under a number key. */
    public native long insertAndGetNewAndPinWithDoubleBB(
            long map, double key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCodeAndBA}, under a boolean key. */
    public native long insertAndGetNewAndPinWithBoolean(
            long map,
            boolean key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #insertAndGetNewAndPinWithHashCode}, under a boolean key. */
    public native long insertAndGetNewAndPinWithBooleanBB(
            long map, boolean key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCodeBABA}, under a number key. */
    public native long updateAndGetNewAndPinWithByte(
            long map,
            byte key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCode}, under a number key. */
    public native long updateAndGetNewAndPinWithByteBB(
            long map, byte key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCodeBABA}, under a number key. */
    public native long updateAndGetNewAndPinWithShort(
            long map,
            short key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCode}, under a number key. */
    public native long updateAndGetNewAndPinWithShortBB(
            long map, short key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCodeBABA}, under a number key. */
    public native long updateAndGetNewAndPinWithInt(
            long map,
            int key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCode}, under a number key. */
    public native long updateAndGetNewAndPinWithIntBB(
            long map, int key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCodeBABA}, under a number key. */
    public native long updateAndGetNewAndPinWithLong(
            long map,
            long key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCode}, under a number key. */
    public native long updateAndGetNewAndPinWithLongBB(
            long map, long key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCodeBABA}, under a number key. */
    public native long updateAndGetNewAndPinWithFloat(
            long map,
            float key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCode}, under a number key. */
    public native long updateAndGetNewAndPinWithFloatBB(
            long map, float key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCodeBABA}, under a number key. */
    public native long updateAndGetNewAndPinWithDouble(
            long map,
            double key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCode}, under a number key. */
    public native long updateAndGetNewAndPinWithDoubleBB(
            long map, double key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCodeBABA}, under a boolean key. */
    public native long updateAndGetNewAndPinWithBoolean(
            long map,
            boolean key,
            int hashCode,
            byte[] value,
            int valueLength,
            byte valueType,
            short revisionOwner,
            long revisionNumber);

    /** Same as {@link #updateAndGetNewAndPinWithHashCode}, under a boolean key. */
    public native long updateAndGetNewAndPinWithBooleanBB(
            long map, boolean key, int hashCode, ByteBuffer value, short revisionOwner, long revisionNumber);

    /**
     * Finds the entry under a byte array.
     *
     * @param map handle
     * @param attributes four elements, filled when found: key address, key length, value address, value length
     * @param hashCode hash code of the key
     * @param unused ignored
     * @param touch whether to move the entry in its revision queue
     * @param revisionNumber new place of the entry when it is touched
     * @return the entry, pinned for the caller, or 0; its value block is not pinned
     */
    public native long getLuValue_ByteArray(
            long map, long[] attributes, byte[] key, int hashCode, long unused, boolean touch, long revisionNumber);

    /**
     * Finds the entry under a string.
     *
     * @param map handle
     * @param attributes four elements, filled when found: key address, key length, value address, value length
     * @param unused ignored
     * @param hashCode hash code of the key
     * @param unused2 ignored
     * @param touch whether to move the entry in its revision queue
     * @param revisionNumber new place of the entry when it is touched
     * @return the entry, pinned for the caller, or 0; its value block is not pinned
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
     * @param touch whether to move the entry in its revision queue
     * @param revisionNumber new place of the entry when it is touched
     * @return the entry, pinned for the caller, or 0; its value block is not pinned
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
     * @param touch whether to move the entry in its revision queue
     * @param revisionNumber new place of the entry when it is touched
     * @return the entry, pinned for the caller, or 0; its value block is not pinned
     */
    public native long getLuValue_ByteBuffer(
            long map, ByteBuffer key, int hashCode, int unused, boolean touch, long revisionNumber);

    /**
     * Tells whether a key buffer is present.
     *
     * @param map handle
     * @param key buffer of this library
     */
    public native boolean containsKey(long map, ByteBuffer key);

    /**
     * Tells whether a key buffer is present.
     *
     * @param map handle
     * @param key buffer of this library
     * @param hashCode hash code of the key
     */
    public native boolean containsKeyWithHashCode(long map, ByteBuffer key, int hashCode);

    /**
     * Tells whether a byte array is present.
     *
     * @param map handle
     * @param hashCode hash code of the key
     */
    public native boolean containsKeyWithHashCodeBA(long map, byte[] key, int hashCode);

    /**
     * Tells whether a string is present.
     *
     * @param map handle
     * @param hashCode hash code of the key
     */
    public native boolean containsKeyWithHashCodeString(long map, String key, int hashCode);

    /**
     * Tells whether a number is present.
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
     * Takes the map's write lock and then every revision queue's mutex, in ascending order of owners.
     *
     * @param map handle
     * @return 0 when everything is held, otherwise 1
     */
    public native int lockMapAndQueues(long map);

    /**
     * Lets go what {@link #lockMapAndQueues} took, on the same thread.
     *
     * @param map handle
     * @return 0 on success
     */
    public native int unlockMapAndQueues(long map);

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
     * Writes a string's UTF-16 units, high byte first. Nothing is checked: the target must hold twice {@code count}
     * bytes.
     *
     * @param count number of characters
     * @param unused ignored
     */
    public native void getFullCharBytesFromString(String source, int count, byte[] target, int unused);

    /**
     * Collects every entry whose revision lies above its owner's start and at or below its owner's end. Each entry, its
     * key and its value gain a pin that the caller drops. The result buffer is not checked: it must have room for one
     * word and nine words for each entry that can qualify.
     *
     * @param map handle
     * @param result direct buffer; receives the number of entries and nine words for each, in native byte order
     * @param bookmarkIndex names the querying client, whose next query resumes where this one ended
     * @param startRevisions one exclusive lower bound for each owner
     * @param endRevisions one inclusive upper bound for each owner
     * @return 0
     */
    public native long queryRevisionAndPinWithBounds(
            long map, ByteBuffer result, int bookmarkIndex, long[] startRevisions, long[] endRevisions);

    /**
     * Returns the first entry of the first revision queue that is not empty.
     *
     * @param map handle
     * @param reason names the holder of the pin in traces; has no other effect
     * @param lock whether the native takes the locks itself
     * @return the entry, pinned for the caller, or 0 at the end
     */
    public native long getAndPinFirstInQueue(long map, int reason, boolean lock);

    /**
     * Returns the entry after the given one in its owner's queue, or the first of the next queue that is not empty.
     *
     * @param map handle
     * @param value an entry that the caller has pinned
     * @param reason names the holder of the pin in traces; has no other effect
     * @param lock whether the native takes the locks itself
     * @return the entry, pinned for the caller, or 0 at the end
     */
    public native long getAndPinNextInQueue(long map, long value, int reason, boolean lock);

    /**
     * Walks like {@link #getAndPinNextInQueue}, without locks, and pins the key as well.
     *
     * @param map handle
     * @param value an entry that the caller has pinned, or 0 to begin
     * @param attributes receives key address, key length, revision owner, revision number, key type, key header address
     * @param reason names the holder of both pins in traces; has no other effect
     * @return the entry, pinned for the caller; -1 when it has no key; 0 at the end
     */
    public native long getAndPinNextKeyWithAttributes(long map, long value, long[] attributes, int reason);

    /**
     * Removes every entry. The pins that callers hold keep their entries alive.
     *
     * @param map handle
     * @return false when a lock failed
     */
    public native boolean clear(long map);
}
