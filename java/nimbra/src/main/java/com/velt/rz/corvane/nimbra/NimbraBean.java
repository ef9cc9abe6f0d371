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
    public long getBlocks() {
        return nimbra.stats().blocks();
    }

    @Override
    public long getBytesInUse() {
        return nimbra.stats().bytesInUse();
    }

    @Override
    public long getInternalMetadataBytes() {
        return nimbra.stats().internalMetadataBytes();
    }

    @Override
    public long getMaximumBytes() {
        return nimbra.stats().maximumBytes();
    }

    @Override
    public long getHardCapBytes() {
        return nimbra.stats().hardCapBytes();
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
        return diagnostics.pinReport().objects().stream().map(PinnedObject::new).collect(Collectors.toList());
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
    public List<PhaseTime> profileReport() {
        return diagnostics.profileReport().operations().stream()
                .flatMap(operation ->
                        operation.phases().stream().map(phase -> new PhaseTime(operation.operation(), phase)))
                .collect(Collectors.toList());
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
