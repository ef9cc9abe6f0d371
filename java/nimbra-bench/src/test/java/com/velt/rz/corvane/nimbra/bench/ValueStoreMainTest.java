package com.velt.rz.corvane.nimbra.bench;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.bench.ValueStoreMain.Round;
import java.io.PrintWriter;
import java.io.StringWriter;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import picocli.CommandLine;

class ValueStoreMainTest {
    @TempDir
    Path folder;

    /** The run fails if a store returns anything but what it was given. */
    @Test
    void measuresAndLeavesOnlyTheTable() throws Exception {
        StringWriter out = new StringWriter();
        int status = new CommandLine(new ValueStoreMain())
                .setOut(new PrintWriter(out))
                .execute("--values=700", "--rounds=1", "--stores=Nimbra,H2,RocksDB", "--output=" + folder);
        assertEquals(0, status, out.toString());
        List<String> lines = Files.readAllLines(folder.resolve("stores.md"));
        assertEquals(
                List.of("plain files", "Nimbra", "H2 MVStore", "RocksDB", "RocksDB, blob files"),
                lines.subList(4, 9).stream()
                        .map(line -> line.split("\\|")[1].strip())
                        .toList());
        try (Stream<Path> files = Files.list(folder)) {
            assertEquals(1, files.count());
        }
        assertTrue(out.toString().contains("round 1 Nimbra"));
    }

    @Test
    void printsMediansAndRatios() {
        Map<String, List<Round>> results = new LinkedHashMap<>();
        results.put(
                "plain files",
                List.of(
                        new Round(9, 1, 1, 1 << 20, 2 << 20),
                        new Round(1, 2, 1, 1 << 20, 2 << 20),
                        new Round(2, 3, 1, 1 << 20, 2 << 20)));
        results.put("other", List.of(new Round(4, 1, 2, 3 << 20, 4 << 20)));
        List<String> lines = ValueStoreMain.table(results, 4000, 10 << 20);
        assertEquals("| plain files | 2 (1.00) | 2 (1.00) | 4 (1.00) | 1 | 2 |", lines.get(4));
        assertEquals("| other | 1 (0.50) | 4 (2.00) | 2 (0.50) | 3 | 4 |", lines.get(5));
        assertEquals("4,000 values, 5 MiB of payload at any time", lines.get(7));
    }
}
