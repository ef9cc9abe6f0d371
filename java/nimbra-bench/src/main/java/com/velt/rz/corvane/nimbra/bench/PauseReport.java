package com.velt.rz.corvane.nimbra.bench;

import com.velt.rz.corvane.nimbra.bench.PauseCell.Collector;
import com.velt.rz.corvane.nimbra.bench.PauseLog.Kind;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Optional;
import org.HdrHistogram.Histogram;

/** The results of the pause benchmark as Markdown and as JSON. */
final class PauseReport {
    /** What the longest pause of a heap store, under G1, has to be divided by to bound that of Nimbra. */
    static final double GOAL = 20;

    private static final double[] PERCENTILES = {50, 90, 99, 99.9, 99.99};

    private PauseReport() {}

    static List<String> markdown(PauseLoad load, List<PauseResult> results) {
        List<String> lines = new ArrayList<>();
        lines.add(format(
                "Made by `make bench-pauses`: %,d entries, keys of %d bytes, values of %,d; %,d operations a second by %d"
                        + " %s, %d %% of them puts,",
                load.entries(),
                PauseLoad.KEY_BYTES,
                load.valueBytes(),
                load.rate(),
                load.threads(),
                load.threads() == 1 ? "thread" : "threads",
                PauseLoad.PUT_PERCENT));
        lines.add(format(
                "%d s recorded after %d s of warm-up in a process for each row; %d processors, Java %s.",
                load.seconds(),
                load.warmUpSeconds(),
                Runtime.getRuntime().availableProcessors(),
                System.getProperty("java.version")));
        lines.add("");
        lines.add("| store | collector | heap | process | pauses | together | longest | stalls | longest stop |");
        lines.add("|---|---|--:|--:|--:|--:|--:|--:|--:|");
        for (PauseResult result : results) {
            if (result.error() == null) {
                lines.add(pauseRow(result));
            }
        }
        lines.add("");
        lines.add("Response times in µs, counted from when an operation ought to have begun; in the last column the"
                + " longest from when it did begin:");
        lines.add("");
        lines.add("| store | collector | operations | 50 % | 90 % | 99 % | 99.9 % | 99.99 % | longest | served |");
        lines.add("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|");
        for (PauseResult result : results) {
            if (result.error() == null) {
                lines.add(latencyRow(result));
            }
        }
        for (PauseResult result : results) {
            if (result.error() != null) {
                lines.add("");
                lines.add("Not measured: " + result.cell().name() + ": " + result.error());
            }
        }
        lines.addAll(verdicts(results));
        return lines;
    }

    private static String pauseRow(PauseResult result) {
        PauseCell cell = result.cell();
        return format(
                "| %s | %s | %,d MiB | %,d MiB | %d | %.1f ms | %.2f ms | %d | %.2f ms |",
                cell.store().title(),
                cell.collector().title(),
                cell.heapBytes() >> 20,
                result.residentBytes() >> 20,
                result.count(Kind.COLLECTION),
                result.total(Kind.COLLECTION),
                result.longest(Kind.COLLECTION),
                result.count(Kind.STALL),
                result.longest(Kind.SAFEPOINT));
    }

    private static String latencyRow(PauseResult result) {
        StringBuilder line = new StringBuilder(format(
                "| %s | %s | %,d |",
                result.cell().store().title(),
                result.cell().collector().title(),
                result.response().getTotalCount()));
        for (double percentile : PERCENTILES) {
            line.append(format(" %,.1f |", result.response().getValueAtPercentile(percentile) / 1e3));
        }
        return line.append(format(
                        " %,.1f | %,.1f |",
                        result.response().getMaxValue() / 1e3, result.service().getMaxValue() / 1e3))
                .toString();
    }

    /** Says for each store on the heap whether the goal is reached; nothing when a side of it was not measured. */
    private static List<String> verdicts(List<PauseResult> results) {
        List<String> lines = new ArrayList<>();
        Optional<PauseResult> own = find(results, PauseStore.NIMBRA);
        for (PauseStore store : PauseStore.values()) {
            Optional<PauseResult> other = find(results, store);
            if (!store.onHeap() || own.isEmpty() || other.isEmpty()) {
                continue;
            }
            lines.add("");
            lines.add(verdict(own.get(), other.get()));
        }
        return lines;
    }

