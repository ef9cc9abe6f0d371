package com.velt.rz.corvane.nimbra.peers;

import com.fasterxml.jackson.jr.ob.JSON;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collection;
import java.util.List;
import org.openjdk.jmh.annotations.Mode;
import org.openjdk.jmh.results.BenchmarkResult;
import org.openjdk.jmh.results.IterationResult;
import org.openjdk.jmh.results.RunResult;
import org.openjdk.jmh.runner.Runner;
import org.openjdk.jmh.runner.RunnerException;
import org.openjdk.jmh.runner.options.Options;
import org.openjdk.jmh.runner.options.OptionsBuilder;
import org.openjdk.jmh.runner.options.TimeValue;

/**
 * A measured process: one store, one value length. {@link Launcher} starts it with a file that holds the {@link Plan}
 * and one that the {@link Outcome} goes to; JMH's own output goes to standard output.
 *
 * <p>JMH would fork a process for each benchmark and fill the store in every one of them, which takes longer than the
 * measurement. So the process is the fork: JMH runs all workloads of one store in it, one after the other.
 */
public final class PeerProcess {
    private PeerProcess() {}

    /** Measures. The arguments are the files of the plan and of the outcome. */
    public static void main(String[] arguments) {
        int status = 1;
        try {
            Plan plan = JSON.std.beanFrom(Plan.class, Files.readString(Path.of(arguments[0])));
            Files.writeString(Path.of(arguments[1]), JSON.std.asString(measure(plan)));
            status = 0;
        } catch (IOException | RunnerException | RuntimeException | Error e) {
            e.printStackTrace();
        }
        System.exit(status); // explicitly, since some stores leave threads behind that are no daemons
    }

    static Outcome measure(Plan plan) throws RunnerException {
        List<Workload> workloads = plan.workloads().stream().map(Workload::of).toList();
        Session session = new Session(plan, new Keys(plan.entries(), plan.valueBytes(), workloads));
        session.begin();
        try {
            session.rehearse();
            Memory before = Memory.now();
            session.renew();
            session.fill();
            Memory filled = Memory.now().since(before);
            long own = session.store().nativeBytes();
            boolean inPlace = session.store().readsInPlace();
            List<Outcome.Cell> cells = new ArrayList<>();
            for (int threads : plan.threads()) {
                for (Workload workload : Workload.values()) {
                    if (workloads.contains(workload) && (workload != Workload.READ_IN_PLACE || inPlace)) {
                        cells.add(measure(plan, workload, threads));
                    }
                }
                // Once for all workloads that leave the number as it is: some stores count by walking all entries.
                session.requireAllEntries();
            }
            return new Outcome(filled.heapBytes(), filled.residentBytes(), own, cells);
        } finally {
            session.close();
        }
    }

    private static Outcome.Cell measure(Plan plan, Workload workload, int threads) throws RunnerException {
        boolean passes = workload == Workload.INSERT;
        Options options = new OptionsBuilder()
                .include("\\Q" + PeerBenchmarks.class.getName() + "." + workload.method() + "\\E$")
                .forks(0)
                .threads(threads)
                .warmupIterations(passes ? Math.max(1, plan.passes() / 2) : plan.warmups())
                .measurementIterations(passes ? plan.passes() : plan.iterations())
                .warmupTime(TimeValue.milliseconds(plan.milliseconds()))
                .measurementTime(TimeValue.milliseconds(plan.milliseconds()))
                .shouldFailOnError(true)
                .build();
        Collection<RunResult> results = new Runner(options).run();
        List<Double> opsPerSecond = new ArrayList<>();
        for (RunResult result : results) {
            boolean time = result.getParams().getMode() == Mode.SingleShotTime;
            for (BenchmarkResult fork : result.getBenchmarkResults()) {
                for (IterationResult iteration : fork.getIterationResults()) {
                    double score = iteration.getPrimaryResult().getScore();
                    // A pass's time is the threads' mean; together they have inserted all entries in it.
                    opsPerSecond.add(time ? plan.entries() / score : score);
                }
            }
        }
        return new Outcome.Cell(workload.id(), threads, opsPerSecond);
    }
}
