package com.velt.rz.corvane.nimbra;

import java.util.EnumSet;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;
import java.util.stream.Collectors;

/** Passes every call on to {@link Diagnostics}. */
final class NimbraBean implements NimbraMXBean {
    private final Nimbra nimbra;
    private final Diagnostics diagnostics;

    NimbraBean(Nimbra nimbra, Diagnostics diagnostics) {
        this.nimbra = nimbra;
        this.diagnostics = diagnostics;
    }

    @Override
    public NimbraStats getStats() {
        return nimbra.stats();
    }

    @Override
    public long getRefusedOperations() {
        return diagnostics.refusedOperations();
    }

    @Override
    public Set<String> getLevels() {
        return diagnostics.levels().stream().map(TraceLevel::name).collect(Collectors.toCollection(TreeSet::new));
    }

    @Override
    public void setLevels(Set<String> names) {
        EnumSet<TraceLevel> levels = EnumSet.noneOf(TraceLevel.class);
        for (String name : names) {
            levels.add(level(name));
        }
        diagnostics.setLevels(levels);
    }

    private static TraceLevel level(String name) {
        for (TraceLevel level : TraceLevel.values()) {
            if (level.name().equals(name)) {
                return level;
            }
        }
        throw new IllegalArgumentException("'" + name + "' is no level; there are " + EnumSet.allOf(TraceLevel.class));
    }

    @Override
    public List<PinnedObject> pinReport() {
        return diagnostics.pinReport().objects().stream()
                .map(object -> new PinnedObject(
                        "0x" + Long.toHexString(object.address()),
                        object.recordedEvents(),
                        object.outstandingPins(),
                        object.outstandingByReason()))
                .collect(Collectors.toList());
    }

    @Override
    public String pinReportText() {
        return String.join("\n", diagnostics.pinReport().lines());
    }

    @Override
    public void discardPins() {
        diagnostics.discardPins();
    }

    @Override
    public ProfileReport profileReport() {
        return diagnostics.profileReport();
    }

    @Override
    public String profileReportText() {
        return String.join("\n", diagnostics.profileReport().lines());
    }

    @Override
    public String allocatorStatistics() {
        return diagnostics.allocatorStatistics().text();
    }
}
