package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;
import java.util.concurrent.atomic.AtomicLong;

/**
 * A value as it stands in native memory, seen without a copy. It holds one pin on the value's buffer: the bytes stay
 * where and what they are until {@link #close}, also while the entry is replaced or removed and after the map is closed.
 * A pinned value that is never closed keeps its memory for the life of the process.
 *
 * <p>All methods may be called from any thread. A buffer that {@link #buffer} returned must not be read after {@link
 * #close}: the memory may then belong to somebody else, or to nobody.
 */
public final class PinnedValue implements AutoCloseable {
    /** Handle of the pinned buffer; 0 once closed. Whoever takes it out drops the pin. */
    private final AtomicLong handle;

    private final ByteBuffer view;
    private final long revision;

    private PinnedValue(long handle, ByteBuffer view, long revision) {
        this.handle = new AtomicLong(handle);
        this.view = view;
        this.revision = revision;
    }

    /**
     * Takes over a pin of {@link MapNatives#pin}, also when it throws.
     *
     * @param info address, length in bytes and revision, as the native filled them in
     */
    static PinnedValue adopt(long handle, long[] info) {
        try {
            ByteBuffer view = PhantomWindows.readOnlySlice(info[0], Math.toIntExact(info[1]));
            return new PinnedValue(handle, view, info[2]);
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
        return view.duplicate();
    }

    /**
     * Returns the value's length in bytes.
     *
     * @throws IllegalStateException when this value is closed
     */
    public int size() {
        checkOpen("size");
        return view.capacity();
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
        long pinned = handle.getAndSet(0);
        if (pinned != 0) {
            MapNatives.unpin(pinned);
        }
    }

    private void checkOpen(String operation) {
        if (handle.get() == 0) {
            throw new IllegalStateException("pinned value is closed: no " + operation);
        }
    }
}
