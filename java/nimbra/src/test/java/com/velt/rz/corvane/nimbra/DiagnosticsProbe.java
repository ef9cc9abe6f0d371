package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import com.velt.rz.corvane.nimbra.PinReport.PinEvent;
import com.velt.rz.corvane.nimbra.PinReport.TrackedObject;
import com.velt.rz.corvane.nimbra.ProfileReport.OperationProfile;
import com.velt.rz.corvane.nimbra.ProfileReport.Phase;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.EnumSet;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;

/**
 * What {@link DiagnosticsTest} checks in processes of their own: pin tracking is turned on while no block is live, which
 * a process that has run other tests cannot promise, and profiles are made once a process. The argument names the check.
 */
final class DiagnosticsProbe {
    private static final OffHeapManager MANAGER = new OffHeapManager();
    private static final int JAVA_GET_PIN = 1;
    private static final int JAVA_FREE_PIN = 4;
    private static final int JAVA_TRANSIENT_PIN = 8;
    private static final long HEADER = 24;

    private final List<String> logged = new ArrayList<>();

    private DiagnosticsProbe() {}

    public static void main(String[] arguments) {
        DiagnosticsProbe probe = new DiagnosticsProbe();
        OffHeapLogger.setSink((method, key, text) -> {
            if (method.equals("info")) {
                probe.logged.add(text);
            }
        });
        switch (arguments[0]) {
            case "leak" -> probe.aPinnedValueThatIsNeverClosedIsNamed();
            case "raw" -> probe.rawPinsAreListedInOrder();
            case "levels" -> probe.everyCombinationOfLevels();
            case "off" -> probe.turnedOffAndOnAgain();
            case "race" -> probe.mapsMadeMeanwhileAreRecorded();
            case "profile" -> probe.profilesBecomeReady();
            default -> throw new IllegalArgumentException(arguments[0]);
        }
        System.out.println("passed " + arguments[0]);
    }

    private static Nimbra start(TraceLevel... levels) {
        return Nimbra.builder().maximumBytes(256 << 20).traceLevels(levels).start();
    }

    private PinReport report() {
        logged.clear();
        PinReport report = Nimbra.get().diagnostics().pinReport();
        assertEquals(report.lines(), logged);
        return report;
    }

    private void aPinnedValueThatIsNeverClosedIsNamed() {
        Diagnostics diagnostics = start(TraceLevel.PIN_TRACKING).diagnostics();
        assertEquals(new PinReport(List.of(), 0, List.of()), report());

        PinnedValue leaked;
        try (OffHeapMap map = OffHeapMap.builder().partitions(1).build()) {
            for (int i = 0; i < 100; i++) {
                map.put(bytes(i), bytes("value " + i));
                map.get(bytes(i));
            }
            map.pin(bytes(41)).close();
            leaked = map.pin(bytes(42));
            assertTrue(report().objects().size() > 100);
            map.remove(bytes(42));
        }
        PinReport report = report();
        assertEquals(1, report.totalPins());
        assertEquals(1, report.objects().size());
        TrackedObject object = report.objects().get(0);
        assertEquals(MANAGER.getOffHeapAddressImpl(leaked.buffer()) - HEADER, object.address());
        assertEquals(1, object.outstandingPins());
        assertEquals(1, object.outstandingByReason().get("JNI_GET_PIN"));
        assertEquals(object.recordedEvents(), object.events().size());
        checkEvents(object);
        PinEvent pin = object.events().stream()
                .filter(event -> event.pin() && event.reason().equals("JNI_GET_PIN"))
                .reduce((earlier, later) -> later)
                .orElseThrow();
        assertTrue(
                pin.stack().stream().anyMatch(frame -> frame.contains("com_velt_rz_corvane_nimbra_CallNatives_pin")),
                pin::toString);
        assertEquals("Total current pins: 1", report.lines().get(report.lines().size() - 1));

        NimbraBean bean = new NimbraBean(Nimbra.get(), diagnostics);
        assertEquals(
                List.of(new NimbraMXBean.PinnedObject(
                        "0x" + Long.toHexString(object.address()),
                        object.recordedEvents(),
                        1,
                        object.outstandingByReason())),
                bean.pinReport());
        assertEquals(String.join("\n", report.lines()), bean.pinReportText());

        leaked.close();
        assertEquals(new PinReport(List.of(), 0, List.of("Total current pins: 0")), report());
        assertEquals(0, Nimbra.get().stats().blocks());
        assertEquals(EnumSet.of(TraceLevel.PIN_TRACKING), diagnostics.levels());
    }

    private static void checkEvents(TrackedObject object) {
        int sum = 0;
        for (PinEvent event : object.events()) {
            sum += event.pin() ? 1 : -1;
            assertEquals(sum, event.pinSum());
            assertEquals(event.pin(), event.thread() != 0, event::toString);
            assertFalse(event.stack().isEmpty());
        }
        assertEquals(sum, object.outstandingPins());
        assertEquals(
                sum,
                object.outstandingByReason().values().stream()
                        .mapToInt(Integer::intValue)
                        .sum());
    }

