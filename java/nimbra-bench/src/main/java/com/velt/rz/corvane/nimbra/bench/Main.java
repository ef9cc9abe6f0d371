package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.io.PrintStream;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import org.openjdk.jmh.profile.GCProfiler;
import org.openjdk.jmh.results.RunResult;
import org.openjdk.jmh.results.format.ResultFormatFactory;
import org.openjdk.jmh.results.format.ResultFormatType;
import org.openjdk.jmh.runner.NoBenchmarksException;
import org.openjdk.jmh.runner.Runner;
import org.openjdk.jmh.runner.RunnerException;
import org.openjdk.jmh.runner.format.OutputFormatFactory;
import org.openjdk.jmh.runner.options.ChainedOptionsBuilder;
import org.openjdk.jmh.runner.options.CommandLineOptionException;
import org.openjdk.jmh.runner.options.CommandLineOptions;
import org.openjdk.jmh.runner.options.OptionsBuilder;
import org.openjdk.jmh.runner.options.TimeValue;
import org.openjdk.jmh.runner.options.VerboseMode;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.Unmatched;

/**
 * Measures the off-heap map and the map on the heap, cell by cell, each in a process of its own, and prints the table of
 * ratios. Exit status 0 when every cell was measured, 1 when one failed, 2 for a wrong option or too small a machine.
 */
@Command(
        name = "benchmarks",
        sortOptions = false,
        description = "Measures Nimbra's map beside a ConcurrentHashMap that copies its arrays.",
        footer = "Everything else is passed on to JMH: -wi, -i, -f, a pattern of benchmark names, ...")
public final class Main implements Callable<Integer> {
    private static final int QUICK_ENTRIES = 100_000;
    private static final int QUICK_ITERATIONS = 3;
    private static final TimeValue QUICK_TIME = TimeValue.milliseconds(200);
    private static final long ENTRY_OVERHEAD = 300; // bytes; key, records and table of an entry, generously

    @Option(names = "--quick", description = "A smoke run: 100,000 entries, few and short iterations.")
    private boolean quick;

    @Option(names = "--entries", paramLabel = "N", description = "Entries in the map; 1,000,000 by default.")
    private Integer entries;

    @Option(
            names = "--value-lengths",
            split = ",",
            paramLabel = "N",
            defaultValue = "64,256,4096",
            description = "Value lengths in bytes, multiples of 8; ${DEFAULT-VALUE} by default.")
    private List<Integer> valueLengths;

    @Option(
            names = "--threads",
            split = ",",
            paramLabel = "N",
            defaultValue = "1,2",
            description = "Numbers of threads; ${DEFAULT-VALUE} by default.")
    private List<Integer> threadCounts;

    @Option(
            names = "--output",
            paramLabel = "DIR",
            defaultValue = "build/bench",
            description = "Where JMH's log, the results as JSON and the table go; ${DEFAULT-VALUE} by default.")
    private Path output;

    @Option(names = "--help", usageHelp = true, description = "Shows this text.")
    private boolean help;

    @Unmatched
    private final List<String> jmhArguments = new ArrayList<>();

    private final PrintStream out;
    private final PrintStream err;

    Main(PrintStream out, PrintStream err) {
        this.out = out;
        this.err = err;
    }

    /** Runs the command and ends the process. */
    public static void main(String[] arguments) {
        System.exit(execute(System.out, System.err, arguments));
    }

    static int execute(PrintStream out, PrintStream err, String... arguments) {
        return new CommandLine(new Main(out, err)).execute(arguments);
    }

    @Override
    public Integer call() throws IOException {
        CommandLineOptions jmh;
        try {
            jmh = new CommandLineOptions(jmhArguments.toArray(String[]::new));
        } catch (CommandLineOptionException e) {
            return refuse(e.getMessage());
        }
        int count = entries != null ? entries : quick ? QUICK_ENTRIES : 1_000_000;
        String wrong = whatIsWrong(count);
        if (wrong != null) {
            return refuse(wrong);
        }
        Files.createDirectories(output);
        List<RunResult> results = new ArrayList<>();
        try (PrintStream log = open("jmh.log")) {
            Progress progress = new Progress(out, OutputFormatFactory.createFormatInstance(log, VerboseMode.NORMAL));
            for (int valueLength : valueLengths) {
                for (int threads : threadCounts) {
                    ChainedOptionsBuilder options = options(jmh, count, valueLength, threads);
                    results.addAll(new Runner(options.build(), progress).run());
                }
            }
        } catch (NoBenchmarksException e) {
            return refuse("no benchmark has such a name");
        } catch (RunnerException e) {
            err.println("benchmarks: " + e.getMessage() + "; " + output.resolve("jmh.log") + " has the details");
            return 1;
        }
        report(count, results);
        return 0;
    }

