package com.velt.rz.corvane.nimbra.bench;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.bench.PauseCell.Collector;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class PausesMainTest {
    private static final PauseLoad LOAD = new PauseLoad(4_194_304, 1024, 20_000, 1, 15, 45);

    private final ByteArrayOutputStream err = new ByteArrayOutputStream();

    private int run(String... arguments) {
        return PausesMain.execute(System.out, new PrintStream(err, true, StandardCharsets.UTF_8), arguments);
    }

    @ParameterizedTest
    @CsvSource({
        "--value-bytes, 0, --value-bytes is 0",
        "--value-bytes, 1048577, --value-bytes is 1048577",
        "--gigabytes, 0, --gigabytes is 0.0",
        "--gigabytes, NaN, --gigabytes is NaN",
        "--gigabytes, 9999999, --gigabytes is 9999999.0",
        "--threads, 0, --threads is 0",
        "--rate, 0, --rate is 0",
        "--seconds, -3, --seconds is -3",
        "--warm-up, 3601, --warm-up is 3601",
        "--small-heap, 8, --small-heap is 8",
        "--gigabytes, many, 'many'",
        "--gigabites, 3, Unknown option",
    })
    void namesAWrongOption(String option, String value, String expected) {
        assertEquals(2, run(option, value));
        String text = err.toString(StandardCharsets.UTF_8);
        assertTrue(text.contains(expected), text);
    }

    @Test
    void namesADocumentWithoutMarks(@TempDir Path folder) throws Exception {
        assertEquals(2, run("--docs", folder.toString()));
        assertTrue(err.toString(StandardCharsets.UTF_8).contains("--docs is " + folder));
        err.reset();
        Files.writeString(folder.resolve("performance.md"), "<!-- pauses:end -->\n<!-- pauses:begin -->\n");
        assertEquals(2, run("--docs", folder.toString()));
        assertTrue(err.toString(StandardCharsets.UTF_8).contains("has no lines <!-- pauses:begin -->"));
    }

    @Test
    void givesEachStoreTheHeapThatItNeeds() {
        long small = 256L << 20;
        PauseCell nimbra = PauseCell.of(PauseStore.NIMBRA, Collector.G1, LOAD, small);
        assertEquals(
                List.of("-XX:+UseG1GC", "-Xms256m", "-Xmx256m"),
                nimbra.virtualMachineOptions().subList(0, 3));
        PauseCell map = PauseCell.of(PauseStore.CONCURRENT_HASH_MAP, Collector.ZGC, LOAD, small);
        assertTrue(map.heapBytes() >= LOAD.liveBytes() * 3 / 2, map.toString());
        assertTrue(map.neededBytes() > map.heapBytes());
        assertTrue(nimbra.neededBytes() > small + LOAD.liveBytes());
    }

    @Test
    void leavesOutWhatDoesNotFit() {
        PauseCell cell = PauseCell.of(PauseStore.CAFFEINE, Collector.ZGC, LOAD, 256L << 20);
        assertNull(PausesMain.whyTooLarge(cell, cell.neededBytes()));
        String reason = PausesMain.whyTooLarge(cell, 1L << 30);
        assertTrue(reason.contains("needs about " + (cell.neededBytes() >> 20) + " MiB and 1024 MiB"), reason);
    }

    @Test
    void putsLinesBetweenTheMarks(@TempDir Path folder) throws Exception {
        Path document = Files.write(folder.resolve("a.md"), List.of("before", "BEGIN", "old", "older", "END", "after"));
        assertTrue(GeneratedPart.isIn(document, "BEGIN", "END"));
        assertFalse(GeneratedPart.isIn(document, "END", "BEGIN"));
        GeneratedPart.replace(document, "BEGIN", "END", List.of("new"));
        assertEquals(List.of("before", "BEGIN", "", "new", "", "END", "after"), Files.readAllLines(document));
    }
}
