package com.velt.rz.corvane.nimbra;

import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * The figures and switches of {@link Diagnostics} for management clients. {@link Diagnostics#registerMBean} registers
 * it.
 */
public interface NimbraMXBean {
    /** Returns the figures of {@link Nimbra#stats}. */
    NimbraStats getStats();

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

    /** As {@link Diagnostics#profileReport}. */
    ProfileReport profileReport();

    /** Returns the text of {@link Diagnostics#profileReport}, one line after the other. */
    String profileReportText();

    /** Returns the native allocator's own report. */
    String allocatorStatistics();

    /**
     * One object of a pin report; its events stand in the text.
     *
     * @param address where its record starts, in hexadecimal
     * @param recordedEvents its pins and unpins
     * @param outstandingPins its pins minus its unpins
     * @param outstandingByReason the same for each reason that is not balanced
     */
    record PinnedObject(
            String address, int recordedEvents, int outstandingPins, Map<String, Integer> outstandingByReason) {}
}
