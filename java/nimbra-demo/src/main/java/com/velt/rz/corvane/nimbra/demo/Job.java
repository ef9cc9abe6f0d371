package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.MapStatistics;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.NimbraStats;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.PinnedValue;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.zip.Deflater;

/**
 * The main job: insert everything a source has, replace a tenth with compressed bytes, remove a twentieth, read all of
 * it back in both ways, compare every byte with the source, and return the memory. Then the load is done again while a
 * second reader keeps a copy by following the revisions, and once more into a map that may hold only a tenth of it.
 *
 * <p>The source is read again for the comparison, so that nothing of it stays on the heap. It is read in batches outside
 * the measured time: rates count what the map does, and for the two reading phases the comparison too. Which entries
 * are replaced and removed depends on their place in the sorted list alone.
 */
final class Job {
    private static final int BATCH_ENTRIES = 1_024;
    private static final long BATCH_BYTES = 8L << 20;
    private static final int DIFFERENCES_SHOWN = 10;

    private final Nimbra nimbra;
    private final OffHeapMap.Builder options;
    private final Source source;
    private final List<String> names;
    private final Progress progress;
    private final PrintStream out;

    private final List<Phase> phases = new ArrayList<>();
    private final List<String> differences = new ArrayList<>();
    private final List<Row> rows = new ArrayList<>();
    private long differenceCount;
    private long payload;
    private long largestPayload;

    /** One line of the rates. */
    private record Phase(String name, long operations, long nanos) {}

    /** One line of the figures. */
    private record Row(String name, long value) {}

    /** What happens to the entry at a place of the list. */
    private enum Fate {
        KEPT,
        REPLACED,
        REMOVED;

        static Fate of(int place) {
            if (place % 10 == 0) {
                return REPLACED;
            }
            return place % 20 == 1 ? REMOVED : KEPT;
        }
    }

    /** A stretch of the list with its keys and, where asked for, the values that the map has to hold. */
    private record Batch(int from, List<byte[]> keys, List<byte[]> values) {}

    private interface Operation {
        /** Works on one entry and returns what went wrong, or null. */
        String run(byte[] key, byte[] value);
    }

    private interface ValueMaker {
        /** The value to go with a name, or null where the map must hold none. */
        byte[] make(int place, String name);
    }

    Job(Nimbra nimbra, OffHeapMap.Builder options, Source source, Progress progress, PrintStream out) {
        this.nimbra = nimbra;
        this.options = options;
        this.source = source;
        this.names = source.names();
        this.progress = progress;
        this.out = out;
    }

    /**
     * Runs all phases and prints the table.
     *
     * @return what differed, one line each and at most ten of them with a count of the rest; empty when all was right
     */
    List<String> run() {
        NimbraStats start = nimbra.stats();
        long heapBefore = heapInUse();
        NimbraStats full;
        long heapAfter;
        long entries;
        long bytes;
        try (OffHeapMap map = options.build()) {
            load(map, "insert", "replace a tenth", "remove a twentieth");
            readBack(map);
            entries = map.size();
            long expectedEntries = names.size() - places(Fate.REMOVED).size();
            if (entries != expectedEntries) {
                differ("the map has " + entries + " entries instead of " + expectedEntries);
            }
            bytes = map.bytesUsed();
            full = nimbra.stats();
            heapAfter = heapInUse();
            map.clear();
            if (map.size() != 0) {
                differ("the map has " + map.size() + " entries after it was cleared");
            }
        }
        follow();
        limit(bytes);
        print(entries, start, full, heapBefore, heapAfter);
        compareFigures(start, nimbra.stats());
        return summary();
    }

    private void load(OffHeapMap map, String insert, String replace, String remove) {
        timed(
                insert,
                places(null),
                (place, name) -> source.read(name),
                (key, value) -> map.put(key, value) ? null : "was present before it was inserted");
        timed(
                replace,
                places(Fate.REPLACED),
                this::expected,
                (key, value) -> map.replace(key, value) ? null : "was absent when it was to be replaced");
        timed(
                remove,
                places(Fate.REMOVED),
                this::expected,
                (key, value) -> map.remove(key) ? null : "was absent when it was to be removed");
    }

    /** Loads everything again while a second reader follows, and compares its copy with the map, byte for byte. */
    private void follow() {
        try (OffHeapMap map = options.build();
                OffHeapMap copy = OffHeapMap.builder().name("copy").build()) {
            try (Follower follower = new Follower(map, copy)) {
                load(map, "insert, followed", "replace, followed", "remove, followed");
                follower.settle();
                phases.add(new Phase("follow by revision", follower.changes(), follower.nanos()));
                if (copy.size() != map.size()) {
                    differ("the copy has " + copy.size() + " entries, the map " + map.size());
                }
                long before = differenceCount;
                timed(
                        "compare with the copy",
                        places(null),
                        (place, name) -> null,
                        (key, value) -> follower.compare(key));
                rows.add(new Row("follower: times it found changes", follower.rounds()));
                rows.add(new Row("follower: entries of the copy", copy.size()));
                rows.add(new Row("follower: entries that differ", differenceCount - before));
            }
        }
    }

