package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collection;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import org.openjdk.jmh.results.RunResult;
import org.openjdk.jmh.runner.Runner;
import org.openjdk.jmh.runner.RunnerException;
import org.openjdk.jmh.runner.options.ChainedOptionsBuilder;
import org.openjdk.jmh.runner.options.OptionsBuilder;
import org.openjdk.jmh.runner.options.TimeValue;

/**
 * Runs {@link OverflowBenchmarks} and prints a table of operations with and without disk overflow. The first argument is
 * the folder for JMH's log and the table; {@code --quick} shortens the run. Exit status 2 for bad arguments, 1 when a
 * benchmark failed.
 */
public final class OverflowMain {
    private OverflowMain() {}

    /** Runs the command and ends the process. */
    public static void main(String[] arguments) throws IOException {
        System.exit(execute(System.out, System.err, arguments));
    }

    static int execute(PrintStream out, PrintStream err, String... arguments) throws IOException {
        boolean quick = arguments.length == 2 && arguments[1].equals("--quick");
        if (arguments.length != 1 && !quick) {
            err.println("overflow: usage: FOLDER [--quick], not " + String.join(" ", arguments));
            return 2;
        }
        Path output = Files.createDirectories(Path.of(arguments[0]));
        Path log = output.resolve("overflow.log");
        ChainedOptionsBuilder options = new OptionsBuilder()
                .include(OverflowBenchmarks.class.getName())
                .threads(1)
                .shouldFailOnError(true)
                .output(log.toString());
        if (quick) {
            options.forks(1)
                    .warmupIterations(2)
                    .measurementIterations(3)
                    .warmupTime(TimeValue.milliseconds(300))
                    .measurementTime(TimeValue.milliseconds(300));
        }
        Collection<RunResult> results;
        try {
            results = new Runner(options.build()).run();
        } catch (RunnerException e) {
            err.println("overflow: " + e.getMessage() + "; " + log + " has the details");
            return 1;
        }
        List<String> table = table(results);
        Files.write(output.resolve("overflow.md"), table);
        table.forEach(out::println);
        out.flush();
        return 0;
    }

    /** Operations with their times by the one parameter that each has. */
    static List<String> table(Collection<RunResult> results) {
        Map<String, Map<String, Double>> rows = new TreeMap<>();
        for (RunResult result : results) {
            String parameter = String.valueOf(result.getParams().getParam("overflow"));
            String column = parameter.equals("null")
                    ? String.format(
                            Locale.ROOT,
                            "%,d entries",
                            Integer.parseInt(result.getParams().getParam("entries")))
                    : Boolean.parseBoolean(parameter) ? "with overflow" : "without";
            rows.computeIfAbsent(result.getPrimaryResult().getLabel(), name -> new TreeMap<>())
                    .put(column, result.getPrimaryResult().getScore());
        }
        List<String> lines = new ArrayList<>(
                List.of("| operation | ns without | ns with overflow | difference |", "|---|--:|--:|--:|"));
        List<String> sweep = new ArrayList<>();
        rows.forEach((name, scores) -> {
            Double without = scores.get("without");
            Double with = scores.get("with overflow");
            if (without != null && with != null) {
                lines.add(String.format(
                        Locale.ROOT, "| %s | %,.0f | %,.0f | %,.0f |", name, without, with, with - without));
            } else {
                scores.forEach((size, score) ->
                        sweep.add(String.format(Locale.ROOT, "%s, %s in memory: %,.0f ns", name, size, score)));
            }
        });
        lines.add("");
        lines.addAll(sweep);
        return lines;
    }
}
