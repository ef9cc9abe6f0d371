package com.velt.rz.corvane.nimbra.demo;

import java.io.Console;
import java.io.PrintStream;
import java.util.Locale;
import java.util.concurrent.TimeUnit;

/** Shows how far a phase has come: a bar that redraws itself on a terminal, one plain line a phase elsewhere. */
final class Progress {
    private static final int BAR_WIDTH = 40;
    private static final long REDRAW_NANOS = TimeUnit.MILLISECONDS.toNanos(50);

    private final PrintStream out;
    private final boolean bar;

    private String phase;
    private long total;
    private long drawnAt;

    Progress(PrintStream out, boolean bar) {
        this.out = out;
        this.bar = bar;
    }

    /** Whether standard output is a terminal. */
    static boolean onTerminal() {
        Console console = System.console();
        if (console == null) {
            return false;
        }
        try {
            // From Java 22 on there is a console even where there is no terminal, and this method tells them apart.
            return (boolean) Console.class.getMethod("isTerminal").invoke(console);
        } catch (ReflectiveOperationException e) {
            return true;
        }
    }

    void begin(String phase, long total) {
        this.phase = phase;
        this.total = total;
        if (bar) {
            draw(0);
        } else {
            out.printf(Locale.ROOT, "%s: %,d%n", phase, total);
        }
    }

    void step(long done) {
        if (bar && System.nanoTime() - drawnAt >= REDRAW_NANOS) {
            draw(done);
        }
    }

    void end() {
        if (bar) {
            draw(total);
            out.println();
        }
        phase = null;
    }

    /** Leaves the line of a phase that did not come to its end. */
    void abandon() {
        if (bar && phase != null) {
            out.println();
        }
        phase = null;
    }

    private void draw(long done) {
        int filled = total == 0 ? BAR_WIDTH : (int) (done * BAR_WIDTH / total);
        out.printf(
                Locale.ROOT,
                "\r%-20s [%s%s] %,d of %,d",
                phase,
                "#".repeat(filled),
                ".".repeat(BAR_WIDTH - filled),
                done,
                total);
        out.flush();
        drawnAt = System.nanoTime();
    }
}
