package com.velt.rz.corvane.nimbra.bench;

import com.velt.rz.corvane.nimbra.bench.PauseCell.Collector;
import java.io.IOException;
import java.io.PrintStream;
import java.io.PrintWriter;
import java.io.Reader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Properties;
import java.util.concurrent.Callable;
import java.util.concurrent.TimeUnit;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/**
 * Measures how long a store with many live entries makes the program stand still, and what that does to response times:
 * Nimbra with a small heap beside stores on the heap, under two collectors, each pair in a process of its own, one after
 * the other. Exit status 0 when every pair was measured or left out for lack of memory, 1 when one failed, 2 for a wrong
 * option.
 */
@Command(
        name = "pauses",
        sortOptions = false,
        description = "Measures pauses and response times under a steady load with many live entries.")
public final class PausesMain implements Callable<Integer> {
    private static final String BEGIN = "<!-- pauses:begin -->";
    private static final String END = "<!-- pauses:end -->";
    private static final String CHART = "pauses.svg";
    private static final int MOST_SECONDS = 3_600;
    private static final long FILL_SECONDS = 1_200; // far more than filling takes: a process that hangs is ended

    @Option(names = "--quick", description = "A smoke run: 0.25 GiB, few seconds.")
    private boolean quick;

    @Option(names = "--gigabytes", paramLabel = "N", description = "GiB of live values; 4 by default.")
    private Double gigabytes;

    @Option(
            names = "--value-bytes",
            paramLabel = "N",
            defaultValue = "1024",
            description = "${DEFAULT-VALUE} by default.")
    private int valueBytes;

    @Option(
            names = "--rate",
            paramLabel = "N",
            defaultValue = "50000",
            description = "Operations a second; ${DEFAULT-VALUE} by default.")
    private int rate;

    @Option(
            names = "--threads",
            paramLabel = "N",
            defaultValue = "1",
            description = "Threads that share the load; ${DEFAULT-VALUE} by default.")
    private int threads;

    @Option(
            names = "--warm-up",
            paramLabel = "N",
            description = "Seconds under load before anything is recorded; 15 by default.")
    private Integer warmUp;

    @Option(names = "--seconds", paramLabel = "N", description = "Recorded seconds of each process; 45 by default.")
    private Integer seconds;

    @Option(
            names = "--small-heap",
            paramLabel = "MIB",
            defaultValue = "256",
            description =
                    "Heap of Nimbra's processes, and what the others get beyond their entries; ${DEFAULT-VALUE} MiB.")
    private int smallHeap;

    @Option(
            names = "--output",
            paramLabel = "DIR",
            defaultValue = "build/bench",
            description = "Where results, chart and logs go; ${DEFAULT-VALUE} by default.")
    private Path output;

    @Option(
            names = "--docs",
            paramLabel = "DIR",
            description = "Puts the results into performance.md of this folder, too.")
    private Path docs;

    @Option(names = "--help", usageHelp = true, description = "Shows this text.")
    private boolean help;

    private final PrintStream out;
    private final PrintStream err;

    PausesMain(PrintStream out, PrintStream err) {
        this.out = out;
        this.err = err;
    }

    /** Runs the command and ends the process. */
    public static void main(String[] arguments) {
        System.exit(execute(System.out, System.err, arguments));
    }

    static int execute(PrintStream out, PrintStream err, String... arguments) {
        return new CommandLine(new PausesMain(out, err))
                .setOut(new PrintWriter(out, true))
                .setErr(new PrintWriter(err, true))
                .execute(arguments);
    }

    @Override
    public Integer call() throws IOException, InterruptedException {
        double size = gigabytes != null ? gigabytes : quick ? 0.25 : 4;
        int recorded = seconds != null ? seconds : quick ? 5 : 45;
        int unrecorded = warmUp != null ? warmUp : quick ? 2 : 15;
        String wrong = whatIsWrong(size, unrecorded, recorded);
        if (wrong != null) {
            err.println("pauses: " + wrong);
            return 2;
        }
        long entries = (long) (size * (1L << 30) / valueBytes);
        PauseLoad load = new PauseLoad((int) entries, valueBytes, rate, threads, unrecorded, recorded);
        Path details = Files.createDirectories(output.resolve("pauses"));
        List<PauseResult> results = new ArrayList<>();
        boolean failed = false;
        for (Collector collector : Collector.values()) {
            for (PauseStore store : PauseStore.values()) {
                PauseCell cell = PauseCell.of(store, collector, load, (long) smallHeap << 20);
                String unfit = whyTooLarge(cell, availableBytes());
                PauseResult result = unfit != null ? PauseResult.failed(cell, unfit) : measure(cell, details);
                failed |= unfit == null && result.error() != null;
                results.add(result);
                progress(result);
            }
        }
        report(load, results);
        return failed ? 1 : 0;
    }

