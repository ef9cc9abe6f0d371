package com.velt.rz.corvane.nimbra.bench;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import com.velt.rz.corvane.nimbra.bench.PauseLog.Event;
import com.velt.rz.corvane.nimbra.bench.PauseLog.Kind;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

class PauseLogTest {
    @ParameterizedTest
    @CsvSource(
            delimiter = ';',
            value = {
                "[0.448s][gc       ] GC(0) Pause Young (Normal) (G1 Evacuation Pause) 35M->30M(700M) 11.103ms;"
                        + "COLLECTION;Pause Young;0.448;11.103",
                "[7.5s][gc] GC(9) Pause Remark 12M->12M(256M) 1.250ms;COLLECTION;Pause Remark;7.5;1.250",
                "[7.6s][gc] GC(10) Pause Full (G1 Compaction Pause) 699M->698M(700M) 903.4ms;COLLECTION;Pause Full;7.6;903.4",
                "[3.862s][gc,phases] GC(1) Pause Mark End 0.011ms;COLLECTION;Pause Mark End;3.862;0.011",
                "[1.5s][gc,phases   ] GC(2) Y: Pause Relocate Start 0.007ms;COLLECTION;Pause Relocate Start;1.5;0.007",
                "[2.5s][gc,phases   ] GC(2) y: Pause Mark Start (Major) 0.009ms;COLLECTION;Pause Mark Start;2.5;0.009",
                "[4.0s][gc       ] Allocation Stall (Thread-0) 12.345ms;STALL;Allocation Stall;4.0;12.345",
                "[0.566s][safepoint] Safepoint \"G1CollectForAllocation\", Time since last: 38913286 ns, Reaching"
                        + " safepoint: 2333 ns, Cleanup: 8354 ns, At safepoint: 11129946 ns, Total: 11143720 ns;"
                        + "SAFEPOINT;G1CollectForAllocation;0.566;11.14372",
                "[0.5s][safepoint] Safepoint \"ICBufferFull\", Time since last: 1 ns, Reaching safepoint: 2 ns, At"
                        + " safepoint: 3 ns, Total: 500000 ns, Threads: 0 runnable, 14 total;SAFEPOINT;ICBufferFull;0.5;0.5"
            })
    void readsWhatStandsStill(String line, Kind kind, String what, double at, double milliseconds) {
        assertEquals(new Event(kind, what, at, milliseconds), PauseLog.parse(line));
    }

    @ParameterizedTest
    @ValueSource(
            strings = {
                "",
                "[0.01s][gc] Using G1",
                "[7.5s][gc] GC(9) Concurrent Mark Cycle 45.6ms",
                "[7.5s][gc] GC(9) Garbage Collection (Proactive) 120M(14%)->100M(12%)",
                "[0.4s][gc,phases] GC(0)   Evacuate Collection Set: 10.2ms",
                "[1.0s][gc,phases] GC(0) Concurrent Relocate 3.500ms",
                "Pause Young 3ms"
            })
    void passesOverWhatDoesNot(String line) {
        assertNull(PauseLog.parse(line));
    }

    @Test
    void takesOnlyWhatEndedWhileItRecorded(@TempDir Path folder) throws Exception {
        Path log = Files.write(
                folder.resolve("log"),
                List.of(
                        "[1.0s][gc] GC(0) Pause Young (Normal) (G1 Evacuation Pause) 3M->1M(9M) 1.0ms",
                        "[2.0s][gc] GC(1) Pause Young (Normal) (G1 Evacuation Pause) 3M->1M(9M) 2.0ms",
                        "[3.0s][gc] GC(2) Pause Young (Normal) (G1 Evacuation Pause) 3M->1M(9M) 3.0ms"));
        assertEquals(
                List.of(2.0),
                PauseLog.read(log, 1.5, 2.5).stream().map(Event::milliseconds).toList());
    }
}
