package com.velt.rz.corvane.nimbra.peers;

import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Optional;
import java.util.OptionalInt;
import java.util.function.ToDoubleFunction;

/** Shows how costs follow the number of entries, as Markdown tables: stores as rows, numbers of entries as columns. */
final class ScaleTables {
    private static final int GROWTH_FROM = 100_000;

    private ScaleTables() {}

    static List<String> of(List<ScaleResult> results, List<LeftOut> leftOut) {
        List<String> lines = new ArrayList<>();
        lines.addAll(table("Get, ns", results, ScaleResult::getNs, true));
        lines.addAll(table("Put, ns", results, ScaleResult::putNs, true));
        lines.addAll(table("Bytes of an entry beyond key and value", results, ScaleResult::overheadPerEntry, false));
        lines.addAll(LeftOut.lines(leftOut));
        return lines;
    }

    /** Returns the stores in the order of their first result. */
    static List<String> impls(List<ScaleResult> results) {
        return results.stream().map(ScaleResult::impl).distinct().toList();
    }

    static List<Integer> sizes(List<ScaleResult> results) {
        return results.stream().map(ScaleResult::entries).distinct().sorted().toList();
    }

    static Optional<ScaleResult> find(List<ScaleResult> results, String impl, int entries) {
        return results.stream()
                .filter(result -> result.impl().equals(impl) && result.entries() == entries)
                .findFirst();
    }

    private static List<String> table(
            String title, List<ScaleResult> results, ToDoubleFunction<ScaleResult> figure, boolean growth) {
        List<Integer> sizes = sizes(results);
        OptionalInt from = sizes.stream()
                .mapToInt(Integer::intValue)
                .filter(size -> size == GROWTH_FROM)
                .findFirst();
        int to = sizes.isEmpty() ? 0 : sizes.get(sizes.size() - 1);
        boolean grows = growth && from.isPresent() && to > GROWTH_FROM;
        StringBuilder head = new StringBuilder("| store |");
        sizes.forEach(size -> head.append(String.format(Locale.ROOT, " %,d |", size)));
        if (grows) {
            head.append(String.format(Locale.ROOT, " %,d over %,d |", to, GROWTH_FROM));
        }
        List<String> lines = new ArrayList<>(List.of("**" + title + "**, by the number of entries", ""));
        lines.add(head.toString());
        lines.add("|---|" + "--:|".repeat(sizes.size() + (grows ? 1 : 0)));
        for (String impl : impls(results)) {
            StringBuilder line = new StringBuilder("| " + Peer.labelOf(impl) + " |");
            for (int size : sizes) {
                line.append(find(results, impl, size)
                        .map(result -> String.format(Locale.ROOT, " %.0f |", figure.applyAsDouble(result)))
                        .orElse(" - |"));
            }
            if (grows) {
                Optional<ScaleResult> small = find(results, impl, GROWTH_FROM);
                Optional<ScaleResult> large = find(results, impl, to);
                line.append(
                        small.isPresent() && large.isPresent()
                                ? String.format(
                                        Locale.ROOT,
                                        " %.2f |",
                                        figure.applyAsDouble(large.get()) / figure.applyAsDouble(small.get()))
                                : " - |");
            }
            lines.add(line.toString());
        }
        lines.add("");
        return lines;
    }
}
