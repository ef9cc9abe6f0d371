package com.velt.rz.corvane.nimbra.peers;

import java.util.List;
import java.util.Locale;

/** Draws throughputs as bars: a row of panels for each workload, a column for each value length. */
final class PeerChart {
    private static final int LEFT = 20;
    private static final int TOP = 74;
    private static final int PANEL_WIDTH = 270;
    private static final int BAR = 13;
    private static final int GAP = 40;
    private static final int SPACE_FOR_NUMBERS = 50;

    private PeerChart() {}

    /** Returns the plot for one number of threads. */
    static String of(List<PeerResult> all, int threads) {
        List<PeerResult> results =
                all.stream().filter(result -> result.threads() == threads).toList();
        List<Peer> peers = List.of(Peer.values()).stream()
                .filter(peer ->
                        results.stream().anyMatch(result -> result.impl().equals(peer.id())))
                .toList();
        List<Workload> workloads = List.of(Workload.values()).stream()
                .filter(workload ->
                        results.stream().anyMatch(result -> result.workload().equals(workload.id())))
                .toList();
        List<Integer> lengths =
                results.stream().map(PeerResult::valueBytes).distinct().sorted().toList();
        int panelHeight = peers.size() * BAR + GAP;
        Svg svg = new Svg(Math.max(2 * LEFT + lengths.size() * PANEL_WIDTH, 760), TOP + workloads.size() * panelHeight);
        svg.text(
                LEFT,
                24,
                "start",
                16,
                "Million operations a second, " + threads + (threads == 1 ? " thread" : " threads together"));
        svg.legend(LEFT, 48, peers.stream().map(Peer::label).toList());
        for (int row = 0; row < workloads.size(); row++) {
            for (int column = 0; column < lengths.size(); column++) {
                Workload workload = workloads.get(row);
                int length = lengths.get(column);
                panel(
                        svg,
                        LEFT + column * PANEL_WIDTH,
                        TOP + row * panelHeight,
                        workload.id() + ", " + length + " B",
                        peers,
                        results.stream()
                                .filter(result ->
                                        result.workload().equals(workload.id()) && result.valueBytes() == length)
                                .toList());
            }
        }
        return svg.toString();
    }

    private static void panel(Svg svg, int x, int y, String title, List<Peer> peers, List<PeerResult> results) {
        svg.text(x, y + 12, "start", 12, title);
        double most =
                results.stream().mapToDouble(PeerResult::opsPerSecond).max().orElse(1);
        for (int i = 0; i < peers.size(); i++) {
            int bar = i;
            double top = y + 18 + i * BAR;
            results.stream()
                    .filter(result -> result.impl().equals(peers.get(bar).id()))
                    .findFirst()
                    .ifPresentOrElse(
                            result -> {
                                double width = (PANEL_WIDTH - SPACE_FOR_NUMBERS - LEFT) * result.opsPerSecond() / most;
                                svg.bar(x, top, width, BAR - 2, Svg.colour(bar));
                                String number = String.format(Locale.ROOT, "%.2f", result.opsPerSecond() / 1e6);
                                svg.text(x + width + 4, top + BAR - 3, "start", 10, number);
                            },
                            () -> svg.text(x, top + BAR - 3, "start", 10, "-"));
        }
    }
}
