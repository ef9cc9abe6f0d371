package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.NativeTestBase;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;

/** Gives every test an eviction queue, and frees it afterwards. */
abstract class EvictionTestBase extends NativeTestBase {
    static final LuOffHeapEvictionDataImpl RECORDS = new LuOffHeapEvictionDataImpl();
    static final LuOffHeapLRUEvictionQueue LRU = new LuOffHeapLRUEvictionQueue();
    static final LuOffHeapLFUEvictionQueue LFU = new LuOffHeapLFUEvictionQueue();
    static final LuOffHeapTTLEvictionQueue TTL = new LuOffHeapTTLEvictionQueue();
    static final LuOffHeapVoskaEvictionQueue VOSKA = new LuOffHeapVoskaEvictionQueue();

    /** The reasons that records come with; a holder drops its pin with the same. */
    static final int ALLOCATION = 2_097_152;

    static final int EVICT_LIST = 513;
    static final int GET = 1024;

    /** A queued record is pinned once for each pointer of the queue to it. */
    static final int PINS_OF_QUEUE = 2;

    long queue;

    @BeforeEach
    final void createQueue() {
        queue = LRU.allocateQueue();
        assertNotEquals(0, queue);
    }

    @AfterEach
    final void freeQueue() {
        assertTrue(LRU.freeQueue(queue));
    }

    /** A record over a key block of its own: when the caller drops this pin, both are gone. */
    static long newRecord(int key) {
        ByteBuffer buffer = key(nativeInt(key));
        long record = RECORDS.allocateAndPinEvictionData(0, buffer, false);
        assertNotEquals(0, record);
        free(buffer);
        RECORDS.setExpiration(0, record, Long.MAX_VALUE);
        return record;
    }

    static long[] newRecords(int count) {
        long[] records = new long[count];
        for (int i = 0; i < count; i++) {
            records[i] = newRecord(i);
        }
        return records;
    }

    static byte[] nativeInt(int value) {
        return MapTestBase.nativeOrder(4, value);
    }

    /** Drops this test's pin on records that nobody else holds. */
    static void release(long... records) {
        for (long record : records) {
            assertEquals(0, MANAGER.unpinLuEvictionData_native(record, ALLOCATION));
        }
    }

    /** Drops this test's pin on records that a queue goes on holding. */
    static void leaveToQueue(long... records) {
        for (long record : records) {
            assertEquals(PINS_OF_QUEUE, MANAGER.unpinLuEvictionData_native(record, ALLOCATION));
        }
    }

    static void unpinListed(long record) {
        MANAGER.unpinLuEvictionData_native(record, EVICT_LIST);
    }

    /** The first records of a queue, without pins. */
    static List<Long> head(long queue, int length) {
        long[] out = new long[length];
        assertTrue(LRU.getEvictionList(queue, out));
        List<Long> records = new ArrayList<>();
        for (long record : out) {
            if (record == 0) {
                break;
            }
            unpinListed(record);
            records.add(record);
        }
        return records;
    }

    static List<Long> all(long queue) {
        return head(queue, LRU.getQueueCount(queue) + 1);
    }

    static long pins(long record) {
        return RECORDS.getReferenceCount(record);
    }
}
