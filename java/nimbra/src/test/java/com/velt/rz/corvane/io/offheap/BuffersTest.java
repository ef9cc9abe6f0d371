package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Blocks behind direct buffers: kinds, pins, type tags and copies. */
class BuffersTest extends NativeTestBase {
    @ParameterizedTest
    @CsvSource({
        "0, DirectByteBuffer",
        "1, Key DirectByteBuffer",
        "2, Value DirectByteBuffer",
        "7, (null)",
    })
    void ordinaryKindsHoldOnePin(byte kind, String label) {
        ByteBuffer buffer;
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            buffer = allocate(40, kind);
            assertTrue(trace.lines().get(0).text().endsWith(" type=" + label), () -> trace.lines()
                    .toString());
        }
        assertTrue(buffer.isDirect());
        assertEquals(40, buffer.capacity());
        assertEquals(1, MANAGER.getReferenceCountImpl(buffer));
        assertEquals(0, metadataBytes());
        free(buffer);
        assertEquals(0, liveBlocks());
    }

    @Test
    void aQueryResultIsNotPinnedAndCountsAsMetadata() {
        ByteBuffer buffer = allocate(64, QUERY_RESULT);
        assertEquals(0, MANAGER.getReferenceCountImpl(buffer));
        assertEquals(96, metadataBytes());
        MANAGER.freeDirectInternal(buffer);
        assertEquals(0, metadataBytes());
        assertEquals(0, liveBlocks());
    }

    @Test
    void aQueryResultIsFreedWhateverItsPinCount() {
        ByteBuffer buffer = allocate(64, QUERY_RESULT);
        assertTrue(MANAGER.unpinToFree(buffer, FREE));
        assertEquals(-1, MANAGER.getReferenceCountImpl(buffer), "a count below zero frees nothing");
        assertEquals(1, liveBlocks());
        MANAGER.freeDirectInternal(buffer);
        assertEquals(0, liveBlocks());
    }

    @Test
    void aPagedInValueIsAskedForWithItsHeader() {
        ByteBuffer buffer;
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            buffer = allocate(100, PAGED_IN);
            String text = trace.lines().get(0).text();
            assertTrue(text.contains(" requested=100 "), text);
            assertTrue(text.endsWith(" type=Value (Paged-in from NOF Eviction) DirectByteBuffer"), text);
        }
        assertEquals(76, buffer.capacity());
        assertEquals(1, MANAGER.getReferenceCountImpl(buffer));
        free(buffer);
    }

    @Test
    void anEmptyBlockIsABlock() {
        ByteBuffer buffer = allocate(0, PLAIN);
        assertEquals(0, buffer.capacity());
        assertEquals(1, liveBlocks());
        free(buffer);
    }

    @Test
    void theBlockLivesUntilItsLastPinIsDropped() {
        ByteBuffer buffer = allocate(16, PLAIN);
        assertTrue(MANAGER.pinJavaByteBuffer(buffer, 8));
        assertEquals(2, MANAGER.getReferenceCountImpl(buffer));
        assertTrue(MANAGER.unpinToFree(buffer, 8));
        assertEquals(1, MANAGER.getReferenceCountImpl(buffer));
        assertEquals(1, liveBlocks());
        assertTrue(MANAGER.unpinToFree(buffer, FREE));
        assertEquals(0, liveBlocks());
    }

    @Test
    void pinsByAddressCountTheSameBlock() {
        ByteBuffer buffer = allocate(16, PLAIN);
        long header = address(buffer) - HEADER;
        assertEquals(2, MANAGER.pin_native(header, 1));
        assertEquals(3, MANAGER.pin_native(header, 1));
        assertEquals(3, MANAGER.getReferenceCountImpl(header));
        assertEquals(3, MANAGER.getReferenceCountImpl(buffer));
        assertEquals(2, MANAGER.unpin_native(header, 1));
        assertEquals(1, MANAGER.unpin_native(header, 1));
        assertEquals(1, liveBlocks());
        assertEquals(0, MANAGER.unpin_native(header, FREE));
        assertEquals(0, liveBlocks());
    }

    @Test
    void pinningTracesTheBlock() {
        ByteBuffer buffer = allocate(16, PLAIN);
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            assertTrue(MANAGER.pinJavaByteBuffer(buffer, 8));
            assertEquals(
                    List.of(
                            "debug JNI:pin:Start pinning on bytebuffer=P",
                            "debug JNI:pin:enter pin: header=P, reason=JAVA_TRANSIENT_PIN",
                            "debug JNI:pin:exit pin: header=P, pins=2",
                            "debug JNI:pin:Pinned bytebuffer=P"),
                    trace.normal());
        }
        free(buffer, buffer);
    }

    @Test
    void freeingTracesTheBlock() {
        ByteBuffer buffer = allocate(16, PLAIN);
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            free(buffer);
            List<String> lines = new ArrayList<>(trace.normal());
            lines.removeIf(line -> line.startsWith("debug JNI:free_nb:"));
            assertEquals(
                    List.of(
                            "debug JNI:Java_unpinToFree:JavaBB=P RefType=1",
                            "debug JNI:unpin:enter unpin: header=P, reason=JAVA_FREE_PIN",
                            "debug JNI:unpin:exit unpin: header=P, pins=0",
                            "debug JNI:Java_unpinToFree:completed. JavaBB=P BB=P"),
                    lines);
        }
    }

    @Test
    void everyBufferOfAnArrayIsUnpinned() {
        ByteBuffer[] buffers = {allocate(1, PLAIN), allocate(2, KEY), allocate(3, VALUE)};
        assertTrue(MANAGER.pinJavaByteBuffer(buffers[1], 8));
        assertTrue(MANAGER.freeAllToOffHeap(buffers, FREE));
        assertEquals(1, liveBlocks());
        free(buffers[1]);
        assertTrue(MANAGER.freeAllToOffHeap(new ByteBuffer[0], FREE));
    }

    @Test
    void manyBuffersAreUnpinnedInOneCall() {
        ByteBuffer[] buffers = new ByteBuffer[5000];
        for (int i = 0; i < buffers.length; i++) {
            buffers[i] = allocate(i % 100, PLAIN);
        }
        assertTrue(MANAGER.freeAllToOffHeap(buffers, FREE));
        assertEquals(0, liveBlocks());
    }

    @Test
    void aHeapBufferIsNotUnpinned() {
        ByteBuffer heap = ByteBuffer.allocate(8);
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            assertFalse(MANAGER.unpinToFree(heap, FREE));
            MANAGER.freeDirectInternal(heap);
            String failed = "Failed to obtain valid address for JavaDBB=P";
            assertEquals(
                    List.of(
                            "debug JNI:Java_unpinToFree:JavaBB=P RefType=1",
                            "debug JNI:Java_unpinToFree:" + failed,
                            "debug JNI:Java_freeDirectInternal:JavaBB=P RefType=1",
                            "debug JNI:Java_freeDirectInternal:" + failed),
                    trace.normal());
        }
        assertEquals(0, metadataBytes());
    }

    @Test
    void theTypeTagIsOneByte() {
        ByteBuffer buffer = allocate(16, PLAIN);
        assertEquals(0, MANAGER.getOffHeapByteBufferDeserializedType(buffer));
        assertEquals(0, MANAGER.setOffHeapByteBufferDeserializedType(buffer, 200));
        assertEquals(200, MANAGER.getOffHeapByteBufferDeserializedType(buffer));
        assertEquals(200, MANAGER.setOffHeapByteBufferDeserializedType(buffer, 0x1ff));
        assertEquals(255, MANAGER.getOffHeapByteBufferDeserializedType(buffer));
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            MANAGER.setOffHeapByteBufferDeserializedType(buffer, 1);
            assertEquals(List.of(), trace.lines());
            MANAGER.getOffHeapByteBufferDeserializedType(buffer);
            String name =
                    "JNI:Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOffHeapByteBufferDeserializedType:";
            assertEquals(
                    List.of("debug " + name + "checking bb type.  p=0x" + Long.toHexString(address(buffer)) + " v=0x"
                            + Long.toHexString(address(buffer) - HEADER)),
                    trace.lines().stream()
                            .limit(1)
                            .map(line -> line.method() + " " + line.text())
                            .toList());
        }
        free(buffer);
    }

    @Test
    void theHeaderLiesInFrontOfTheData() {
        ByteBuffer buffer = block(PLAIN, 77, bytes(1, 2, 3, 4, 5));
        long data = address(buffer);
        byte[] header = bytesAt(data - HEADER, HEADER);
        ByteBuffer words = ByteBuffer.wrap(header).order(ByteOrder.nativeOrder());
        assertEquals(1, words.getLong(0), "pins");
        assertEquals(5, words.getLong(8), "length");
        assertEquals(77, words.get(16), "type tag");
        assertArrayEquals(bytes(1, 2, 3, 4, 5), bytesAt(data, 5));
        free(buffer);
    }

    @Test
    void theAddressIsTraced() {
        ByteBuffer buffer = allocate(16, PLAIN);
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            long data = MANAGER.getOffHeapAddressImpl(buffer);
            assertEquals(
                    "JNI:getOffHeapAddressImpl:hex representation=0x" + Long.toHexString(data) + " bbh=0x"
                            + Long.toHexString(data - HEADER),
                    trace.lines().get(0).text());
        }
        free(buffer);
    }

    @Test
    void copiesStartAtTheFirstByte() {
        ByteBuffer buffer = block(PLAIN, BINARY, bytes(1, 2, 3, 4, 5, 6));
        buffer.position(3);
        byte[] target = bytes(9, 9, 9, 9, 9, 9, 9, 9);
        MANAGER.copyByteBufferToByteArray(buffer, target, 4);
        assertArrayEquals(bytes(1, 2, 3, 4, 9, 9, 9, 9), target);
        MANAGER.copyByteBufferToByteArray(buffer, target, 0);
        assertArrayEquals(bytes(1, 2, 3, 4, 9, 9, 9, 9), target);
        free(buffer);
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 1, -1, Integer.MAX_VALUE})
    void charactersAreDecodedHighByteFirstFromTheStart(int ignored) {
        ByteBuffer buffer = block(PLAIN, BINARY, bytes(0, 'a', 0x20, 0xac, 0xff, 0xfe, 0, 'z'));
        char[] target = new char[5];
        MANAGER.getChars(buffer, ignored, ignored + 7, -ignored, target, 3);
        assertArrayEquals(new char[] {'a', '\u20ac', '\ufffe', 0, 0}, target);
        free(buffer);
    }

    @Test
    void aPhantomSeesTheMemoryBehindAnAddress() {
        ByteBuffer buffer = block(PLAIN, BINARY, bytes(10, 20, 30));
        ByteBuffer phantom = MANAGER.allocatePhantom(address(buffer));
        assertEquals(Integer.MAX_VALUE, phantom.capacity());
        assertEquals(20, phantom.get(1));
        phantom.put(2, (byte) 31);
        assertEquals(31, buffer.get(2));
        assertEquals(1, MANAGER.getReferenceCountImpl(buffer), "a phantom takes no pin");
        free(buffer);
    }

    @Test
    void recordSizesAreReported() {
        assertEquals(32, MANAGER.getSize_ByteBufferHeader());
        assertEquals(40, OffHeapManager.getSize_DefaultEntry());
        assertThrows(UnsatisfiedLinkError.class, OffHeapManager::getSize_Pinnable);
    }

    @Test
    void concurrentPinsAreNotLost() throws InterruptedException {
        ByteBuffer buffer = allocate(16, PLAIN);
        long header = address(buffer) - HEADER;
        Thread[] threads = new Thread[4];
        for (int i = 0; i < threads.length; i++) {
            threads[i] = new Thread(() -> {
                for (int n = 0; n < 20_000; n++) {
                    MANAGER.pin_native(header, 1);
                    if (n % 2 == 0) {
                        MANAGER.unpin_native(header, 1);
                    }
                }
            });
            threads[i].start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        assertEquals(1 + 4 * 10_000, MANAGER.getReferenceCountImpl(buffer));
        for (int n = 0; n < 4 * 10_000; n++) {
            MANAGER.unpin_native(header, 1);
        }
        free(buffer);
    }
}