    /**
     * Loads everything once more into a map with a limit.
     *
     * @param bytes what the entries take without one
     */
    private void limit(long bytes) {
        // A few entries have to fit, however small or uneven the load is.
        long limit = Math.max(bytes / 10, 4 * largestPayload + 4_096);
        // The options are not used again.
        try (OffHeapMap map = options.maximumBytes(limit).build();
                LimitedLoad load = new LimitedLoad(map, names.size())) {
            timed("load within the limit", places(null), (place, name) -> source.read(name), load::step);
            MapStatistics statistics = load.finish();
            if (load.mostBytes() > limit) {
                differ("the limit of " + limit + " bytes was passed: " + load.mostBytes() + " bytes");
            }
            if (statistics.hits() + statistics.misses() != load.lookups()) {
                differ("the limited map counts " + statistics.hits() + " hits and " + statistics.misses()
                        + " misses for " + load.lookups() + " lookups");
            }
            rows.add(new Row("limited: bytes without a limit", bytes));
            rows.add(new Row("limited: limit, bytes", limit));
            rows.add(new Row("limited: most bytes seen", load.mostBytes()));
            rows.add(new Row("limited: times looked", load.samples()));
            rows.add(new Row("limited: hits", statistics.hits()));
            rows.add(new Row("limited: misses", statistics.misses()));
            rows.add(new Row("limited: evictions", statistics.sizeEvictions()));
            rows.add(new Row("limited: entries left", map.size()));
        }
    }

    private List<Integer> places(Fate fate) {
        List<Integer> places = new ArrayList<>();
        for (int place = 0; place < names.size(); place++) {
            if (fate == null || Fate.of(place) == fate) {
                places.add(place);
            }
        }
        return places;
    }

    /** Runs one operation on some entries, a batch at a time, and counts only the time of the operation. */
    private void timed(String name, List<Integer> places, ValueMaker values, Operation operation) {
        progress.begin(name, places.size());
        long nanos = 0;
        for (int from = 0; from < places.size(); ) {
            Batch batch = read(places, from, values);
            nanos += run(batch, places, operation);
            from += batch.keys().size();
            progress.step(from);
        }
        progress.end();
        phases.add(new Phase(name, places.size(), nanos));
    }

    /** Reads every entry twice, copied and in place, and compares each with what the source says now. */
    private void readBack(OffHeapMap map) {
        List<Integer> places = places(null);
        progress.begin("read back", places.size());
        long copyNanos = 0;
        long pinNanos = 0;
        for (int from = 0; from < places.size(); ) {
            Batch batch = read(places, from, this::expected);
            copyNanos += run(batch, places, (key, value) -> compareCopy(map.get(key), value));
            pinNanos += run(batch, places, (key, value) -> comparePinned(map, key, value));
            for (int i = 0; i < batch.keys().size(); i++) {
                byte[] value = batch.values().get(i);
                long length = value == null ? 0 : batch.keys().get(i).length + value.length;
                payload += length;
                largestPayload = Math.max(largestPayload, length);
            }
            from += batch.keys().size();
            progress.step(from);
        }
        progress.end();
        phases.add(new Phase("get and compare", places.size(), copyNanos));
        phases.add(new Phase("pin and compare", places.size(), pinNanos));
    }

    private Batch read(List<Integer> places, int from, ValueMaker values) {
        Batch batch = new Batch(from, new ArrayList<>(), new ArrayList<>());
        long bytes = 0;
        for (int i = from; i < places.size() && i - from < BATCH_ENTRIES && bytes < BATCH_BYTES; i++) {
            String name = names.get(places.get(i));
            byte[] value = values.make(places.get(i), name);
            batch.keys().add(name.getBytes(StandardCharsets.UTF_8));
            batch.values().add(value);
            bytes += value == null ? 0 : value.length;
        }
        return batch;
    }

    private long run(Batch batch, List<Integer> places, Operation operation) {
        List<byte[]> keys = batch.keys();
        List<byte[]> values = batch.values();
        String[] wrong = new String[keys.size()];
        long start = System.nanoTime();
        for (int i = 0; i < wrong.length; i++) {
            wrong[i] = operation.run(keys.get(i), values.get(i));
        }
        long nanos = System.nanoTime() - start;
        for (int i = 0; i < wrong.length; i++) {
            if (wrong[i] != null) {
                differ(names.get(places.get(batch.from() + i)) + " " + wrong[i]);
            }
        }
        return nanos;
    }

