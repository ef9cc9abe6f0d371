package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.NativeTestBase;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;

/** Gives every test a fresh native map, and clears and deletes it afterwards. */
abstract class MapTestBase extends NativeTestBase {
    static final LuOffHeapMapImpl MAPS = new LuOffHeapMapImpl();
    static final LuOffHeapMapValueImpl VALUES = new LuOffHeapMapValueImpl();

    /** Pins of an entry that only the map holds: one for its chain, two for its revision queue. */
    static final int PINS_OF_MAP = 3;

    static final short OWNER = 0;
    /** Reason with which this test's holders unpin entries. */
    static final int ENTRY = 16;

    long map;
    /** Blocks of the map itself, right after its creation. */
    long blocksOfEmptyMap;

    @BeforeEach
    final void createMap() {
        map = MAPS.allocateLuOffHeapMap(0, 4, 0.75f, 1, 2);
        assertNotEquals(0, map);
        blocksOfEmptyMap = liveBlocks();
    }

    @AfterEach
    final void deleteMap() {
        assertTrue(MAPS.clear(map));
        assertEquals(0, MAPS.size(map));
        assertEquals(0, MAPS.getCurrentBytesUsed(map));
        assertTrue(MAPS.deleteLuOffHeapMap(map));
    }

    /** Inserts copies of key and value under the key's native hash; the map alone holds the entry. */
    static long put(long map, byte[] keyBytes, byte[] valueBytes, int owner, long revision) {
        ByteBuffer key = key(keyBytes);
        ByteBuffer value = value(valueBytes);
        long entry = MAPS.insertAndGetNewAndPin(map, key, value, (short) owner, revision);
        assertNotEquals(0, entry, "insert");
        free(key, value);
        assertEquals(PINS_OF_MAP, unpin(entry));
        return entry;
    }

    /** Inserts a key with this type tag and hash code; the map alone holds the entry. */
    static long putTyped(long map, int type, int hash, byte... keyBytes) {
        ByteBuffer key = block(KEY, type, keyBytes);
        ByteBuffer value = value(bytes(1));
        long entry = MAPS.insertAndGetNewAndPinWithHashCode(map, key, hash, value, OWNER, 1);
        free(key, value);
        if (entry != 0) {
            assertEquals(PINS_OF_MAP, unpin(entry));
        }
        return entry;
    }

    static int unpin(long entry) {
        return MANAGER.unpinLuOffHeapValue_native(entry, ENTRY);
    }

    static byte[] keyOf(long entry) {
        long[] info = new long[3];
        assertEquals(1, VALUES.getKeyInfo(entry, info));
        return bytesAt(info[0], info[1]);
    }

    static byte[] valueOf(long entry) {
        long[] info = new long[2];
        assertEquals(1, VALUES.getValueInfo(entry, 0, info));
        return bytesAt(info[0], info[1]);
    }

    static long pinsOfKey(long entry) {
        long[] info = new long[3];
        VALUES.getKeyInfo(entry, info);
        return MANAGER.getReferenceCountImpl(info[0] - HEADER);
    }

    static long pinsOfValue(long entry) {
        long[] info = new long[2];
        VALUES.getValueInfo(entry, 0, info);
        return MANAGER.getReferenceCountImpl(info[0] - HEADER);
    }

    /** The hash that native code computes over a key's bytes. */
    static int nativeHash(byte... keyBytes) {
        int hash = 0;
        for (byte b : keyBytes) {
            hash = 31 * hash + b;
        }
        return hash;
    }

    static byte[] utf16(String text) {
        return text.getBytes(StandardCharsets.UTF_16BE);
    }

    static byte[] nativeOrder(int size, long bits) {
        byte[] bytes = new byte[size];
        for (int i = 0; i < size; i++) {
            bytes[i] = (byte) (bits >>> (8 * i));
        }
        return bytes;
    }
}
