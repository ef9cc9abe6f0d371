package com.velt.rz.corvane.nimbra.micrometer;

import com.velt.rz.corvane.nimbra.EvictionCause;
import com.velt.rz.corvane.nimbra.MapStatistics;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import io.micrometer.core.instrument.FunctionCounter;
import io.micrometer.core.instrument.Gauge;
import io.micrometer.core.instrument.MeterRegistry;
import io.micrometer.core.instrument.Tag;
import io.micrometer.core.instrument.Tags;
import io.micrometer.core.instrument.binder.BaseUnits;
import io.micrometer.core.instrument.binder.MeterBinder;
import java.util.Collection;
import java.util.List;
import java.util.Locale;
import java.util.function.ToDoubleFunction;
import java.util.function.ToLongFunction;

/**
 * Shows the runtime and some of its maps to a registry.
 *
 * <pre>{@code
 * new NimbraMetrics(nimbra, List.of(cache), List.of()).bindTo(registry);
 * }</pre>
 *
 * <p>The runtime has {@code nimbra.blocks}, {@code nimbra.memory.used}, {@code nimbra.memory.metadata}, {@code
 * nimbra.memory.max}, {@code nimbra.memory.hard.cap} (bytes, but for the first) and the counter {@code
 * nimbra.refused.operations}. Each map, tagged {@code map} with its name, has {@code nimbra.map.size} (entries) and {@code
 * nimbra.map.bytes}, and where it records statistics the counters {@code nimbra.map.gets} with {@code result} {@code hit}
 * or {@code miss}, {@code nimbra.map.puts}, {@code nimbra.map.removals}, and {@code nimbra.map.evictions} with {@code
 * cause} {@code size} or {@code expired}.
 *
 * <p>Maps need different names, since a registry keeps one meter of a kind. A registry refers to maps weakly: binding one
 * keeps neither its object nor its memory. The gauges of a map that was closed read NaN; its counters stay what they
 * were. Every reading asks the map; the size of one without limits costs a lock for each of its partitions.
 *
 * <p>Immutable; may be bound to several registries.
 */
public final class NimbraMetrics implements MeterBinder {
    private final Nimbra nimbra;
    private final List<OffHeapMap> maps;
    private final Tags tags;

    /**
     * Makes a binder.
     *
     * @param nimbra the runtime
     * @param maps open maps, may be empty
     * @param tags tags of every meter, may be empty
     */
    public NimbraMetrics(Nimbra nimbra, Collection<OffHeapMap> maps, Iterable<Tag> tags) {
        this.nimbra = nimbra;
        this.maps = List.copyOf(maps);
        this.tags = Tags.of(tags);
    }

    @Override
    public void bindTo(MeterRegistry registry) {
        Gauge.builder("nimbra.blocks", nimbra, runtime -> runtime.stats().blocks())
                .tags(tags)
                .description("Live native blocks")
                .register(registry);
        bytes(registry, "used", "Bytes in use, in whole pages", runtime -> runtime.stats()
                .bytesInUse());
        bytes(registry, "metadata", "Bytes of tables, queues and maps", runtime -> runtime.stats()
                .internalMetadataBytes());
        bytes(registry, "max", "The most bytes that may be in use", runtime -> runtime.stats()
                .maximumBytes());
        bytes(registry, "hard.cap", "97 % of the maximum", runtime -> runtime.stats()
                .hardCapBytes());
        FunctionCounter.builder("nimbra.refused.operations", nimbra, runtime -> runtime.diagnostics()
                        .refusedOperations())
                .tags(tags)
                .description("Operations that failed for lack of memory")
                .register(registry);
        for (OffHeapMap map : maps) {
            bind(registry, map);
        }
    }

    private void bytes(MeterRegistry registry, String name, String description, ToDoubleFunction<Nimbra> figure) {
        Gauge.builder("nimbra.memory." + name, nimbra, figure)
                .tags(tags)
                .baseUnit(BaseUnits.BYTES)
                .description(description)
                .register(registry);
    }

    private void bind(MeterRegistry registry, OffHeapMap map) {
        Tags own = tags.and("map", map.name());
        Gauge.builder("nimbra.map.size", map, open -> whileOpen(open, OffHeapMap::size))
                .tags(own)
                .description("Entries")
                .register(registry);
        Gauge.builder("nimbra.map.bytes", map, open -> whileOpen(open, OffHeapMap::bytesUsed))
                .tags(own)
                .baseUnit(BaseUnits.BYTES)
                .description("Bytes of keys, values and records")
                .register(registry);
        if (!map.recordsStatistics()) {
            return;
        }
        count(registry, map, "gets", own.and("result", "hit"), MapStatistics::hits);
        count(registry, map, "gets", own.and("result", "miss"), MapStatistics::misses);
        count(registry, map, "puts", own, MapStatistics::puts);
        count(registry, map, "removals", own, MapStatistics::removals);
        for (EvictionCause cause : EvictionCause.values()) {
            Tags caused = own.and("cause", cause.name().toLowerCase(Locale.ROOT));
            count(registry, map, "evictions", caused, statistics -> statistics.evictions(cause));
        }
    }

    private static void count(
            MeterRegistry registry, OffHeapMap map, String name, Tags tags, ToLongFunction<MapStatistics> figure) {
        FunctionCounter.builder("nimbra.map." + name, map, counting -> figure.applyAsLong(counting.statistics()))
                .tags(tags)
                .register(registry);
    }

    private static double whileOpen(OffHeapMap map, ToLongFunction<OffHeapMap> figure) {
        try {
            return figure.applyAsLong(map);
        } catch (IllegalStateException e) {
            // Closed, perhaps just now: there is nothing to show.
            return Double.NaN;
        }
    }
}
