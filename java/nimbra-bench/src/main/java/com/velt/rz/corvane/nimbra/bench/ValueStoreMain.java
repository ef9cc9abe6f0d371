package com.velt.rz.corvane.nimbra.bench;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.PrintWriter;
import java.net.URI;
import java.nio.ByteBuffer;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.SplittableRandom;
import java.util.concurrent.Callable;
import java.util.stream.Stream;
import org.lmdbjava.EnvFlags;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.Spec;

/**
 * Measures stores that values can be paged out to, beside plain positional file I/O, and prints a table. Every store
 * gets the same values of 1 to 4 KiB (slices of the JDK's class files) on one thread and in the same order: all
 * written, each read once in random order, then as many times one freed and another written in its place. Rounds go
 * through all stores in turn; the first round warms up and does not count. Every value is compared with its source at
 * the end of a round, which is not timed. Exit status 0 means that every store returned what it was given.
 */
@Command(name = "stores", mixinStandardHelpOptions = true, description = "Measures stores for values on disk.")
public final class ValueStoreMain implements Callable<Integer> {
    private static final int MIN_LENGTH = 1024;
    private static final int MAX_LENGTH = 4096;
    private static final String FLOOR = "plain files";

    /** Seconds for all values of one round, and what the folder occupied. */
    record Round(double pageOut, double pageIn, double churn, long written, long churned) {}

    @Spec
    private CommandSpec spec;

    @Option(names = "--values", defaultValue = "200000", description = "number of values (${DEFAULT-VALUE})")
    private int values;

    @Option(names = "--rounds", defaultValue = "5", description = "measured rounds (${DEFAULT-VALUE})")
    private int rounds;

    @Option(names = "--output", defaultValue = "build/bench", description = "folder for files and table")
    private Path output;

    @Option(names = "--stores", split = ",", description = "only the stores whose name starts with one of these")
    private List<String> only = List.of();

    private ByteBuffer source;
    private int[] offsets;
    private int[] lengths;

    /** Runs the command and ends the process. */
    public static void main(String[] arguments) {
        System.exit(new CommandLine(new ValueStoreMain()).execute(arguments));
    }

    private static Map<String, PagingStore.Opener> stores() {
        Map<String, PagingStore.Opener> stores = new LinkedHashMap<>();
        stores.put(FLOOR, PlainFilePaging::new);
        stores.put("Nimbra", NimbraPaging::new);
        stores.put("H2 MVStore", MvStorePaging::new);
        stores.put("RocksDB", folder -> new RocksPaging(folder, false));
        stores.put("RocksDB, blob files", folder -> new RocksPaging(folder, true));
        stores.put("LMDB", folder -> new LmdbPaging(folder, 1));
        stores.put("LMDB, 64 a commit", folder -> new LmdbPaging(folder, 64));
        stores.put("LMDB, write map", folder -> new LmdbPaging(folder, 1, EnvFlags.MDB_WRITEMAP));
        stores.put("LMDB, write map, 64 a commit", folder -> new LmdbPaging(folder, 64, EnvFlags.MDB_WRITEMAP));
        return stores;
    }

    @Override
    public Integer call() throws IOException {
        Map<String, PagingStore.Opener> stores = stores();
        if (!only.isEmpty()) {
            stores.keySet()
                    .removeIf(name -> !name.equals(FLOOR) && only.stream().noneMatch(name::startsWith));
        }
        prepareValues();
        PrintWriter out = spec.commandLine().getOut();
        Map<String, List<Round>> results = new LinkedHashMap<>();
        for (int round = 0; round <= rounds; round++) {
            for (Map.Entry<String, PagingStore.Opener> store : stores.entrySet()) {
                Round result = run(store.getValue(), round);
                out.printf(
                        Locale.ROOT,
                        "%s %-28s out %6.2f s  in %6.2f s  churn %6.2f s  disk %,d / %,d KiB%n",
                        round == 0 ? "warm-up" : "round " + round,
                        store.getKey(),
                        result.pageOut(),
                        result.pageIn(),
                        result.churn(),
                        result.written() >> 10,
                        result.churned() >> 10);
                out.flush();
                if (round > 0) {
                    results.computeIfAbsent(store.getKey(), name -> new ArrayList<>())
                            .add(result);
                }
            }
        }
        List<String> table =
                table(results, values, Arrays.stream(lengths).asLongStream().sum());
        Files.write(output.resolve("stores.md"), table);
        out.println();
        table.forEach(out::println);
        out.flush();
        return 0;
    }

