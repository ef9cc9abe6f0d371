package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.ChangeIterator;
import com.velt.rz.corvane.nimbra.Diagnostics;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.PinReport.PinEvent;
import com.velt.rz.corvane.nimbra.PinReport.TrackedObject;
import com.velt.rz.corvane.nimbra.PinnedValue;
import com.velt.rz.corvane.nimbra.ProfileReport.OperationProfile;
import com.velt.rz.corvane.nimbra.ProfileReport.Phase;
import com.velt.rz.corvane.nimbra.TraceLevel;
import java.io.PrintStream;
import java.nio.ByteBuffer;
import java.util.Locale;

/**
 * Two defects of a program, found with the diagnostics: a pinned value that is not closed on one path, and a reader of
 * changes that makes every query walk over all entries. {@code docs/troubleshooting.md} goes through the output.
 */
public final class DiagnosticsExample {
    private static final int ORDERS = 1_000;
    private static final int ENTRIES = 20_000;

    /** Queries are timed in 500 positions, some of which the idle threads' places take. */
    private static final int ROUNDS = 600;

    private final Nimbra nimbra;
    private final Diagnostics diagnostics;
    private final PrintStream out;

    private DiagnosticsExample(PrintStream out) {
        this.out = out;
        // Pins have to be recorded from the first one on.
        nimbra = Nimbra.builder()
                .maximumBytes(256 << 20)
                .traceLevels(TraceLevel.WARNING, TraceLevel.ERROR, TraceLevel.FATAL, TraceLevel.PIN_TRACKING)
                .start();
        diagnostics = nimbra.diagnostics();
    }

    public static void main(String[] arguments) {
        DiagnosticsExample example = new DiagnosticsExample(System.out);
        example.findLeak();
        example.findSlowPhase();
    }

    // ---- A leaked pin ------------------------------------------------------------------------

    private void findLeak() {
        long total = 0;
        try (OffHeapMap orders = OffHeapMap.builder().name("orders").build()) {
            for (int i = 0; i < ORDERS; i++) {
                // Order 700 is cancelled: its amount is negative.
                orders.put(bytes(i), bytes(i == 700 ? -1 : i));
            }
            for (int i = 0; i < ORDERS; i++) {
                total += amount(orders, i);
            }
        }
        out.println("orders sum up to " + total);
        out.println("all maps are closed, live blocks: " + nimbra.stats().blocks());
        for (TrackedObject object : diagnostics.pinReport().objects()) {
            out.printf(
                    "leaked: 0x%x with %d pins, by reason %s%n",
                    object.address(), object.outstandingPins(), object.outstandingByReason());
            for (PinEvent event : object.events()) {
                out.printf(
                        "  %s%s thread=%d pins=%d, by %s%n",
                        event.pin() ? "+" : "-", event.reason(), event.thread(), event.pinSum(), entryPoint(event));
            }
        }
        diagnostics.disable(TraceLevel.PIN_TRACKING);
    }

    /** The defect: a cancelled order leaves its value pinned. */
    private static long amount(OffHeapMap orders, int number) {
        PinnedValue value = orders.pin(bytes(number));
        long amount = value.buffer().getLong();
        if (amount < 0) {
            return 0;
        }
        value.close();
        return amount;
    }

    /** The native that Java called; frames further in have no names, those further out are Java's. */
    private static String entryPoint(PinEvent event) {
        return event.stack().stream()
                .filter(frame -> frame.contains("Java_com_velt_rz_corvane_"))
                .map(frame -> frame.replaceAll(".*Java_com_velt_rz_corvane_(\\w+).*", "$1"))
                .findFirst()
                .orElse("?");
    }

    // ---- A slow phase ------------------------------------------------------------------------

    private void findSlowPhase() {
        try (OffHeapMap map = OffHeapMap.builder().name("prices").partitions(1).build()) {
            for (int i = 0; i < ENTRIES; i++) {
                map.put(bytes(i), bytes(i));
            }
            diagnostics.enable(TraceLevel.PROFILING);
            follow(map, "early", true);
            print("a reader that leaves before the end");
            follow(map, "whole", false);
            print("a reader that reads to the end");
            diagnostics.disable(TraceLevel.PROFILING);
        }
    }

    /**
     * Follows the map, two changes at a time.
     *
     * @param leave the defect: to leave the second one for the next time
     */
    private static void follow(OffHeapMap map, String reader, boolean leave) {
        long position = 0;
        try (ChangeIterator changes = map.changesSince(reader, position)) {
            while (changes.hasNext()) {
                changes.next();
            }
            position = changes.lastRevision();
        }
        for (int round = 0; round < ROUNDS; round++) {
            map.put(bytes(2 * round), bytes(round));
            map.put(bytes(2 * round + 1), bytes(round));
            try (ChangeIterator changes = map.changesSince(reader, position)) {
                while (changes.hasNext()) {
                    changes.next();
                    if (leave) {
                        break;
                    }
                }
                position = changes.lastRevision();
            }
        }
    }

    private void print(String who) {
        for (OperationProfile profile : diagnostics.profileReport().operations()) {
            if (profile.operation().equals("queryRevision")) {
                out.println(who + ": " + profile.operation() + (profile.ready() ? "" : " is not ready"));
                for (Phase phase : profile.phases()) {
                    out.printf(
                            Locale.ROOT,
                            "  %-14s %6d us, %6d us since the start%n",
                            phase.label(),
                            phase.durationMicros(),
                            phase.meanMicros());
                }
            }
        }
    }

    private static byte[] bytes(long number) {
        return ByteBuffer.allocate(Long.BYTES).putLong(number).array();
    }
}
