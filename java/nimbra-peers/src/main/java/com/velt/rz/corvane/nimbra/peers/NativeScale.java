package com.velt.rz.corvane.nimbra.peers;

import java.io.BufferedReader;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/** Runs the program that measures a plain native map and the library without Java. */
final class NativeScale {
    private final Path program;

    NativeScale(Path program) {
        this.program = program;
    }

    boolean exists() {
        return Files.isExecutable(program);
    }

    /** Returns what the program prints for one number of entries: an object a line. */
    List<ScaleResult> run(int entries, int valueBytes) throws IOException, Launcher.NotMeasuredException {
        Process process = new ProcessBuilder(
                        program.toString(),
                        "--entries",
                        Integer.toString(entries),
                        "--value-bytes",
                        Integer.toString(valueBytes))
                .redirectError(ProcessBuilder.Redirect.INHERIT)
                .start();
        List<ScaleResult> results = new ArrayList<>();
        try (BufferedReader output = process.inputReader()) {
            for (String line = output.readLine(); line != null; line = output.readLine()) {
                results.add(ScaleResult.parse(line));
            }
            int status = process.waitFor();
            if (status != 0) {
                throw new Launcher.NotMeasuredException(program.getFileName() + " ended with status " + status);
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new Launcher.NotMeasuredException("was interrupted");
        } finally {
            process.destroyForcibly();
        }
        return results;
    }
}
