package com.velt.rz.corvane.nimbra.bench;

import org.openjdk.jmh.infra.BenchmarkParams;
import org.openjdk.jmh.results.Result;
import org.openjdk.jmh.results.RunResult;
import org.openjdk.jmh.util.Statistics;

/**
 * One measured cell.
 *
 * @param operation name of the benchmark method
 * @param store name of the competitor
 * @param valueLength bytes
 * @param threads number of threads that did the operation at the same time
 * @param nanoseconds median over the iterations, for one operation on each thread
 * @param error half the width of the mean's 95 % confidence interval, in nanoseconds; NaN with fewer than two iterations
 * @param allocated Java heap bytes allocated by one operation; NaN where untimed work would be counted, too
 */
record Measurement(
        String operation,
        String store,
        int valueLength,
        int threads,
        double nanoseconds,
        double error,
        double allocated) {

    private static final double CONFIDENCE = 0.95;
    private static final String ALLOCATED = "gc.alloc.rate.norm";

    static Measurement of(RunResult result) {
        BenchmarkParams params = result.getParams();
        String operation = params.getBenchmark().substring(params.getBenchmark().lastIndexOf('.') + 1);
        int threads = params.getThreads();
        int entries = Integer.parseInt(params.getParam("entries"));
        // Both figures are given for one invocation, which is one thread's part of a pass.
        double operations = (double) MapBenchmarks.operationsInPass(operation, entries, threads) / threads;
        Statistics times = result.getPrimaryResult().getStatistics();
        return new Measurement(
                operation,
                params.getParam("store"),
                Integer.parseInt(params.getParam("valueLength")),
                threads,
                times.getPercentile(50) / operations,
                times.getMeanErrorAt(CONFIDENCE) / operations,
                allocated(operation, result) / operations);
    }

    private static double allocated(String operation, RunResult run) {
        // The figure covers whole iterations, and those of remove put the entries back.
        Result<?> result = run.getSecondaryResults().get(ALLOCATED);
        return result == null || operation.equals("remove") ? Double.NaN : result.getScore();
    }
}
