package com.velt.rz.corvane.nimbra;

import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * The figures and switches of {@link Diagnostics} for management clients. {@link Diagnostics#registerMBean} registers
 * it.
 */
public interface NimbraMXBean {
    /** Returns the live native blocks. */
    long getBlocks();

    /** Returns the bytes in use, in whole pages. */
    long getBytesInUse();

    /** Returns the bytes of structures that do not belong to single entries. */
    long getInternalMetadataBytes();

    /** Returns the most bytes that may be in use. */
    long getMaximumBytes();

    /** Returns 97 % of the maximum. */
    long getHardCapBytes();

    /** Returns how many operations have ended in an {@link OffHeapMemoryException}. */
    long getRefusedOperations();

    /** Returns the names of the levels that are on, as {@link TraceLevel} spells them. */
    Set<String> getLevels();

    /**
     * Turns exactly these levels on, as {@link Diagnostics#setLevels} does.
     *
     * @throws IllegalArgumentException when a name is that of no level
     * @throws IllegalStateException when pin tracking was to be turned on while blocks are live
     */
    void setLevels(Set<String> names);

    /** Returns the objects of {@link Diagnostics#pinReport}. */
    List<PinnedObject> pinReport();

    /** Returns the text of {@link Diagnostics#pinReport}, one line after the other. */
    String pinReportText();

    /** As {@link Diagnostics#discardPins}. */
    void discardPins();

    /** Returns the phases of all operations of {@link Diagnostics#profileReport} that are ready. */
    List<PhaseTime> profileReport();

    /** Returns the text of {@link Diagnostics#profileReport}, one line after the other. */
    String profileReportText();

    /** Returns the native allocator's own report. */
    String allocatorStatistics();

    /** One object of a pin report. Immutable. */
    final class PinnedObject {
        private final PinReport.TrackedObject object;

        PinnedObject(PinReport.TrackedObject object) {
            this.object = object;
        }

        /** Returns where its record starts, in hexadecimal. */
        public String getAddress() {
            return "0x" + Long.toHexString(object.address());
        }

        /** Returns the number of its pins and unpins. */
        public int getRecordedEvents() {
            return object.recordedEvents();
        }

        /** Returns its pins minus its unpins. */
        public int getOutstandingPins() {
            return object.outstandingPins();
        }

        /** Returns the same for each reason that is not balanced. */
        public Map<String, Integer> getOutstandingByReason() {
            return object.outstandingByReason();
        }
    }

    /** One phase of an operation. Immutable. */
    final class PhaseTime {
        private final String operation;
        private final ProfileReport.Phase phase;

        PhaseTime(String operation, ProfileReport.Phase phase) {
            this.operation = operation;
            this.phase = phase;
        }

        /** Returns the native name of the operation. */
        public String getOperation() {
            return operation;
        }

        /** Returns the label of the phase. */
        public String getPhase() {
            return phase.label();
        }

        /** Returns the mean microseconds from the start of the operation to the end of the phase. */
        public long getMeanMicros() {
            return phase.meanMicros();
        }

        /** Returns the phase's own share of that. */
        public long getDurationMicros() {
            return phase.durationMicros();
        }
    }
}
