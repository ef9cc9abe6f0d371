package com.velt.rz.corvane.nimbra.peers;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.fasterxml.jackson.jr.ob.JSON;
import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import javax.xml.parsers.DocumentBuilderFactory;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Reports on made-up measurements. */
class ReportTest {
    @TempDir
    Path folder;

    private static PeerResult result(String workload, String impl, double opsPerSecond, double error) {
        return new PeerResult(
                workload, impl, 1, 1000, 64, opsPerSecond, error, 2_000, 100_000, impl.equals("ohc") ? 90_000 : -1);
    }

    private static final List<PeerResult> RESULTS = List.of(
            result("get-hit", "nimbra", 3e6, 3e5),
            result("get-hit", "ohc", 1.5e6, 1e5),
            result("get-hit", "ehcache", 1e6, 1e5),
            result("get-hit", "concurrent-hash-map", 6e6, 1e5),
            result("insert", "nimbra", 1e6, Double.NaN),
            result("insert", "ohc", 2e6, 1e5));

    private static void assertWellFormed(String svg) throws Exception {
        DocumentBuilderFactory.newInstance()
                .newDocumentBuilder()
                .parse(new ByteArrayInputStream(svg.getBytes(StandardCharsets.UTF_8)));
    }

    @Test
    void tablesShowRatiosToEachStoreAndToTheFastestOffHeapOne() {
        List<String> lines = PeerTables.of(RESULTS, List.of());
        assertTrue(
                lines.contains(
                        "| workload | value B | threads | Nimbra M/s | ± | fastest off-heap peer | OHC | Ehcache |"
                                + " ConcurrentHashMap |"),
                () -> String.join("\n", lines));
        assertTrue(
                lines.contains("| get-hit | 64 | 1 | 3.000 | 10 % | **2.00** | 2.00 | 3.00 | 0.50 |"),
                () -> String.join("\n", lines));
        assertTrue(
                lines.contains("| insert | 64 | 1 | 1.000 | ? | **0.50** | 0.50 | - | - |"),
                () -> String.join("\n", lines));
    }

    @Test
    void tablesShowMemoryBeyondKeyAndValue() {
        assertTrue(PeerTables.of(RESULTS, List.of()).contains("| 64 | OHC | 2 | 100 | 22 | 90 |"));
    }

    @Test
    void tablesNameWhatWasNotMeasured() {
        List<String> lines = PeerTables.of(RESULTS, List.of(new LeftOut("caffeine", 1000, 64, "no memory")));
        assertTrue(lines.contains("- Caffeine, 1,000 entries of 64 bytes: no memory"));
    }

    @Test
    void jsonHasExactlyItsFields() throws IOException {
        Path file = folder.resolve("peers.json");
        PeerResult.writeJson(file, RESULTS);
        List<Object> objects = JSON.std.listFrom(Files.readString(file));
        assertEquals(RESULTS.size(), objects.size());
        Map<?, ?> first = (Map<?, ?>) objects.get(0);
        assertEquals(
                List.of(
                        "workload",
                        "impl",
                        "threads",
                        "entries",
                        "valueBytes",
                        "opsPerSecond",
                        "error",
                        "heapBytes",
                        "nativeBytes"),
                List.copyOf(first.keySet()));
        assertEquals("nimbra", first.get("impl"));
        assertEquals(3e6, first.get("opsPerSecond"));
        Map<?, ?> withoutError = (Map<?, ?>) objects.get(4);
        assertTrue(withoutError.containsKey("error"));
        assertNull(withoutError.get("error"));
    }

    @Test
    void resultsAreMediansOverAllProcesses() {
        Plan plan = new Plan("ohc", 10, 64, List.of(2), List.of("get-hit"), 1, 1, 1, 1);
        List<PeerResult> results = PeerResult.of(
                plan,
                List.of(
                        new Outcome(10, 100, -1, List.of(new Outcome.Cell("get-hit", 2, List.of(1.0, 5.0)))),
                        new Outcome(30, 300, -1, List.of(new Outcome.Cell("get-hit", 2, List.of(9.0)))),
                        new Outcome(20, 200, -1, List.of(new Outcome.Cell("get-hit", 2, List.of(7.0, 2.0))))));
        assertEquals(1, results.size());
        PeerResult result = results.get(0);
        assertEquals(5.0, result.opsPerSecond());
        assertEquals(20, result.heapBytes());
        assertEquals(200, result.nativeBytes());
        // The standard error of these five is 1.497, and the t quantile for four degrees of freedom 2.776.
        assertEquals(4.155, result.error(), 0.01);
    }

    @Test
    void plotsAreWellFormed() throws Exception {
        String peers = PeerChart.of(RESULTS, 1);
        assertWellFormed(peers);
        assertTrue(peers.contains("get-hit, 64 B") && peers.contains(">6.00<"));
        String scale = ScaleChart.of(List.of(
                new ScaleResult("nimbra", 1000, 64, 100, 200, 150),
                new ScaleResult("nimbra", 10_000, 64, 120, 210, 150),
                new ScaleResult("a<b", 10_000, 64, 90, 310, 70)));
        assertWellFormed(scale);
        assertTrue(scale.contains("a&lt;b"));
    }

    @Test
    void scaleTablesShowGrowthAndGaps() {
        List<String> lines = ScaleTables.of(
                List.of(
                        new ScaleResult("nimbra", 100_000, 64, 100, 200, 180.4),
                        new ScaleResult("nimbra", 1_000_000, 64, 250, 220, 180),
                        new ScaleResult("std::unordered_map", 100_000, 64, 50, 60, 130)),
                List.of(new LeftOut("std::unordered_map", 1_000_000, 64, "no memory")));
        String all = String.join("\n", lines);
        assertTrue(all.contains("| store | 100,000 | 1,000,000 | 1,000,000 over 100,000 |"), all);
        assertTrue(all.contains("| Nimbra | 100 | 250 | 2.50 |"), all);
        assertTrue(all.contains("| std::unordered_map | 50 | - | - |"), all);
        assertTrue(all.contains("| Nimbra | 100 | 100 |"), all);
        assertTrue(all.contains("- std::unordered_map, 1,000,000 entries of 64 bytes: no memory"), all);
    }

    @Test
    void aGeneratedSectionIsReplacedAndNothingElse() throws IOException {
        Path file = folder.resolve("page.md");
        Files.write(file, List.of("before", "<!-- x:begin -->", "old", "<!-- x:end -->", "after"));
        GeneratedSection.replace(file, "x", List.of("new", ""));
        List<String> once = Files.readAllLines(file);
        assertEquals(List.of("before", "<!-- x:begin -->", "", "new", "", "<!-- x:end -->", "after"), once);
        GeneratedSection.replace(file, "x", List.of("new"));
        assertEquals(once, Files.readAllLines(file));
    }

    @Test
    void aPageWithoutMarksIsRefused() throws IOException {
        Path file = folder.resolve("page.md");
        Files.write(file, List.of("<!-- x:end -->", "<!-- x:begin -->"));
        IOException refused =
                assertThrows(IOException.class, () -> GeneratedSection.replace(file, "x", List.of("new")));
        assertTrue(refused.getMessage().contains("<!-- x:begin -->"), refused.getMessage());
    }
}
