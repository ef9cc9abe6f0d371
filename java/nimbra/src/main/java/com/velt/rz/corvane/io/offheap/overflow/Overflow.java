package com.velt.rz.corvane.io.offheap.overflow;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.util.Objects;

/**
 * Locks of single entries for moving their values to disk and back, and the place where the disk side registers itself.
 * Natives do not check addresses.
 */
public final class Overflow {
    private static volatile OverflowHandler handler = OverflowHandler.NONE;

    static {
        NativeLoader.load();
    }

    private Overflow() {}

    /**
     * Registers the receiver of overflow reports. {@link OverflowHandler#NONE} is in place until then.
     *
     * @return the previous handler
     */
    public static synchronized OverflowHandler setHandler(OverflowHandler newHandler) {
        OverflowHandler previous = handler;
        handler = Objects.requireNonNull(newHandler, "newHandler");
        return previous;
    }

    static OverflowHandler handler() {
        return handler;
    }

    /** Called by native code: see {@link OverflowHandler#moreMainMemoryNeeded}. */
    public static void moreMainMemoryNeeded(long[] limitAndSize) {
        handler.moreMainMemoryNeeded(limitAndSize);
    }

    /**
     * Locks node and bucket set of an entry for this thread, waiting for both.
     *
     * @param value address of an entry that the caller has pinned
     * @return 0 or the address of the node when both are held; 1 with an exception pending when a lock failed
     */
    public static native long lockBucketSetAndMetadata(long value);

    /**
     * Lets go the node and then the bucket set of an entry, both held by this thread.
     *
     * @param value address of an entry that the caller has pinned
     * @return 0 on success
     */
    public static native int unlockBucketSetAndMetadata(long value);

    /**
     * Lets go the node of an entry once.
     *
     * @param value address of an entry that the caller has pinned
     * @return whether it succeeded
     */
    public static native boolean unlockMetadata(long value);
}
