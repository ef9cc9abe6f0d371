package com.velt.rz.corvane.nimbra.peers;

import java.util.List;
import java.util.Locale;

/** Collects the few shapes that the plots need. Coordinates are in pixels from the upper left corner. */
final class Svg {
    /** Colours that stay apart for the colour-blind, after Okabe and Ito. */
    private static final String[] COLOURS = {
        "#0072b2", "#e69f00", "#009e73", "#cc79a7", "#d55e00", "#56b4e9", "#999999", "#000000", "#b8a900"
    };

    private final StringBuilder shapes = new StringBuilder();
    private final int width;
    private final int height;

    Svg(int width, int height) {
        this.width = width;
        this.height = height;
    }

    static String colour(int i) {
        return COLOURS[i % COLOURS.length];
    }

    void bar(double x, double y, double w, double h, String colour) {
        add("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"/>", x, y, w, h, colour);
    }

    void dot(double x, double y, String colour) {
        add("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\" fill=\"%s\"/>", x, y, colour);
    }

    void line(double x1, double y1, double x2, double y2, String colour, double thickness) {
        add(
                "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"%.1f\"/>",
                x1, y1, x2, y2, colour, thickness);
    }

    /** Writes a text; {@code anchor} is start, middle or end. */
    void text(double x, double y, String anchor, int size, String text) {
        add(
                "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" font-size=\"%d\">%s</text>",
                x, y, anchor, size, escaped(text));
    }

    /** Writes one coloured name after the other, in a second line what does not fit into the first. */
    void legend(double x, double top, List<String> names) {
        double at = x;
        double y = top;
        for (int i = 0; i < names.size(); i++) {
            if (at + 14 + 7 * names.get(i).length() > width) {
                at = x;
                y += 15;
            }
            bar(at, y - 9, 10, 10, colour(i));
            text(at + 14, y, "start", 12, names.get(i));
            at += 34 + 7 * names.get(i).length();
        }
    }

    private void add(String format, Object... arguments) {
        shapes.append(String.format(Locale.ROOT, format, arguments)).append('\n');
    }

    private static String escaped(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;");
    }

    @Override
    public String toString() {
        return String.format(
                Locale.ROOT,
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%1$d\" height=\"%2$d\""
                        + " viewBox=\"0 0 %1$d %2$d\" font-family=\"sans-serif\" fill=\"#222\">%n"
                        + "<rect width=\"%1$d\" height=\"%2$d\" fill=\"#fff\"/>%n%3$s</svg>%n",
                width,
                height,
                shapes);
    }
}