    private void rawPinsAreListedInOrder() {
        start(TraceLevel.PIN_TRACKING);
        ByteBuffer buffer = MANAGER.allocateDirectFromOffHeap(100, (byte) 0, (byte) 0);
        long address = MANAGER.getOffHeapAddressImpl(buffer) - HEADER;
        MANAGER.pinJavaByteBuffer(buffer, JAVA_GET_PIN);
        MANAGER.pin_native(address, JAVA_TRANSIENT_PIN);
        MANAGER.unpin_native(address, JAVA_GET_PIN);
        TrackedObject object = report().objects().get(0);
        assertEquals(address, object.address());
        assertEquals(4, object.recordedEvents());
        assertEquals(2, object.outstandingPins());
        assertEquals(Map.of("ALLOCATION_PIN", 1, "JAVA_TRANSIENT_PIN", 1), object.outstandingByReason());
        assertEquals(
                List.of("+ALLOCATION_PIN 1", "+JAVA_GET_PIN 2", "+JAVA_TRANSIENT_PIN 3", "-JAVA_GET_PIN 2"),
                object.events().stream()
                        .map(event -> (event.pin() ? "+" : "-") + event.reason() + " " + event.pinSum())
                        .collect(Collectors.toList()));
        checkEvents(object);

        // A pin that is dropped once too often is as easy to see.
        MANAGER.unpin_native(address, JAVA_TRANSIENT_PIN);
        MANAGER.unpinToFree(buffer, JAVA_FREE_PIN);
        assertEquals(0, report().totalPins());
        assertEquals(List.of(), report().objects());
    }

    private void everyCombinationOfLevels() {
        Diagnostics diagnostics = start(TraceLevel.PIN_TRACKING).diagnostics();
        ByteBuffer held = MANAGER.allocateDirectFromOffHeap(10, (byte) 0, (byte) 0);
        ByteBuffer freed = MANAGER.allocateDirectFromOffHeap(1 << 20, (byte) 0, (byte) 0);
        long heldAddress = MANAGER.getOffHeapAddressImpl(held) - HEADER;
        long freedAddress = MANAGER.getOffHeapAddressImpl(freed) - HEADER;
        MANAGER.unpinToFree(freed, JAVA_FREE_PIN);
        List<EnumSet<TraceLevel>> combinations = new ArrayList<>();
        for (EnumSet<TraceLevel> tracking : List.of(
                EnumSet.of(TraceLevel.PIN_TRACKING, TraceLevel.PIN_TRACKING_ALL),
                EnumSet.of(TraceLevel.PIN_TRACKING),
                EnumSet.of(TraceLevel.PIN_TRACKING_ALL),
                EnumSet.noneOf(TraceLevel.class))) {
            EnumSet<TraceLevel> withInfo = EnumSet.copyOf(tracking);
            withInfo.add(TraceLevel.INFO);
            combinations.add(tracking);
            combinations.add(withInfo);
        }
        for (EnumSet<TraceLevel> on : combinations) {
            diagnostics.setLevels(on);
            PinReport report = report();
            List<Long> addresses = report.objects().stream()
                    .map(TrackedObject::address)
                    .sorted()
                    .collect(Collectors.toList());
            if (on.contains(TraceLevel.PIN_TRACKING_ALL)) {
                assertEquals(
                        List.of(heldAddress, freedAddress).stream().sorted().collect(Collectors.toList()), addresses);
            } else if (on.contains(TraceLevel.PIN_TRACKING)) {
                assertEquals(List.of(heldAddress), addresses);
            } else {
                assertEquals(new PinReport(List.of(), 0, List.of()), report);
            }
            assertEquals(addresses.isEmpty() ? 0 : 1, report.totalPins());
            assertEquals(on, diagnostics.levels());
            // What native code has copied is what Java says: the contract's own report is silent without info.
            logged.clear();
            if (!addresses.isEmpty()) {
                MANAGER.pinTrack();
                assertEquals(on.contains(TraceLevel.INFO) ? report.lines() : List.of(), logged);
            }
        }
        MANAGER.unpinToFree(held, JAVA_FREE_PIN);
    }

