package com.velt.rz.corvane.io.offheap.util;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.Arrays;

/**
 * Reads native memory by address. The library keeps every phantom buffer alive for ever, so this class asks for one
 * window for each gigabyte-aligned stretch of addresses and serves everything else from the cached windows.
 *
 * <p>Nothing checks that memory lies at an address: the caller holds a pin on the record that it reads. A view does not
 * keep memory alive.
 *
 * <p>Thread safe. A read by address takes no lock and makes no garbage once its window exists.
 */
public final class PhantomWindows {
    /** Largest number of bytes that can be read or viewed at once, from any address. */
    public static final int MAX_LENGTH = 1 << 30;

    // A window begins at a multiple of MAX_LENGTH and is one byte short of twice that length, so a range that begins in
    // the first half fits whatever its address.
    private static final int LENGTH_BITS = 30;
    private static final long BASE_MASK = -(long) MAX_LENGTH;
    private static final OffHeapManager MANAGER = new OffHeapManager();

    /** Immutable; the buffers' positions are not used. */
    private static final class Window {
        final long base;
        final ByteBuffer writable;
        final ByteBuffer readable;
        final ByteBuffer words; // readable, in native order

        Window(long base, ByteBuffer memory) {
            this.base = base;
            this.writable = memory;
            this.readable = memory.asReadOnlyBuffer();
            this.words = readable.duplicate().order(ByteOrder.nativeOrder());
        }
    }

    /** All windows; replaced as a whole under the class lock, read without it. */
    private static volatile Window[] windows = {};

    /** The window used last of each 64th stretch, or null. Races are harmless: any window is checked before use. */
    private static final Window[] RECENT = new Window[64];

    private PhantomWindows() {}

    /** Makes the window over an address now, so that no later view of it has to. */
    public static void prepare(long address) {
        windowOver(address);
    }

    /**
     * Views native memory for reading and writing.
     *
     * @param address first byte
     * @param length bytes, 0 to {@link #MAX_LENGTH}
     * @return a view of its own position and limit, in big-endian order
     */
    public static ByteBuffer slice(long address, int length) {
        checkLength(length);
        return windowOver(address).writable.slice(offset(address), length);
    }

    /**
     * Views native memory for reading.
     *
     * @param address first byte
     * @param length bytes, 0 to {@link #MAX_LENGTH}
     * @return a read-only view of its own position and limit, in big-endian order
     */
    public static ByteBuffer readOnlySlice(long address, int length) {
        checkLength(length);
        return windowOver(address).readable.slice(offset(address), length);
    }

    /**
     * Copies native memory into an array.
     *
     * @param address first byte
     * @param length bytes, 0 to {@link #MAX_LENGTH}
     * @throws IndexOutOfBoundsException when the range does not lie in the array
     */
    public static void copy(long address, byte[] target, int offset, int length) {
        checkLength(length);
        windowOver(address).readable.get(offset(address), target, offset, length);
    }

    /**
     * Copies native memory into a new array.
     *
     * @param address first byte
     * @param length bytes, 0 to {@link #MAX_LENGTH}
     */
    public static byte[] copy(long address, long length) {
        int count = Math.toIntExact(length);
        checkLength(count);
        byte[] bytes = new byte[count];
        copy(address, bytes, 0, count);
        return bytes;
    }

    /** Reads eight bytes in native order. The address need not be aligned. */
    public static long getLong(long address) {
        return windowOver(address).words.getLong(offset(address));
    }

    /** Reads one byte, as a number from 0 to 255. */
    public static int getByte(long address) {
        return windowOver(address).words.get(offset(address)) & 0xff;
    }

    /**
     * Returns the number of windows made so far: a bound on the buffers that the library keeps alive for this class.
     */
    public static int windowCount() {
        return windows.length;
    }

    private static void checkLength(int length) {
        if (length < 0 || length > MAX_LENGTH) {
            throw new IllegalArgumentException("length " + length + " is not between 0 and " + MAX_LENGTH + " bytes");
        }
    }

    private static int offset(long address) {
        return (int) (address & ~BASE_MASK);
    }

    private static Window windowOver(long address) {
        Window recent = RECENT[(int) (address >>> LENGTH_BITS) & (RECENT.length - 1)];
        return recent != null && recent.base == (address & BASE_MASK) ? recent : findWindow(address & BASE_MASK);
    }

    private static Window findWindow(long base) {
        for (Window window : windows) {
            if (window.base == base) {
                RECENT[(int) (base >>> LENGTH_BITS) & (RECENT.length - 1)] = window;
                return window;
            }
        }
        return addWindow(base);
    }

    private static synchronized Window addWindow(long base) {
        Window[] current = windows;
        for (Window window : current) {
            if (window.base == base) {
                return window;
            }
        }
        ByteBuffer memory = MANAGER.allocatePhantom(base);
        if (memory == null) {
            throw new IllegalStateException("The virtual machine cannot make a direct buffer over address 0x"
                    + Long.toHexString(base) + ": it may not support access to direct buffers from native code");
        }
        Window added = new Window(base, memory);
        Window[] grown = Arrays.copyOf(current, current.length + 1);
        grown[current.length] = added;
        windows = grown;
        return added;
    }
}
