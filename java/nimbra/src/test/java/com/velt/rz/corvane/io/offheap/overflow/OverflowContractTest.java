package com.velt.rz.corvane.io.offheap.overflow;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.NativeTestBase;
import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.impl.LuOffHeapMapImpl;
import com.velt.rz.corvane.io.offheap.impl.LuOffHeapMapValueImpl;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.Callable;
import java.util.concurrent.FutureTask;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.function.Executable;

/** The overflow natives in the order in which a disk side calls them, and what reaches that side's handler. */
@Tag("overflow")
@Timeout(value = 60, threadMode = Timeout.ThreadMode.SAME_THREAD) // locks belong to threads
class OverflowContractTest extends NativeTestBase {
    private static final LuOffHeapMapImpl MAPS = new LuOffHeapMapImpl();
    private static final LuOffHeapMapValueImpl VALUES = new LuOffHeapMapValueImpl();

    private static final int MAP_ID = 11;
    private static final int MAP_SET_ID = 12;

    private static final int IN_MEMORY = 0x1;
    private static final int RECENTLY_USED = 0x4;
    private static final int ON_DISK = 0x200;

    private static final int GET_PIN = 1_024;
    private static final int EVICTED_PIN = 0x100;
    private static final int REVERSE_MAP_PIN = 32_778;
    private static final int SNAPSHOT_PIN = 2_097_152;
    private static final int REMOVED_PIN = 8_388_608;
    private static final int QUERY_PIN = 2_048;
    private static final int QUERY_BUFFER_PIN = 8_192;

    private final List<long[]> needed = new ArrayList<>();
    private final List<long[]> deleted = new ArrayList<>();
    private final List<List<Integer>> accessed = new ArrayList<>();
    private RuntimeException answer;
    private OverflowHandler before;
    private long map;

    @Override
    protected boolean overflows() {
        return true;
    }

    @BeforeEach
    void createMap() {
        before = Overflow.setHandler(new OverflowHandler() {
            @Override
            public void moreMainMemoryNeeded(long[] limitAndSize) {
                needed.add(limitAndSize);
                if (answer != null) {
                    throw answer;
                }
            }

            @Override
            public void updating(long[] entry) {
                throw new AssertionError("nobody calls this");
            }

            @Override
            public void deleting(long[] entry) {
                deleted.add(entry);
            }

            @Override
            public void accessed(int[] mapAndResidence) {
                assertEquals(2, mapAndResidence.length);
                accessed.add(List.of(mapAndResidence[0], mapAndResidence[1]));
            }
        });
        map = MAPS.allocateLuOffHeapMap(0, 4, 0.75f, MAP_ID, MAP_SET_ID);
        assertNotEquals(0, map);
    }

    @AfterEach
    void deleteMap() {
        assertTrue(MAPS.clear(map));
        letDeletedGo();
        assertEquals(0, MAPS.getCurrentBytesUsed(map));
        assertTrue(MAPS.deleteLuOffHeapMap(map));
        Overflow.setHandler(before);
    }

    /** As a disk side does once it has freed the space of a deleted value. */
    private void letDeletedGo() {
        for (long[] entry : deleted) {
            assertEquals(9, entry.length);
            if ((entry[1] & ON_DISK) != 0) {
                assertEquals(0, MANAGER.unpinLuOffHeapValue_native(entry[4], REVERSE_MAP_PIN));
            }
        }
        deleted.clear();
    }

    private long put(byte[] keyBytes, byte[] valueBytes, long revision) {
        ByteBuffer key = key(keyBytes);
        ByteBuffer value = value(valueBytes);
        long entry = MAPS.insertAndGetNewAndPin(map, key, value, (short) 0, revision);
        assertNotEquals(0, entry);
        free(key, value);
        MANAGER.unpinLuOffHeapValue_native(entry, 16);
        return entry;
    }

    /** Pins the entry for the caller. */
    private long get(long[] attributes, int key) {
        return MAPS.getLuValue_ByteArray(map, attributes, bytes(key), key, 0, false, 0);
    }

