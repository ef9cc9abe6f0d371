package com.velt.rz.corvane.nimbra.peers;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Locale;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/**
 * Measures how the cost of get and put and the memory of an entry follow the number of entries, for all stores and for
 * plain native maps, and writes results, tables and a plot. Exit status as {@link PeersMain}; 2 also when the native
 * program is missing.
 */
@Command(
        name = "scale",
        sortOptions = false,
        description = "Measures cost and memory from 10,000 to 10,000,000 entries, beside other stores.")
public final class ScaleMain extends PeerCommand {
    private static final long ENTRIES_IN_PASSES = 2_000_000;
    private static final int MOST_PASSES = 20;

    @Option(names = "--quick", description = "A smoke run: 10,000 and 100,000 entries, short iterations.")
    private boolean quick;

    @Option(
            names = "--entries",
            split = ",",
            paramLabel = "N",
            description = "Numbers of entries; 10000,100000,1000000,10000000 by default.")
    private List<Integer> entries;

    @Option(
            names = "--value-length",
            paramLabel = "N",
            defaultValue = "64",
            description = "Value length in bytes, a multiple of 8; ${DEFAULT-VALUE} by default.")
    private int valueLength;

    @Option(names = "--impls", split = ",", paramLabel = "NAME", description = "Java stores; all by default.")
    private List<String> impls;

    @Option(
            names = "--native",
            paramLabel = "FILE",
            defaultValue = "build/release/bench/nimbra_scale",
            description = "The program that measures native maps; ${DEFAULT-VALUE} by default.")
    private Path nativeProgram;

    @Option(
            names = "--output",
            paramLabel = "DIR",
            defaultValue = "build/bench",
            description = "Where results, tables, the plot and logs go; ${DEFAULT-VALUE} by default.")
    private Path output;

    @Option(
            names = "--docs",
            paramLabel = "DIR",
            description = "Also puts tables and the plot into DIR/performance.md and DIR/images.")
    private Path docs;

    ScaleMain(PrintStream out, PrintStream err) {
        super(out, err);
    }

    /** Runs the command and ends the process. */
    public static void main(String[] arguments) {
        System.exit(execute(System.out, System.err, arguments));
    }

    static int execute(PrintStream out, PrintStream err, String... arguments) {
        return new ScaleMain(out, err).run(arguments);
    }

    @Override
    public Integer call() throws IOException {
        if (entries == null) {
            entries = quick ? List.of(10_000, 100_000) : List.of(10_000, 100_000, 1_000_000, 10_000_000);
        }
        List<Peer> peers;
        try {
            peers = peers(impls);
        } catch (IllegalArgumentException e) {
            return refuse(e.getMessage());
        }
        String wrong = Checks.whatIsWrong(entries, List.of(valueLength), List.of(1), 1, docs);
        NativeScale natives = new NativeScale(nativeProgram);
        if (wrong == null && !natives.exists()) {
            wrong = nativeProgram + ", which measures native maps, is missing: make bench-scale builds it, and --native"
                    + " says where else it is";
        }
        if (wrong != null) {
            return refuse(wrong);
        }
        List<ScaleResult> results = new ArrayList<>();
        List<LeftOut> leftOut = new ArrayList<>();
        for (int count : entries.stream().sorted().toList()) {
            for (Peer peer : peers) {
                measure(peer, count, results, leftOut);
            }
            try {
                for (ScaleResult result : natives.run(count, valueLength)) {
                    results.add(result);
                    progress(result);
                }
            } catch (Launcher.NotMeasuredException e) {
                leaveOut(
                        new LeftOut(nativeProgram.getFileName().toString(), count, valueLength, e.getMessage()),
                        leftOut);
            }
        }
        results.sort(Comparator.comparing(ScaleResult::entries)); // keeps the order of stores
        report(results, leftOut);
        return status(peers, results.stream().map(ScaleResult::impl));
    }

    private void measure(Peer peer, int count, List<ScaleResult> results, List<LeftOut> leftOut) throws IOException {
        Plan plan = new Plan(
                peer.id(),
                count,
                valueLength,
                List.of(1),
                List.of(Workload.INSERT.id(), Workload.GET_HIT.id()),
                quick ? 1 : 2,
                quick ? 3 : 5,
                quick ? 200 : 500,
                (int) Math.max(1, Math.min(MOST_PASSES, ENTRIES_IN_PASSES / count)));
        try {
            Outcome outcome = new Launcher(output.resolve("scale")).run(plan, peer.id() + "-" + count);
            ScaleResult result = ScaleResult.of(plan, outcome);
            results.add(result);
            progress(result);
        } catch (Launcher.NotMeasuredException e) {
            leaveOut(new LeftOut(peer.id(), count, valueLength, e.getMessage()), leftOut);
        }
    }

    private void progress(ScaleResult result) {
        out.printf(
                Locale.ROOT,
                "%-20s %,12d entries %,8.0f ns get %,8.0f ns put %,8.0f B%n",
                Peer.labelOf(result.impl()),
                result.entries(),
                result.getNs(),
                result.putNs(),
                result.bytesPerEntry());
        out.flush();
    }

    private void leaveOut(LeftOut store, List<LeftOut> leftOut) {
        leftOut.add(store);
        out.printf(
                Locale.ROOT, "%-20s %,12d entries %s%n", Peer.labelOf(store.impl()), store.entries(), store.reason());
        out.flush();
    }

    private void report(List<ScaleResult> results, List<LeftOut> leftOut) throws IOException {
        Files.createDirectories(output);
        ScaleResult.writeJson(output.resolve("scale.json"), results);
        String measured =
                String.format(Locale.ROOT, "keys of %d bytes, values of %d, one thread", Keys.KEY_BYTES, valueLength);
        Plot plot = new Plot("scale.svg", "Cost by the number of entries", ScaleChart.of(results));
        publish(output, docs, measured, ScaleTables.of(results, leftOut), List.of(plot));
    }
}