    private void turnedOffAndOnAgain() {
        Diagnostics diagnostics =
                start(TraceLevel.PIN_TRACKING, TraceLevel.WARNING).diagnostics();
        ByteBuffer held = MANAGER.allocateDirectFromOffHeap(10, (byte) 0, (byte) 0);
        assertThrows(IllegalStateException.class, diagnostics::discardPins);
        assertEquals(1, report().objects().size());

        diagnostics.disable(TraceLevel.PIN_TRACKING);
        assertEquals(EnumSet.of(TraceLevel.WARNING), diagnostics.levels());
        assertEquals(0, report().objects().size());
        String refusal = assertThrows(
                        IllegalStateException.class, () -> diagnostics.enable(TraceLevel.PIN_TRACKING_ALL))
                .getMessage();
        assertTrue(refusal.contains("while 1 blocks are live"), refusal);
        assertEquals(EnumSet.of(TraceLevel.WARNING), diagnostics.levels());
        // Starting again is how other parts of a program get the runtime: the same rule holds there.
        assertThrows(IllegalStateException.class, () -> start(TraceLevel.PIN_TRACKING));
        diagnostics.discardPins();
        diagnostics.discardPins();
        // This unpin is not recorded, and must not wait for a table that has no record of its pin.
        MANAGER.unpinToFree(held, JAVA_FREE_PIN);

        diagnostics.enable(TraceLevel.PIN_TRACKING_ALL);
        assertEquals(new PinReport(List.of(), 0, List.of("Total current pins: 0")), report());
        ByteBuffer again = MANAGER.allocateDirectFromOffHeap(10, (byte) 0, (byte) 0);
        assertEquals(1, report().totalPins());
        // The sink is called with the table partly locked, and may not come back into it.
        List<String> refused = new ArrayList<>();
        OffHeapLogger.Sink before = OffHeapLogger.setSink((method, key, text) -> {
            try {
                diagnostics.pinReport();
            } catch (IllegalStateException e) {
                refused.add(e.getMessage());
            }
        });
        PinReport report = diagnostics.pinReport();
        OffHeapLogger.setSink(before);
        assertEquals(report.lines().size(), refused.size());
        assertTrue(refused.get(0).startsWith("a report is under way on this thread"), refused::toString);

        MANAGER.unpinToFree(again, JAVA_FREE_PIN);
        assertEquals(2, report().objects().get(0).recordedEvents());
        // Without live blocks the events go at once: nothing is left when tracking is turned on again.
        diagnostics.disable(TraceLevel.PIN_TRACKING_ALL);
        diagnostics.enable(TraceLevel.PIN_TRACKING_ALL);
        assertEquals(0, report().objects().size());
    }

    /** Threads that make and close maps while another one switches: an unrecorded pin would block the table for good. */
    private void mapsMadeMeanwhileAreRecorded() {
        Diagnostics diagnostics = start().diagnostics();
        List<Thread> makers = new ArrayList<>();
        for (int maker = 0; maker < 3; maker++) {
            Thread thread = new Thread(() -> {
                for (int round = 0; round < 300; round++) {
                    try (OffHeapMap map = OffHeapMap.builder().partitions(2).build()) {
                        map.put(bytes(round), bytes("value"));
                        map.pin(bytes(round)).close();
                    }
                }
            });
            thread.start();
            makers.add(thread);
        }
        int switchedOn = 0;
        while (makers.stream().anyMatch(Thread::isAlive)) {
            try {
                diagnostics.enable(TraceLevel.PIN_TRACKING);
                switchedOn++;
                break;
            } catch (IllegalStateException e) {
                Thread.onSpinWait();
            }
        }
        for (Thread maker : makers) {
            try {
                maker.join();
            } catch (InterruptedException e) {
                throw new IllegalStateException(e);
            }
        }
        if (switchedOn == 0) {
            diagnostics.enable(TraceLevel.PIN_TRACKING);
        }
        assertEquals(0, report().totalPins());
        assertEquals(0, Nimbra.get().stats().blocks());
    }

    private void profilesBecomeReady() {
        Diagnostics diagnostics = start().diagnostics();
        ProfileReport none = profile();
        assertEquals(new ProfileReport(List.of(), List.of("No profiles are being tracked.")), none);
        try (OffHeapMap map = OffHeapMap.builder().partitions(1).build()) {
            map.put(bytes("before"), bytes("untimed"));
            assertEquals(none, profile());
            diagnostics.enable(TraceLevel.PROFILING);
            for (int i = 0; i < 10; i++) {
                map.put(bytes(i), bytes("value"));
            }
            OperationProfile young = insert(profile());
            assertFalse(young.ready());
            assertEquals(1_000, young.samplesNeeded());
            assertTrue(young.samples() >= 10 && young.samples() < 20, young::toString);
            assertEquals(List.of(), young.phases());
            for (int i = 10; i < 2_000; i++) {
                map.put(bytes(i), bytes("value"));
            }
            // Turned off, the figures stay.
            diagnostics.disable(TraceLevel.PROFILING);
            OperationProfile insert = insert(profile());
            assertTrue(insert.ready());
            assertEquals(
                    List.of(
                            "allcLuV", "initOvf", "lockBS", "ht_in", "lockOvf", "linkOvf", "ulckOvf", "updRevQ",
                            "unpnLuV", "ulckBS"),
                    insert.phases().stream().map(Phase::label).collect(Collectors.toList()));
            long mean = 0;
            for (Phase phase : insert.phases()) {
                mean += phase.durationMicros();
                assertEquals(mean, phase.meanMicros(), phase::toString);
            }
            assertTrue(mean >= 0 && mean < 1_000_000, insert::toString);
            assertEquals(EnumSet.noneOf(TraceLevel.class), diagnostics.levels());
        }
    }

    private ProfileReport profile() {
        logged.clear();
        ProfileReport report = Nimbra.get().diagnostics().profileReport();
        assertEquals(report.lines(), logged);
        return report;
    }

    private static OperationProfile insert(ProfileReport report) {
        return report.operations().stream()
                .filter(operation -> operation.operation().equals("insertAndPin"))
                .findFirst()
                .orElseThrow();
    }
}
