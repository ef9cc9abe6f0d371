package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.zip.CRC32C;

/**
 * How a value stands in a file: its length (4 bytes), its bytes, and a checksum (4 bytes), big endian. The checksum is
 * the CRC-32C of position, length and bytes, so that a value that got to a wrong place does not pass either.
 *
 * <p>Values of up to 64 KiB travel with their frame in one transfer through a buffer outside the heap, and reach the
 * caller's buffer only when they have passed; longer ones go directly. Thread safe; threads share nothing but spare
 * buffers.
 */
final class ValueFrame {
    static final int BYTES = 2 * Integer.BYTES;

    private static final int LARGEST_COPIED = 64 << 10;
    private static final int PIECE =
            1 << 20; // the virtual machine copies arrays into memory of this size, and keeps it
    private static final int SPARES = 16;

    private final ArrayBlockingQueue<ByteBuffer> spares = new ArrayBlockingQueue<>(SPARES);

    /** Writes a frame around the remaining bytes of a buffer, whose position does not change. */
    void write(BlockFile file, long offset, long position, ByteBuffer value) throws IOException {
        int length = value.remaining();
        boolean copied = length <= LARGEST_COPIED;
        ByteBuffer buffer = takeBuffer();
        try {
            CRC32C checksum = new CRC32C();
            buffer.clear().putLong(position).putInt(length);
            if (copied) {
                buffer.put(value.duplicate());
            }
            checksum.update(buffer.flip());
            buffer.limit(buffer.capacity());
            if (!copied) {
                checksum.update(value.duplicate());
                writeFully(file, offset + Integer.BYTES, value.duplicate());
                writeFully(file, offset, buffer.duplicate().flip().position(Long.BYTES));
                buffer.clear().putInt((int) checksum.getValue()).flip();
                writeFully(file, offset + Integer.BYTES + length, buffer);
                return;
            }
            buffer.putInt((int) checksum.getValue()).flip().position(Long.BYTES);
            writeFully(file, offset, buffer);
        } finally {
            spares.offer(buffer);
        }
    }

    /**
     * Reads the value into the target and advances the target's position.
     *
     * @throws CorruptValueException if what stands there is not a value of this length at this position; the target's
     *     position has not changed, and bytes that were put behind it are overwritten with zeros
     */
    void read(BlockFile file, long offset, long position, int length, ByteBuffer target) throws IOException {
        ByteBuffer buffer = takeBuffer();
        try {
            if (length <= LARGEST_COPIED) {
                ByteBuffer value = readCopied(file, offset, position, length, buffer);
                target.put(value);
            } else {
                readDirectly(file, offset, position, length, target, buffer);
            }
        } finally {
            spares.offer(buffer);
        }
    }

    private static ByteBuffer readCopied(BlockFile file, long offset, long position, int length, ByteBuffer buffer)
            throws IOException {
        int end = Long.BYTES + Integer.BYTES + length;
        buffer.clear().putLong(position).limit(end + Integer.BYTES);
        readFully(file, offset, position, length, 0, buffer);
        checkLength(position, length, buffer.getInt(Long.BYTES));
        CRC32C checksum = new CRC32C();
        checksum.update(buffer.flip().limit(end));
        buffer.limit(end + Integer.BYTES);
        checkChecksum(position, buffer.getInt(end), (int) checksum.getValue());
        return buffer.limit(end).position(Long.BYTES + Integer.BYTES);
    }

    private static void readDirectly(
            BlockFile file, long offset, long position, int length, ByteBuffer target, ByteBuffer buffer)
            throws IOException {
        ByteBuffer value = target.slice(target.position(), length);
        boolean passed = false;
        try {
            buffer.clear().limit(Integer.BYTES);
            readFully(file, offset, position, length, 0, buffer);
            checkLength(position, length, buffer.getInt(0));
            readFully(file, offset, position, length, Integer.BYTES, value);
            buffer.clear().limit(Integer.BYTES);
            readFully(file, offset, position, length, Integer.BYTES + length, buffer);
            CRC32C checksum = new CRC32C();
            checksum.update(ByteBuffer.allocate(Long.BYTES + Integer.BYTES)
                    .putLong(position)
                    .putInt(length)
                    .flip());
            checksum.update(value.flip());
            checkChecksum(position, buffer.getInt(0), (int) checksum.getValue());
            passed = true;
        } finally {
            if (passed) {
                target.position(target.position() + length);
            } else {
                value.clear();
                while (value.hasRemaining()) {
                    value.put((byte) 0);
                }
            }
        }
    }

    private static void checkLength(long position, int expected, int found) throws CorruptValueException {
        if (found != expected) {
            throw new CorruptValueException(position, "length " + expected, "length " + found);
        }
    }

    private static void checkChecksum(long position, int expected, int found) throws CorruptValueException {
        if (found != expected) {
            throw new CorruptValueException(
                    position,
                    "checksum " + Integer.toHexString(expected),
                    "bytes with checksum " + Integer.toHexString(found));
        }
    }

    private static void writeFully(BlockFile file, long offset, ByteBuffer bytes) throws IOException {
        int start = bytes.position();
        int end = bytes.limit();
        while (bytes.position() < end) {
            bytes.limit(Math.min(end, bytes.position() + PIECE));
            if (file.write(bytes, offset + bytes.position() - start) <= 0) {
                throw new IOException(
                        "only " + (bytes.position() - start) + " of " + (end - start) + " bytes could be written");
            }
        }
    }

    /**
     * Fills the buffer with what stands {@code from} bytes behind the start of the frame at {@code offset}.
     *
     * @throws CorruptValueException if the file ends early
     */
    private static void readFully(BlockFile file, long offset, long position, int length, int from, ByteBuffer bytes)
            throws IOException {
        int start = bytes.position();
        int end = bytes.limit();
        while (bytes.position() < end) {
            bytes.limit(Math.min(end, bytes.position() + PIECE));
            int found = from + bytes.position() - start;
            if (file.read(bytes, offset + found) <= 0) {
                throw new CorruptValueException(
                        position, length + BYTES + " bytes on disk", "the end of the file after " + found);
            }
        }
    }

    private ByteBuffer takeBuffer() {
        ByteBuffer spare = spares.poll();
        return spare != null ? spare : ByteBuffer.allocateDirect(Long.BYTES + LARGEST_COPIED + BYTES);
    }
}
