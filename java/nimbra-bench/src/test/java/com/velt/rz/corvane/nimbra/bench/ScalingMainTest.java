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

class ScalingMainTest {
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();

    @TempDir
    Path folder;

    private int run(String... arguments) throws Exception {
        System.setProperty("jmh.ignoreLock", "true"); // a benchmark may be running elsewhere on this machine
        List<String> all = new ArrayList<>(List.of(folder.toString()));
        Collections.addAll(all, arguments);
        return ScalingMain.execute(
                new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8),
                all.toArray(String[]::new));
    }

    /** In processes of their own, since every process has one maximum. */
    @Test
    void measuresEveryOperationAtEverySize() throws Exception {
        int status = run("-f 1 -wi 0 -i 1 -r 10ms -p entries=2000,3000".split(" "));
        assertEquals("", err.toString(StandardCharsets.UTF_8));
        assertEquals(0, status);
        List<String> lines = Files.readAllLines(folder.resolve("scaling.md"));
        assertEquals("| operation | 2,000 | 3,000 |", lines.get(2));
        List<String> rows = lines.subList(4, lines.size());
        assertEquals(
                List.of("lfuAccess", "lruAccess", "resume", "revisionAppend", "ttlInOrder", "ttlOutOfOrder"),
                rows.stream().map(row -> row.split("\\|")[1].strip()).toList());
        for (String row : rows) {
            assertTrue(Double.parseDouble(row.split("\\|")[3].strip().replace(",", "")) > 0, row);
        }
    }

    @Test
    void namesWhatIsWrong() throws Exception {
        assertEquals(2, run("noSuchOperation"));
        assertTrue(err.toString(StandardCharsets.UTF_8).contains("no benchmark has such a name"));
        assertEquals(2, run("-wi", "many"));
        assertEquals(2, ScalingMain.execute(System.out, new PrintStream(err, true, StandardCharsets.UTF_8)));
        assertTrue(err.toString(StandardCharsets.UTF_8).contains("the first argument has to be the folder"));
    }
}
