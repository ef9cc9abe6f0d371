package com.velt.rz.corvane.nimbra.bench;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class MainTest {
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();

    @TempDir
    Path folder;

    private int run(String... arguments) {
        List<String> all = new ArrayList<>(List.of("--output", folder.toString()));
        Collections.addAll(all, arguments);
        return Main.execute(
                new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8),
                all.toArray(String[]::new));
    }

    @Test
    void measuresEveryOperationOfBothStores() throws Exception {
        System.setProperty("jmh.ignoreLock", "true"); // a benchmark may be running elsewhere on this machine
        int status = run("--entries 1000 --value-lengths 64 --threads 2 -f 0 -wi 1 -i 2 -w 10ms -r 10ms".split(" "));
        assertEquals("", err.toString(StandardCharsets.UTF_8));
        assertEquals(0, status);
        List<String> lines = Files.readAllLines(folder.resolve("jmh.md"));
        List<String> rows = lines.subList(4, lines.size());
        assertEquals(
                List.of("put", "get", "pinned read", "replace", "remove"),
                rows.stream().map(row -> row.split("\\|")[1].strip()).toList());
        for (String row : rows) {
            String[] cells = row.split("\\|");
            assertTrue(Double.parseDouble(cells[4].strip()) > 0, row);
            assertTrue(Double.parseDouble(cells[6].strip()) > 0, row);
        }
        String table = String.join(System.lineSeparator(), lines) + System.lineSeparator();
        assertTrue(out.toString(StandardCharsets.UTF_8).endsWith(table));
        assertTrue(Files.size(folder.resolve("jmh.json")) > 0);
    }

    @Test
    void namesAWrongOption() {
        assertEquals(2, run("--value-lengths", "63"));
        assertTrue(err.toString(StandardCharsets.UTF_8).contains("63, which is not a positive multiple of 8"));
    }

    @Test
    void namesAPatternWithoutBenchmarks() {
        System.setProperty("jmh.ignoreLock", "true");
        assertEquals(2, run("noSuchOperation"));
        assertTrue(err.toString(StandardCharsets.UTF_8).contains("no benchmark has such a name"));
    }

    @Test
    void refusesWhatTheMachineCannotHold() {
        assertEquals(2, run("--entries", "2000000000", "--value-lengths", "65536"));
        assertTrue(err.toString(StandardCharsets.UTF_8).contains("and this machine has"));
    }
}
