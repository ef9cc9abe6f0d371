package com.velt.rz.corvane.nimbra;

import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Who holds which pins. Immutable.
 *
 * @param objects the objects that the levels show: those with outstanding pins, with {@link
 *     TraceLevel#PIN_TRACKING_ALL} also balanced ones. An object that was freed stands here as balanced until its
 *     address is used anew, and one whose address was used several times carries the events of all of them
 * @param totalPins outstanding pins of these objects
 * @param lines the report as it went to the logger; empty before the first tracked pin
 */
public record PinReport(List<TrackedObject> objects, long totalPins, List<String> lines) {
    private static final Pattern OBJECT =
            Pattern.compile("Address=(?:0x([0-9a-f]+)|\\(nil\\)) AllPins=(-?\\d+) CurrentPins=(-?\\d+)");
    private static final Pattern EVENT = Pattern.compile("  ([+-])(.*) Thread=(-?\\d+) PinSum=(-?\\d+)");
    private static final Pattern TOTAL = Pattern.compile("Total current pins: (-?\\d+)");
    private static final String FRAME = "    ";

    public PinReport {
        objects = List.copyOf(objects);
        lines = List.copyOf(lines);
    }

    /**
     * One object.
     *
     * @param address start of its record in memory; the data of a buffer begin 24 bytes later
     * @param recordedEvents its pins and unpins
     * @param outstandingPins its pins minus its unpins
     * @param events each of them, oldest first
     */
    public record TrackedObject(long address, int recordedEvents, int outstandingPins, List<PinEvent> events) {
        public TrackedObject {
            events = List.copyOf(events);
        }

        /**
         * Returns, by reason, the pins minus the unpins of that reason, without reasons that are balanced. A pin may be
         * dropped under another reason than it was taken; the two then stand here with opposite signs.
         */
        public Map<String, Integer> outstandingByReason() {
            Map<String, Integer> counts = new LinkedHashMap<>();
            for (PinEvent event : events) {
                counts.merge(event.reason(), event.pin() ? 1 : -1, Integer::sum);
            }
            counts.values().removeIf(count -> count == 0);
            return counts;
        }
    }

    /**
     * One pin or unpin.
     *
     * @param pin true for a pin, false for an unpin
     * @param reason the name of the reason code
     * @param thread the low 32 bits of the native identity of the pinning thread; 0 for an unpin
     * @param pinSum the outstanding pins after it
     * @param stack the native stack, innermost frame first; Java frames have an address only
     */
    public record PinEvent(boolean pin, String reason, int thread, int pinSum, List<String> stack) {
        public PinEvent {
            stack = List.copyOf(stack);
        }
    }

    /** Reads the lines of a report; others in between are left out. */
    static PinReport parse(List<String> records) {
        Reader reader = new Reader();
        records.forEach(reader::read);
        reader.endObject();
        return new PinReport(reader.objects, reader.total, reader.lines);
    }

    /** Puts objects and events together, which end where the next one begins. */
    private static final class Reader {
        final List<String> lines = new ArrayList<>();
        final List<TrackedObject> objects = new ArrayList<>();
        long total;

        private Matcher object;
        private Matcher event;
        private List<PinEvent> events = new ArrayList<>();
        private List<String> stack = new ArrayList<>();

        void read(String line) {
            Matcher newObject = OBJECT.matcher(line);
            Matcher newEvent = EVENT.matcher(line);
            Matcher end = TOTAL.matcher(line);
            if (newObject.matches()) {
                endObject();
                object = newObject;
            } else if (newEvent.matches()) {
                endEvent();
                event = newEvent;
            } else if (end.matches()) {
                total = Long.parseLong(end.group(1));
            } else if (line.startsWith(FRAME)) {
                stack.add(line.substring(FRAME.length()));
            } else {
                return;
            }
            lines.add(line);
        }

        private void endEvent() {
            if (event != null) {
                events.add(new PinEvent(
                        event.group(1).equals("+"),
                        event.group(2),
                        Integer.parseInt(event.group(3)),
                        Integer.parseInt(event.group(4)),
                        stack));
            }
            event = null;
            stack = new ArrayList<>();
        }

        void endObject() {
            endEvent();
            if (object != null) {
                String address = object.group(1);
                objects.add(new TrackedObject(
                        address == null ? 0 : Long.parseUnsignedLong(address, 16),
                        Integer.parseInt(object.group(2)),
                        Integer.parseInt(object.group(3)),
                        events));
            }
            object = null;
            events = new ArrayList<>();
        }
    }
}
