package com.velt.rz.corvane.nimbra.bench;

import java.util.List;
import java.util.Locale;
import org.HdrHistogram.Histogram;

/** Response times by percentile as a drawing: both axes logarithmic, the further right the rarer. */
final class PauseChart {
    private static final int WIDTH = 860;
    private static final int HEIGHT = 480;
    private static final int LEFT = 70;
    private static final int RIGHT = 210; // the legend's column
    private static final int TOP = 40;
    private static final int BOTTOM = 50;
    private static final double LOWEST = 1e2; // nanoseconds
    private static final int STEPS = 24; // points on a line for each power of ten
    private static final String[] COLOURS = {"#0b6e4f", "#c1121f", "#1d4e89"};

    private PauseChart() {}

    static String svg(List<PauseResult> results) {
        List<PauseResult> measured =
                results.stream().filter(result -> result.error() == null).toList();
        double highest = 1e5;
        double nines = 3;
        for (PauseResult result : measured) {
            highest = Math.max(highest, result.response().getMaxValue());
            nines = Math.max(nines, Math.log10(result.response().getTotalCount()));
        }
        double decades = Math.ceil(Math.log10(highest / LOWEST));
        nines = Math.ceil(nines);
        StringBuilder svg = new StringBuilder();
        svg.append(format(
                "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %d %d\" font-family=\"sans-serif\""
                        + " font-size=\"12\">%n<rect width=\"%d\" height=\"%d\" fill=\"white\"/>%n",
                WIDTH, HEIGHT, WIDTH, HEIGHT));
        svg.append(format(
                "<text x=\"%d\" y=\"22\" font-size=\"15\">Response time by percentile, waiting included</text>%n",
                LEFT));
        for (int i = 0; i <= decades; i++) {
            double y = y(LOWEST * Math.pow(10, i), decades);
            svg.append(format(
                    "<line x1=\"%d\" y1=\"%.1f\" x2=\"%d\" y2=\"%.1f\" stroke=\"#ddd\"/>%n"
                            + "<text x=\"%d\" y=\"%.1f\" text-anchor=\"end\">%s</text>%n",
                    LEFT, y, WIDTH - RIGHT, y, LEFT - 6, y + 4, duration(LOWEST * Math.pow(10, i))));
        }
        for (int i = 0; i <= nines; i++) {
            double x = x(i, nines);
            svg.append(format(
                    "<line x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%d\" stroke=\"#ddd\"/>%n"
                            + "<text x=\"%.1f\" y=\"%d\" text-anchor=\"middle\">%s</text>%n",
                    x, TOP, x, HEIGHT - BOTTOM, x, HEIGHT - BOTTOM + 18, percentile(i)));
        }
        int row = 0;
        for (PauseResult result : measured) {
            String style = format(
                    "stroke=\"%s\" stroke-width=\"2\"%s",
                    COLOURS[result.cell().store().ordinal() % COLOURS.length],
                    result.cell().collector() == PauseCell.Collector.ZGC ? " stroke-dasharray=\"6 4\"" : "");
            svg.append(format(
                    "<polyline fill=\"none\" %s points=\"%s\"/>%n", style, line(result.response(), nines, decades)));
            int y = TOP + 16 + 20 * row++;
            svg.append(format(
                    "<line x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\" %s/>%n<text x=\"%d\" y=\"%d\">%s</text>%n",
                    WIDTH - RIGHT + 12,
                    y,
                    WIDTH - RIGHT + 44,
                    y,
                    style,
                    WIDTH - RIGHT + 50,
                    y + 4,
                    result.cell().name()));
        }
        return svg.append("</svg>\n").toString();
    }

    private static String line(Histogram histogram, double nines, double decades) {
        StringBuilder points = new StringBuilder();
        double last = Math.log10(histogram.getTotalCount()); // beyond it there is only the longest
        for (int i = 0; i <= last * STEPS; i++) {
            double at = (double) i / STEPS;
            long value = histogram.getValueAtPercentile(100 - 100 * Math.pow(10, -at));
            points.append(format("%.1f,%.1f ", x(at, nines), y(value, decades)));
        }
        points.append(format("%.1f,%.1f", x(last, nines), y(histogram.getMaxValue(), decades)));
        return points.toString();
    }

    /** The place of the percentile that all but one in 10 to the power of {@code nines} stay below. */
    private static double x(double nines, double most) {
        return LEFT + (WIDTH - LEFT - RIGHT) * nines / most;
    }

    private static double y(double nanoseconds, double decades) {
        double up = Math.log10(Math.max(nanoseconds, LOWEST) / LOWEST) / decades;
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * up;
    }

    private static String percentile(int nines) {
        return switch (nines) {
            case 0 -> "0 %";
            case 1 -> "90 %";
            case 2 -> "99 %";
            default -> "99." + "9".repeat(nines - 2) + " %";
        };
    }

    private static String duration(double nanoseconds) {
        if (nanoseconds < 1e3) {
            return format("%.0f ns", nanoseconds);
        }
        if (nanoseconds < 1e6) {
            return format("%.0f µs", nanoseconds / 1e3);
        }
        return nanoseconds < 1e9 ? format("%.0f ms", nanoseconds / 1e6) : format("%.0f s", nanoseconds / 1e9);
    }

    private static String format(String pattern, Object... arguments) {
        return String.format(Locale.ROOT, pattern, arguments);
    }
}
