package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.io.PrintStream;
import java.lang.reflect.InvocationHandler;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Proxy;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collection;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import org.openjdk.jmh.infra.BenchmarkParams;
import org.openjdk.jmh.results.BenchmarkResult;
import org.openjdk.jmh.results.RunResult;
import org.openjdk.jmh.runner.NoBenchmarksException;
import org.openjdk.jmh.runner.Runner;
import org.openjdk.jmh.runner.RunnerException;
import org.openjdk.jmh.runner.format.OutputFormat;
import org.openjdk.jmh.runner.format.OutputFormatFactory;
import org.openjdk.jmh.runner.options.ChainedOptionsBuilder;
import org.openjdk.jmh.runner.options.CommandLineOptionException;
import org.openjdk.jmh.runner.options.CommandLineOptions;
import org.openjdk.jmh.runner.options.OptionsBuilder;
import org.openjdk.jmh.runner.options.TimeValue;
import org.openjdk.jmh.runner.options.VerboseMode;

/**
 * Runs {@link ScalingBenchmarks} and prints a table: operations as rows, numbers of entries as columns. The first
 * argument is the folder for JMH's log and the table; {@code --quick} shortens the run; everything else is passed on to
 * JMH. Exit status as {@link Main}.
 */
public final class ScalingMain {
    private ScalingMain() {}

    /** Runs the command and ends the process. */
    public static void main(String[] arguments) throws IOException {
        System.exit(execute(System.out, System.err, arguments));
    }

    static int execute(PrintStream out, PrintStream err, String... arguments) throws IOException {
        if (arguments.length == 0) {
            err.println("scaling: the first argument has to be the folder for the results");
            return 2;
        }
        List<String> passedOn = new ArrayList<>(List.of(arguments).subList(1, arguments.length));
        boolean quick = passedOn.remove("--quick");
        CommandLineOptions jmh;
        try {
            jmh = new CommandLineOptions(passedOn.toArray(String[]::new));
        } catch (CommandLineOptionException e) {
            err.println("scaling: " + e.getMessage());
            return 2;
        }
        Path output = Files.createDirectories(Path.of(arguments[0]));
        ChainedOptionsBuilder options =
                new OptionsBuilder().parent(jmh).threads(1).shouldFailOnError(true);
        if (jmh.getIncludes().isEmpty()) {
            options.include(ScalingBenchmarks.class.getName());
        }
        if (quick) {
            options.warmupIterations(2)
                    .measurementIterations(3)
                    .warmupTime(TimeValue.milliseconds(200))
                    .measurementTime(TimeValue.milliseconds(200));
        }
        Collection<RunResult> results;
        Path log = output.resolve("scaling.log");
        try (PrintStream details = new PrintStream(Files.newOutputStream(log), true, StandardCharsets.UTF_8)) {
            OutputFormat logged = OutputFormatFactory.createFormatInstance(details, VerboseMode.NORMAL);
            results = new Runner(options.build(), withProgress(out, logged)).run();
        } catch (NoBenchmarksException e) {
            err.println("scaling: no benchmark has such a name");
            return 2;
        } catch (RunnerException e) {
            err.println("scaling: " + e.getMessage() + "; " + log + " has the details");
            return 1;
        }
        List<String> table = table(results);
        Files.write(output.resolve("scaling.md"), table);
        out.println();
        table.forEach(out::println);
        out.flush();
        return 0;
    }

    /** The log's format, with a line on {@code out} for each finished cell. */
    private static OutputFormat withProgress(PrintStream out, OutputFormat log) {
        InvocationHandler handler = (proxy, method, arguments) -> {
            if (method.getName().equals("endBenchmark") && arguments[0] instanceof BenchmarkResult result) {
                out.printf(
                        Locale.ROOT,
                        "%-16s %,11d entries %,15.1f ns%n",
                        result.getPrimaryResult().getLabel(),
                        entries(result.getParams()),
                        result.getPrimaryResult().getScore());
                out.flush();
            }
            try {
                return method.invoke(log, arguments);
            } catch (InvocationTargetException e) {
                throw e.getCause();
            }
        };
        return (OutputFormat) Proxy.newProxyInstance(
                OutputFormat.class.getClassLoader(), new Class<?>[] {OutputFormat.class}, handler);
    }

    private static int entries(BenchmarkParams params) {
        return Integer.parseInt(params.getParam("entries"));
    }

    /** Nanoseconds an operation; a dash where a size was not measured. */
    static List<String> table(Collection<RunResult> results) {
        Map<String, Map<Integer, Double>> rows = new TreeMap<>();
        Map<Integer, Boolean> sizes = new TreeMap<>();
        for (RunResult result : results) {
            String name = result.getPrimaryResult().getLabel();
            int entries = entries(result.getParams());
            rows.computeIfAbsent(name, key -> new TreeMap<>())
                    .put(entries, result.getPrimaryResult().getScore());
            sizes.put(entries, true);
        }
        List<String> lines = new ArrayList<>();
        lines.add("ns an operation, by the number of entries; \"resume\" reads "
                + String.format(Locale.ROOT, "%,d", ScalingBenchmarks.USED_KEYS) + " changes");
        lines.add("");
        StringBuilder head = new StringBuilder("| operation |");
        StringBuilder rule = new StringBuilder("|---|");
        for (int entries : sizes.keySet()) {
            head.append(String.format(Locale.ROOT, " %,d |", entries));
            rule.append("---:|");
        }
        lines.add(head.toString());
        lines.add(rule.toString());
        rows.forEach((name, scores) -> {
            StringBuilder line = new StringBuilder("| " + name + " |");
            for (int entries : sizes.keySet()) {
                Double score = scores.get(entries);
                line.append(score == null ? " - |" : String.format(Locale.ROOT, " %,.0f |", score));
            }
            lines.add(line.toString());
        });
        return lines;
    }
}
