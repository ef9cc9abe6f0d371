package com.velt.rz.corvane.nimbra.peers;

import com.fasterxml.jackson.jr.ob.JSON;
import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

/** Starts the measured processes, one at a time, with the class path of this one. */
final class Launcher {
    /** Tells why a store has not been measured. */
    static final class NotMeasuredException extends Exception {
        private static final long serialVersionUID = 1;

        NotMeasuredException(String reason) {
            super(reason);
        }
    }

    /** Names a jemalloc to preload where a store's documentation recommends it. */
    private static final String JEMALLOC = "NIMBRA_PEERS_JEMALLOC";

    private static final int LIMIT_MINUTES = 20;

    private final Path folder;

    /** Makes a launcher that keeps plans, outcomes and logs of its processes in a folder. */
    Launcher(Path folder) throws IOException {
        this.folder = Files.createDirectories(folder);
    }

    /** Runs a process and returns what it has measured. */
    Outcome run(Plan plan, String name) throws IOException, NotMeasuredException {
        long needed = plan.peer().processMegabytes(plan.sizing());
        long available = Memory.availableMegabytes();
        if (needed > available) {
            throw new NotMeasuredException("needs about " + needed + " MiB, and " + available + " MiB are free");
        }
        Path planFile = folder.resolve(name + ".plan.json");
        Path outcomeFile = folder.resolve(name + ".outcome.json");
        Path log = folder.resolve(name + ".log");
        Files.deleteIfExists(outcomeFile);
        Files.writeString(planFile, JSON.std.asString(plan));
        List<String> command = new ArrayList<>();
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        command.addAll(plan.peer().jvmOptions(plan.sizing()));
        command.add("-Djmh.ignoreLock=true"); // this process is the only one that measures here
        command.addAll(List.of("-cp", classPath(), PeerProcess.class.getName()));
        command.addAll(List.of(planFile.toString(), outcomeFile.toString()));
        int status = run(command, plan.peer(), log);
        if (status != 0 || !Files.exists(outcomeFile)) {
            throw new NotMeasuredException(reason(status, log) + " (see " + log.getFileName() + ")");
        }
        return JSON.std.beanFrom(Outcome.class, Files.readString(outcomeFile));
    }

    private static int run(List<String> command, Peer peer, Path log) throws IOException, NotMeasuredException {
        ProcessBuilder builder =
                new ProcessBuilder(command).redirectErrorStream(true).redirectOutput(log.toFile());
        String jemalloc = System.getenv(JEMALLOC);
        if (peer == Peer.OHC && jemalloc != null) {
            builder.environment().put("LD_PRELOAD", jemalloc);
        }
        if (peer == Peer.NIMBRA) {
            builder.environment().putIfAbsent("JEMALLOC_CONF", "thp:always"); // as its README says for large stores
        }
        Process process = builder.start();
        Thread ending = new Thread(process::destroyForcibly);
        Runtime.getRuntime().addShutdownHook(ending);
        try {
            if (!process.waitFor(LIMIT_MINUTES, TimeUnit.MINUTES)) {
                throw new NotMeasuredException("was not done after " + LIMIT_MINUTES + " minutes");
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new NotMeasuredException("was interrupted");
        } finally {
            process.destroyForcibly();
            Runtime.getRuntime().removeShutdownHook(ending);
        }
        return process.exitValue();
    }

    /** Relative paths of a manifest's class path are not in the property, but the jar that names them is. */
    private static String classPath() {
        List<String> paths = new ArrayList<>();
        for (String path : System.getProperty("java.class.path").split(File.pathSeparator)) {
            paths.add(Path.of(path).toAbsolutePath().toString());
        }
        return String.join(File.pathSeparator, paths);
    }

    /** The last line of the log that names an exception or an error, since the first may only be a consequence. */
    private static String reason(int status, Path log) throws IOException {
        String found = "";
        for (String line : Files.readAllLines(log)) {
            if (line.matches("^(Exception in thread .*|Caused by: .*|[a-z.]*[A-Z]\\w*(Exception|Error)(: .*)?)$")) {
                found = line;
            }
        }
        return "ended with status " + status + (found.isEmpty() ? "" : ": " + found);
    }
}
