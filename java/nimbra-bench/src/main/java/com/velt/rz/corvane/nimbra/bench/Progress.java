package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.io.PrintStream;
import java.util.Collection;
import java.util.List;
import java.util.Locale;
import org.openjdk.jmh.infra.BenchmarkParams;
import org.openjdk.jmh.infra.IterationParams;
import org.openjdk.jmh.results.BenchmarkResult;
import org.openjdk.jmh.results.IterationResult;
import org.openjdk.jmh.results.RunResult;
import org.openjdk.jmh.runner.format.OutputFormat;

/** One line for each finished cell; everything that JMH has to say goes to another format, which writes a log. */
final class Progress implements OutputFormat {
    private final PrintStream out;
    private final OutputFormat log;
    private final long start = System.nanoTime();

    Progress(PrintStream out, OutputFormat log) {
        this.out = out;
        this.log = log;
    }

    @Override
    public void endBenchmark(BenchmarkResult result) {
        log.endBenchmark(result);
        if (result == null) {
            return; // the cell failed, and the run ends with its reason
        }
        Measurement measured = Measurement.of(new RunResult(result.getParams(), List.of(result)));
        long seconds = (System.nanoTime() - start) / 1_000_000_000;
        out.printf(
                Locale.ROOT,
                "%2d:%02d  %-10s  %5d B  %d thread%s  %-6s  %9.1f ns%n",
                seconds / 60,
                seconds % 60,
                measured.operation(),
                measured.valueLength(),
                measured.threads(),
                measured.threads() == 1 ? " " : "s",
                measured.store(),
                measured.nanoseconds());
        out.flush();
    }

    @Override
    public void iteration(BenchmarkParams benchmark, IterationParams params, int iteration) {
        log.iteration(benchmark, params, iteration);
    }

    @Override
    public void iterationResult(
            BenchmarkParams benchmark, IterationParams params, int iteration, IterationResult data) {
        log.iterationResult(benchmark, params, iteration, data);
    }

    @Override
    public void startBenchmark(BenchmarkParams benchmark) {
        log.startBenchmark(benchmark);
    }

    @Override
    public void startRun() {
        log.startRun();
    }

    @Override
    public void endRun(Collection<RunResult> result) {
        log.endRun(result);
    }

    @Override
    public void print(String text) {
        log.print(text);
    }

    @Override
    public void println(String text) {
        log.println(text);
    }

    @Override
    public void verbosePrintln(String text) {
        log.verbosePrintln(text);
    }

    @Override
    public void write(int b) {
        log.write(b);
    }

    @Override
    public void write(byte[] b) throws IOException {
        log.write(b);
    }

    @Override
    public void flush() {
        log.flush();
    }

    @Override
    public void close() {
        log.close();
    }
}
