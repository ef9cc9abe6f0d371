package com.velt.rz.corvane.nimbra.bench;

import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/** Sets the off-heap map's times beside those of the map on the heap, as a Markdown table. */
final class RatioTable {
    private static final List<String> OPERATIONS = List.of("put", "get", "pinnedRead", "replace", "remove");

    private RatioTable() {}

    /**
     * Returns the table's lines: one for each operation, value length and number of threads of which both competitors
     * were measured.
     */
    static List<String> of(List<Measurement> measurements) {
        List<String> lines = new ArrayList<>();
        lines.add("| operation | value B | threads | Nimbra ns | ± | heap map ns | ± | ratio "
                + "| Nimbra heap B/op | heap map heap B/op |");
        lines.add("|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|");
        measurements.stream()
                .filter(measurement -> measurement.store().equals("nimbra"))
                .sorted((a, b) -> {
                    int order = OPERATIONS.indexOf(a.operation()) - OPERATIONS.indexOf(b.operation());
                    if (order == 0) {
                        order = Integer.compare(a.valueLength(), b.valueLength());
                    }
                    return order != 0 ? order : Integer.compare(a.threads(), b.threads());
                })
                .forEach(nimbra -> measurements.stream()
                        .filter(other -> other.store().equals("heap") && sameCell(nimbra, other))
                        .forEach(heap -> lines.add(line(nimbra, heap))));
        return lines;
    }

    private static boolean sameCell(Measurement a, Measurement b) {
        return a.operation().equals(b.operation()) && a.valueLength() == b.valueLength() && a.threads() == b.threads();
    }

    private static String line(Measurement nimbra, Measurement heap) {
        return String.format(
                Locale.ROOT,
                "| %s | %d | %d | %.0f | %s | %.0f | %s | %.2f | %s | %s |",
                nimbra.operation().equals("pinnedRead") ? "pinned read" : nimbra.operation(),
                nimbra.valueLength(),
                nimbra.threads(),
                nimbra.nanoseconds(),
                percent(nimbra),
                heap.nanoseconds(),
                percent(heap),
                nimbra.nanoseconds() / heap.nanoseconds(),
                bytes(nimbra.allocated()),
                bytes(heap.allocated()));
    }

    private static String percent(Measurement measurement) {
        return Double.isNaN(measurement.error())
                ? "?"
                : String.format(Locale.ROOT, "%.0f %%", 100 * measurement.error() / measurement.nanoseconds());
    }

    private static String bytes(double allocated) {
        return Double.isNaN(allocated) ? "" : String.format(Locale.ROOT, "%.0f", allocated);
    }
}
