package com.velt.rz.corvane.nimbra.micrometer;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.NimbraStats;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.OffHeapMemoryException;
import io.micrometer.core.instrument.Meter;
import io.micrometer.core.instrument.Tag;
import io.micrometer.core.instrument.simple.SimpleMeterRegistry;
import java.time.Duration;
import java.util.List;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.jupiter.api.Test;

class NimbraMetricsTest {
    private final Nimbra nimbra = Nimbra.builder().maximumBytes(64 << 20).start();
    private final SimpleMeterRegistry registry = new SimpleMeterRegistry();

    private double gauge(String name, String... tags) {
        return registry.get(name).tags(tags).gauge().value();
    }

    private double count(String name, String... tags) {
        return registry.get(name).tags(tags).functionCounter().count();
    }

    private static byte[] key(int number) {
        return new byte[] {(byte) number};
    }

    @Test
    void theRuntimeIsShown() {
        new NimbraMetrics(nimbra, List.of(), List.of(Tag.of("grid", "a"))).bindTo(registry);
        double refused = count("nimbra.refused.operations");
        try (OffHeapMap map = nimbra.newMap()) {
            map.put(key(1), new byte[1 << 20]);
            NimbraStats stats = nimbra.stats();
            assertEquals(stats.blocks(), gauge("nimbra.blocks", "grid", "a"));
            assertEquals(stats.bytesInUse(), gauge("nimbra.memory.used"));
            assertEquals(stats.internalMetadataBytes(), gauge("nimbra.memory.metadata"));
            assertEquals(64 << 20, gauge("nimbra.memory.max"));
            assertEquals(stats.hardCapBytes(), gauge("nimbra.memory.hard.cap"));
            assertEquals(
                    "bytes", registry.get("nimbra.memory.used").meter().getId().getBaseUnit());
            assertTrue(gauge("nimbra.memory.used") > 1 << 20);
            assertThrows(OffHeapMemoryException.class, () -> map.put(key(2), new byte[64 << 20]));
        }
        assertEquals(refused + 1, count("nimbra.refused.operations"));
    }

    @Test
    void aMapThatCountsIsShownUntilItIsClosed() {
        AtomicLong clock = new AtomicLong();
        OffHeapMap cache = OffHeapMap.builder()
                .name("cache")
                .partitions(1)
                .maximumEntries(3)
                .expireAfterWrite(Duration.ofNanos(100))
                .ticker(clock::get)
                .build();
        try (cache) {
            new NimbraMetrics(nimbra, List.of(cache), List.of()).bindTo(registry);
            for (int i = 0; i < 5; i++) {
                cache.put(key(i), new byte[10]);
            }
            cache.get(key(4));
            cache.get(key(4));
            cache.get(key(0));
            cache.remove(key(4));
            assertEquals(2, gauge("nimbra.map.size", "map", "cache"));
            assertEquals(cache.bytesUsed(), gauge("nimbra.map.bytes", "map", "cache"));
            assertEquals(2, count("nimbra.map.gets", "map", "cache", "result", "hit"));
            assertEquals(1, count("nimbra.map.gets", "map", "cache", "result", "miss"));
            assertEquals(5, count("nimbra.map.puts", "map", "cache"));
            assertEquals(1, count("nimbra.map.removals", "map", "cache"));
            assertEquals(2, count("nimbra.map.evictions", "map", "cache", "cause", "size"));
            assertEquals(0, count("nimbra.map.evictions", "map", "cache", "cause", "expired"));
            clock.set(1_000);
            cache.get(key(3));
            assertEquals(2, count("nimbra.map.evictions", "map", "cache", "cause", "expired"));
            assertEquals(0, gauge("nimbra.map.size", "map", "cache"));
        }
        assertTrue(Double.isNaN(gauge("nimbra.map.size", "map", "cache")));
        assertTrue(Double.isNaN(gauge("nimbra.map.bytes", "map", "cache")));
        assertEquals(5, count("nimbra.map.puts", "map", "cache"));
    }

    @Test
    void aMapThatDoesNotCountHasItsSizeOnly() {
        try (OffHeapMap plain = OffHeapMap.builder().name("plain").build();
                OffHeapMap other = OffHeapMap.builder().name("other").build()) {
            new NimbraMetrics(nimbra, List.of(plain, other), List.of()).bindTo(registry);
            plain.put(key(1), key(2));
            assertEquals(1, gauge("nimbra.map.size", "map", "plain"));
            assertEquals(0, gauge("nimbra.map.size", "map", "other"));
            assertTrue(registry.getMeters().stream()
                    .filter(meter -> "plain".equals(meter.getId().getTag("map")))
                    .noneMatch(meter -> meter.getId().getType() == Meter.Type.COUNTER));
        }
    }
}
