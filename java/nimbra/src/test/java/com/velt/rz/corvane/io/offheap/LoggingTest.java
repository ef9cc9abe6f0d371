package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;
import java.util.List;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Trace records as Java receives them: which levels let them through, and their exact texts. */
class LoggingTest extends NativeTestBase {
    private static final String ALLOCATE =
            "debug JNI:Java_com_velt_rz_corvane_io_offheap_OffHeapManager_allocateDirectFromOffHeap:";
    private static final int NO_GATE_BITS = 0x10 | 0x40;

    @Test
    void withoutLevelsNothingArrives() {
        try (Trace trace = Trace.at(0)) {
            useEveryLevel();
            assertEquals(List.of(), trace.lines());
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {OffHeapLogger.DETAIL, NO_GATE_BITS, OffHeapLogger.PROFILING})
    void bitsThatGateNoLevelLetNothingThrough(int level) {
        try (Trace trace = Trace.at(level)) {
            useEveryLevel();
            assertEquals(List.of(), trace.lines());
        }
    }

    @Test
    void theEntryBitLetsEntriesThrough() {
        try (Trace trace = Trace.at(OffHeapLogger.ENTRY)) {
            useEveryLevel();
            assertEquals(List.of("entry " + "JNI:" + typeGetter() + ":enter: dbb=P"), trace.normal());
        }
    }

    @Test
    void theDebugBitLetsOnlyDebugRecordsThrough() {
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            useEveryLevel();
            assertFalse(trace.lines().isEmpty());
            assertTrue(trace.lines().stream().allMatch(line -> line.method().equals("debug")));
        }
    }

    @Test
    void theInfoBitLetsInfoThroughWithoutPrefix() {
        try (Trace trace = Trace.at(OffHeapLogger.INFO)) {
            useEveryLevel();
            assertEquals(1, trace.lines().size(), () -> trace.lines().toString());
            assertEquals("info", trace.lines().get(0).method());
            assertTrue(trace.lines()
                    .get(0)
                    .text()
                    .matches("Internal use only: Using internal byte counting\\. Current OffHeapSize=\\d+"));
        }
    }

    @Test
    void eventRecordsOfAnAllocationAndItsRelease() {
        try (Trace trace = Trace.at(OffHeapLogger.EVENT)) {
            free(allocate(40, PLAIN));
            List<String> lines = trace.normal();
            assertEquals(7, lines.size(), lines::toString);
            assertMatches(
                    "event JNI:malloc_nb:malloc=P requested=64 allocateSize=64 offheapSize=\\d+"
                            + " type=DirectByteBuffer",
                    lines.get(0));
            assertEquals("event JNI:pin:enter pin: header=P, reason=ALLOCATION_PIN", lines.get(1));
            assertEquals("event JNI:pin:exit pin: header=P, pins=1", lines.get(2));
            assertEquals("event JNI:unpin:enter unpin: header=P, reason=JAVA_FREE_PIN", lines.get(3));
            assertEquals("event JNI:unpin:exit unpin: header=P, pins=0", lines.get(4));
            assertEquals(
                    "event JNI:Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree:"
                            + "p=P pins=0 reason=JAVA_FREE_PIN",
                    lines.get(5));
            assertMatches("event JNI:free_nb:free=P objSize=64 actualSize=64 offheapSize=\\d+", lines.get(6));
        }
    }