    /** What the map has to hold for an entry after the changes, from the source as it is now. */
    private byte[] expected(int place, String name) {
        return switch (Fate.of(place)) {
            case KEPT -> source.read(name);
            case REPLACED -> compress(source.read(name));
            case REMOVED -> null;
        };
    }

    private static String compareCopy(byte[] found, byte[] expected) {
        if (found == null || expected == null) {
            return presence("get", found != null, expected != null);
        }
        int at = Arrays.mismatch(found, expected);
        return at < 0 ? null : mismatch("get", at, found.length, expected.length);
    }

    private static String comparePinned(OffHeapMap map, byte[] key, byte[] expected) {
        try (PinnedValue pinned = map.pin(key)) {
            if (pinned == null || expected == null) {
                return presence("pin", pinned != null, expected != null);
            }
            int at = pinned.buffer().mismatch(ByteBuffer.wrap(expected));
            return at < 0 ? null : mismatch("pin", at, pinned.size(), expected.length);
        }
    }

    private static String presence(String reader, boolean found, boolean expected) {
        if (found == expected) {
            return null;
        }
        return found ? "was removed and is found by " + reader : "is missing for " + reader;
    }

    private static String mismatch(String reader, int at, int length, int expectedLength) {
        String difference = "differs from the source at byte " + at + ", read by " + reader;
        return length == expectedLength
                ? difference
                : difference + "; it has " + length + " bytes instead of " + expectedLength;
    }

    private void compareFigures(NimbraStats start, NimbraStats end) {
        if (end.blocks() != start.blocks()) {
            differ("live blocks: " + start.blocks() + " before, " + end.blocks() + " after the map was closed");
        }
        if (end.internalMetadataBytes() != start.internalMetadataBytes()) {
            differ("internal metadata bytes: " + start.internalMetadataBytes() + " before, "
                    + end.internalMetadataBytes() + " after the map was closed");
        }
        if (differenceCount == 0) {
            out.printf(
                    Locale.ROOT,
                    "Every byte agrees with the source. After clear and close: %,d live blocks and %,d bytes of internal"
                            + " metadata, as before.%n",
                    end.blocks(),
                    end.internalMetadataBytes());
        }
    }

    private void differ(String what) {
        differenceCount++;
        if (differences.size() < DIFFERENCES_SHOWN) {
            differences.add(what);
        }
    }

    private List<String> summary() {
        if (differenceCount > differences.size()) {
            differences.add("and " + (differenceCount - differences.size()) + " more");
        }
        return differences;
    }

    private void print(long entries, NimbraStats start, NimbraStats full, long heapBefore, long heapAfter) {
        long used = full.bytesInUse() - start.bytesInUse();
        out.println();
        out.printf(Locale.ROOT, "%-32s %15s %15s%n", "phase", "operations", "a second");
        for (Phase phase : phases) {
            out.printf(
                    Locale.ROOT,
                    "%-32s %,15d %,15.0f%n",
                    phase.name(),
                    phase.operations(),
                    phase.operations() * 1e9 / Math.max(1, phase.nanos()));
        }
        out.println();
        row("entries", entries);
        row("payload bytes (keys and values)", payload);
        row("off-heap bytes in use", full.bytesInUse());
        out.printf(
                Locale.ROOT,
                "%-32s %15.3f%n",
                "overhead a byte of payload",
                (double) (used - payload) / Math.max(1, payload));
        row("Java heap in use before, bytes", heapBefore);
        row("Java heap in use after, bytes", heapAfter);
        row("live blocks", full.blocks());
        row("internal metadata bytes", full.internalMetadataBytes());
        for (Row row : rows) {
            row(row.name(), row.value());
        }
        out.println();
    }

    private void row(String name, long value) {
        out.printf(Locale.ROOT, "%-32s %,15d%n", name, value);
    }

    private static long heapInUse() {
        System.gc();
        Runtime runtime = Runtime.getRuntime();
        return runtime.totalMemory() - runtime.freeMemory();
    }

    private static byte[] compress(byte[] bytes) {
        Deflater deflater = new Deflater();
        try {
            deflater.setInput(bytes);
            deflater.finish();
            ByteArrayOutputStream compressed = new ByteArrayOutputStream(bytes.length / 2 + 64);
            byte[] piece = new byte[8_192];
            while (!deflater.finished()) {
                compressed.write(piece, 0, deflater.deflate(piece));
            }
            return compressed.toByteArray();
        } finally {
            deflater.end();
        }
    }
}
