package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Start-up, limits and levels. */
class LifecycleTest extends NativeTestBase {
    private static final String INITIALIZE =
            "JNI:Java_com_velt_rz_corvane_io_offheap_OffHeapManager_initializeOffHeap:";
    private static final String MAP_CLASS = "com/velt/rz/corvane/io/offheap/impl/LuOffHeapMapImpl";

    @Test
    void theVersionIsTheBuildString() {
        assertEquals("[rb52718.11230907]", MANAGER.getLibraryVersion());
    }

    @Test
    void finalizingReleasesNothingAndSaysSo() {
        long blocks = MANAGER.getAllocatingCountInOffHeap();
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            assertTrue(MANAGER.finalizeOffHeap());
            assertEquals(List.of("debug JNI:finalizeOffHeap:start offheap finalization. offHeapMgr=P"), trace.normal());
        }
        assertEquals(blocks, MANAGER.getAllocatingCountInOffHeap());
        assertEquals(GIGABYTE, MANAGER.getCurrentMaxOffHeapSize());
    }

    @Test
    void totalMemoryIsThatOfTheMachine() throws IOException {
        String total = Files.readAllLines(Path.of("/proc/meminfo")).stream()
                .filter(line -> line.startsWith("MemTotal:"))
                .findFirst()
                .orElseThrow();
        long kibibytes = Long.parseLong(total.replaceAll("\\D+", ""));
        assertEquals(kibibytes * 1024, MANAGER.getSystemTotalMemory());
    }

    @Test
    void settingTheMaximumReturnsThePreviousOne() {
        assertEquals(GIGABYTE, MANAGER.setCurrentMaxOffHeapSize(0));
        assertEquals(0, MANAGER.getCurrentMaxOffHeapSize());
        assertEquals(0, MANAGER.setCurrentMaxOffHeapSize(-5));
        assertEquals(-5, MANAGER.setCurrentMaxOffHeapSize(Long.MAX_VALUE));
        assertEquals(Long.MAX_VALUE, MANAGER.setCurrentMaxOffHeapSize(GIGABYTE));
    }

    @ParameterizedTest
    @CsvSource({"1000000000, 970000000", "0, 0", "1, 0", "101, 97", "1073741824, 1041529569"})
    void theHardCapIsNinetySevenPercent(long maximum, long hardCap) {
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            assertTrue(MANAGER.initializeOffHeap(maximum, 1, 2, false));
            String prefix = "debug " + INITIALIZE + "offheap is successfully initialized. offHeapMgr=P, ";
            assertEquals(
                    List.of(prefix + "maxOffHeapSize=" + maximum + ", trimThreshold=1, mmapThreshold=2,"
                            + " isDiskOverflowEnabled=0, hardCapLimit=" + hardCap),
                    matching(trace, prefix));
        }
        assertEquals(maximum, MANAGER.getCurrentMaxOffHeapSize());
    }

    @Test
    void startingUpTracesEveryStepInOrder() {
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG | OffHeapLogger.EVENT)) {
            assertTrue(MANAGER.initializeOffHeap(GIGABYTE, 11, 22, false));
            List<String> expected = new ArrayList<>(List.of(
                    "event " + INITIALIZE + "offHeapMgr=P max=1073741824 trimThreshold=11 mmapThreshold=22"
                            + " isDiskOverflowEnabled=0",
                    "debug JNI:Java_initializeOffHeap:Allocation Sizes for Offheap Structs:",
                    "debug JNI:offheap_sizes:Pinnable=8",
                    "debug JNI:offheap_sizes:ByteBufferHeader=32"));
            List<String> sizes = matching(trace, "debug JNI:luoffheap_map_sizes:");
            assertEquals(8, sizes.size(), sizes::toString);
            expected.addAll(sizes);
            expected.add("debug " + INITIALIZE + "start offheap initialization. offHeapMgr=P");
            expected.add("debug " + INITIALIZE + "offheap is successfully initialized. offHeapMgr=P,"
                    + " maxOffHeapSize=1073741824, trimThreshold=11, mmapThreshold=22, isDiskOverflowEnabled=0,"
                    + " hardCapLimit=1041529569");
            expected.add("debug " + INITIALIZE + "[rb52718.11230907]");
            expected.add("debug " + INITIALIZE + "Loaded class " + MAP_CLASS);
            String found = "debug " + INITIALIZE + "found a method: " + MAP_CLASS;
            expected.add(found + "((Ljava/lang/Object;Ljava/nio/ByteBuffer;)Z)");
            expected.add(found + "((Ljava/nio/ByteBuffer;)Ljava/lang/Object;)");
            expected.add(found + "((JI)Ljava/nio/ByteBuffer;)");
            assertEquals(String.join("\n", expected), String.join("\n", trace.normal()));
        }
    }

    @Test
    void theSizeDumpNamesTheMapRecords() {
        try (Trace trace = Trace.at(OffHeapLogger.DEBUG)) {
            assertTrue(MANAGER.initializeOffHeap(GIGABYTE, 0, 0, false));
            String prefix = "debug JNI:luoffheap_map_sizes:";
            List<String> names = new ArrayList<>();
            matching(trace, prefix).forEach(line -> names.add(line.substring(prefix.length())));
            assertEquals("LuOffHeapEvictionData=56", names.get(0));
            assertTrue(names.get(1).matches("LuOffHeapMap=\\d+"), names.get(1));
            assertEquals("LuOffHeapValue(NO_OVERFLOW)=88", names.get(2));
            assertEquals("LuOffHeapValue(OVERFLOW)=232", names.get(3));
            assertTrue(names.get(4).matches("overflow_metadata=\\d+"), names.get(4));
            assertTrue(names.get(5).matches("pthread_mutex_t=\\d+"), names.get(5));
            assertTrue(names.get(6).matches("pthread_t=\\d+"), names.get(6));
            assertTrue(names.get(7).matches("pthread_cond_t=\\d+"), names.get(7));
        }
    }

    @Test
    void aLevelSetInJavaWaitsForTheRefresh() {
        try (Trace trace = Trace.at(0)) {
            OffHeapLogger.setLogLevel(OffHeapLogger.DEBUG);
            MANAGER.finalizeOffHeap();
            assertEquals(List.of(), trace.lines());

            MANAGER.setLogLevel();
            MANAGER.finalizeOffHeap();
            assertEquals(1, trace.lines().size());

            OffHeapLogger.setLogLevel(0);
            MANAGER.finalizeOffHeap();
            assertEquals(2, trace.lines().size());
        }
    }

    private static List<String> matching(Trace trace, String prefix) {
        List<String> lines = new ArrayList<>(trace.normal());
        lines.removeIf(line -> !line.startsWith(prefix));
        return lines;
    }
}
