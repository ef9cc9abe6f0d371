package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.Random;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

class RawMemoryTest {
    private static final int LONGEST = 300; // also beyond what is copied word by word

    private final ByteBuffer memory =
            ByteBuffer.allocateDirect(LONGEST + 2 * Long.BYTES).order(ByteOrder.nativeOrder());
    private final byte[] content = new byte[memory.capacity()];
    private final long address = CallNatives.address(memory);

    @BeforeEach
    void fill() {
        new Random(1).nextBytes(content);
        memory.put(0, content);
    }

    @Test
    void thisMachineCanBeRead() {
        assertTrue(RawMemory.isReadable());
    }

    @Test
    void wordsAreReadInNativeOrderFromAnyAddress() {
        for (int at = 0; at < LONGEST; at++) {
            assertEquals(memory.getLong(at), RawMemory.getLong(address + at));
            assertEquals(memory.getInt(at), RawMemory.getInt(address + at));
            assertEquals(memory.get(at), RawMemory.getByte(address + at));
        }
    }

    @Test
    void aWordIsSetOnlyWhenItIsAsExpected() {
        for (int at = 0; at + Long.BYTES <= LONGEST; at += Long.BYTES) {
            long before = memory.getLong(at);
            assertFalse(RawMemory.compareAndSet(address + at, before + 1, 42));
            assertArrayEquals(content, TestRuntime.read(memory.duplicate()));
            assertTrue(RawMemory.compareAndSet(address + at, before, 42));
            assertEquals(42, memory.getLong(at));
            assertTrue(RawMemory.compareAndSet(address + at, 42, before));
        }
        assertArrayEquals(content, TestRuntime.read(memory.duplicate()));
    }

    @Test
    void noneOfManySettingsIsLost() throws InterruptedException {
        int times = 200_000;
        memory.putLong(0, 0);
        Runnable count = () -> {
            for (int n = 0; n < times; n++) {
                long seen = RawMemory.getLong(address);
                while (!RawMemory.compareAndSet(address, seen, seen + 1)) {
                    seen = RawMemory.getLong(address);
                }
            }
        };
        Thread other = new Thread(count);
        other.start();
        count.run();
        other.join();
        assertEquals(2 * times, memory.getLong(0));
    }

    @Test
    void copyFillsArraysOfAllLengthsFromAnyAddress() {
        for (int from = 0; from < Long.BYTES; from++) {
            for (int length = 0; length <= LONGEST; length++) {
                byte[] target = new byte[length];
                RawMemory.copy(address + from, target);
                assertArrayEquals(slice(from, length), target, length + " bytes from " + from);
            }
        }
    }

    @Test
    void copyLeavesTheMemoryAsItIs() {
        RawMemory.copy(address, new byte[LONGEST]);
        assertArrayEquals(content, TestRuntime.read(memory.duplicate()));
    }

    @Test
    void sameBytesOfAllLengthsAreEqualAtAnyAddress() {
        for (int from = 0; from < Long.BYTES; from++) {
            for (int length = 0; length <= LONGEST; length++) {
                assertTrue(RawMemory.isEqual(address + from, slice(from, length)), length + " bytes from " + from);
            }
        }
    }

    @Test
    void everyByteCounts() {
        for (int length = 1; length <= LONGEST; length++) {
            for (int changed = 0; changed < length; changed++) {
                byte[] other = slice(0, length);
                other[changed] ^= 1;
                assertFalse(RawMemory.isEqual(address, other), "byte " + changed + " of " + length);
            }
        }
    }

    @Test
    void bytesBehindTheArrayDoNotCount() {
        for (int length = 0; length <= LONGEST; length++) {
            byte[] expected = slice(0, length);
            memory.put(length, (byte) ~content[length]);
            assertTrue(RawMemory.isEqual(address, expected), length + " bytes");
            memory.put(length, content[length]);
        }
    }

    private byte[] slice(int from, int length) {
        byte[] bytes = new byte[length];
        System.arraycopy(content, from, bytes, 0, length);
        return bytes;
    }
}