    private String whatIsWrong(double size, int unrecorded, int recorded) {
        if (valueBytes < 1 || valueBytes > 1 << 20) {
            return "--value-bytes is " + valueBytes + ", has to be between 1 and 1048576";
        }
        double entries = size * (1L << 30) / valueBytes;
        if (!(entries >= 1_000 && entries <= Integer.MAX_VALUE / 2)) {
            return "--gigabytes is " + size + ", which is " + String.format(Locale.ROOT, "%.0f", entries)
                    + " entries of " + valueBytes + " bytes; between 1,000 and " + Integer.MAX_VALUE / 2
                    + " are possible";
        }
        if (threads < 1 || threads > 64) {
            return "--threads is " + threads + ", has to be between 1 and 64";
        }
        if (rate < threads || rate > 10_000_000) {
            return "--rate is " + rate + ", has to be between the number of threads and 10000000";
        }
        if (unrecorded < 0 || unrecorded > MOST_SECONDS) {
            return "--warm-up is " + unrecorded + ", has to be between 0 and " + MOST_SECONDS;
        }
        if (recorded < 1 || recorded > MOST_SECONDS) {
            return "--seconds is " + recorded + ", has to be between 1 and " + MOST_SECONDS;
        }
        if (smallHeap < 64 || smallHeap > 65_536) {
            return "--small-heap is " + smallHeap + ", has to be between 64 and 65536";
        }
        try {
            if (docs != null && !GeneratedPart.isIn(docs.resolve("performance.md"), BEGIN, END)) {
                return docs.resolve("performance.md") + " has no lines " + BEGIN + " and " + END;
            }
        } catch (IOException e) {
            return "--docs is " + docs + ", whose performance.md cannot be read";
        }
        return null;
    }

    /** Says why the machine's memory does not hold the process now, or null. */
    static String whyTooLarge(PauseCell cell, long available) {
        if (cell.neededBytes() <= available) {
            return null;
        }
        return "left out, since it needs about " + (cell.neededBytes() >> 20) + " MiB and " + (available >> 20)
                + " MiB are available";
    }

    /** Bytes that the system can give out without swapping. */
    private static long availableBytes() throws IOException {
        for (String line : Files.readAllLines(Path.of("/proc/meminfo"))) {
            if (line.startsWith("MemAvailable:")) {
                return Long.parseLong(line.replaceAll("\\D", "")) << 10;
            }
        }
        return Long.MAX_VALUE;
    }

    private PauseResult measure(PauseCell cell, Path details) throws IOException, InterruptedException {
        Path figures = details.resolve(cell.fileName() + ".properties");
        Path log = details.resolve(cell.fileName() + ".gc.log");
        Path console = details.resolve(cell.fileName() + ".out");
        Files.deleteIfExists(figures);
        PauseLoad load = cell.load();
        List<String> command = new ArrayList<>();
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        command.addAll(cell.virtualMachineOptions());
        command.add(PauseLog.option(log));
        if (Runtime.version().feature() >= 24) {
            command.add("--enable-native-access=ALL-UNNAMED");
        }
        command.addAll(List.of("-cp", System.getProperty("java.class.path"), PauseWorker.class.getName()));
        command.add(cell.store().name());
        for (int number : new int[] {
            load.entries(), load.valueBytes(), load.rate(), load.threads(), load.warmUpSeconds(), load.seconds()
        }) {
            command.add(Integer.toString(number));
        }
        command.add(figures.toString());
        Process process = new ProcessBuilder(command)
                .redirectErrorStream(true)
                .redirectOutput(console.toFile())
                .start();
        try {
            if (!process.waitFor(FILL_SECONDS + 4L * (load.warmUpSeconds() + load.seconds()), TimeUnit.SECONDS)) {
                return PauseResult.failed(cell, "it did not end; " + console + " has its output");
            }
        } finally {
            process.destroyForcibly();
        }
        if (process.exitValue() != 0 || !Files.exists(figures)) {
            return PauseResult.failed(cell, "status " + process.exitValue() + "; " + console + " has its output");
        }
        Properties properties = new Properties();
        try (Reader reader = Files.newBufferedReader(figures)) {
            properties.load(reader);
        }
        double from = Double.parseDouble(properties.getProperty("from"));
        double to = Double.parseDouble(properties.getProperty("to"));
        return PauseResult.of(cell, properties, PauseLog.read(log, from, to));
    }

    private void progress(PauseResult result) {
        if (result.error() != null) {
            out.printf("%-26s %s%n", result.cell().name(), result.error());
        } else {
            out.printf(
                    Locale.ROOT,
                    "%-26s longest pause %8.2f ms, 99.9 %% %,10.1f µs, longest response %,12.1f µs%n",
                    result.cell().name(),
                    result.longest(PauseLog.Kind.COLLECTION),
                    result.response().getValueAtPercentile(99.9) / 1e3,
                    result.response().getMaxValue() / 1e3);
        }
        out.flush();
    }

    private void report(PauseLoad load, List<PauseResult> results) throws IOException {
        List<String> table = PauseReport.markdown(load, results);
        String chart = PauseChart.svg(results);
        Files.write(output.resolve("pauses.md"), table);
        Files.writeString(output.resolve("pauses.json"), PauseReport.json(results));
        Files.writeString(output.resolve(CHART), chart);
        if (docs != null) {
            Path images = Files.createDirectories(docs.resolve("images"));
            Files.writeString(images.resolve(CHART), chart);
            List<String> section = new ArrayList<>(table);
            section.add("");
            section.add("![Response times by percentile](images/" + CHART + ")");
            GeneratedPart.replace(docs.resolve("performance.md"), BEGIN, END, section);
        }
        out.println();
        table.forEach(out::println);
        out.flush();
    }
}
