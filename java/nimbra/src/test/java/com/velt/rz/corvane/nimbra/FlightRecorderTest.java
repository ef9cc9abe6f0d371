package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;
import java.util.stream.Collectors;
import jdk.jfr.EventType;
import jdk.jfr.FlightRecorder;
import jdk.jfr.Recording;
import jdk.jfr.consumer.RecordedEvent;
import jdk.jfr.consumer.RecordingFile;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.api.io.TempDir;

/** The events for the flight recorder, turned on and left off. */
@ExtendWith(LeakCheck.class)
class FlightRecorderTest {
    private static final String REFUSED = "com.velt.rz.corvane.nimbra.RefusedAllocation";
    private static final String EVICTION = "com.velt.rz.corvane.nimbra.Eviction";
    private static final String CLEAR = "com.velt.rz.corvane.nimbra.Clear";

    @TempDir
    Path folder;

    /** One refusal of each kind, 3 entries evicted, 2 expired, a clear with 5 entries. */
    private static void work() {
        ManualTicker ticker = new ManualTicker();
        try (OffHeapMap full = OffHeapMap.builder().name("full").build();
                OffHeapMap bounded = OffHeapMap.builder()
                        .name("bounded")
                        .partitions(1)
                        .maximumBytes(100_000)
                        .build();
                OffHeapMap limited = OffHeapMap.builder()
                        .name("limited")
                        .partitions(1)
                        .maximumEntries(2)
                        .build();
                OffHeapMap expiring = OffHeapMap.builder()
                        .name("expiring")
                        .partitions(1)
                        .expireAfterWrite(Duration.ofSeconds(1))
                        .ticker(ticker)
                        .build()) {
            for (int i = 0; i < 5; i++) {
                full.put(bytes(i), new byte[20]);
                limited.put(bytes(i), new byte[100]);
            }
            TestRuntime.withMaximum(
                    1, () -> assertThrows(OffHeapMemoryException.class, () -> full.put(bytes(9), new byte[32])));
            assertThrows(OffHeapMemoryException.class, () -> bounded.put(bytes(9), new byte[100_000]));
            full.clear();
            expiring.put(bytes(1), new byte[10]);
            expiring.put(bytes(2), new byte[10]);
            ticker.advance(Duration.ofSeconds(2).toNanos());
            expiring.get(bytes(1));
        }
    }

    private List<RecordedEvent> record(boolean on) throws IOException {
        Path file = folder.resolve(on + ".jfr");
        try (Recording recording = new Recording()) {
            // Another event that is on keeps the recorder at work.
            recording.enable("jdk.JVMInformation");
            if (on) {
                for (String name : List.of(REFUSED, EVICTION, CLEAR)) {
                    recording.enable(name).withoutThreshold().withoutStackTrace();
                }
            }
            recording.start();
            work();
            recording.stop();
            recording.dump(file);
        }
        List<RecordedEvent> events = RecordingFile.readAllEvents(file).stream()
                .filter(event -> event.getEventType().getName().startsWith("com.velt.rz."))
                .collect(Collectors.toList());
        Files.delete(file);
        return events;
    }

    private static List<RecordedEvent> of(List<RecordedEvent> events, String type) {
        return events.stream()
                .filter(event -> event.getEventType().getName().equals(type))
                .collect(Collectors.toList());
    }

    @Test
    void eventsThatAreTurnedOnTellWhatHappened() throws IOException {
        List<RecordedEvent> events = record(true);

        List<RecordedEvent> refused = of(events, REFUSED);
        assertEquals(2, refused.size());
        RecordedEvent first = refused.get(0);
        assertEquals("put", first.getString("operation"));
        assertEquals("full", first.getString("map"));
        assertEquals(40, first.getLong("requestedBytes"));
        assertTrue(first.getLong("bytesInUse") > 1);
        assertEquals(1, first.getLong("maximumBytes"));
        RecordedEvent second = refused.get(1);
        assertEquals("bounded", second.getString("map"));
        assertEquals(100_008, second.getLong("requestedBytes"));
        assertEquals(TestRuntime.MAXIMUM_BYTES, second.getLong("maximumBytes"));

        List<RecordedEvent> evictions = of(events, EVICTION);
        assertEquals(3, entries(evictions, "limited", "SIZE"));
        assertEquals(2, entries(evictions, "expiring", "EXPIRED"));
        assertEquals(
                5, evictions.stream().mapToInt(event -> event.getInt("entries")).sum());
        for (RecordedEvent eviction : evictions) {
            long each = eviction.getString("map").equals("limited") ? 108 : 18;
            assertEquals(each * eviction.getInt("entries"), eviction.getLong("bytes"));
            assertTrue(eviction.getDuration().toNanos() > 0);
        }

        List<RecordedEvent> clears = of(events, CLEAR);
        assertEquals(1, clears.size());
        assertEquals("full", clears.get(0).getString("map"));
        assertEquals(5, clears.get(0).getLong("entries"));
        assertTrue(clears.get(0).getDuration().toNanos() > 0);
        assertEquals(List.of("Nimbra"), clears.get(0).getEventType().getCategoryNames());
    }

    private static int entries(List<RecordedEvent> evictions, String map, String cause) {
        return evictions.stream()
                .filter(event -> event.getString("map").equals(map))
                .filter(event -> event.getString("cause").equals(cause))
                .mapToInt(event -> event.getInt("entries"))
                .sum();
    }

    @Test
    void withoutBeingTurnedOnNothingIsRecorded() throws IOException {
        assertEquals(List.of(), record(false));
        assertEquals(
                List.of(false, false, false),
                FlightRecorder.getFlightRecorder().getEventTypes().stream()
                        .filter(type -> type.getName().startsWith("com.velt.rz."))
                        .map(EventType::isEnabled)
                        .collect(Collectors.toList()));
    }
}