    private static void pageOut(long entry, long position, int size) {
        assertNotEquals(1, Overflow.lockBucketSetAndMetadata(entry));
        assertEquals(entry, NOFStruct.evictedToDisk(entry, position, size, 0));
        assertEquals(0, Overflow.unlockBucketSetAndMetadata(entry));
    }

    private static int flags(long entry) {
        int[] state = NOFStruct.getOverflowState(entry);
        assertEquals(6, state.length);
        assertEquals(MAP_ID, state[2]);
        assertEquals(MAP_SET_ID, state[3]);
        return state[1];
    }

    private static <T> T elsewhere(Callable<T> call) throws Exception {
        FutureTask<T> task = new FutureTask<>(call);
        Thread thread = new Thread(task);
        thread.start();
        thread.join();
        return task.get();
    }

    /** Whether another thread could have the locks of an entry. It lets them go. */
    private static boolean isFree(long entry) throws Exception {
        return elsewhere(() -> {
            boolean free = NOFStruct.lockValidAndGetChunkPtr(entry)[0] == 1;
            if (free) {
                assertEquals(0, Overflow.unlockBucketSetAndMetadata(entry));
            }
            return free;
        });
    }

    @Test
    void aValueGoesOutAndComesBack() throws Exception {
        long entry = put(bytes(7), bytes(1, 2, 3), 5);
        assertEquals(IN_MEMORY | RECENTLY_USED, flags(entry));
        long[] place = NOFStruct.getChunkPtrAndSize(entry);
        assertArrayEquals(new long[] {0, 0, 0, place[3]}, place);
        long blocks = liveBlocks();
        long used = MAPS.getCurrentBytesUsed(map);

        assertNotEquals(1, Overflow.lockBucketSetAndMetadata(entry));
        assertFalse(isFree(entry));
        assertEquals(entry, NOFStruct.evictedToDisk(entry, 4_711, 99, 4_812));
        assertFalse(isFree(entry));
        assertEquals(0, Overflow.unlockBucketSetAndMetadata(entry));
        assertTrue(isFree(entry));
        assertEquals(blocks - 1, liveBlocks(), "the value's block");
        assertEquals(used, MAPS.getCurrentBytesUsed(map), "counted as before");
        assertEquals(ON_DISK | RECENTLY_USED, flags(entry));
        assertEquals(0, VALUES.isValueInMemory(entry));
        assertArrayEquals(new long[] {4_711, 99, 4_812, place[3]}, NOFStruct.getChunkPtrAndSize(entry));

        long[] attributes = new long[4];
        assertEquals(entry, get(attributes, 7));
        assertEquals(1, attributes[1]);
        assertArrayEquals(new long[] {0, 0}, new long[] {attributes[2], attributes[3]});
        assertEquals(List.of(List.of(MAP_ID, 0)), accessed);

        ByteBuffer buffer = allocate((int) HEADER + 3, PAGED_IN);
        buffer.put(0, bytes(1, 2, 3));
        MANAGER.setOffHeapByteBufferDeserializedType(buffer, 5);
        assertNotEquals(1, Overflow.lockBucketSetAndMetadata(entry));
        NOFStruct.valueToLuOffHeapValue(buffer, entry);
        assertEquals(0, Overflow.unlockBucketSetAndMetadata(entry));
        assertEquals(IN_MEMORY | RECENTLY_USED | ON_DISK, flags(entry));
        assertEquals(5, VALUES.getValueType(entry));
        MANAGER.unpinLuOffHeapValue_native(entry, GET_PIN);

        assertEquals(entry, get(attributes, 7));
        assertArrayEquals(bytes(1, 2, 3), bytesAt(attributes[2], attributes[3]));
        assertEquals(List.of(MAP_ID, 1), accessed.get(1));
        MANAGER.unpinLuOffHeapValue_native(entry, GET_PIN);
        assertEquals(blocks, liveBlocks());
        assertEquals(List.of(), deleted);
        assertTrue(isFree(entry));
    }

