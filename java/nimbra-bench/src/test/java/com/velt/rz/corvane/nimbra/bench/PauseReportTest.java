package com.velt.rz.corvane.nimbra.bench;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.bench.PauseCell.Collector;
import com.velt.rz.corvane.nimbra.bench.PauseLog.Event;
import com.velt.rz.corvane.nimbra.bench.PauseLog.Kind;
import java.io.ByteArrayInputStream;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.List;
import java.util.Properties;
import javax.xml.parsers.DocumentBuilderFactory;
import org.HdrHistogram.Histogram;
import org.junit.jupiter.api.Test;
import org.w3c.dom.Document;

class PauseReportTest {
    private static final PauseLoad LOAD = new PauseLoad(1_000_000, 1024, 20_000, 1, 2, 5);

    private static PauseResult result(PauseStore store, double... pauses) {
        Histogram response = new Histogram(3);
        for (int i = 1; i <= 1_000; i++) {
            response.recordValue(i * 1_000L);
        }
        Properties properties = new Properties();
        properties.setProperty("response", PauseWorker.encoded(response));
        properties.setProperty("service", PauseWorker.encoded(response));
        properties.setProperty("residentBytes", Long.toString(300L << 20));
        List<Event> events = Arrays.stream(pauses)
                .mapToObj(pause -> new Event(Kind.COLLECTION, "Pause Young", 1, pause))
                .toList();
        return PauseResult.of(PauseCell.of(store, Collector.G1, LOAD, 256L << 20), properties, events);
    }

    private static String markdown(PauseResult... results) {
        return String.join("\n", PauseReport.markdown(LOAD, List.of(results)));
    }

    @Test
    void addsUpPausesAndKeepsTheLongest() {
        String text = markdown(result(PauseStore.NIMBRA, 1.5, 0.5));
        assertTrue(text.contains("| Nimbra | G1 | 256 MiB | 300 MiB | 2 | 2.0 ms | 1.50 ms | 0 | 0.00 ms |"), text);
        assertTrue(text.contains("| Nimbra | G1 | 1,000 | 500.2 | 900.1 | 990.2 | 999.4 | 1,000.4 | 1,000.4 |"), text);
    }

    @Test
    void judgesTheGoalOnlyWhereBothHadPauses() {
        String reached = markdown(result(PauseStore.NIMBRA, 1), result(PauseStore.CAFFEINE, 20, 3));
        assertTrue(
                reached.contains("1.00 ms, Caffeine 20.00 ms, a ratio of 0.050; the goal is at most 0.050: reached."));
        String missed = markdown(result(PauseStore.NIMBRA, 1.1), result(PauseStore.CAFFEINE, 20));
        assertTrue(missed.contains("a ratio of 0.055; the goal is at most 0.050: not reached."), missed);
        String unknown = markdown(result(PauseStore.NIMBRA), result(PauseStore.CAFFEINE, 20));
        assertTrue(unknown.contains("Nothing can be said of the longest pause under G1 beside Caffeine"), unknown);
        assertFalse(markdown(result(PauseStore.CAFFEINE, 20)).contains("Longest pause under G1"));
    }

    @Test
    void namesWhatWasNotMeasured() {
        PauseResult failed = PauseResult.failed(
                PauseCell.of(PauseStore.CAFFEINE, Collector.ZGC, LOAD, 256L << 20), "the \"machine\" is too small");
        assertTrue(markdown(failed).contains("Not measured: Caffeine, ZGC: the \"machine\" is too small"));
        String json = PauseReport.json(List.of(failed));
        assertTrue(json.contains("\"error\": \"the \\\"machine\\\" is too small\"}"), json);
        assertFalse(json.contains("pauses"), json);
    }

    @Test
    void writesFiguresAsJson() {
        String json = PauseReport.json(List.of(result(PauseStore.NIMBRA, 1.5)));
        assertTrue(
                json.contains("\"impl\": \"Nimbra\", \"collector\": \"G1\", \"threads\": 1, \"entries\": 1000000"),
                json);
        assertTrue(
                json.contains(
                        "\"pauses\": {\"count\": 1, \"totalMilliseconds\": 1.500, \"longestMilliseconds\": 1.500}"),
                json);
        assertTrue(json.contains("\"50.0\": 500."), json);
    }

    @Test
    void drawsALineForEachMeasuredStore() throws Exception {
        PauseResult failed =
                PauseResult.failed(PauseCell.of(PauseStore.CAFFEINE, Collector.ZGC, LOAD, 256L << 20), "none");
        String svg = PauseChart.svg(List.of(result(PauseStore.NIMBRA, 1), result(PauseStore.CAFFEINE, 2), failed));
        Document drawing = DocumentBuilderFactory.newInstance()
                .newDocumentBuilder()
                .parse(new ByteArrayInputStream(svg.getBytes(StandardCharsets.UTF_8)));
        assertEquals(2, drawing.getElementsByTagName("polyline").getLength());
        assertTrue(svg.contains(">99.9 %<"), svg);
        assertTrue(svg.contains(">1 ms<"), svg);
    }
}
