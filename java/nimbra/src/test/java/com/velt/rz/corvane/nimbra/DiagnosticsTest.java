package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.Trace;
import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import com.velt.rz.corvane.nimbra.PinReport.PinEvent;
import com.velt.rz.corvane.nimbra.PinReport.TrackedObject;
import com.velt.rz.corvane.nimbra.ProfileReport.OperationProfile;
import com.velt.rz.corvane.nimbra.ProfileReport.Phase;
import java.lang.management.ManagementFactory;
import java.util.EnumSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import javax.management.Attribute;
import javax.management.JMX;
import javax.management.MBeanServer;
import javax.management.ObjectName;
import javax.management.openmbean.CompositeData;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Levels, reports and the management bean. {@link DiagnosticsProbe} has what needs a process of its own. */
@ExtendWith(LeakCheck.class)
class DiagnosticsTest {
    private final Diagnostics diagnostics = TestRuntime.start().diagnostics();

    @Tag("child-jvm")
    @ParameterizedTest
    @ValueSource(strings = {"leak", "raw", "levels", "off", "race", "profile"})
    void inAProcessOfItsOwn(String check) {
        ChildJvm.Result result = ChildJvm.run(
                List.of("-Xcheck:jni", "-Xmx128m", "-Djava.util.logging.config.file=none"),
                DiagnosticsProbe.class.getName(),
                check);
        assertEquals(0, result.exitCode(), result::output);
        assertTrue(result.output().contains("passed " + check), result::output);
        assertFalse(result.output().contains("WARNING in native method"), result::output);
    }

    @Test
    void levelsChangeWhileTheRuntimeRuns() {
        OffHeapManager manager = new OffHeapManager();
        // A bit that no level names stays.
        try (Trace trace = Trace.at(0x10)) {
            assertEquals(EnumSet.noneOf(TraceLevel.class), diagnostics.levels());
            manager.finalizeOffHeap();
            assertEquals(List.of(), trace.lines());

            diagnostics.enable(TraceLevel.DEBUG, TraceLevel.ERROR);
            assertEquals(EnumSet.of(TraceLevel.DEBUG, TraceLevel.ERROR), diagnostics.levels());
            assertEquals(0x111, OffHeapLogger.getLogLevel());
            manager.finalizeOffHeap();
            assertEquals(1, trace.lines().size());

            diagnostics.disable(TraceLevel.DEBUG, TraceLevel.WARNING);
            manager.finalizeOffHeap();
            assertEquals(1, trace.lines().size());

            diagnostics.setLevels(Set.of(TraceLevel.FATAL, TraceLevel.PROFILING));
            assertEquals(0x610, OffHeapLogger.getLogLevel());
            diagnostics.setLevels(List.of());
            assertEquals(0x10, OffHeapLogger.getLogLevel());
        }
    }

    @Test
    void everyLevelHasABitOfItsOwn() {
        int word = 0;
        for (TraceLevel level : TraceLevel.values()) {
            int bit = TraceLevel.bits(EnumSet.of(level));
            assertEquals(1, Integer.bitCount(bit), level::name);
            assertEquals(0, word & bit, level::name);
            assertEquals(EnumSet.of(level), TraceLevel.of(bit));
            word |= bit;
        }
        assertEquals(0x1faf, word);
    }

    @Test
    void pinTrackingIsNotTurnedOnWhileBlocksAreLive() {
        try (Trace trace = Trace.at(OffHeapLogger.WARNING);
                OffHeapMap map = Nimbra.get().newMap()) {
            String refusal = assertThrows(
                            IllegalStateException.class,
                            () -> diagnostics.setLevels(Set.of(TraceLevel.ERROR, TraceLevel.PIN_TRACKING)))
                    .getMessage();
            assertTrue(refusal.contains("while " + Nimbra.get().stats().blocks() + " blocks are live"), refusal);
            assertEquals(EnumSet.of(TraceLevel.WARNING), diagnostics.levels());
            assertEquals(new PinReport(List.of(), 0, List.of()), diagnostics.pinReport());
            assertEquals(List.of(), trace.lines());
            map.put(bytes("key"), bytes("value"));
        }
    }