    /** Returns what keeps the run from being possible, or null. */
    private String whatIsWrong(int count) {
        if (count < 100) {
            return "--entries is " + count + ", has to be at least 100";
        }
        for (int threads : threadCounts) {
            if (threads < 1 || threads > count / 10) {
                return "--threads holds " + threads + ", has to be at least 1 and at most a tenth of the entries";
            }
        }
        for (int valueLength : valueLengths) {
            if (valueLength < Long.BYTES || valueLength % Long.BYTES != 0) {
                return "--value-lengths holds " + valueLength + ", which is not a positive multiple of 8";
            }
            long needed = (heapMegabytes(count, valueLength) << 20) + payload(count, valueLength);
            if (needed > physicalMemory()) {
                return count + " values of " + valueLength + " bytes need " + (needed >> 20)
                        + " MiB, on and off the heap, and this machine has " + (physicalMemory() >> 20)
                        + " MiB: use --entries or --value-lengths";
            }
        }
        return null;
    }

    private ChainedOptionsBuilder options(CommandLineOptions jmh, int count, int valueLength, int threads) {
        String heap = heapMegabytes(count, valueLength) + "m";
        ChainedOptionsBuilder options = new OptionsBuilder()
                .parent(jmh)
                .param("entries", Integer.toString(count))
                .param("valueLength", Integer.toString(valueLength))
                .threads(threads)
                .jvmArgsPrepend("-Xms" + heap, "-Xmx" + heap)
                .addProfiler(GCProfiler.class)
                .shouldFailOnError(true);
        if (jmh.getIncludes().isEmpty()) {
            options.include(MapBenchmarks.class.getName());
        }
        if (quick) {
            if (!jmh.getWarmupIterations().hasValue()) {
                options.warmupIterations(QUICK_ITERATIONS);
            }
            if (!jmh.getMeasurementIterations().hasValue()) {
                options.measurementIterations(QUICK_ITERATIONS);
            }
            if (!jmh.getWarmupTime().hasValue()) {
                options.warmupTime(QUICK_TIME);
            }
            if (!jmh.getMeasurementTime().hasValue()) {
                options.measurementTime(QUICK_TIME);
            }
        }
        return options;
    }

    private void report(int count, List<RunResult> results) throws IOException {
        try (PrintStream json = open("jmh.json")) {
            ResultFormatFactory.getInstance(ResultFormatType.JSON, json).writeOut(results);
        }
        List<String> lines = new ArrayList<>();
        lines.add(String.format(
                "%,d entries, keys of %d bytes; %d processors, Java %s",
                count,
                Workload.KEY_LENGTH,
                Runtime.getRuntime().availableProcessors(),
                System.getProperty("java.version")));
        lines.add("");
        lines.addAll(RatioTable.of(results.stream().map(Measurement::of).toList()));
        Files.write(output.resolve("jmh.md"), lines);
        out.println();
        lines.forEach(out::println);
        out.flush();
    }

    private PrintStream open(String file) throws IOException {
        return new PrintStream(Files.newOutputStream(output.resolve(file)), true, StandardCharsets.UTF_8);
    }

    private int refuse(String reason) {
        err.println("benchmarks: " + reason);
        return 2;
    }

    /** The heap that both competitors get: twice what the map on the heap needs, and room for the program. */
    private static long heapMegabytes(int count, int valueLength) {
        return 1024 + (2 * payload(count, valueLength) >> 20);
    }

    private static long payload(int count, int valueLength) {
        return count * (valueLength + ENTRY_OVERHEAD);
    }

    private static long physicalMemory() {
        return ((com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean())
                .getTotalMemorySize();
    }
}
