package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.OffHeapMemoryException;
import java.io.PrintStream;
import java.io.PrintWriter;
import java.nio.file.Path;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.Callable;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.TypeConversionException;

/**
 * The command line of the demo. Exit status 0: every byte agreed and all memory came back; 1: something differed; 2: the
 * job could not be done, and the standard error says why.
 */
@Command(
        name = "nimbra-demo",
        description = "Keeps real data off heap, changes it, and compares every byte with the source.")
public final class Main implements Callable<Integer> {
    private static final int DIFFERENT = 1;
    private static final int NOT_DONE = 2;

    private final PrintStream out;
    private final PrintStream err;
    private final boolean terminal;

    @Option(
            names = "--input",
            paramLabel = "DIR",
            description = "take the files of this folder instead of the JDK's class files")
    private Path input;

    @Option(
            names = "--maximum",
            paramLabel = "SIZE",
            defaultValue = "2G",
            converter = Size.class,
            description = "most bytes off heap, with K, M or G for powers of 1,024 (default: ${DEFAULT-VALUE})")
    private long maximum;

    @Option(names = "--partitions", paramLabel = "N", description = "partitions of the map (default: four a processor)")
    private Integer partitions;

    @Option(names = "--help", usageHelp = true, description = "show this text")
    private boolean help;

    private Main(PrintStream out, PrintStream err, boolean terminal) {
        this.out = out;
        this.err = err;
        this.terminal = terminal;
    }

    public static void main(String[] arguments) {
        System.exit(run(arguments, System.out, System.err, Progress.onTerminal()));
    }

    /**
     * Runs the demo in this process.
     *
     * @param terminal whether to draw a progress bar
     * @return the exit status
     */
    static int run(String[] arguments, PrintStream out, PrintStream err, boolean terminal) {
        Main main = new Main(out, err, terminal);
        CommandLine command = new CommandLine(main);
        command.setOut(new PrintWriter(out, true));
        command.setErr(new PrintWriter(err, true));
        command.setParameterExceptionHandler(main::explain);
        return command.execute(arguments);
    }

    private int explain(ParameterException mistake, String[] arguments) {
        return notDone(mistake.getMessage() + "; --help lists the options");
    }

    @Override
    public Integer call() {
        if (System.getProperty(OffHeapLogger.LEVEL_PROPERTY) == null) {
            // Refusals are reported here, in a message of their own.
            OffHeapLogger.setLogLevel(0);
        }
        Nimbra nimbra;
        Source source;
        OffHeapMap.Builder options = OffHeapMap.builder().name("demo");
        try {
            source = input == null ? FileSource.runtimeImage() : FileSource.folder(input);
            if (partitions != null) {
                options.partitions(partitions);
            }
            nimbra = Nimbra.builder().maximumBytes(maximum).start();
        } catch (Source.SourceException | IllegalArgumentException | IllegalStateException | UnsatisfiedLinkError e) {
            return notDone(e.getMessage());
        }
        return work(nimbra, options, source, new Progress(out, terminal), out, err);
    }

    /** Does the job with any source and returns the exit status. */
    static int work(
            Nimbra nimbra,
            OffHeapMap.Builder options,
            Source source,
            Progress progress,
            PrintStream out,
            PrintStream err) {
        out.printf(Locale.ROOT, "%,d %s%n", source.names().size(), source.description());
        List<String> differences;
        try {
            differences = new Job(nimbra, options, source, progress, out).run();
        } catch (OffHeapMemoryException e) {
            progress.abandon();
            return notDone(
                    err,
                    "the maximum of " + nimbra.stats().maximumBytes()
                            + " bytes is too small for this data, give a larger --maximum (" + e.getMessage() + ")");
        } catch (Source.SourceException e) {
            progress.abandon();
            return notDone(err, e.getMessage());
        }
        for (String difference : differences) {
            err.println("nimbra-demo: " + difference);
        }
        return differences.isEmpty() ? 0 : DIFFERENT;
    }

    private int notDone(String why) {
        return notDone(err, why);
    }

    private static int notDone(PrintStream err, String why) {
        err.println("nimbra-demo: " + why);
        return NOT_DONE;
    }

    /** Reads sizes such as 1048576, 512K, 64M and 2G. */
    static final class Size implements ITypeConverter<Long> {
        private static final Pattern SIZE = Pattern.compile("([0-9]{1,18})([KMGkmg]?)");

        @Override
        public Long convert(String text) {
            Matcher size = SIZE.matcher(text);
            if (!size.matches()) {
                throw new TypeConversionException("\"" + text + "\" is not a size: digits, and K, M or G if wanted");
            }
            int shift =
                    switch (size.group(2).toUpperCase(Locale.ROOT)) {
                        case "K" -> 10;
                        case "M" -> 20;
                        case "G" -> 30;
                        default -> 0;
                    };
            try {
                return Math.multiplyExact(Long.parseLong(size.group(1)), 1L << shift);
            } catch (ArithmeticException e) {
                throw new TypeConversionException("\"" + text + "\" is more than 2^63 - 1 bytes");
            }
        }
    }
}
