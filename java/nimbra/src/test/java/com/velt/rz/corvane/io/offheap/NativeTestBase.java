package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;
import java.util.function.LongSupplier;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;

/**
 * Runs a test against the one native runtime of the process: the library is initialised once, the maximum is one
 * gigabyte during every test and afterwards what it was, and every test leaves as many live blocks as it found.
 */
public abstract class NativeTestBase {
    /** Bytes between the start of a block and its data. */
    protected static final long HEADER = 24;

    protected static final int FREE = 4;
    protected static final byte CHECKED = 0;
    protected static final byte UNCHECKED = 1;
    protected static final byte PLAIN = 0;
    protected static final byte KEY = 1;
    protected static final byte VALUE = 2;
    protected static final byte QUERY_RESULT = 3;
    protected static final byte PAGED_IN = 4;

    protected static final int BINARY = 0;
    protected static final int JBYTE = 12;
    protected static final int JSHORT = 15;
    protected static final int JINT = 16;
    protected static final int JLONG = 17;
    protected static final int JFLOAT = 18;
    protected static final int JDOUBLE = 19;
    protected static final int JSTRING = 20;
    protected static final int OTHER = 100;

    protected static final long GIGABYTE = 1L << 30;

    protected static final OffHeapManager MANAGER = new OffHeapManager();

    private static boolean initialised;

    private long blocksBefore;
    private long metadataBefore;
    private long maximumBefore;
    private long refusedAfterAllocation;

    /** Whether the library is started with disk overflow. Such a class has a process to itself. */
    protected boolean overflows() {
        return false;
    }

    @BeforeEach
    final void startRuntime() {
        if (!initialised) {
            assertTrue(MANAGER.initializeOffHeap(GIGABYTE, 0, 0, overflows()));
            initialised = true;
        }
        maximumBefore = MANAGER.setCurrentMaxOffHeapSize(GIGABYTE);
        blocksBefore = MANAGER.getAllocatingCountInOffHeap();
        metadataBefore = MANAGER.getAllocatingInternalMetadataSize();
    }

    @AfterEach
    final void checkNothingIsLeft() {
        MANAGER.setCurrentMaxOffHeapSize(maximumBefore);
        assertEquals(blocksBefore + refusedAfterAllocation, MANAGER.getAllocatingCountInOffHeap(), "live blocks");
        assertEquals(metadataBefore, MANAGER.getAllocatingInternalMetadataSize(), "internal metadata bytes");
    }

    /** An allocation refused by its second check stays in the block count: such a test says so here. */
    protected final void countRefusalAfterAllocation() {
        refusedAfterAllocation++;
    }

    /**
     * Runs a call while this many bytes are left, with the library's own byte count as the size in use; a refusal reads
     * as 0. The maximum is one gigabyte afterwards.
     */
    protected final long withRoom(long room, LongSupplier call) {
        MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + room);
        try {
            return call.getAsLong();
        } catch (IllegalStateException e) {
            return 0;
        } catch (OutOfMemoryError e) {
            countRefusalAfterAllocation();
            return 0;
        } finally {
            MANAGER.setCurrentMaxOffHeapSize(GIGABYTE);
        }
    }

    /** Blocks that this test holds now. */
    protected final long liveBlocks() {
        return MANAGER.getAllocatingCountInOffHeap() - blocksBefore - refusedAfterAllocation;
    }

    /** Internal metadata bytes that this test holds now. */
    protected final long metadataBytes() {
        return MANAGER.getAllocatingInternalMetadataSize() - metadataBefore;
    }

    protected static ByteBuffer allocate(int size, byte kind) {
        return MANAGER.allocateDirectFromOffHeap(size, CHECKED, kind);
    }

    /** A block with these bytes and this type tag, and one pin that {@link #free} drops. */
    protected static ByteBuffer block(byte kind, int type, byte... bytes) {
        ByteBuffer buffer = allocate(bytes.length, kind);
        buffer.put(0, bytes);
        MANAGER.setOffHeapByteBufferDeserializedType(buffer, type);
        return buffer;
    }

    protected static ByteBuffer key(byte... bytes) {
        return block(KEY, BINARY, bytes);
    }

    protected static ByteBuffer value(byte... bytes) {
        return block(VALUE, BINARY, bytes);
    }

    protected static void free(ByteBuffer... buffers) {
        for (ByteBuffer buffer : buffers) {
            assertTrue(MANAGER.unpinToFree(buffer, FREE));
        }
    }

    protected static long address(ByteBuffer buffer) {
        return MANAGER.getOffHeapAddressImpl(buffer);
    }

    protected static byte[] bytesAt(long address, long length) {
        byte[] bytes = new byte[Math.toIntExact(length)];
        PhantomWindows.copy(address, bytes, 0, bytes.length);
        return bytes;
    }

    protected static byte[] bytes(int... values) {
        byte[] bytes = new byte[values.length];
        for (int i = 0; i < values.length; i++) {
            bytes[i] = (byte) values[i];
        }
        return bytes;
    }
}
