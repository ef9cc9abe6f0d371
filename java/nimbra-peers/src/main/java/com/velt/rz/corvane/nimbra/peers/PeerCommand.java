package com.velt.rz.corvane.nimbra.peers;

import java.io.IOException;
import java.io.PrintStream;
import java.io.PrintWriter;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.Callable;
import java.util.stream.Stream;
import picocli.CommandLine;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.Spec;

/**
 * What the commands of this module have in common: where they print, how they refuse, which stores they measure, and what
 * becomes of their tables and plots. Files and marks in the page carry the command's name. An object is for one run, whose
 * time counts from its construction.
 */
abstract class PeerCommand implements Callable<Integer> {
    /** A plot, the name of its file, and the words that stand for it where it cannot be shown. */
    record Plot(String file, String words, String svg) {}

    final PrintStream out;
    private final PrintStream err;
    private final long start = System.nanoTime();

    @Spec
    private CommandSpec spec;

    // The order puts it behind the options of the command itself.
    @Option(names = "--help", usageHelp = true, order = 1, description = "Shows this text.")
    private boolean help;

    PeerCommand(PrintStream out, PrintStream err) {
        this.out = out;
        this.err = err;
    }

    final int run(String... arguments) {
        return new CommandLine(this)
                .setOut(new PrintWriter(out, true))
                .setErr(new PrintWriter(err, true))
                .execute(arguments);
    }

    final int refuse(String reason) {
        err.println(spec.name() + ": " + reason);
        return 2;
    }

    /**
     * Returns the stores of these names, all for null.
     *
     * @throws IllegalArgumentException when there is no store of some name
     */
    static List<Peer> peers(List<String> names) {
        return names == null
                ? List.of(Peer.values())
                : names.stream().map(Peer::of).toList();
    }

    /** Returns the exit status, given the stores that were wanted and the names of those that were measured. */
    static int status(List<Peer> wanted, Stream<String> measured) {
        boolean needed = wanted.contains(Peer.NIMBRA);
        return measured.anyMatch(impl -> !needed || impl.equals(Peer.NIMBRA.id())) ? 0 : 1;
    }

    /** Writes tables and plots to {@code output} and, unless it is null, into the page in {@code docs}; prints the tables. */
    final void publish(Path output, Path docs, String measured, List<String> tables, List<Plot> plots)
            throws IOException {
        long seconds = (System.nanoTime() - start) / 1_000_000_000;
        String machine = Machine.describe();
        String head =
                String.format(Locale.ROOT, "%s; %s; %d:%02d minutes", measured, machine, seconds / 60, seconds % 60);
        List<String> lines = new ArrayList<>(List.of(head, ""));
        lines.addAll(tables);
        Files.write(output.resolve(spec.name() + ".md"), lines);
        List<String> section = new ArrayList<>(List.of(head, ""));
        for (Plot plot : plots) {
            Files.writeString(output.resolve(plot.file()), plot.svg());
            if (docs != null) {
                Files.writeString(
                        Files.createDirectories(docs.resolve("images")).resolve(plot.file()), plot.svg());
            }
            section.add("![" + plot.words() + "](images/" + plot.file() + ")");
            section.add("");
        }
        section.addAll(tables);
        if (docs != null) {
            GeneratedSection.replace(docs.resolve("performance.md"), spec.name(), section);
        }
        out.println();
        lines.forEach(out::println);
        out.flush();
    }
}