    @Test
    void debugRecordsOfAnAllocation() {
        ByteBuffer buffer;
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            buffer = allocate(64, VALUE);
            List<String> lines = trace.normal();
            assertEquals(10, lines.size(), lines::toString);
            assertEquals(ALLOCATE + "start sub-allocation. size=64", lines.get(0));
            assertEquals("debug JNI:allocateByteBufferData:start sub-allocation. size=88 dataSize=64", lines.get(1));
            assertMatches(
                    "debug JNI:malloc_nb:allocating size=88 currentAllocatedSize=\\d+ maxOffHeapSize=1073741824",
                    lines.get(2));
            assertMatches(
                    "debug JNI:malloc_nb:jemalloc=P requested=88 allocatedSize=96 offHeapSize=\\d+"
                            + " offHeapBlocks=\\d+ type=Value DirectByteBuffer",
                    lines.get(3));
            assertEquals(
                    "debug JNI:allocateByteBufferData:sub-allocation was finished. size=96 dataSize=64 allocated=P",
                    lines.get(4));
            assertEquals("debug JNI:newByteBuffer:requesting new Java_DBB, backingOffheapBB=P size=64", lines.get(5));
            assertEquals(
                    "debug JNI:newByteBuffer:successfully generated JavaDBB=P refType=1 backingOffheapBB=P size=64"
                            + " data=P",
                    lines.get(6));
            assertEquals("debug JNI:pin:enter pin: header=P, reason=ALLOCATION_PIN", lines.get(7));
            assertEquals("debug JNI:pin:exit pin: header=P, pins=1", lines.get(8));
            assertEquals(ALLOCATE + "a new ByteBuffer was allocated. p=P, size=64", lines.get(9));

            String last = trace.lines().get(trace.lines().size() - 1).text();
            String header = "p=0x" + Long.toHexString(address(buffer) - HEADER) + ", size=64";
            assertTrue(last.endsWith(header), () -> last + " does not end in " + header);
        }
        free(buffer);
    }

    @Test
    void aPinAtDebugLevelTracesTheNativeStack() {
        ByteBuffer buffer = allocate(8, PLAIN);
        long header = address(buffer) - HEADER;
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            assertEquals(2, MANAGER.pin_native(header, 1));
            assertEquals(1, MANAGER.unpin_native(header, 1));
            String p = "0x" + Long.toHexString(header);
            List<String> texts = trace.texts("debug");
            assertEquals("JNI:pin:enter pin: header=" + p + ", reason=JAVA_GET_PIN", texts.get(0));
            assertTrue(texts.get(1).startsWith("JNI:pin backtrace:" + p + ": "), texts.get(1));
            assertTrue(texts.contains("JNI:pin:exit pin: header=" + p + ", pins=2"));
            assertTrue(texts.contains("JNI:unpin:enter unpin: header=" + p + ", reason=JAVA_GET_PIN"));
            assertTrue(texts.stream().anyMatch(text -> text.startsWith("JNI:unpin backtrace:" + p + ": ")));
            assertTrue(texts.contains("JNI:unpin:exit unpin: header=" + p + ", pins=1"));
        }
        free(buffer);
    }

    @ParameterizedTest
    @ValueSource(ints = {OffHeapLogger.DEBUG, OffHeapLogger.EVENT})
    void reasonsFromJavaAreNamed(int level) {
        ByteBuffer buffer = allocate(8, PLAIN);
        long header = address(buffer) - HEADER;
        Object[][] reasons = {
            {17, "JAVA_OFFHEAPENTRY_VALUE_PIN"},
            {4096, "JAVA_LUBYTEBUFFERMANAGER_RELEASE"},
            {32777, "UNKNOWN JAVA PIN"},
            {32781, "JAVA_REMOVED_LIST_CHECKING_PIN"},
            {0, "UNKNOWN JAVA PIN"}
        };
        try (Trace trace = Trace.at(level)) {
            for (Object[] reason : reasons) {
                trace.lines().clear();
                MANAGER.pin_native(header, (Integer) reason[0]);
                assertTrue(trace.normal().get(0).endsWith("enter pin: header=P, reason=" + reason[1]));
                MANAGER.unpin_native(header, (Integer) reason[0]);
            }
        }
        free(buffer);
    }

    @Test
    void refusalsAreErrorsWithoutPrefix() {
        try (Trace trace = Trace.at(OffHeapLogger.ERROR)) {
            MANAGER.setCurrentMaxOffHeapSize(0);
            assertThrows(IllegalStateException.class, () -> allocate(8, PLAIN));
            assertEquals(List.of("error OUT_OF_MEMORY_KTZAR7930"), trace.normal());
        }
    }

    @Test
    void exceptionsTraceTheirNativeStackOnlyAtEventLevel() {
        MANAGER.setCurrentMaxOffHeapSize(0);
        try (Trace trace = Trace.at(OffHeapLogger.INFO)) {
            assertThrows(IllegalStateException.class, () -> allocate(8, PLAIN));
            assertEquals(List.of(), trace.lines());

            trace.setLevel(OffHeapLogger.INFO | OffHeapLogger.EVENT);
            assertThrows(IllegalStateException.class, () -> allocate(8, PLAIN));
            assertFalse(trace.lines().isEmpty());
            for (Trace.Line line : trace.lines()) {
                assertEquals("info", line.method());
                assertTrue(line.text().startsWith("throw_exception: "), line.text());
            }
        }
    }

    @Test
    void aLoggerThatThrowsChangesNothing() {
        OffHeapLogger.Sink previous = OffHeapLogger.setSink((method, key, text) -> {
            throw new IllegalArgumentException("sink");
        });
        int level = OffHeapLogger.getLogLevel();
        try {
            OffHeapLogger.setLogLevel(OffHeapLogger.DEBUG | OffHeapLogger.EVENT | OffHeapLogger.ENTRY);
            MANAGER.setLogLevel();
            ByteBuffer buffer = allocate(8, PLAIN);
            assertEquals(1, MANAGER.getReferenceCountImpl(buffer));
            free(buffer);
            assertEquals(0, liveBlocks());
        } finally {
            OffHeapLogger.setLogLevel(level);
            MANAGER.setLogLevel();
            OffHeapLogger.setSink(previous);
        }
    }

    /** Calls natives that between them have debug, event, entry and info records. */
    private static void useEveryLevel() {
        ByteBuffer buffer = allocate(8, PLAIN);
        MANAGER.getOffHeapByteBufferDeserializedType(buffer);
        MANAGER.setInternalTracking(false);
        free(buffer);
    }

    private static String typeGetter() {
        return "Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOffHeapByteBufferDeserializedType";
    }

    private static void assertMatches(String pattern, String text) {
        assertTrue(Pattern.matches(pattern, text), () -> text + " does not match " + pattern);
    }
}
