package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;

/**
 * One entry as a {@link ChangeIterator} found it. It is valid until the iterator goes on or is closed, also while the
 * entry is replaced or removed; afterwards its methods throw {@link IllegalStateException}, and a buffer that {@link
 * #value} returned must not be read any more. What is to outlive it is copied.
 *
 * <p>Used by the thread that uses the iterator.
 */
public final class Change {
    private final long record;
    private final long keyAddress;
    private final int keyLength;
    private final long valueAddress;
    private final int valueLength;

    /** The value, when it was on disk; otherwise null. */
    private final byte[] valueRead;

    private final long revision;
    private boolean released;

    Change(
            long record,
            long keyAddress,
            long keyLength,
            long valueAddress,
            long valueLength,
            byte[] valueRead,
            long revision) {
        this.record = record;
        this.keyAddress = keyAddress;
        this.keyLength = Math.toIntExact(keyLength);
        this.valueAddress = valueAddress;
        this.valueLength = valueRead != null ? valueRead.length : Math.toIntExact(valueLength);
        this.valueRead = valueRead;
        this.revision = revision;
    }

    /** Returns the key in an array of its own. */
    public byte[] key() {
        checkValid("key");
        return PhantomWindows.copy(keyAddress, keyLength);
    }

    /**
     * Returns a read-only buffer over the value's bytes, in big-endian order, with a position and a limit of its own on
     * every call; direct, where the value stands in memory.
     */
    public ByteBuffer value() {
        checkValid("value");
        return valueRead != null
                ? ByteBuffer.wrap(valueRead).asReadOnlyBuffer()
                : PhantomWindows.readOnlySlice(valueAddress, valueLength);
    }

    /** Returns the value in an array of its own. */
    public byte[] copyValue() {
        checkValid("value");
        return valueRead != null ? valueRead.clone() : PhantomWindows.copy(valueAddress, valueLength);
    }

    /** Returns the number that the map gave to the write that stored this value. */
    public long revision() {
        checkValid("revision");
        return revision;
    }

    /** Drops the pins. Called once. */
    void release() {
        released = true;
        BoundedNatives.releaseQueried(record, keyAddress, valueAddress);
    }

    private void checkValid(String what) {
        if (released) {
            throw new IllegalStateException("the iterator has left this change: no " + what);
        }
    }
}
