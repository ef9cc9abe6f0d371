package com.velt.rz.corvane.io.offheap.util;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.NativeTestBase;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.ReadOnlyBufferException;
import java.util.concurrent.BrokenBarrierException;
import java.util.concurrent.CyclicBarrier;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Reading native memory by address. */
class PhantomWindowsTest extends NativeTestBase {
    /** Addresses that no process maps: a view over them may be made, but not read. */
    private static final long UNMAPPED = 0x2000_0000_0000_0000L;

    @Test
    void everyReadSeesTheSameBytes() {
        ByteBuffer block = block(PLAIN, BINARY, bytes(1, 2, 3, 4, 5, 6, 7, 8, 0xfe));
        long address = address(block);
        assertEquals(1, PhantomWindows.getByte(address));
        assertEquals(0xfe, PhantomWindows.getByte(address + 8));
        ByteBuffer expected = block.duplicate().order(ByteOrder.nativeOrder());
        assertEquals(expected.getLong(0), PhantomWindows.getLong(address));
        assertEquals(expected.getLong(1), PhantomWindows.getLong(address + 1), "without alignment");

        byte[] target = bytes(9, 9, 9, 9, 9);
        PhantomWindows.copy(address + 2, target, 1, 3);
        assertArrayEquals(bytes(9, 3, 4, 5, 9), target);
        PhantomWindows.copy(address, target, 5, 0);
        assertThrows(IndexOutOfBoundsException.class, () -> PhantomWindows.copy(address, target, 3, 3));
        assertArrayEquals(bytes(9, 3, 4, 5, 9), target);

        ByteBuffer view = PhantomWindows.readOnlySlice(address + 1, 4);
        assertEquals(0, view.position());
        assertEquals(4, view.capacity());
        assertEquals(ByteOrder.BIG_ENDIAN, view.order());
        assertEquals(0x02030405, view.getInt());
        free(block);
    }

    @Test
    void onlyAWritableSliceCanBeWritten() {
        ByteBuffer block = block(PLAIN, BINARY, bytes(1, 2, 3));
        PhantomWindows.slice(address(block), 3).put(1, (byte) 42);
        assertEquals(42, block.get(1));
        ByteBuffer readOnly = PhantomWindows.readOnlySlice(address(block), 3);
        assertThrows(ReadOnlyBufferException.class, () -> readOnly.put(1, (byte) 43));
        assertEquals(42, block.get(1));
        free(block);
    }

    @Test
    void slicesAreIndependent() {
        ByteBuffer block = block(PLAIN, BINARY, bytes(1, 2, 3));
        ByteBuffer first = PhantomWindows.slice(address(block), 3);
        first.position(2);
        assertEquals(0, PhantomWindows.slice(address(block), 3).position());
        free(block);
    }

    @ParameterizedTest
    @ValueSource(longs = {0, 1, (1L << 30) - 1})
    void theGreatestLengthFitsAnyAddress(long offset) {
        long address = UNMAPPED + offset;
        ByteBuffer view = PhantomWindows.slice(address, PhantomWindows.MAX_LENGTH);
        assertEquals(PhantomWindows.MAX_LENGTH, view.capacity());
        assertEquals(address, MANAGER.getOffHeapAddressImpl(view));
    }

    @ParameterizedTest
    @ValueSource(ints = {-1, PhantomWindows.MAX_LENGTH + 1, Integer.MAX_VALUE, Integer.MIN_VALUE})
    void otherLengthsAreNamedAndRefused(int length) {
        String message = "length " + length + " is not between 0 and 1073741824 bytes";
        assertEquals(
                message,
                assertThrows(IllegalArgumentException.class, () -> PhantomWindows.slice(UNMAPPED, length))
                        .getMessage());
        assertEquals(
                message,
                assertThrows(IllegalArgumentException.class, () -> PhantomWindows.readOnlySlice(UNMAPPED, length))
                        .getMessage());
        assertEquals(
                message,
                assertThrows(
                                IllegalArgumentException.class,
                                () -> PhantomWindows.copy(UNMAPPED, new byte[0], 0, length))
                        .getMessage());
    }