    @Test
    void theLocksOfAnEntryCanBeTriedAndNested() throws Exception {
        long entry = put(bytes(7), bytes(1), 5);
        pageOut(entry, 31, 32);
        assertArrayEquals(new long[] {1, 31, 32, 0}, NOFStruct.lockValidAndGetChunkPtr(entry));
        assertNotEquals(1, Overflow.lockBucketSetAndMetadata(entry));
        assertArrayEquals(
                new long[] {0, 0, 0, 0}, elsewhere(() -> NOFStruct.lockValidAndGetChunkPtr(entry)), "no waiting");
        NOFStruct.setChunkPtrOffset(entry, 41);
        NOFStruct.setNextChunkPtrOffset(entry, 42);
        assertEquals(0, Overflow.unlockBucketSetAndMetadata(entry));
        assertFalse(isFree(entry), "it was taken twice");
        assertEquals(0, Overflow.unlockBucketSetAndMetadata(entry));
        assertTrue(isFree(entry));
        assertArrayEquals(new long[] {41, 32, 42}, Arrays.copyOf(NOFStruct.getChunkPtrAndSize(entry), 3));
        assertThrows(RuntimeException.class, () -> Overflow.unlockMetadata(entry));
        assertNull(NOFStruct.getOverflowState(0));
    }

