package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMemoryException;
import com.velt.rz.corvane.nimbra.OffHeapStorageException;
import com.velt.rz.corvane.nimbra.overflow.ValueStores;
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
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;

/**
 * The command line of the demo with values on disk. Exit status 0: every value was what it had to be, and everything came
 * back; 1: something differed; 2: the job could not be done, and the standard error says why. Once a process.
 */
@Command(
        name = "overflow-demo",
        description = "Stores several times as many bytes as may be in memory, and compares every one with the source.")
public final class OverflowDemo implements Callable<Integer> {
    private static final int DIFFERENT = 1;
    private static final int NOT_DONE = 2;

    private final PrintStream out;
    private final PrintStream err;
    private final boolean terminal;

    @Option(
            names = "--input",
            paramLabel = "DIR",
            description =
                    "take the files of this folder instead of the JDK's class files; they have to fit on the heap")
    private Path input;

    @Option(
            names = "--directory",
            paramLabel = "DIR",
            description = "where values go (default: a temporary folder, deleted at the end)")
    private Path directory;

    @Option(
            names = "--maximum",
            paramLabel = "SIZE",
            defaultValue = "256M",
            converter = Main.Size.class,
            description = "most bytes off heap, with K, M or G for powers of 1,024 (default: ${DEFAULT-VALUE})")
    private long maximum;

    @Option(
            names = "--disk",
            paramLabel = "SIZE",
            defaultValue = "4G",
            converter = Main.Size.class,
            description = "most bytes on disk (default: ${DEFAULT-VALUE})")
    private long disk;

    @Option(
            names = "--values",
            paramLabel = "SIZE",
            defaultValue = "1G",
            converter = Main.Size.class,
            description = "bytes of values to store, at least (default: ${DEFAULT-VALUE})")
    private long values;

    @Option(names = "--seconds", paramLabel = "N", defaultValue = "60", description = "of churn (default: 60)")
    private long seconds;

    @Option(names = "--threads", paramLabel = "N", defaultValue = "4", description = "at work (default: 4)")
    private int threads;

    @Option(names = "--help", usageHelp = true, description = "show this text")
    private boolean help;

    private OverflowDemo(PrintStream out, PrintStream err, boolean terminal) {
        this.out = out;
        this.err = err;
        this.terminal = terminal;
    }

    public static void main(String[] arguments) {
        System.exit(run(arguments, System.out, System.err, Progress.onTerminal()));
    }

    /** Runs the demo in this process, whose runtime must not be started, and returns the exit status. */
    static int run(String[] arguments, PrintStream out, PrintStream err, boolean terminal) {
        OverflowDemo demo = new OverflowDemo(out, err, terminal);
        CommandLine command = new CommandLine(demo);
        command.setOut(new PrintWriter(out, true));
        command.setErr(new PrintWriter(err, true));
        command.setParameterExceptionHandler(demo::explain);
        return command.execute(arguments);
    }

    private int explain(ParameterException mistake, String[] arguments) {
        return notDone(mistake.getMessage() + "; --help lists the options");
    }

    private int notDone(String why) {
        err.println("overflow-demo: " + why);
        return NOT_DONE;
    }

    @Override
    public Integer call() {
        if (threads < 1 || seconds < 0) {
            return notDone("--threads has to be at least 1, --seconds at least 0");
        }
        if (System.getProperty(OffHeapLogger.LEVEL_PROPERTY) == null) {
            // Refusals are reported here, in a message of their own.
            OffHeapLogger.setLogLevel(0);
        }
        try {
            Contents contents = read();
            if (directory != null) {
                return store(contents, directory);
            }
            Path temporary = Files.createTempDirectory("nimbra-overflow-");
            try {
                return store(contents, temporary);
            } finally {
                delete(temporary);
            }
        } catch (OffHeapMemoryException e) {
            return notDone("the maximum of " + maximum + " bytes is too small, give a larger --maximum ("
                    + e.getMessage() + ")");
        } catch (OffHeapStorageException e) {
            err.println("overflow-demo: " + e.getMessage());
            return DIFFERENT;
        } catch (IOException e) {
            return notDone(e.toString());
        } catch (Source.SourceException | IllegalArgumentException | IllegalStateException | UnsatisfiedLinkError e) {
            return notDone(e.getMessage());
        }
    }

    /** Reads every file once; they stay on the heap, to be compared with. */
    private Contents read() {
        Source source = input == null ? FileSource.runtimeImage() : FileSource.folder(input);
        List<byte[]> files = new ArrayList<>();
        long bytes = 0;
        for (String name : source.names()) {
            byte[] file = source.read(name);
            files.add(file);
            bytes += Contents.HEADER + file.length;
        }
        int copies = Math.toIntExact((values + bytes - 1) / bytes);
        out.printf(
                Locale.ROOT,
                "%,d %s, %,d bytes with their headers; each %d times: %,d values, %,d bytes%n",
                files.size(),
                source.description(),
                bytes,
                copies,
                (long) copies * files.size(),
                copies * bytes);
        return new Contents(source.names(), files, copies);
    }

    private int store(Contents contents, Path folder) throws IOException {
        try (CountingStore store = new CountingStore(ValueStores.open(folder, disk))) {
            Nimbra nimbra =
                    Nimbra.builder().maximumBytes(maximum).overflowTo(store).start();
            out.printf(Locale.ROOT, "%,d bytes may be in memory; values go to %s%n", maximum, folder);
            Progress progress = new Progress(out, terminal);
            List<String> wrong;
            try {
                wrong = new OverflowJob(nimbra, store, contents, threads, seconds, progress, out).run();
            } finally {
                progress.abandon();
            }
            for (String line : wrong) {
                err.println("overflow-demo: " + line);
            }
            return wrong.isEmpty() ? 0 : DIFFERENT;
        }
    }

    /** Deletes the folder and what the store leaves in it, its lock file. */
    private static void delete(Path folder) throws IOException {
        try (Stream<Path> files = Files.list(folder)) {
            for (Path file : files.toList()) {
                Files.delete(file);
            }
        }
        Files.delete(folder);
    }
}
