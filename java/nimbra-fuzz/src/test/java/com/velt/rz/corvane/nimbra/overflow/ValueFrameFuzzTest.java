package com.velt.rz.corvane.nimbra.overflow;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.fail;

import com.code_intelligence.jazzer.api.FuzzedDataProvider;
import com.code_intelligence.jazzer.junit.FuzzTest;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.Arrays;

/**
 * Whatever happens to a file, a value is read as it was written, or not at all. The changes are bursts of up to 32 bits,
 * which the checksum always shows, except one in 2^32 of those that reach from the value into the checksum itself.
 */
class ValueFrameFuzzTest {
    private static final int LONGEST_COPIED = 64 << 10;

    /** A file in memory that moves a few bytes at a time. */
    private static final class MemoryFile implements BlockFile {
        private final int most;
        byte[] bytes = {};

        MemoryFile(int most) {
            this.most = most;
        }

        @Override
        public int write(ByteBuffer source, long offset) {
            int count = Math.min(most, source.remaining());
            int end = Math.toIntExact(offset) + count;
            if (bytes.length < end) {
                bytes = Arrays.copyOf(bytes, end);
            }
            source.get(bytes, (int) offset, count);
            return count;
        }

        @Override
        public int read(ByteBuffer target, long offset) {
            int count = (int) Math.min(Math.min(most, target.remaining()), bytes.length - offset);
            if (count <= 0) {
                return -1;
            }
            target.put(bytes, (int) offset, count);
            return count;
        }

        @Override
        public void close() {}
    }

    @FuzzTest
    void damagedValuesAreNeverRead(FuzzedDataProvider data) throws IOException {
        MemoryFile file = new MemoryFile(data.consumeBoolean() ? Integer.MAX_VALUE : data.consumeInt(1, 9) << 12);
        ValueFrame frame = new ValueFrame();
        int offset = data.consumeInt(0, 100);
        long position = data.consumeLong();
        // Long values take another way; their bytes need not come from the input.
        int padding = data.consumeInt(0, 7) == 0 ? LONGEST_COPIED : 0;
        int change = data.consumeInt(0, 5);
        int where = data.consumeInt(0, LONGEST_COPIED + 200);
        int with = data.consumeInt();
        byte[] start = data.consumeRemainingAsBytes();
        byte[] value = Arrays.copyOf(start, start.length + padding);

        ByteBuffer source = ByteBuffer.wrap(value);
        frame.write(file, offset, position, source);
        assertEquals(0, source.position());
        assertEquals(offset + value.length + ValueFrame.BYTES, file.bytes.length);

        byte[] written = file.bytes.clone();
        long readPosition = position;
        int readLength = value.length;
        switch (change) {
            case 0 -> {}
            case 1 -> burst(file.bytes, offset + where % (value.length + ValueFrame.BYTES), with);
            case 2 -> file.bytes = Arrays.copyOf(file.bytes, where % (file.bytes.length + 1));
            case 3 -> readPosition = position ^ Integer.toUnsignedLong(with);
            case 4 -> readLength = where % (value.length + 100);
            default -> Arrays.fill(file.bytes, offset, file.bytes.length, (byte) 0);
        }
        // A frame of zeros around zeros would be whole again only with a checksum of zero.
        boolean intact = Arrays.equals(written, file.bytes) && readPosition == position && readLength == value.length;
        read(frame, file, offset, readPosition, readLength, value, intact);
    }

    /** Changes up to four bytes. */
    private static void burst(byte[] bytes, int at, int with) {
        for (int i = 0; i < Integer.BYTES && at + i < bytes.length; i++) {
            bytes[at + i] ^= (byte) (with >>> (8 * i));
        }
    }

    private static void read(
            ValueFrame frame, MemoryFile file, int offset, long position, int length, byte[] expected, boolean intact)
            throws IOException {
        byte[] before = new byte[length + 8];
        Arrays.fill(before, (byte) 0x55);
        ByteBuffer target = ByteBuffer.wrap(before.clone()).position(4);
        try {
            frame.read(file, offset, position, length, target);
        } catch (CorruptValueException e) {
            if (intact) {
                throw e;
            }
            assertEquals(4, target.position());
            assertEquals(position, e.position());
            for (int i = 0; i < before.length; i++) {
                byte now = target.get(i);
                boolean inside = i >= 4 && i < 4 + length;
                if (now != 0x55 && !(inside && now == 0)) {
                    fail("byte " + i + " of the target is " + now);
                }
            }
            return;
        }
        if (!intact) {
            fail("a damaged value was read");
        }
        assertEquals(4 + length, target.position());
        assertArrayEquals(expected, Arrays.copyOfRange(target.array(), 4, 4 + length));
        assertArrayEquals(Arrays.copyOf(before, 4), Arrays.copyOf(target.array(), 4));
    }
}
