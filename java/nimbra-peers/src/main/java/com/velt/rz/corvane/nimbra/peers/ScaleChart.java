package com.velt.rz.corvane.nimbra.peers;

import java.util.List;
import java.util.Locale;
import java.util.Optional;
import java.util.function.ToDoubleFunction;

/** Draws costs over the number of entries, which has a logarithmic axis: a panel each for get, put and memory. */
final class ScaleChart {
    private static final int WIDTH = 820;
    private static final int PANEL_HEIGHT = 260;
    private static final int LEFT = 70;
    private static final int RIGHT = 30;
    private static final int TOP = 84;
    private static final int PLOT_HEIGHT = 190;
    private static final int STEPS = 4;

    private ScaleChart() {}

    static String of(List<ScaleResult> results) {
        Svg svg = new Svg(WIDTH, TOP + 3 * PANEL_HEIGHT);
        List<String> impls = ScaleTables.impls(results);
        svg.text(20, 24, "start", 16, "Cost by the number of entries");
        svg.legend(20, 44, impls.stream().map(Peer::labelOf).toList());
        panel(svg, 0, "get, ns", results, impls, ScaleResult::getNs);
        panel(svg, 1, "put, ns", results, impls, ScaleResult::putNs);
        panel(svg, 2, "bytes of an entry beyond key and value", results, impls, ScaleResult::overheadPerEntry);
        return svg.toString();
    }

    private static void panel(
            Svg svg,
            int row,
            String title,
            List<ScaleResult> results,
            List<String> impls,
            ToDoubleFunction<ScaleResult> figure) {
        List<Integer> sizes = ScaleTables.sizes(results);
        double most = results.stream().mapToDouble(figure).max().orElse(1);
        int top = TOP + row * PANEL_HEIGHT;
        svg.text(LEFT, top, "start", 12, title);
        for (int step = 0; step <= STEPS; step++) {
            double y = y(top, most * step / STEPS, most);
            svg.line(LEFT, y, WIDTH - RIGHT, y, "#dddddd", 1);
            svg.text(LEFT - 6, y + 4, "end", 10, String.format(Locale.ROOT, "%,.0f", most * step / STEPS));
        }
        for (int size : sizes) {
            svg.text(x(size, sizes), top + PLOT_HEIGHT + 26, "middle", 10, String.format(Locale.ROOT, "%,d", size));
        }
        for (int i = 0; i < impls.size(); i++) {
            Optional<ScaleResult> last = Optional.empty();
            for (int size : sizes) {
                Optional<ScaleResult> result = ScaleTables.find(results, impls.get(i), size);
                if (result.isPresent()) {
                    double x = x(size, sizes);
                    double y = y(top, figure.applyAsDouble(result.get()), most);
                    svg.dot(x, y, Svg.colour(i));
                    if (last.isPresent()) {
                        double before = y(top, figure.applyAsDouble(last.get()), most);
                        svg.line(x(last.get().entries(), sizes), before, x, y, Svg.colour(i), 1.5);
                    }
                }
                last = result;
            }
        }
    }

    private static double x(int size, List<Integer> sizes) {
        double first = Math.log(sizes.get(0));
        double span = Math.log(sizes.get(sizes.size() - 1)) - first;
        return LEFT + 20 + (span == 0 ? 0 : (WIDTH - LEFT - RIGHT - 60) * (Math.log(size) - first) / span);
    }

    /** A measure of memory may be a little below zero, which is drawn as zero. */
    private static double y(int top, double figure, double most) {
        return top + 10 + PLOT_HEIGHT * (1 - Math.max(0, figure) / most);
    }
}
