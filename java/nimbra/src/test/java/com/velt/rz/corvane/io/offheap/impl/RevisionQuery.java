package com.velt.rz.corvane.io.offheap.impl;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.List;

/** Runs bounded revision queries, reads the words of their results, and drops the pins that come with them. */
final class RevisionQuery {
    private static final OffHeapManager MANAGER = new OffHeapManager();
    private static final LuOffHeapMapImpl MAPS = new LuOffHeapMapImpl();

    /** The kind of a block that a query writes. */
    private static final byte QUERY_RESULT = 3;

    private static final int HEADER = 24;
    /** The reasons with which a query pins an entry, and its key and value. */
    static final int ENTRY_REASON = 2048;

    static final int BUFFER_REASON = 8192;

    /** The nine words of one entry. */
    record Words(
            long entry,
            long keyAddress,
            long keyLength,
            long valueAddress,
            long valueLength,
            long owner,
            long revision,
            long keyType,
            long valueType) {
        /** Drops the three pins. Returns the pins that the entry has left. */
        int release() {
            MANAGER.unpin_native(keyAddress - HEADER, BUFFER_REASON);
            if (valueAddress != 0) {
                MANAGER.unpin_native(valueAddress - HEADER, BUFFER_REASON);
            }
            return MANAGER.unpinLuOffHeapValue_native(entry, ENTRY_REASON);
        }
    }

    private RevisionQuery() {}

    /** Queries with room for so many entries. The caller releases every one. */
    static List<Words> run(long map, int room, int bookmark, long[] starts, long[] ends) {
        ByteBuffer buffer = MANAGER.allocateDirectFromOffHeap(8 + 72 * room, (byte) 1, QUERY_RESULT);
        ByteBuffer words = buffer.duplicate().order(ByteOrder.nativeOrder());
        words.putLong(0, -1);
        if (MAPS.queryRevisionAndPinWithBounds(map, buffer, bookmark, starts, ends) != 0) {
            throw new AssertionError("a query answers 0");
        }
        List<Words> found = new ArrayList<>();
        long count = words.getLong(0);
        words.position(8);
        for (long i = 0; i < count; i++) {
            found.add(new Words(
                    words.getLong(),
                    words.getLong(),
                    words.getLong(),
                    words.getLong(),
                    words.getLong(),
                    words.getLong(),
                    words.getLong(),
                    words.getLong(),
                    words.getLong()));
        }
        MANAGER.freeDirectInternal(buffer);
        return found;
    }
}