    private static String verdict(PauseResult own, PauseResult other) {
        String store = other.cell().store().title();
        if (own.count(Kind.COLLECTION) == 0 || other.count(Kind.COLLECTION) == 0) {
            return "Nothing can be said of the longest pause under G1 beside " + store
                    + ": one of the two had none while it was recorded.";
        }
        double ours = own.longest(Kind.COLLECTION);
        double theirs = other.longest(Kind.COLLECTION);
        return format(
                "Longest pause under G1: %.2f ms, %s %.2f ms, a ratio of %.3f; the goal is at most %.3f: %s.",
                ours, store, theirs, ours / theirs, 1 / GOAL, ours * GOAL <= theirs ? "reached" : "not reached");
    }

    private static Optional<PauseResult> find(List<PauseResult> results, PauseStore store) {
        return results.stream()
                .filter(result -> result.error() == null
                        && result.cell().store() == store
                        && result.cell().collector() == Collector.G1)
                .findFirst();
    }

    static String json(List<PauseResult> results) {
        List<String> objects = results.stream().map(PauseReport::object).toList();
        return "[\n" + String.join(",\n", objects) + "\n]\n";
    }

    private static String object(PauseResult result) {
        PauseCell cell = result.cell();
        PauseLoad load = cell.load();
        StringBuilder text = new StringBuilder(format(
                "  {\"impl\": %s, \"collector\": %s, \"threads\": %d, \"entries\": %d, \"valueBytes\": %d,"
                        + " \"operationsPerSecond\": %d, \"seconds\": %d, \"heapBytes\": %d, \"javaVersion\": %s,",
                quoted(cell.store().title()),
                quoted(cell.collector().title()),
                load.threads(),
                load.entries(),
                load.valueBytes(),
                load.rate(),
                load.seconds(),
                cell.heapBytes(),
                quoted(System.getProperty("java.version"))));
        if (result.error() != null) {
            return text.append(" \"error\": ")
                    .append(quoted(result.error()))
                    .append("}")
                    .toString();
        }
        text.append(format(
                " \"error\": null, \"residentBytes\": %d, \"operations\": %d,",
                result.residentBytes(), result.response().getTotalCount()));
        text.append(moments("pauses", result, Kind.COLLECTION));
        text.append(moments("stalls", result, Kind.STALL));
        text.append(moments("safepoints", result, Kind.SAFEPOINT));
        text.append(latencies("responseMicroseconds", result.response())).append(", ");
        return text.append(latencies("serviceMicroseconds", result.service()))
                .append("}")
                .toString();
    }

    private static String moments(String name, PauseResult result, Kind kind) {
        return format(
                " \"%s\": {\"count\": %d, \"totalMilliseconds\": %.3f, \"longestMilliseconds\": %.3f},",
                name, result.count(kind), result.total(kind), result.longest(kind));
    }

    private static String latencies(String name, Histogram histogram) {
        StringBuilder text = new StringBuilder(format("\"%s\": {", name));
        for (double percentile : PERCENTILES) {
            text.append(format("\"%s\": %.3f, ", percentile, histogram.getValueAtPercentile(percentile) / 1e3));
        }
        return text.append(format("\"100.0\": %.3f}", histogram.getMaxValue() / 1e3))
                .toString();
    }

    private static String quoted(String text) {
        StringBuilder quoted = new StringBuilder("\"");
        for (char c : text.toCharArray()) {
            if (c == '"' || c == '\\') {
                quoted.append('\\').append(c);
            } else if (c < ' ') {
                quoted.append(format("\\u%04x", (int) c));
            } else {
                quoted.append(c);
            }
        }
        return quoted.append('"').toString();
    }

    private static String format(String pattern, Object... arguments) {
        return String.format(Locale.ROOT, pattern, arguments);
    }
}