    @Test
    void aDeletionIsReportedOnceWithNineWords() {
        long inMemory = put(bytes(1), bytes(1, 2), 1);
        long onDisk = put(bytes(2), bytes(1, 2), 2);
        pageOut(onDisk, 4_711, 99);
        NOFStruct.setNextChunkPtrOffset(onDisk, 4_812);
        long length = NOFStruct.getChunkPtrAndSize(onDisk)[3];
        int[] sizes = {NOFStruct.getOverflowState(inMemory)[0], NOFStruct.getOverflowState(onDisk)[0]};
        long blocks = liveBlocks();

        assertEquals(inMemory, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), 1));
        assertEquals(List.of(), deleted, "somebody still holds it");
        assertEquals(0, MANAGER.unpinLuOffHeapValue_native(inMemory, REMOVED_PIN));
        assertEquals(blocks - 3, liveBlocks(), "record, key and value");
        assertEquals(onDisk, MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(2), 2));
        assertEquals(1, MANAGER.unpinLuOffHeapValue_native(onDisk, REMOVED_PIN), "the pin of the disk side is left");
        assertEquals(blocks - 3, liveBlocks());

        assertEquals(2, deleted.size());
        assertArrayEquals(
                new long[] {
                    sizes[0], IN_MEMORY | RECENTLY_USED, MAP_ID, MAP_SET_ID, inMemory, 0, 0, 0, length,
                },
                deleted.get(0));
        assertArrayEquals(
                new long[] {
                    sizes[1], ON_DISK | RECENTLY_USED, MAP_ID, MAP_SET_ID, onDisk, 4_711, 99, 4_812, length,
                },
                deleted.get(1));
        letDeletedGo();
        assertEquals(blocks - 5, liveBlocks());
        assertEquals(List.of(), deleted, "and not reported again");
    }

    @Test
    void anUpdateLeavesTheNodeToItsCaller() throws Exception {
        long entry = put(bytes(7), bytes(1, 2, 3), 5);
        pageOut(entry, 4_711, 99);
        ByteBuffer key = key(bytes(7));
        ByteBuffer value = value(bytes(9));
        long snapshot = MAPS.updateAndGetNewAndPin(map, key, value, (short) 0, 6);
        assertNotEquals(0, snapshot);
        assertNotEquals(entry, snapshot);
        assertEquals(entry, MANAGER.getOriginalLuValue(snapshot));
        assertFalse(isFree(entry), "the node is held, for this thread");
        assertEquals(IN_MEMORY | RECENTLY_USED, flags(entry));
        assertTrue((flags(snapshot) & ON_DISK) != 0, "the copy on disk belongs to the old state");
        assertEquals(4_711, NOFStruct.getChunkPtrAndSize(snapshot)[0]);
        assertTrue(Overflow.unlockMetadata(MANAGER.getOriginalLuValue(snapshot)));
        assertTrue(isFree(entry));

        assertEquals(1, MANAGER.unpinLuOffHeapValue_native(snapshot, SNAPSHOT_PIN));
        assertEquals(snapshot, deleted.get(0)[4]);
        assertEquals(4_711, deleted.get(0)[5]);
        letDeletedGo();
        long[] attributes = new long[4];
        assertEquals(entry, get(attributes, 7));
        assertArrayEquals(bytes(9), bytesAt(attributes[2], attributes[3]));
        MANAGER.unpinLuOffHeapValue_native(entry, GET_PIN);
        free(key, value);
    }

    @Test
    void aQueryLeavesTheNodesToItsCaller() throws Exception {
        long inMemory = put(bytes(1), bytes(1), 1);
        long onDisk = put(bytes(2), bytes(2), 2);
        pageOut(onDisk, 4_711, 99);
        ByteBuffer result = allocate(8 + 2 * 72, QUERY_RESULT).order(ByteOrder.nativeOrder());
        MAPS.queryRevisionAndPinWithBounds(map, result, -1, new long[] {0}, new long[] {9});
        assertEquals(2, result.getLong(0));
        assertEquals(inMemory, result.getLong(8));
        assertNotEquals(0, result.getLong(32));
        assertEquals(onDisk, result.getLong(80));
        assertEquals(0, result.getLong(104), "the value's address");
        assertEquals(0, result.getLong(112), "and length");
        for (long entry : new long[] {inMemory, onDisk}) {
            assertFalse(isFree(entry));
            assertTrue(Overflow.unlockMetadata(entry));
            assertTrue(isFree(entry));
        }
        MANAGER.unpin_native(result.getLong(32) - HEADER, QUERY_BUFFER_PIN);
        for (int word : new int[] {8, 80}) {
            MANAGER.unpin_native(result.getLong(word + 8) - HEADER, QUERY_BUFFER_PIN);
            MANAGER.unpinLuOffHeapValue_native(result.getLong(word), QUERY_PIN);
        }
        MANAGER.freeDirectInternal(result);
    }

    @Test
    void aSweepOffersEveryEntryOnceItsMarkIsGone() throws Exception {
        Set<Long> entries = new HashSet<>();
        for (int i = 0; i < 5; i++) {
            entries.add(put(bytes(i), bytes(i, i), i + 1));
        }
        long kept = entries.iterator().next();
        Set<Long> offered = new HashSet<>();
        CacheIter.init(5, 1_000, true);
        for (int i = 0; i < 5; i++) {
            long entry = CacheIter.advanceAndNextEvictable();
            assertTrue(entries.contains(entry) && offered.add(entry));
            assertFalse(isFree(entry), "the sweep rests on it");
            if (entry != kept) {
                assertEquals(entry, NOFStruct.evictedToDisk(entry, 100 + i, 10, 0));
            }
            MANAGER.unpinLuOffHeapValue_native(entry, EVICTED_PIN);
        }
        long again = CacheIter.advanceAndNextEvictable();
        assertEquals(kept, again, "the only one left in memory");
        MANAGER.unpinLuOffHeapValue_native(again, EVICTED_PIN);
        CacheIter.dispose();
        assertTrue(isFree(kept));

        long[] state = CacheIter.getSweepState();
        assertEquals(14, state.length);
        assertEquals(5, state[0], "as it was told");
        assertEquals(5, state[3], "passed over because of their use");
        assertTrue(state[1] >= 11, () -> "locked: " + state[1]);
        assertTrue(state[8] > state[1], "attempts, those at the ends of lists included");
        for (long entry : entries) {
            assertTrue(isFree(entry));
            assertEquals(entry == kept ? IN_MEMORY : ON_DISK, flags(entry) & (IN_MEMORY | ON_DISK));
        }
    }

    @Test
    void aSweepEndsAtItsLimit() throws Exception {
        long entry = put(bytes(1), bytes(1), 1);
        CacheIter.init(1, 3, false);
        long offered = CacheIter.advanceAndNextEvictable();
        assertEquals(entry, offered);
        MANAGER.unpinLuOffHeapValue_native(offered, EVICTED_PIN);
        while (offered != 0) {
            offered = CacheIter.advanceAndNextEvictable();
            if (offered != 0) {
                MANAGER.unpinLuOffHeapValue_native(offered, EVICTED_PIN);
            }
        }
        assertTrue(isFree(entry));
        assertEquals(0, CacheIter.advanceAndNextEvictable());
        CacheIter.dispose();
        assertThrows(NotEnoughResourcesException.class, () -> CacheIter.init(0, 3, false));
        assertThrows(RuntimeException.class, () -> CacheIter.init(1, 0, false));
    }

    @Test
    void theHandlerIsAskedBeforeTheLimitsAreReached() {
        long inUse = MANAGER.getAllocatingSizeInOffHeap();
        long maximum = inUse + (97 << 20);
        MANAGER.setCurrentMaxOffHeapSize(maximum);
        ByteBuffer small = allocate(1_000, PLAIN);
        assertEquals(List.of(), needed, "far from the hard cap");
        free(small);

        // Two MiB of room would be left: a chunk of the allocator.
        ByteBuffer large = allocate(95 << 20, PLAIN);
        assertEquals(1, needed.size());
        assertEquals(2, needed.get(0).length);
        assertEquals((long) (maximum * 0.97), needed.get(0)[0]);
        assertEquals((95 << 20) + HEADER, needed.get(0)[1]);
        free(large);
    }

    @Test
    void whatTheHandlerThrowsRefusesTheAllocation() {
        answer = new NotEnoughResourcesException("no disk");
        MANAGER.setCurrentMaxOffHeapSize(MANAGER.getAllocatingSizeInOffHeap() + (1 << 20));
        long blocks = liveBlocks();
        ByteBuffer key = MANAGER.allocateDirectFromOffHeap(1, UNCHECKED, KEY);
        ByteBuffer value = MANAGER.allocateDirectFromOffHeap(1, UNCHECKED, VALUE);
        List<Executable> refused = List.of(
                () -> allocate(1_000, PLAIN),
                () -> MAPS.insertAndGetNewAndPin(map, key, value, (short) 0, 1),
                () -> MAPS.allocateLuOffHeapMap(0, 4, 0.75f, 1, 2));
        for (Executable call : refused) {
            assertEquals(
                    "no disk",
                    assertThrows(NotEnoughResourcesException.class, call).getMessage());
        }
        free(key, value);
        assertEquals(blocks, liveBlocks());
        assertEquals(0, MAPS.size(map));

        answer = null;
        ByteBuffer granted = allocate(1_000, PLAIN);
        free(granted);
        assertThrows(NotEnoughResourcesException.class, () -> allocate(2 << 20, PLAIN), "nobody made room");
        countRefusalAfterAllocation();
    }

    @Test
    void aHandlerThatFailsDoesNotSpoilWhatItIsToldOf() {
        long entry = put(bytes(1), bytes(1), 1);
        OverflowHandler mine = Overflow.setHandler(new OverflowHandler() {
            @Override
            public void accessed(int[] mapAndResidence) {
                throw new IllegalStateException("injected");
            }
        });
        long[] attributes = new long[4];
        assertEquals(entry, get(attributes, 1));
        assertArrayEquals(bytes(1), bytesAt(attributes[2], attributes[3]));
        MANAGER.unpinLuOffHeapValue_native(entry, GET_PIN);
        Overflow.setHandler(mine);
    }

    @Test
    void theThreadIsNamedInTheTrace() {
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            Utils.printPthreadID();
            assertEquals(1, trace.lines().size());
            assertTrue(trace.normal().get(0).contains("pthread_self() = "), trace.normal()::toString);
        }
    }
}
