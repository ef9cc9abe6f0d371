package com.velt.rz.corvane.nimbra;

import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * How long the phases of the timed operations take. Immutable.
 *
 * <p>Operations are timed while {@link TraceLevel#PROFILING} is on, one partition's share at a time, up to five threads
 * at once for each operation; a sixth goes unmeasured. The figures are means over the latest runs, and stay when the
 * level is turned off.
 *
 * @param operations newest profile first. Two threads that were the first to run an operation at the same moment may
 *     each have made a profile for it: both stand here, and only one of them goes on
 * @param lines the report as it went to the logger
 */
public record ProfileReport(List<OperationProfile> operations, List<String> lines) {
    private static final Pattern READY = Pattern.compile("Profile (\\S+)( .*:\\d+\\(\\d+\\).*)");
    private static final Pattern PHASE = Pattern.compile("\\G (.*?):(\\d+)\\((\\d+)\\)");
    private static final Pattern SKIPPED = Pattern.compile(
            "Profile (\\S+) was skipped because it is not yet ready \\(up to about (\\d+)/(\\d+) samples\\)");
    private static final String NONE = "No profiles are being tracked.";

    /** The report prints means in microseconds times this. */
    private static final long SCALE = 1_000;

    public ProfileReport {
        operations = List.copyOf(operations);
        lines = List.copyOf(lines);
    }

    /**
     * One operation.
     *
     * @param operation its native name
     * @param ready whether there are figures: enough runs have been timed
     * @param samples runs timed so far, roughly; 0 once it is ready, when the report says no more how many
     * @param samplesNeeded runs after which it is ready, roughly; 0 once it is
     * @param phases in the order in which they run; empty until it is ready
     */
    public record OperationProfile(
            String operation, boolean ready, int samples, int samplesNeeded, List<Phase> phases) {
        public OperationProfile {
            phases = List.copyOf(phases);
        }
    }

    /**
     * One phase.
     *
     * @param label its name, without surrounding blanks
     * @param meanMicros mean time from the start of the operation to the end of this phase, in whole microseconds
     * @param durationMicros that mean minus the one of the phase before. Runs that skip phases can make it negative
     */
    public record Phase(String label, long meanMicros, long durationMicros) {}

    /** Reads the lines of a report; others in between are left out. */
    static ProfileReport parse(List<String> records) {
        List<String> lines = new ArrayList<>();
        List<OperationProfile> operations = new ArrayList<>();
        for (String line : records) {
            Matcher skipped = SKIPPED.matcher(line);
            Matcher ready = READY.matcher(line);
            if (skipped.matches()) {
                operations.add(new OperationProfile(
                        skipped.group(1),
                        false,
                        Integer.parseInt(skipped.group(2)),
                        Integer.parseInt(skipped.group(3)),
                        List.of()));
            } else if (ready.matches()) {
                operations.add(new OperationProfile(ready.group(1), true, 0, 0, phases(ready.group(2))));
            } else if (!line.equals(NONE)) {
                continue;
            }
            lines.add(line);
        }
        return new ProfileReport(operations, lines);
    }

    private static List<Phase> phases(String text) {
        List<Phase> phases = new ArrayList<>();
        Matcher phase = PHASE.matcher(text);
        while (phase.find()) {
            // The increment is an unsigned difference; read as signed, one that has wrapped is negative again.
            phases.add(new Phase(
                    phase.group(1).trim(),
                    Long.parseUnsignedLong(phase.group(3)) / SCALE,
                    Long.parseUnsignedLong(phase.group(2)) / SCALE));
        }
        return phases;
    }
}
