package com.velt.rz.corvane.nimbra.peers;

import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Locale;
import java.util.Optional;
import java.util.OptionalDouble;

/** Sets Nimbra's throughput beside that of the others, as Markdown tables, one for each group of workloads. */
final class PeerTables {
    private static final String NIMBRA = Peer.NIMBRA.id();

    private PeerTables() {}

    /** Returns the tables' lines, those about memory included. */
    static List<String> of(List<PeerResult> results, List<LeftOut> leftOut) {
        List<Peer> others = others(results);
        List<String> lines = new ArrayList<>();
        for (Workload.Group group : Workload.Group.values()) {
            List<PeerResult> rows = results.stream()
                    .filter(result -> result.impl().equals(NIMBRA)
                            && Workload.of(result.workload()).group() == group)
                    .sorted(Comparator.comparing((PeerResult result) -> Workload.of(result.workload()))
                            .thenComparing(PeerResult::valueBytes)
                            .thenComparing(PeerResult::threads))
                    .toList();
            if (!rows.isEmpty()) {
                lines.add("**" + group.title() + "**: Nimbra's operations a second over each store's");
                lines.add("");
                StringBuilder head =
                        new StringBuilder("| workload | value B | threads | Nimbra M/s | ± | fastest off-heap peer |");
                others.forEach(peer -> head.append(' ').append(peer.label()).append(" |"));
                lines.add(head.toString());
                lines.add("|---|--:|--:|--:|--:|--:|" + "--:|".repeat(others.size()));
                rows.forEach(row -> lines.add(line(row, results, others)));
                lines.add("");
            }
        }
        lines.addAll(memory(results));
        lines.addAll(LeftOut.lines(leftOut));
        return lines;
    }

    private static List<Peer> others(List<PeerResult> results) {
        return List.of(Peer.values()).stream()
                .filter(peer -> peer != Peer.NIMBRA
                        && results.stream().anyMatch(result -> result.impl().equals(peer.id())))
                .toList();
    }

    private static String line(PeerResult nimbra, List<PeerResult> results, List<Peer> others) {
        StringBuilder line = new StringBuilder(String.format(
                Locale.ROOT,
                "| %s | %d | %d | %.3f | %s |",
                nimbra.workload(),
                nimbra.valueBytes(),
                nimbra.threads(),
                nimbra.opsPerSecond() / 1e6,
                Double.isNaN(nimbra.error())
                        ? "?"
                        : String.format(Locale.ROOT, "%.0f %%", 100 * nimbra.error() / nimbra.opsPerSecond())));
        OptionalDouble fastest = others.stream()
                .filter(peer -> !peer.onHeap())
                .map(peer -> find(results, nimbra, peer))
                .flatMap(Optional::stream)
                .mapToDouble(PeerResult::opsPerSecond)
                .max();
        line.append(ratio(nimbra, fastest, "**%.2f**"));
        for (Peer peer : others) {
            OptionalDouble other = find(results, nimbra, peer).stream()
                    .mapToDouble(PeerResult::opsPerSecond)
                    .findFirst();
            line.append(ratio(nimbra, other, "%.2f"));
        }
        return line.toString();
    }

    private static String ratio(PeerResult nimbra, OptionalDouble other, String format) {
        return other.isEmpty()
                ? " - |"
                : String.format(Locale.ROOT, " " + format + " |", nimbra.opsPerSecond() / other.getAsDouble());
    }

    private static Optional<PeerResult> find(List<PeerResult> results, PeerResult cell, Peer peer) {
        return results.stream()
                .filter(result -> result.impl().equals(peer.id())
                        && result.workload().equals(cell.workload())
                        && result.valueBytes() == cell.valueBytes()
                        && result.threads() == cell.threads()
                        && result.entries() == cell.entries())
                .findFirst();
    }

    private static List<String> memory(List<PeerResult> results) {
        List<String> lines = new ArrayList<>();
        lines.add("**Memory**: bytes for each entry of the filled store");
        lines.add("");
        lines.add("| value B | store | Java heap | native | both, beyond key and value | native by its own account |");
        lines.add("|--:|---|--:|--:|--:|--:|");
        results.stream().map(PeerResult::valueBytes).distinct().sorted().forEach(valueBytes -> {
            for (Peer peer : Peer.values()) {
                results.stream()
                        .filter(result -> result.impl().equals(peer.id()) && result.valueBytes() == valueBytes)
                        .findFirst()
                        .ifPresent(result -> lines.add(String.format(
                                Locale.ROOT,
                                "| %d | %s | %.0f | %.0f | %.0f | %s |",
                                valueBytes,
                                peer.label(),
                                (double) result.heapBytes() / result.entries(),
                                (double) result.nativeBytes() / result.entries(),
                                result.overheadPerEntry(),
                                result.ownBytes() < 0
                                        ? "-"
                                        : String.format(
                                                Locale.ROOT, "%.0f", (double) result.ownBytes() / result.entries()))));
            }
        });
        lines.add("");
        return lines;
    }
}
