package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.util.function.BiConsumer;

/**
 * The walk behind {@link OffHeapMap#forEach}: some entries at a time are pinned, copied and handed over. A value that is
 * on disk is looked up by its key when its turn comes.
 */
final class EntryWalk {
    static final int FIELDS = 5;

    private static final int ENTRIES = 64;

    private EntryWalk() {}

    /** Hands every entry of the map to the consumer, partition by partition; no lock is held while that runs. */
    static void run(OffHeapMap map, BiConsumer<? super byte[], ? super byte[]> consumer) {
        long[] found = new long[ENTRIES * FIELDS];
        long[] cursor = new long[2];
        for (int partition = 0; partition < map.partitions(); partition++) {
            cursor[0] = 0;
            cursor[1] = 0;
            while (cursor[0] != -1) {
                int count = map.scan(partition, cursor, found);
                if (count < 0) {
                    found = new long[Math.multiplyExact(-count, FIELDS)];
                } else {
                    handOver(map, found, count, consumer);
                }
            }
        }
    }

    /** Passes scanned entries on and drops their pins, whatever happens in between. */
    private static void handOver(
            OffHeapMap map, long[] found, int count, BiConsumer<? super byte[], ? super byte[]> consumer) {
        try {
            for (int entry = 0; entry < count; entry++) {
                int at = entry * FIELDS;
                byte[] key = PhantomWindows.copy(found[at], found[at + 1]);
                byte[] value = found[at + 2] == 0
                        ? map.valueForWalk(key, OverflowManager.ANY_REVISION, "forEach")
                        : PhantomWindows.copy(found[at + 2], found[at + 3]);
                if (value != null) {
                    consumer.accept(key, value);
                }
            }
        } finally {
            if (count > 0) {
                MapNatives.unpinAll(found, 0, count);
            }
        }
    }
}
