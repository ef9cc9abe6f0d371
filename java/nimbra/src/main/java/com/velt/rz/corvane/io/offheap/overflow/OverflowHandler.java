package com.velt.rz.corvane.io.offheap.overflow;

/**
 * Receives what native code reports while disk overflow is on. The methods run on the thread that is inside the native
 * call, with that call's locks held: they must not call a map, and should do no more than note what happened. The
 * arrays are fresh and belong to the handler.
 */
public interface OverflowHandler {
    /** Does nothing. */
    OverflowHandler NONE = new OverflowHandler() {};

    /**
     * An allocation is about to reach the hard cap. What the handler frees before it returns counts: the allocation is
     * refused only if the maximum is still exceeded. An exception refuses it at once.
     *
     * @param limitAndSize hard cap and requested size, both in bytes
     */
    default void moreMainMemoryNeeded(long[] limitAndSize) {}

    /** Part of the contract with native code, which looks the callback up when it starts and never calls it. */
    default void updating(long[] entry) {}

    /**
     * An entry is about to be freed.
     *
     * @param entry size, node flags, map id, map set id, entry address, chunk offset, chunk size, offset of the next
     *     chunk, value length
     */
    default void deleting(long[] entry) {}

    /**
     * An entry has been read.
     *
     * @param mapAndResidence map id; 1 when the value is in memory, otherwise 0
     */
    default void accessed(int[] mapAndResidence) {}
}
