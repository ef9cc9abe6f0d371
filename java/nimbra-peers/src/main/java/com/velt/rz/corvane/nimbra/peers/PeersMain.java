package com.velt.rz.corvane.nimbra.peers;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/**
 * Measures all stores, each in processes of its own, and writes results, tables and plots. Exit status 0 when Nimbra was
 * measured, also when others could not be; 1 when it was wanted and was not; 2 for a wrong option.
 */
@Command(
        name = "peers",
        sortOptions = false,
        description = "Measures Nimbra's map beside the stores that an application would otherwise choose.")
public final class PeersMain extends PeerCommand {
    private static final int QUICK_ENTRIES = 100_000;

    @Option(
            names = "--quick",
            description = "A smoke run: 100,000 entries, values of 64 and 256 bytes, few and short iterations.")
    private boolean quick;

    @Option(names = "--entries", paramLabel = "N", description = "Entries; 1,000,000 by default.")
    private Integer entries;

    @Option(
            names = "--value-lengths",
            split = ",",
            paramLabel = "N",
            description = "Value lengths in bytes, multiples of 8; 64,256,4096 by default.")
    private List<Integer> valueLengths;

    @Option(
            names = "--threads",
            split = ",",
            paramLabel = "N",
            defaultValue = "1,2",
            description = "Numbers of threads; ${DEFAULT-VALUE} by default.")
    private List<Integer> threads;

    @Option(names = "--impls", split = ",", paramLabel = "NAME", description = "Stores; all by default.")
    private List<String> impls;

    @Option(names = "--workloads", split = ",", paramLabel = "NAME", description = "Workloads; all by default.")
    private List<String> workloads;

    @Option(
            names = "--repetitions",
            paramLabel = "N",
            defaultValue = "1",
            description = "Processes for each store and value length; ${DEFAULT-VALUE} by default.")
    private int repetitions;

    @Option(
            names = "--output",
            paramLabel = "DIR",
            defaultValue = "build/bench",
            description = "Where results, tables, plots and logs go; ${DEFAULT-VALUE} by default.")
    private Path output;

    @Option(
            names = "--docs",
            paramLabel = "DIR",
            description = "Also puts tables and plots into DIR/performance.md and DIR/images.")
    private Path docs;

    PeersMain(PrintStream out, PrintStream err) {
        super(out, err);
    }

    /** Runs the command and ends the process. */
    public static void main(String[] arguments) {
        System.exit(execute(System.out, System.err, arguments));
    }

    static int execute(PrintStream out, PrintStream err, String... arguments) {
        return new PeersMain(out, err).run(arguments);
    }

    @Override
    public Integer call() throws IOException {
        if (entries == null) {
            entries = quick ? QUICK_ENTRIES : 1_000_000;
        }
        if (valueLengths == null) {
            valueLengths = quick ? List.of(64, 256) : List.of(64, 256, 4096);
        }
        List<Peer> peers;
        List<Workload> selected;
        try {
            peers = peers(impls);
            selected = workloads == null
                    ? List.of(Workload.values())
                    : workloads.stream().map(Workload::of).toList();
        } catch (IllegalArgumentException e) {
            return refuse(e.getMessage());
        }
        String wrong = Checks.whatIsWrong(List.of(entries), valueLengths, threads, repetitions, docs);
        if (wrong != null) {
            return refuse(wrong);
        }
        List<PeerResult> results = new ArrayList<>();
        List<LeftOut> leftOut = new ArrayList<>();
        measure(peers, selected, results, leftOut);
        report(results, leftOut);
        return status(peers, results.stream().map(PeerResult::impl));
    }

    private void measure(List<Peer> peers, List<Workload> selected, List<PeerResult> results, List<LeftOut> leftOut)
            throws IOException {
        Launcher launcher = new Launcher(output.resolve("peers"));
        for (int valueLength : valueLengths) {
            for (Peer peer : peers) {
                Plan plan = new Plan(
                        peer.id(),
                        entries,
                        valueLength,
                        threads,
                        selected.stream().map(Workload::id).toList(),
                        quick ? 1 : 2,
                        quick ? 3 : 5,
                        quick ? 200 : 500,
                        quick ? 2 : 3);
                long start = System.nanoTime();
                String end;
                try {
                    List<Outcome> outcomes = new ArrayList<>();
                    for (int repetition = 1; repetition <= repetitions; repetition++) {
                        outcomes.add(launcher.run(plan, peer.id() + "-" + valueLength + "-" + repetition));
                    }
                    results.addAll(PeerResult.of(plan, outcomes));
                    end = "";
                } catch (Launcher.NotMeasuredException e) {
                    leftOut.add(new LeftOut(peer.id(), entries, valueLength, e.getMessage()));
                    end = "  " + e.getMessage();
                }
                out.printf(
                        Locale.ROOT,
                        "%-20s %,6d B %,6d s%s%n",
                        peer.label(),
                        valueLength,
                        (System.nanoTime() - start) / 1_000_000_000,
                        end);
                out.flush();
            }
        }
    }

    private void report(List<PeerResult> results, List<LeftOut> leftOut) throws IOException {
        PeerResult.writeJson(output.resolve("peers.json"), results);
        List<Map<String, Object>> reasons = new ArrayList<>();
        for (LeftOut store : leftOut) {
            Map<String, Object> object = new LinkedHashMap<>();
            object.put("impl", store.impl());
            object.put("entries", store.entries());
            object.put("valueBytes", store.valueBytes());
            object.put("reason", store.reason());
            reasons.add(object);
        }
        PeerResult.writeObjects(output.resolve("peers-left-out.json"), reasons);
        List<Plot> plots = new ArrayList<>();
        for (int count : threads) {
            String words = count + (count == 1 ? " thread" : " threads");
            plots.add(new Plot(
                    "peers-" + words.replace(' ', '-') + ".svg",
                    "Throughput with " + words,
                    PeerChart.of(results, count)));
        }
        String measured = String.format(Locale.ROOT, "%,d entries, keys of %d bytes", entries, Keys.KEY_BYTES);
        publish(output, docs, measured, PeerTables.of(results, leftOut), plots);
    }
}