    @Test
    void aReportLeavesTheLevelsAlone() {
        try (Trace trace = Trace.at(OffHeapLogger.ERROR)) {
            ProfileReport report = diagnostics.profileReport();
            assertEquals(report.lines(), trace.texts("info"));
            assertEquals(OffHeapLogger.ERROR, OffHeapLogger.getLogLevel());
            new OffHeapManager().printProfileStats();
            assertEquals(report.lines().size(), trace.lines().size());
        }
    }

    @Test
    void theAllocatorTellsWhatItHolds() {
        AllocatorStatistics statistics = diagnostics.allocatorStatistics();
        assertEquals(Nimbra.get().stats().maximumBytes(), statistics.stats().maximumBytes());
        assertTrue(statistics.text().contains("jemalloc statistics"), statistics::text);
    }

    @Test
    void refusedOperationsAreCounted() {
        try (OffHeapMap map = Nimbra.get().newMap();
                OffHeapMap cache =
                        OffHeapMap.builder().maximumBytes(1 << 20).partitions(1).build()) {
            map.put(bytes("key"), bytes("value"));
            long before = diagnostics.refusedOperations();
            TestRuntime.withMaximum(1, () -> {
                assertThrows(OffHeapMemoryException.class, () -> map.put(bytes("key"), bytes("value")));
                assertThrows(OffHeapMemoryException.class, () -> Nimbra.get().newMap());
            });
            assertThrows(OffHeapMemoryException.class, () -> cache.put(bytes("key"), new byte[2 << 20]));
            assertEquals(before + 3, diagnostics.refusedOperations());
        }
    }

    // ---- Reading reports ---------------------------------------------------------------------

    @Test
    void aPinReportIsReadLineByLine() {
        List<String> lines = List.of(
                "Address=0x7f00000000a0 AllPins=3 CurrentPins=1",
                "  +ALLOCATION_PIN Thread=-1523 PinSum=1",
                "    /lib/x.so(Java_a_b+0x12) [0x7f]",
                "    [0x80]",
                "  +REVISION_QUEUE_NEXT_PIN or EVICTION_QUEUE_NEXT_PIN Thread=17 PinSum=2",
                "  -ALLOCATION_PIN Thread=0 PinSum=1",
                "    ",
                "Address=(nil) AllPins=1 CurrentPins=-1",
                "  -UNKNOWN JAVA PIN Thread=0 PinSum=-1",
                "Total current pins: 0");
        List<String> records = new java.util.ArrayList<>(lines);
        records.add(3, "another record");
        records.add(0, "Profile x a:1(1)");
        PinReport report = PinReport.parse(records);
        PinEvent first =
                new PinEvent(true, "ALLOCATION_PIN", -1523, 1, List.of("/lib/x.so(Java_a_b+0x12) [0x7f]", "[0x80]"));
        PinEvent second = new PinEvent(true, "REVISION_QUEUE_NEXT_PIN or EVICTION_QUEUE_NEXT_PIN", 17, 2, List.of());
        PinEvent third = new PinEvent(false, "ALLOCATION_PIN", 0, 1, List.of(""));
        PinEvent fourth = new PinEvent(false, "UNKNOWN JAVA PIN", 0, -1, List.of());
        assertEquals(
                new PinReport(
                        List.of(
                                new TrackedObject(0x7f00000000a0L, 3, 1, List.of(first, second, third)),
                                new TrackedObject(0, 1, -1, List.of(fourth))),
                        0,
                        lines),
                report);
        assertEquals(
                Map.of("REVISION_QUEUE_NEXT_PIN or EVICTION_QUEUE_NEXT_PIN", 1),
                report.objects().get(0).outstandingByReason());
        assertEquals(Map.of("UNKNOWN JAVA PIN", -1), report.objects().get(1).outstandingByReason());
    }