    private void prepareValues() throws IOException {
        ByteArrayOutputStream classes = new ByteArrayOutputStream();
        Path base = FileSystems.getFileSystem(URI.create("jrt:/")).getPath("modules", "java.base");
        try (Stream<Path> files = Files.walk(base)) {
            for (Path file : files.filter(Files::isRegularFile).sorted().toList()) {
                classes.write(Files.readAllBytes(file));
            }
        }
        source = ByteBuffer.allocateDirect(classes.size()).put(classes.toByteArray());
        SplittableRandom random = new SplittableRandom(5);
        offsets = new int[2 * values];
        lengths = new int[2 * values];
        for (int i = 0; i < offsets.length; i++) {
            lengths[i] = random.nextInt(MIN_LENGTH, MAX_LENGTH + 1);
            offsets[i] = random.nextInt(source.capacity() - MAX_LENGTH);
        }
    }

    private Round run(PagingStore.Opener opener, int round) throws IOException {
        Path folder = Files.createTempDirectory(Files.createDirectories(output), "stores-");
        ByteBuffer target = ByteBuffer.allocateDirect(MAX_LENGTH);
        SplittableRandom random = new SplittableRandom(round);
        long[] handles = new long[values];
        int[] contents = new int[values]; // the index of the slice that stands under the handle
        try (PagingStore store = opener.open(folder)) {
            long start = System.nanoTime();
            for (int i = 0; i < values; i++) {
                handles[i] = store.write(slice(i));
                contents[i] = i;
            }
            store.flush();
            final double pageOut = secondsSince(start);
            final long written = PagingStore.bytesOnDisk(folder);

            int[] order = shuffled(random);
            start = System.nanoTime();
            for (int i : order) {
                store.read(handles[i], lengths[i], target);
            }
            final double pageIn = secondsSince(start);

            start = System.nanoTime();
            for (int i = 0; i < values; i++) {
                int victim = random.nextInt(values);
                store.free(handles[victim], lengths[contents[victim]]);
                contents[victim] = values + i;
                handles[victim] = store.write(slice(values + i));
            }
            store.flush();
            final double churn = secondsSince(start);
            final long churned = PagingStore.bytesOnDisk(folder);

            for (int i = 0; i < values; i++) {
                store.read(handles[i], lengths[contents[i]], target);
                if (!target.equals(slice(contents[i]))) {
                    throw new IOException("value " + i + " came back changed");
                }
            }
            return new Round(pageOut, pageIn, churn, written, churned);
        } finally {
            try (Stream<Path> files = Files.walk(folder)) {
                for (Path file : files.sorted(Comparator.reverseOrder()).toList()) {
                    Files.delete(file);
                }
            }
        }
    }

    private ByteBuffer slice(int index) {
        return source.slice(offsets[index], lengths[index]);
    }

    private int[] shuffled(SplittableRandom random) {
        int[] order = new int[values];
        for (int i = 0; i < values; i++) {
            int other = random.nextInt(i + 1);
            order[i] = order[other];
            order[other] = i;
        }
        return order;
    }

    private static double secondsSince(long start) {
        return (System.nanoTime() - start) / 1e9;
    }

    /** Thousands of values a second, medians; ratios to plain files; what the files take over what they hold. */
    static List<String> table(Map<String, List<Round>> results, int values, long bytesEver) {
        List<String> lines = new ArrayList<>();
        lines.add("thousand values a second (and the rate over that of plain files); MiB on disk");
        lines.add("");
        lines.add("| store | page-out | page-in | churn | written | after churn |");
        lines.add("|---|---:|---:|---:|---:|---:|");
        Round floor = median(results.get(FLOOR));
        results.forEach((name, rounds) -> {
            Round middle = median(rounds);
            lines.add(String.format(
                    Locale.ROOT,
                    "| %s | %,.0f (%.2f) | %,.0f (%.2f) | %,.0f (%.2f) | %,d | %,d |",
                    name,
                    values / middle.pageOut() / 1000,
                    floor.pageOut() / middle.pageOut(),
                    values / middle.pageIn() / 1000,
                    floor.pageIn() / middle.pageIn(),
                    values / middle.churn() / 1000,
                    floor.churn() / middle.churn(),
                    middle.written() >> 20,
                    middle.churned() >> 20));
        });
        lines.add("");
        lines.add(
                String.format(Locale.ROOT, "%,d values, %,d MiB of payload at any time", values, bytesEver / 2 >> 20));
        return lines;
    }

    /** Each figure's own median. */
    private static Round median(List<Round> rounds) {
        return new Round(
                middle(rounds.stream().map(Round::pageOut)),
                middle(rounds.stream().map(Round::pageIn)),
                middle(rounds.stream().map(Round::churn)),
                middle(rounds.stream().map(Round::written)),
                middle(rounds.stream().map(Round::churned)));
    }

    private static <T> T middle(Stream<T> figures) {
        List<T> sorted = figures.sorted().toList();
        return sorted.get(sorted.size() / 2);
    }
}
