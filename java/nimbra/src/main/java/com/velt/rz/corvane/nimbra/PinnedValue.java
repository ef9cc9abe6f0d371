package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.nio.ByteBuffer;

/**
 * A value as it stands in native memory, seen without a copy. It holds one pin on the value's buffer: the bytes stay
 * where and what they are until {@link #close}, also while the entry is replaced or removed and after the map is closed.
 * A pinned value that is never closed keeps its memory for the life of the process.
 *
 * <p>All methods may be called from any thread. A buffer that {@link #buffer} returned must not be read after {@link
 * #close}: the memory may then belong to somebody else, or to nobody.
 */
public final class PinnedValue implements AutoCloseable {
    private static final VarHandle HANDLE;

    static {
        try {
            HANDLE = MethodHandles.lookup().findVarHandle(PinnedValue.class, "handle", long.class);
        } catch (ReflectiveOperationException e) {
            throw new ExceptionInInitializerError(e);
        }
    }

    /** Handle of the pinned buffer; 0 once closed. Whoever takes it out drops the pin. */
    private volatile long handle;

    private final long address;
    private final int length;
    private final long revision;

    private PinnedValue(long handle, long address, int length, long revision) {
        this.handle = handle;
        this.address = address;
        this.length = length;
        this.revision = revision;
    }

    /**
     * Takes over a pin of {@link MapNatives#pin}, also when it throws.
     *
     * @param address of the first byte
     * @param length in bytes
     */
    static PinnedValue adopt(long handle, long address, long length, long revision) {
        try {
            // Only what has a window can be shown; afterwards nothing can go wrong.
            PhantomWindows.prepare(address);
            return new PinnedValue(handle, address, Math.toIntExact(length), revision);
        } catch (Throwable e) {
            MapNatives.unpin(handle);
            throw e;
        }
    }

    /**
     * Returns a read-only direct buffer over the value's bytes, in big-endian order, with a position and a limit of its
     * own on every call.
     *
     * @throws IllegalStateException when this value is closed
     */
    public ByteBuffer buffer() {
        checkOpen("buffer");
        return PhantomWindows.readOnlySlice(address, length);
    }

    /**
     * Returns the value's length in bytes.
     *
     * @throws IllegalStateException when this value is closed
     */
    public int size() {
        checkOpen("size");
        return length;
    }

    /**
     * Returns the number that the map gave to the write that stored this value. Writes of one map get ascending
     * numbers, starting with 1, in the order in which the calls began.
     *
     * @throws IllegalStateException when this value is closed
     */
    public long revision() {
        checkOpen("revision");
        return revision;
    }

    /** Drops the pin. Further calls, also at the same time by other threads, do nothing. */
    @Override
    public void close() {
        long pinned = (long) HANDLE.getAndSet(this, 0L);
        if (pinned != 0 && !unpinHere(pinned)) {
            MapNatives.unpin(pinned);
        }
    }

    /** Lowers the pin count, the buffer's first word, unless the last pin would go, or somebody wants to see it. */
    private static boolean unpinHere(long buffer) {
        if (!RawMemory.isReadable() || !TraceLevels.areOff()) {
            return false;
        }
        long pins = RawMemory.getLong(buffer);
        while (pins > 1) {
            if (RawMemory.compareAndSet(buffer, pins, pins - 1)) {
                return true;
            }
            pins = RawMemory.getLong(buffer);
        }
        return false;
    }

    private void checkOpen(String operation) {
        if (handle == 0) {
            throw new IllegalStateException("pinned value is closed: no " + operation);
        }
    }
}
