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
    private static final long BASE_MASK = -(long) MAX_LENGTH;
    private static final boolean SWAP = ByteOrder.nativeOrder() == ByteOrder.LITTLE_ENDIAN;
    private static final OffHeapManager MANAGER = new OffHeapManager();

    /** Immutable: bases ascend, and element i of each array belongs to the same window. */
    private static final class Windows {
        final long[] bases;
        final ByteBuffer[] writable;
        final ByteBuffer[] readable;

        Windows(long[] bases, ByteBuffer[] writable, ByteBuffer[] readable) {
            this.bases = bases;
            this.writable = writable;
            this.readable = readable;
        }

        Windows with(int place, long base, ByteBuffer window) {
            return new Windows(
                    insert(bases, place, base),
                    insert(writable, place, window),
                    insert(readable, place, window.asReadOnlyBuffer()));
        }

        private static long[] insert(long[] old, int place, long element) {
            long[] grown = Arrays.copyOf(old, old.length + 1);
            System.arraycopy(old, place, grown, place + 1, old.length - place);
            grown[place] = element;
            return grown;
        }

        private static ByteBuffer[] insert(ByteBuffer[] old, int place, ByteBuffer element) {
            ByteBuffer[] grown = Arrays.copyOf(old, old.length + 1);
            System.arraycopy(old, place, grown, place + 1, old.length - place);
            grown[place] = element;
            return grown;
        }
    }

    // Replaced as a whole under the class lock, read without it.
    private static volatile Windows windows = new Windows(new long[0], new ByteBuffer[0], new ByteBuffer[0]);

    private PhantomWindows() {}

    /** Makes the window over an address now, so that no later view of it has to. */
    public static void prepare(long address) {
        windowsOver(address);
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
        Windows current = windowsOver(address);
        return current.writable[place(current, address)].slice(offset(address), length);
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
        Windows current = windowsOver(address);
        return current.readable[place(current, address)].slice(offset(address), length);
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
        Windows current = windowsOver(address);
        current.readable[place(current, address)].get(offset(address), target, offset, length);
    }

    /** Reads eight bytes in native order. The address need not be aligned. */
    public static long getLong(long address) {
        Windows current = windowsOver(address);
        long bigEndian = current.readable[place(current, address)].getLong(offset(address));
        return SWAP ? Long.reverseBytes(bigEndian) : bigEndian;
    }

    /** Reads one byte, as a number from 0 to 255. */
    public static int getByte(long address) {
        Windows current = windowsOver(address);
        return current.readable[place(current, address)].get(offset(address)) & 0xff;
    }

    /**
     * Returns the number of windows made so far: a bound on the buffers that the library keeps alive for this class.
     */
    public static int windowCount() {
        return windows.bases.length;
    }

    private static void checkLength(int length) {
        if (length < 0 || length > MAX_LENGTH) {
            throw new IllegalArgumentException("length " + length + " is not between 0 and " + MAX_LENGTH + " bytes");
        }
    }

    private static int offset(long address) {
        return (int) (address & ~BASE_MASK);
    }

    private static int place(Windows windows, long address) {
        return Arrays.binarySearch(windows.bases, address & BASE_MASK);
    }

    private static Windows windowsOver(long address) {
        Windows current = windows;
        return place(current, address) >= 0 ? current : addWindow(address & BASE_MASK);
    }

    private static synchronized Windows addWindow(long base) {
        Windows current = windows;
        int place = Arrays.binarySearch(current.bases, base);
        if (place < 0) {
            ByteBuffer window = MANAGER.allocatePhantom(base);
            if (window == null) {
                throw new IllegalStateException("The virtual machine cannot make a direct buffer over address 0x"
                        + Long.toHexString(base) + ": it may not support access to direct buffers from native code");
            }
            current = current.with(-place - 1, base, window);
            windows = current;
        }
        return current;
    }
}