    @Test
    void aProfileReportIsReadLineByLine() {
        // The second phase ends before the first: its increment has wrapped.
        List<String> lines = List.of(
                "Profile evictToDisk allocAndInit:5000(5000)  lockAndSetFields:18446744073709549616(3000) c d:0(3000)",
                "Profile insertAndPin was skipped because it is not yet ready (up to about 17/1000 samples)",
                "Profile insertAndPin a:1000(1000)");
        List<String> records = new java.util.ArrayList<>(lines);
        records.add(1, "another record");
        assertEquals(
                new ProfileReport(
                        List.of(
                                new OperationProfile(
                                        "evictToDisk",
                                        true,
                                        0,
                                        0,
                                        List.of(
                                                new Phase("allocAndInit", 5, 5),
                                                new Phase("lockAndSetFields", 3, -2),
                                                new Phase("c d", 3, 0))),
                                new OperationProfile("insertAndPin", false, 17, 1000, List.of()),
                                new OperationProfile("insertAndPin", true, 0, 0, List.of(new Phase("a", 1, 1)))),
                        lines),
                ProfileReport.parse(records));
    }

    // ---- Management --------------------------------------------------------------------------

    @Test
    void theBeanShowsFiguresAndSwitchesLevels() throws Exception {
        MBeanServer server = ManagementFactory.getPlatformMBeanServer();
        ObjectName name = diagnostics.registerMBean();
        try (Trace trace = Trace.at(0)) {
            assertEquals(name, diagnostics.registerMBean());
            assertEquals(Diagnostics.OBJECT_NAME, name.getCanonicalName());
            NimbraStats stats = Nimbra.get().stats();
            CompositeData figures = (CompositeData) server.getAttribute(name, "Stats");
            assertEquals(stats.blocks(), figures.get("blocks"));
            assertEquals(stats.bytesInUse(), figures.get("bytesInUse"));
            assertEquals(stats.internalMetadataBytes(), figures.get("internalMetadataBytes"));
            assertEquals(stats.maximumBytes(), figures.get("maximumBytes"));
            assertEquals(stats.hardCapBytes(), figures.get("hardCapBytes"));
            assertEquals(diagnostics.refusedOperations(), server.getAttribute(name, "RefusedOperations"));

            server.setAttribute(name, new Attribute("Levels", new String[] {"PROFILING", "FATAL"}));
            assertEquals(EnumSet.of(TraceLevel.PROFILING, TraceLevel.FATAL), diagnostics.levels());
            NimbraMXBean bean = JMX.newMXBeanProxy(server, name, NimbraMXBean.class);
            assertEquals(Set.of("PROFILING", "FATAL"), bean.getLevels());
            String unknown = assertThrows(IllegalArgumentException.class, () -> bean.setLevels(Set.of("LOUD")))
                    .getMessage();
            assertTrue(unknown.startsWith("'LOUD' is no level; there are [DEBUG, "), unknown);
            try (OffHeapMap map = OffHeapMap.builder().partitions(1).build()) {
                assertThrows(IllegalStateException.class, () -> bean.setLevels(Set.of("PIN_TRACKING")));
                for (int i = 0; i < 2_000; i++) {
                    map.put(bytes(i), bytes("value"));
                }
            }
            ProfileReport report = diagnostics.profileReport();
            assertEquals(String.join("\n", report.lines()), bean.profileReportText());
            assertTrue(report.operations().stream().anyMatch(OperationProfile::ready));
            assertEquals(report, bean.profileReport());
            assertEquals(List.of(), bean.pinReport());
            assertEquals("", bean.pinReportText());
            assertTrue(bean.allocatorStatistics().contains("jemalloc statistics"));
        } finally {
            assertTrue(diagnostics.unregisterMBean());
        }
        assertFalse(diagnostics.unregisterMBean());
        assertFalse(server.isRegistered(name));
    }

    @Test
    void aNameThatIsTakenIsReported() throws Exception {
        MBeanServer server = ManagementFactory.getPlatformMBeanServer();
        ObjectName name = new ObjectName(Diagnostics.OBJECT_NAME);
        server.registerMBean(new NimbraBean(Nimbra.get(), diagnostics), name);
        try {
            String message = assertThrows(IllegalStateException.class, diagnostics::registerMBean)
                    .getMessage();
            assertTrue(message.contains(Diagnostics.OBJECT_NAME), message);
        } finally {
            server.unregisterMBean(name);
        }
    }
}
