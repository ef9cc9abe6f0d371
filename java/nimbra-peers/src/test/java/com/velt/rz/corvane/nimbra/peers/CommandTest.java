package com.velt.rz.corvane.nimbra.peers;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.fasterxml.jackson.jr.ob.JSON;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class CommandTest {
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();

    @TempDir
    Path folder;

    private String[] withOutput(String... arguments) {
        List<String> all = new ArrayList<>(List.of("--output", folder.toString()));
        Collections.addAll(all, arguments);
        return all.toArray(String[]::new);
    }

    private int peers(String... arguments) {
        return PeersMain.execute(stream(out), stream(err), withOutput(arguments));
    }

    private int scale(String... arguments) {
        return ScaleMain.execute(stream(out), stream(err), withOutput(arguments));
    }

    private static PrintStream stream(ByteArrayOutputStream bytes) {
        return new PrintStream(bytes, true, StandardCharsets.UTF_8);
    }

    private void assertRefused(int status, String reason) {
        String text = err.toString(StandardCharsets.UTF_8);
        assertTrue(text.contains(reason), text);
        assertEquals(2, status);
    }

    @Test
    void namesAnUnknownStore() {
        assertRefused(peers("--impls", "nimbra,abacus"), "no store is called \"abacus\"; there are nimbra, ohc, ");
    }

    @Test
    void namesAnUnknownWorkload() {
        assertRefused(peers("--workloads", "juggle"), "no workload is called \"juggle\"; there are insert, get-hit, ");
    }

    @Test
    void namesAWrongNumber() {
        assertRefused(peers("--value-lengths", "64,63"), "63, which is not a positive multiple of 8");
        assertRefused(peers("--entries", "10"), "--entries holds 10, has to be at least 1000");
        assertRefused(peers("--threads", "0"), "--threads holds 0, has to be from 1 to 64");
        assertRefused(peers("--repetitions", "0"), "--repetitions is 0, has to be at least 1");
        assertRefused(peers("--entries", "many"), "Invalid value for option '--entries'");
    }

    @Test
    void namesAFolderWithoutThePage() {
        assertRefused(peers("--docs", folder.toString()), "which has no performance.md");
    }

    @Test
    void namesAMissingNativeProgram() {
        assertRefused(
                scale("--native", folder.resolve("nowhere").toString()), "which measures native maps, is missing");
    }

    @Test
    void saysWhatTheMachineCannotHold() throws IOException {
        assertEquals(1, peers("--entries", "2000000000", "--value-lengths", "4096", "--impls", "nimbra,caffeine"));
        List<Object> leftOut = JSON.std.listFrom(Files.readString(folder.resolve("peers-left-out.json")));
        assertEquals(
                List.of("nimbra", "caffeine"),
                leftOut.stream().map(store -> ((Map<?, ?>) store).get("impl")).toList());
        for (Object store : leftOut) {
            String reason = (String) ((Map<?, ?>) store).get("reason");
            assertTrue(reason.matches("needs about \\d+ MiB, and \\d+ MiB are free"), reason);
        }
        assertTrue(Files.readString(folder.resolve("peers.md")).contains("- Caffeine, 2,000,000,000 entries"));
    }

    @Test
    void measuresEveryWorkloadAndWritesAllFiles() throws Exception {
        Path docs = Files.createDirectory(folder.resolve("docs"));
        Files.write(docs.resolve("performance.md"), List.of("<!-- peers:begin -->", "<!-- peers:end -->"));
        int status = peers(
                "--quick",
                "--entries",
                "1000",
                "--value-lengths",
                "64",
                "--threads",
                "2",
                "--impls",
                "nimbra",
                "--docs",
                docs.toString());
        assertEquals("", err.toString(StandardCharsets.UTF_8));
        assertEquals(0, status, out.toString(StandardCharsets.UTF_8));
        List<Object> results = JSON.std.listFrom(Files.readString(folder.resolve("peers.json")));
        assertEquals(
                List.of(Workload.values()).stream().map(Workload::id).collect(Collectors.toSet()),
                results.stream()
                        .map(result -> ((Map<?, ?>) result).get("workload"))
                        .collect(Collectors.toSet()));
        for (Object result : results) {
            assertTrue(((Number) ((Map<?, ?>) result).get("opsPerSecond")).doubleValue() > 0, result.toString());
        }
        assertTrue(Files.size(folder.resolve("peers-2-threads.svg")) > 0);
        assertTrue(Files.size(docs.resolve("images/peers-2-threads.svg")) > 0);
        String page = Files.readString(docs.resolve("performance.md"));
        assertTrue(page.contains("![Throughput with 2 threads](images/peers-2-threads.svg)"), page);
        assertTrue(page.contains("| mix-50-50 | 64 | 2 |"), page);
    }

    @Test
    void scaleMergesWhatTheNativeProgramPrints() throws Exception {
        Path program = folder.resolve("program");
        Files.writeString(
                program,
                "#!/bin/sh\n"
                        + "test \"$1 $2 $3 $4\" = '--entries 1000 --value-bytes 64' || exit 1\n"
                        + "echo '{\"impl\":\"std::unordered_map\",\"entries\":1000,\"valueBytes\":64,"
                        + "\"getNs\":12.5,\"putNs\":80,\"bytesPerEntry\":144,\"allocator\":\"malloc\"}'\n");
        assertTrue(program.toFile().setExecutable(true));
        int status =
                scale("--quick", "--entries", "1000", "--impls", "concurrent-hash-map", "--native", program.toString());
        assertEquals("", err.toString(StandardCharsets.UTF_8));
        assertEquals(0, status);
        List<Object> results = JSON.std.listFrom(Files.readString(folder.resolve("scale.json")));
        assertEquals(2, results.size());
        Map<?, ?> heapMap = (Map<?, ?>) results.get(0);
        assertEquals("concurrent-hash-map", heapMap.get("impl"));
        assertTrue(((Number) heapMap.get("getNs")).doubleValue() > 0);
        Map<?, ?> plain = (Map<?, ?>) results.get(1);
        assertEquals("std::unordered_map", plain.get("impl"));
        assertEquals(12.5, plain.get("getNs"));
        assertTrue(Files.readString(folder.resolve("scale.md")).contains("| std::unordered_map | 64 |"));
    }

    @Test
    void saysThatTheNativeProgramFailed() throws Exception {
        Path program = folder.resolve("program");
        Files.writeString(program, "#!/bin/sh\nexit 3\n");
        assertTrue(program.toFile().setExecutable(true));
        NativeScale natives = new NativeScale(program);
        Exception failed = assertThrows(Launcher.NotMeasuredException.class, () -> natives.run(1000, 64));
        assertEquals("program ended with status 3", failed.getMessage());
    }
}
