package com.velt.rz.corvane.nimbra;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * Native memory of one thread through which short keys and values pass into a call and results come out, so that the
 * call needs no array of the virtual machine: asking it for an array's length and bytes costs several times what the
 * crossing itself costs.
 *
 * <p>The layout is that of {@code CallArea} in the library: the key, four result words, the value. Native code reads the
 * key and the value before anything can call back into Java, and writes results after the last such moment; so a map
 * that is used by a logger or a value store in the middle of a call does no harm. Where Java may be called before the
 * value has been read, native code compares the fourth word, which counts the uses, before and after.
 */
final class CallMemory {
    /** Longest key, in bytes, that passes this way. */
    static final int MAX_KEY = 512;

    /** Longest value in bytes. Beyond it, copying twice costs more than the arrays do. */
    static final int MAX_VALUE = 4096;

    /** The key is absent. */
    static final int ABSENT = -1;

    /** The call has done nothing and has to be made with arrays. */
    static final int ORDINARY = -2;

    private static final int RESULTS = MAX_KEY;
    private static final int USES = RESULTS + 3 * Long.BYTES;
    private static final int VALUE = RESULTS + 4 * Long.BYTES;

    private static final ThreadLocal<CallMemory> CURRENT = ThreadLocal.withInitial(CallMemory::new);

    private final ByteBuffer memory =
            ByteBuffer.allocateDirect(VALUE + MAX_VALUE).order(ByteOrder.nativeOrder());
    private final long address = CallNatives.address(memory);
    private long uses;

    private CallMemory() {}

    /** The calling thread's memory with the key in it, or null when the key is too long or there is no memory. */
    static CallMemory with(byte[] key) {
        if (key.length > MAX_KEY) {
            return null;
        }
        CallMemory current = current();
        if (current != null) {
            current.memory.put(0, key);
            current.memory.putLong(USES, ++current.uses);
        }
        return current;
    }

    /** The calling thread's memory with key and value in it, or null when one is too long or there is no memory. */
    static CallMemory with(byte[] key, byte[] value) {
        if (value.length > MAX_VALUE) {
            return null;
        }
        CallMemory current = with(key);
        if (current != null) {
            current.memory.put(VALUE, value);
        }
        return current;
    }

    private static CallMemory current() {
        try {
            return CURRENT.get();
        } catch (OutOfMemoryError e) {
            return null; // direct memory is limited; the ordinary road needs none
        }
    }

    /** Returns a new array with the value that {@link #get} has left here; null for a negative length. */
    byte[] value(int length) {
        if (length < 0) {
            return null;
        }
        byte[] value = new byte[length];
        memory.get(VALUE, value);
        return value;
    }

    /** Copies the value of the key to this memory and returns its length, {@link #ABSENT} or {@link #ORDINARY}. */
    int get(long map, int keyLength, int hash) {
        return CallNatives.get(map, address, keyLength, hash);
    }

    /** {@link CallNatives#pin}. */
    long pin(long map, int keyLength, int hash) {
        return CallNatives.pin(map, address, keyLength, hash);
    }

    /** Takes over the pin that {@link #pin} has just returned. */
    PinnedValue adopt(long handle) {
        return PinnedValue.adopt(handle, result(0), result(1), result(2));
    }

    private long result(int index) {
        return memory.getLong(RESULTS + index * Long.BYTES);
    }

    /** {@link MapNatives#containsKey}, whichever way is open. */
    static boolean containsKey(long map, byte[] key, int hash) {
        CallMemory current = with(key);
        return current == null
                ? MapNatives.containsKey(map, key, hash)
                : CallNatives.containsKey(map, current.address, key.length, hash);
    }

    /** {@link MapNatives#remove}, whichever way is open. */
    static int remove(long map, byte[] key, int hash) {
        CallMemory current = with(key);
        return current == null
                ? MapNatives.remove(map, key, hash)
                : CallNatives.remove(map, current.address, key.length, hash);
    }

    /**
     * One of the writes of {@link MapNatives}, whichever way is open.
     *
     * @param mode {@link BoundedNatives#PUT}, {@link BoundedNatives#PUT_IF_ABSENT} or {@link BoundedNatives#REPLACE}
     */
    static int write(int mode, long map, byte[] key, int hash, byte[] value, long revision) {
        CallMemory current = with(key, value);
        int outcome = current == null ? ORDINARY : current.write(mode, map, key.length, hash, value.length, revision);
        if (outcome != ORDINARY) {
            return outcome;
        }
        return switch (mode) {
            case BoundedNatives.PUT -> MapNatives.put(map, key, hash, value, revision);
            case BoundedNatives.PUT_IF_ABSENT -> MapNatives.putIfAbsent(map, key, hash, value, revision);
            default -> MapNatives.replace(map, key, hash, value, revision);
        };
    }

    private int write(int mode, long map, int keyLength, int hash, int valueLength, long revision) {
        return switch (mode) {
            case BoundedNatives.PUT -> CallNatives.put(map, address, keyLength, hash, valueLength, revision);
            case BoundedNatives.PUT_IF_ABSENT -> CallNatives.putIfAbsent(
                    map, address, keyLength, hash, valueLength, revision);
            default -> CallNatives.replace(map, address, keyLength, hash, valueLength, revision);
        };
    }
}