    @Test
    void thereIsOneWindowForAGigabyte() {
        // Stretches in an order that makes a new window go before, behind and between those that exist.
        long[] stretches = {20, 10, 30, 25, 5, 35, 15};
        long start = UNMAPPED + (100L << 30);
        int before = PhantomWindows.windowCount();
        for (int round = 0; round < 2; round++) {
            for (long stretch : stretches) {
                long address = start + (stretch << 30) + 12345;
                assertEquals(
                        address,
                        MANAGER.getOffHeapAddressImpl(PhantomWindows.slice(address, 10)),
                        "stretch " + stretch);
                assertEquals(address + 1, MANAGER.getOffHeapAddressImpl(PhantomWindows.readOnlySlice(address + 1, 10)));
            }
            assertEquals(before + stretches.length, PhantomWindows.windowCount());
        }
    }

    /** Stretches that are a multiple of 64 windows apart are looked for at one place of the table. */
    @Test
    void addressesThatMeetInTheTableKeepTheirWindows() {
        long first = UNMAPPED + (1000L << 30) + 12345;
        int before = PhantomWindows.windowCount();
        for (int round = 0; round < 3; round++) {
            for (int far = 0; far < 3; far++) {
                long address = first + far * (64L << 30);
                PhantomWindows.prepare(address);
                assertEquals(address, MANAGER.getOffHeapAddressImpl(PhantomWindows.slice(address, 10)));
                assertEquals(address, MANAGER.getOffHeapAddressImpl(PhantomWindows.readOnlySlice(address, 10)));
            }
        }
        assertEquals(before + 3, PhantomWindows.windowCount());
    }

    @Test
    void aPreparedWindowIsTheOneThatIsUsed() {
        long address = UNMAPPED + (2000L << 30);
        int before = PhantomWindows.windowCount();
        PhantomWindows.prepare(address);
        assertEquals(before + 1, PhantomWindows.windowCount());
        PhantomWindows.prepare(address + PhantomWindows.MAX_LENGTH - 1);
        PhantomWindows.slice(address + 1, 1);
        assertEquals(before + 1, PhantomWindows.windowCount());
    }

    @Test
    void aCopyIsAnArrayOfThatLength() {
        ByteBuffer block = block(PLAIN, BINARY, bytes(1, 2, 3, 4, 5));
        assertArrayEquals(bytes(2, 3, 4), PhantomWindows.copy(address(block) + 1, 3L));
        assertArrayEquals(bytes(), PhantomWindows.copy(address(block), 0L));
        free(block);
    }

    @Test
    void aCopyLongerThanAnArrayIsRefused() {
        assertThrows(ArithmeticException.class, () -> PhantomWindows.copy(UNMAPPED, 1L << 32));
    }

    @Test
    void threadsShareTheirWindows() throws InterruptedException {
        long start = UNMAPPED + (200L << 30);
        int before = PhantomWindows.windowCount();
        CyclicBarrier together = new CyclicBarrier(8);
        Thread[] threads = new Thread[8];
        boolean[] right = new boolean[threads.length];
        for (int i = 0; i < threads.length; i++) {
            int number = i;
            threads[i] = new Thread(() -> {
                await(together);
                boolean all = true;
                for (int n = 0; n < 64; n++) {
                    long address = start + ((long) ((n * (number + 1)) % 16) << 30) + n;
                    all &= MANAGER.getOffHeapAddressImpl(PhantomWindows.slice(address, 1)) == address;
                }
                right[number] = all;
            });
        }
        for (Thread thread : threads) {
            thread.start();
        }
        for (int i = 0; i < threads.length; i++) {
            threads[i].join();
            assertTrue(right[i], "thread " + i);
        }
        assertEquals(before + 16, PhantomWindows.windowCount());
    }

    private static void await(CyclicBarrier barrier) {
        try {
            barrier.await();
        } catch (InterruptedException | BrokenBarrierException e) {
            throw new IllegalStateException(e);
        }
    }
}
