package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Reads the virtual machine's own log for moments at which the program stood still.
 *
 * <p>The log has to carry the uptime in seconds as its first decoration and the tags {@code gc}, {@code gc+phases} and
 * {@code safepoint}. A concurrent collector's cycle is no pause, only the phases that it names so.
 */
final class PauseLog {
    /** Options that make the virtual machine write such a log. */
    static String option(Path file) {
        return "-Xlog:gc,gc+phases,safepoint:file=" + file + ":uptime,tags:filecount=0";
    }

    private static final String UPTIME = "^\\[(?<at>[0-9]+[.,][0-9]+)s\\]\\S*\\s*(?:\\[[^]]*\\]\\s*)*";
    private static final Pattern PAUSE = Pattern.compile(
            UPTIME
                    + "GC\\([0-9]+\\) (?:[A-Za-z]: )?(?<what>Pause [A-Za-z ]+?[A-Za-z])(?= [^A-Za-z]).*? (?<ms>[0-9]+[.,][0-9]+)ms$");
    private static final Pattern STALL = Pattern.compile(
            UPTIME + "(?:GC\\([0-9]+\\) )?(?:[A-Za-z]: )?(?<what>Allocation Stall) .*? (?<ms>[0-9]+[.,][0-9]+)ms$");
    private static final Pattern SAFEPOINT =
            Pattern.compile(UPTIME + "Safepoint \"(?<what>[^\"]+)\",.*Total: +(?<ns>[0-9]+) ns.*$");

    /** What stood still. */
    enum Kind {
        /** The whole program, by the collector's own figure. */
        COLLECTION,
        /** The whole program, for whatever reason, with the time until the last thread stood. */
        SAFEPOINT,
        /** One thread, which had to wait for memory. */
        STALL
    }

    /**
     * One such moment.
     *
     * @param at uptime in seconds at which it ended
     */
    record Event(Kind kind, String what, double at, double milliseconds) {}

    private PauseLog() {}

    /** The events of a log between two uptimes. */
    static List<Event> read(Path file, double from, double to) throws IOException {
        List<Event> events = new ArrayList<>();
        for (String line : Files.readAllLines(file)) {
            Event event = parse(line);
            if (event != null && event.at() >= from && event.at() <= to) {
                events.add(event);
            }
        }
        return events;
    }

    /** The event of a line; null when the line tells of something else. */
    static Event parse(String line) {
        Matcher pause = PAUSE.matcher(line);
        if (pause.matches()) {
            return new Event(Kind.COLLECTION, pause.group("what"), number(pause, "at"), number(pause, "ms"));
        }
        Matcher stall = STALL.matcher(line);
        if (stall.matches()) {
            return new Event(Kind.STALL, stall.group("what"), number(stall, "at"), number(stall, "ms"));
        }
        Matcher safepoint = SAFEPOINT.matcher(line);
        if (safepoint.matches()) {
            return new Event(
                    Kind.SAFEPOINT, safepoint.group("what"), number(safepoint, "at"), number(safepoint, "ns") / 1e6);
        }
        return null;
    }

    private static double number(Matcher matcher, String group) {
        return Double.parseDouble(matcher.group(group).replace(',', '.'));
    }
}
