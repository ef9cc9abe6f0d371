package com.velt.rz.corvane.io.offheap.child;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.io.File;
import java.io.IOException;
import java.net.URISyntaxException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

/** Runs a main class in a virtual machine of its own and keeps everything that it prints. */
public final class ChildJvm {
    /** System property: the garbage collector of all children that do not choose one, as in -XX:+Use...GC. */
    private static final String COLLECTOR_PROPERTY = "nimbra.test.collector";

    /** From this version on, or a later one, native code that nobody allowed draws a warning into the output. */
    private static final int WARNS_OF_NATIVE_ACCESS = 22;

    private static final long MINUTES = 10;

    /** How the child ended, and its standard output and error in one text. */
    public record Result(int exitCode, String output) {}

    private ChildJvm() {}

    /** Runs a class of the tests with this process's class path. */
    public static Result run(List<String> options, String mainClass, String... arguments) {
        List<String> all = new ArrayList<>(List.of("-cp", System.getProperty("java.class.path")));
        all.addAll(options);
        return runRaw(all, mainClass, arguments);
    }

    /** Runs a class with these options and no others. */
    public static Result runRaw(List<String> options, String mainClass, String... arguments) {
        List<String> command = new ArrayList<>();
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        if (Runtime.version().feature() >= WARNS_OF_NATIVE_ACCESS) {
            command.add("--enable-native-access=ALL-UNNAMED");
        }
        command.addAll(options);
        String collector = System.getProperty(COLLECTOR_PROPERTY);
        if (collector != null && options.stream().noneMatch(option -> option.matches("-XX:\\+Use\\w+GC"))) {
            command.add("-XX:+Use" + collector + "GC");
        }
        command.add(mainClass);
        command.addAll(List.of(arguments));
        try {
            // A file, not a pipe: the child must not wait for a reader.
            Path output = Files.createTempFile("nimbra-child-", ".txt");
            try {
                Process process = new ProcessBuilder(command)
                        .redirectErrorStream(true)
                        .redirectOutput(output.toFile())
                        .start();
                if (!process.waitFor(MINUTES, TimeUnit.MINUTES)) {
                    process.destroyForcibly().waitFor();
                    throw new IllegalStateException(
                            "no end after " + MINUTES + " minutes: " + command + "\n" + read(output));
                }
                return new Result(process.exitValue(), read(output));
            } finally {
                Files.delete(output);
            }
        } catch (IOException | InterruptedException e) {
            throw new IllegalStateException("cannot run " + command, e);
        }
    }

    private static String read(Path file) throws IOException {
        return new String(Files.readAllBytes(file), StandardCharsets.UTF_8);
    }

    /** Where the classes under test lie: a folder or a jar. */
    public static Path mainClasses() {
        return locationOf(NativeLoader.class);
    }

    /** Where the test classes lie. */
    public static Path testClasses() {
        return locationOf(ChildJvm.class);
    }

    private static Path locationOf(Class<?> type) {
        try {
            return Path.of(
                    type.getProtectionDomain().getCodeSource().getLocation().toURI());
        } catch (URISyntaxException e) {
            throw new IllegalStateException(e);
        }
    }

    /** The built library, as the jar will carry it. */
    public static Path library() {
        Path library = mainClasses().resolve("META-INF/native/" + NativeLoader.platform() + "/libnimbra.so");
        if (!Files.isRegularFile(library)) {
            throw new IllegalStateException("the native library is not built: no " + library);
        }
        return library;
    }

    /** Joins class path elements. */
    public static String path(Path... elements) {
        List<String> names = new ArrayList<>();
        for (Path element : elements) {
            names.add(element.toString());
        }
        return String.join(File.pathSeparator, names);
    }
}
