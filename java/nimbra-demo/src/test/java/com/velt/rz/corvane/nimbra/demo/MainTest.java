package com.velt.rz.corvane.nimbra.demo;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.NimbraStats;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.stream.IntStream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class MainTest {
    private static final int FILES = 60;

    @TempDir
    Path folder;

    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();
    private Nimbra nimbra;
    private NimbraStats before;

    @BeforeEach
    void start() {
        // The default of --maximum, so that runs in this process find the runtime as they want it.
        nimbra = Nimbra.builder().maximumBytes(2L << 30).start();
        before = nimbra.stats();
    }

    @AfterEach
    void everythingWasReturned() {
        assertEquals(before.blocks(), nimbra.stats().blocks());
        assertEquals(before.internalMetadataBytes(), nimbra.stats().internalMetadataBytes());
    }

    @Test
    void folderGoesThroughTheWholeJob() throws IOException {
        long payload = fill();
        assertEquals(0, run("--input", folder.toString()), err::toString);
        assertEquals("", err.toString());
        String table = out.toString();
        assertTrue(table.startsWith("60 files of "), table);
        for (String line : List.of(
                "insert                                        60",
                "replace a tenth                                6",
                "remove a twentieth                             3",
                "get and compare                               60",
                "pin and compare                               60",
                "insert, followed                              60",
                "replace, followed                              6",
                "remove, followed                               3",
                "follow by revision ",
                "compare with the copy                         60",
                "load within the limit                         60",
                "follower: entries of the copy                 57",
                "follower: entries that differ                  0",
                "entries                                       57",
                "off-heap bytes in use ",
                "overhead a byte of payload ",
                "Java heap in use before, bytes ",
                "Java heap in use after, bytes ",
                "live blocks ",
                "Every byte agrees with the source. ")) {
            assertTrue(table.lines().anyMatch(text -> text.startsWith(line)), line + "\nin\n" + table);
        }
        assertTrue(number(table, "limited: limit, bytes") < number(table, "limited: bytes without a limit"), table);
        assertTrue(number(table, "limited: most bytes seen") <= number(table, "limited: limit, bytes"), table);
        assertTrue(number(table, "limited: times looked") > 0, table);
        assertTrue(number(table, "limited: evictions") > 0, table);
        assertTrue(number(table, "limited: hits") > 0, table);
        long put = number(table, "limited: evictions") + number(table, "limited: entries left");
        assertTrue(put >= 60 && put <= number(table, "limited: misses"), table);
        // Random bytes do not shrink, so the payload is close to what was written, less a twentieth.
        long shown = number(table, "payload bytes (keys and values)");
        assertTrue(shown > payload * 9 / 10 && shown < payload, shown + " of " + payload);
    }

    @Test
    void oneFileIsEnough() throws IOException {
        Files.write(folder.resolve("only"), new byte[0]);
        assertEquals(0, run("--input", folder.toString(), "--partitions", "2"), err::toString);
        assertEquals(1, number(out.toString(), "entries"));
    }

    @Test
    void progressIsABarOnATerminal() throws IOException {
        fill();
        assertEquals(0, Main.run(new String[] {"--input", folder.toString()}, stream(out), stream(err), true));
        assertTrue(out.toString().contains("[" + "#".repeat(40) + "] 60 of 60\n"), out.toString());
        out.reset();
        assertEquals(0, run("--input", folder.toString()));
        assertTrue(out.toString().contains("insert: 60\n"), out.toString());
        assertTrue(out.toString().indexOf('\r') < 0);
    }

    @Test
    void flippedBitIsFoundByBothReaders() {
        List<String> names = names(40);
        int[] reads = new int[40];
        assertEquals(1, work(new TestSource(names) {
            @Override
            public byte[] read(String name) {
                byte[] bytes = super.read(name);
                int place = names.indexOf(name);
                if (place == 12 && reads[place]++ > 0) {
                    bytes[77] ^= 4;
                }
                return bytes;
            }
        }));
        assertEquals(
                """
                nimbra-demo: name 12 differs from the source at byte 77, read by get
                nimbra-demo: name 12 differs from the source at byte 77, read by pin
                """,
                err.toString());
        assertTrue(!out.toString().contains("Every byte agrees"), out.toString());
    }

    @Test
    void manyDifferencesAreCounted() {
        int[] reads = new int[1];
        assertEquals(1, work(new TestSource(names(40)) {
            @Override
            public byte[] read(String name) {
                // One byte longer at every reading.
                return new byte[100 + reads[0]++];
            }
        }));
        List<String> lines = err.toString().lines().toList();
        assertEquals(11, lines.size());
        assertTrue(lines.get(1).contains(" differs from the source at byte 1"), lines.get(1));
        assertTrue(lines.get(1).contains("; it has 1"), lines.get(1));
        // 40 entries without the two that were removed, by both readers.
        assertEquals("nimbra-demo: and 66 more", lines.get(10));
    }

    @Test
    void leftoverBlocksAreFound() {
        List<OffHeapMap> leftover = new ArrayList<>();
        try {
            assertEquals(1, work(new TestSource(names(5)) {
                @Override
                public byte[] read(String name) {
                    if (leftover.isEmpty()) {
                        leftover.add(OffHeapMap.builder().partitions(1).build());
                    }
                    return super.read(name);
                }
            }));
        } finally {
            leftover.forEach(OffHeapMap::close);
        }
        List<String> lines = err.toString().lines().toList();
        assertEquals(2, lines.size(), err::toString);
        assertTrue(lines.get(0).startsWith("nimbra-demo: live blocks: " + before.blocks() + " before, "));
        assertTrue(lines.get(1).startsWith("nimbra-demo: internal metadata bytes: "));
    }

    @Test
    void missingFolder() {
        assertNotDone("folder " + folder.resolve("missing") + " does not exist", "--input", folder + "/missing");
    }

    @Test
    void fileInsteadOfAFolder() throws IOException {
        Path file = Files.createFile(folder.resolve("file"));
        assertNotDone(file + " is not a folder", "--input", file.toString());
    }

    @Test
    void emptyFolder() {
        assertNotDone("there is no file in " + folder, "--input", folder.toString());
    }

    @Test
    void fileThatCannotBeRead() throws IOException {
        fill();
        FileSource source = FileSource.folder(folder);
        Path file = folder.resolve(source.names().get(7));
        Files.delete(file);
        assertEquals(2, work(source));
        assertEquals("nimbra-demo: file " + file + " cannot be read: " + file + " does not exist\n", err.toString());
    }

    @Test
    void badOptionsAreNamed() {
        assertNotDone("Unknown option: '--wrong'; --help lists the options", "--wrong");
        assertNotDone(
                "Invalid value for option '--maximum': \"12Q\" is not a size: digits, and K, M or G if wanted;"
                        + " --help lists the options",
                "--maximum",
                "12Q");
        assertNotDone(
                "Invalid value for option '--maximum': \"99999999999G\" is more than 2^63 - 1 bytes;"
                        + " --help lists the options",
                "--maximum",
                "99999999999G");
        assertNotDone("Missing required parameter for option '--input' (DIR); --help lists the options", "--input");
        assertNotDone(
                "partitions is 0, has to be at least 1 and at most 4096", "--input", notEmpty(), "--partitions", "0");
        assertNotDone("maximumBytes is 1024, has to be at least 1048576", "--input", notEmpty(), "--maximum", "1K");
    }

    @Test
    void otherLimitThanTheRunningOne() {
        assertEquals(2, run("--input", notEmpty(), "--maximum", "3G"));
        assertTrue(err.toString().contains("2147483648") && err.toString().contains("3221225472"), err.toString());
    }

    /** In a process of its own: the limits of a process are set once. */
    @Test
    void limitThatIsTooSmall() throws Exception {
        Random random = new Random(1);
        for (int i = 0; i < 20; i++) {
            byte[] bytes = new byte[500_000];
            random.nextBytes(bytes);
            Files.write(folder.resolve("file " + i), bytes);
        }
        List<String> command = new ArrayList<>(List.of(
                ProcessHandle.current().info().command().orElseThrow(),
                "-Xmx64m",
                "-cp",
                System.getProperty("java.class.path"),
                Main.class.getName(),
                "--input",
                folder.toString(),
                "--maximum",
                "4M"));
        String library = System.getProperty("nimbra.library.path");
        if (library != null) {
            command.add(1, "-Dnimbra.library.path=" + library);
        }
        Path messages = folder.resolveSibling(folder.getFileName() + ".err");
        Process process =
                new ProcessBuilder(command).redirectError(messages.toFile()).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        int status = process.waitFor();
        String message = Files.readString(messages);
        Files.delete(messages);
        assertEquals(2, status, output + message);
        assertEquals(1, message.lines().count(), message);
        assertTrue(
                message.startsWith("nimbra-demo: the maximum of 4194304 bytes is too small for this data,"
                        + " give a larger --maximum (put on map \"demo\" with a key of "),
                message);
    }

    @Test
    void helpNamesEveryOption() {
        assertEquals(0, run("--help"));
        for (String option : List.of("--input", "--maximum", "--partitions", "--help")) {
            assertTrue(out.toString().contains(option), out.toString());
        }
        assertEquals("", err.toString());
    }

    @Test
    void runtimeImageHoldsTheClassesOfTheJdk() {
        Source source = FileSource.runtimeImage();
        String object = "java.base/java/lang/Object.class";
        assertTrue(source.names().contains(object));
        assertTrue(source.names().size() > 5_000, source.names().size() + " classes");
        byte[] bytes = source.read(object);
        assertEquals(0xcafebabe, ByteBuffer.wrap(bytes).getInt());
    }

    private void assertNotDone(String message, String... arguments) {
        err.reset();
        assertEquals(2, run(arguments));
        assertEquals("nimbra-demo: " + message + "\n", err.toString());
    }

    private int run(String... arguments) {
        return Main.run(arguments, stream(out), stream(err), false);
    }

    private int work(Source source) {
        PrintStream stream = stream(out);
        return Main.work(nimbra, OffHeapMap.builder(), source, new Progress(stream, false), stream, stream(err));
    }

    private String notEmpty() {
        try {
            Files.write(folder.resolve("file"), new byte[10]);
        } catch (IOException e) {
            throw new AssertionError(e);
        }
        return folder.toString();
    }

    /** Writes files of random bytes into nested folders and returns the length of all paths and bytes. */
    private long fill() throws IOException {
        Random random = new Random(1);
        long payload = 0;
        for (int i = 0; i < FILES; i++) {
            byte[] bytes = new byte[900 + random.nextInt(200)];
            random.nextBytes(bytes);
            String name = "folder " + i % 4 + "/sub/file " + i;
            Path file = folder.resolve(name);
            Files.createDirectories(file.getParent());
            Files.write(file, bytes);
            payload += name.length() + bytes.length;
        }
        return payload;
    }

    private static long number(String table, String row) {
        String line = table.lines()
                .filter(text -> text.startsWith(row))
                .findFirst()
                .orElseThrow(() -> new AssertionError(table));
        return Long.parseLong(line.substring(row.length()).trim().replace(",", ""));
    }

    private static List<String> names(int count) {
        return IntStream.range(0, count)
                .mapToObj(i -> String.format("name %02d", i))
                .toList();
    }

    private static PrintStream stream(ByteArrayOutputStream bytes) {
        return new PrintStream(bytes, true, StandardCharsets.UTF_8);
    }

    /** Names with bytes that follow from them. */
    private static class TestSource implements Source {
        private final List<String> names;

        TestSource(List<String> names) {
            this.names = names;
        }

        @Override
        public String description() {
            return "made up";
        }

        @Override
        public List<String> names() {
            return names;
        }

        @Override
        public byte[] read(String name) {
            byte[] bytes = new byte[500];
            new Random(name.hashCode()).nextBytes(bytes);
            return bytes;
        }
    }
}
