package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.lang.invoke.MethodHandle;
import java.lang.invoke.MethodHandles;
import java.lang.invoke.MethodType;
import java.lang.invoke.VarHandle;
import java.lang.reflect.Field;
import java.nio.ByteOrder;

/**
 * Native memory by address, in native order, without any check: an address that is not mapped ends the process.
 *
 * <p>Such a read is one instruction of the processor, where one through a direct buffer is two dozen; a lookup makes
 * fifteen of them. Before JDK 24 it is {@code sun.misc.Unsafe}'s; from there on, where that class warns and is to go, it is a
 * memory segment's over the whole address space, which needs the same permission (native access) that loading a library
 * needs there. Both are found by name, so that neither is needed to compile or to run: without them
 * {@link #isReadable} is false, and nothing here may be called.
 */
final class RawMemory {
    private static final VarHandle WORD = MethodHandles.byteArrayViewVarHandle(long[].class, ByteOrder.nativeOrder());
    private static final int FIRST_WITH_SEGMENTS = 24;

    // Constants, so that the compiler inlines what they lead to. Null when there is no way.
    private static final MethodHandle GET_LONG = find("getLong", "OfLong", "JAVA_LONG_UNALIGNED", long.class);
    private static final MethodHandle GET_INT = find("getInt", "OfInt", "JAVA_INT_UNALIGNED", int.class);
    private static final MethodHandle GET_BYTE = find("getByte", "OfByte", "JAVA_BYTE", byte.class);
    private static final MethodHandle COMPARE_AND_SET = findCompareAndSet();

    /** Bytes beyond which the machine's own copy is faster, for all that has to be done before it begins. */
    private static final int LONG_COPY = 256;

    private RawMemory() {}

    static boolean isReadable() {
        return GET_LONG != null && GET_INT != null && GET_BYTE != null && COMPARE_AND_SET != null;
    }

    static long getLong(long address) {
        try {
            return (long) GET_LONG.invokeExact(address);
        } catch (Throwable e) {
            throw unexpected(e);
        }
    }

    static int getInt(long address) {
        try {
            return (int) GET_INT.invokeExact(address);
        } catch (Throwable e) {
            throw unexpected(e);
        }
    }

    static byte getByte(long address) {
        try {
            return (byte) GET_BYTE.invokeExact(address);
        } catch (Throwable e) {
            throw unexpected(e);
        }
    }

    /** Replaces a word, at an address that is a multiple of 8, if it is as expected, with the effects of a volatile write. */
    static boolean compareAndSet(long address, long expected, long value) {
        try {
            return (boolean) COMPARE_AND_SET.invokeExact(address, expected, value);
        } catch (Throwable e) {
            throw unexpected(e);
        }
    }

    // Neither loop below counts in a way that the compiler would split it into three: most have a few steps only, and
    // the fewer instructions a lookup has, the earlier the processor begins to fetch for the next one.

    /** Fills an array with the bytes from an address on. */
    static void copy(long address, byte[] target) {
        if (target.length > LONG_COPY) {
            PhantomWindows.copy(address, target, 0, target.length);
            return;
        }
        int at = 0;
        while (target.length - at >= 4 * Long.BYTES) {
            long first = getLong(address + at);
            long second = getLong(address + at + 8);
            long third = getLong(address + at + 16);
            long fourth = getLong(address + at + 24);
            WORD.set(target, at, first);
            WORD.set(target, at + 8, second);
            WORD.set(target, at + 16, third);
            WORD.set(target, at + 24, fourth);
            at += 4 * Long.BYTES;
        }
        while (target.length - at >= Long.BYTES) {
            WORD.set(target, at, getLong(address + at));
            at += Long.BYTES;
        }
        while (at < target.length) {
            target[at] = getByte(address + at);
            at++;
        }
    }

    /** Whether the bytes from an address on are those of an array. */
    static boolean isEqual(long address, byte[] expected) {
        int at = 0;
        while (expected.length - at >= Long.BYTES) {
            if (getLong(address + at) != (long) WORD.get(expected, at)) {
                return false;
            }
            at += Long.BYTES;
        }
        while (at < expected.length) {
            if (getByte(address + at) != expected[at]) {
                return false;
            }
            at++;
        }
        return true;
    }

    private static MethodHandle find(String unsafeName, String layoutClass, String layout, Class<?> type) {
        try {
            return Runtime.version().feature() >= FIRST_WITH_SEGMENTS
                    ? ofSegment(layoutClass, layout, type)
                    : ofUnsafe(unsafeName, type);
        } catch (ReflectiveOperationException | RuntimeException | LinkageError e) {
            return null;
        }
    }

    private static MethodHandle ofUnsafe(String name, Class<?> type) throws ReflectiveOperationException {
        return methodOfUnsafe(name, MethodType.methodType(type, long.class));
    }

    private static MethodHandle ofSegment(String layoutClass, String layout, Class<?> type)
            throws ReflectiveOperationException {
        Class<?> kind = Class.forName("java.lang.foreign.ValueLayout$" + layoutClass);
        MethodHandle get = MethodHandles.lookup()
                .findVirtual(
                        Class.forName("java.lang.foreign.MemorySegment"),
                        "get",
                        MethodType.methodType(type, kind, long.class));
        return MethodHandles.insertArguments(get, 0, allMemory(), layout(layout));
    }

    private static MethodHandle findCompareAndSet() {
        try {
            if (Runtime.version().feature() < FIRST_WITH_SEGMENTS) {
                MethodHandle swap = methodOfUnsafe(
                        "compareAndSwapLong",
                        MethodType.methodType(boolean.class, Object.class, long.class, long.class, long.class));
                return MethodHandles.insertArguments(swap, 0, (Object) null);
            }
            Object layout = layout("JAVA_LONG");
            VarHandle word = (VarHandle) Class.forName("java.lang.foreign.ValueLayout")
                    .getMethod("varHandle")
                    .invoke(layout);
            return word.toMethodHandle(VarHandle.AccessMode.COMPARE_AND_SET).bindTo(allMemory());
        } catch (ReflectiveOperationException | RuntimeException | LinkageError e) {
            return null;
        }
    }

    private static MethodHandle methodOfUnsafe(String name, MethodType type) throws ReflectiveOperationException {
        Class<?> unsafe = Class.forName("sun.misc.Unsafe");
        Field instance = unsafe.getDeclaredField("theUnsafe");
        instance.setAccessible(true);
        return MethodHandles.lookup().findVirtual(unsafe, name, type).bindTo(instance.get(null));
    }

    /** A memory segment over the whole address space. */
    private static Object allMemory() throws ReflectiveOperationException {
        Class<?> segments = Class.forName("java.lang.foreign.MemorySegment");
        return segments.getMethod("reinterpret", long.class)
                .invoke(segments.getField("NULL").get(null), Long.MAX_VALUE);
    }

    private static Object layout(String name) throws ReflectiveOperationException {
        return Class.forName("java.lang.foreign.ValueLayout").getField(name).get(null);
    }

    private static AssertionError unexpected(Throwable e) {
        return new AssertionError("an access to memory that cannot fail has failed", e);
    }
}
