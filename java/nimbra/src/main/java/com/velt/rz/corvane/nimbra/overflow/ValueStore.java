package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;
import java.nio.ByteBuffer;

/**
 * Values on disk, each an opaque run of bytes at a position that the store chooses. Nothing survives {@link #close} or
 * the end of the process: this is room for values that do not fit in memory, not a database.
 *
 * <p>All methods may be called by any number of threads. A call holds no lock of the store while it reads or writes a
 * file, so that no thread waits for another one's input or output; the internal lock covers bookkeeping only. No method
 * calls back into a map. An interrupted thread's calls work as usual and leave its interrupt status set.
 *
 * <p>One position belongs to one caller: a value must not be read and freed at the same time, since its space may be
 * given to another value as soon as it is free.
 *
 * <p>After {@link #close}, and in calls that it cuts off, every method except the figures ({@link #bytesOnDisk},
 * {@link #bytesLive}, {@link #limit}) and {@code close} itself throws {@link StoreClosedException}.
 */
public interface ValueStore extends AutoCloseable {
    /**
     * Stores the remaining bytes of {@code value}, whose position and limit stay as they are.
     *
     * @return the position of the value, at least 1; no other value gets it before {@link #free}
     * @throws StoreFullException if the limit or the file system leaves no room
     * @throws IOException if the file system reports an error; in both cases nothing is stored, the space is free
     *     again, and the store can be used further
     * @throws IllegalArgumentException if the value is longer than {@link #MAX_LENGTH}
     */
    long write(ByteBuffer value) throws IOException;

    /**
     * Puts the value at {@code position} into {@code target} and advances the target's position by {@code length}. The
     * stored length and the checksum are compared first: when the call throws, the target's position is where it was
     * and none of the bytes behind it come from the file.
     *
     * @param length of the value in bytes, as it was written
     * @throws CorruptValueException if no such value stands there, its bytes end early, or they are not those written
     * @throws IOException if the file system reports an error
     * @throws java.nio.BufferOverflowException if less than {@code length} bytes remain in the target
     */
    void read(long position, int length, ByteBuffer target) throws IOException;

    /**
     * Gives the space of a value back, for other values or, with the last value of a file, to the file system.
     *
     * @param length of the value in bytes, as it was written
     * @throws IllegalArgumentException if no value stands at the position, so when it is freed a second time, or the
     *     value there cannot have this length; nothing changes then
     * @throws IOException if an emptied file could not be deleted; the position is free nevertheless
     */
    void free(long position, int length) throws IOException;

    /**
     * Bytes on disk that the value at {@code position} occupies: its own, the frame around them, and what rounding adds.
     *
     * @throws IllegalArgumentException if no value stands at the position
     */
    int chunkSize(long position) throws IOException;

    /** Bytes that the files take, free space inside them included. Never above {@link #limit}. */
    long bytesOnDisk();

    /** Sum of the lengths of all values, in bytes. */
    long bytesLive();

    /** The most that the files may take together, in bytes. */
    long limit();

    /**
     * Cuts off calls in progress and deletes the files. Does nothing when called again.
     *
     * @throws IOException if a file could not be closed or deleted; all others are
     */
    @Override
    void close() throws IOException;

    /** The longest value, in bytes: 256 KiB and a frame less than 2 GiB. */
    int MAX_LENGTH = SlabAllocator.MAX_LENGTH;
}
