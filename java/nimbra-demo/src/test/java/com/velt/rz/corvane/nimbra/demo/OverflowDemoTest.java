package com.velt.rz.corvane.nimbra.demo;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.overflow.ValueStores;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.AbstractList;
import java.util.ArrayList;
import java.util.BitSet;
import java.util.List;
import java.util.Random;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class OverflowDemoTest {
    private static final int FILES = 64;

    @TempDir
    Path folder;

    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();

    // ---- The whole demo, in processes of their own: a process runs with overflow or without ----

    /** How a process ended, and all that it printed. */
    private record Ended(int status, String output) {}

    private Ended fork(Class<?> main, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(
                ProcessHandle.current().info().command().orElseThrow(),
                "-Xmx128m",
                "-Djava.io.tmpdir=" + Files.createDirectories(folder.resolve("temporary")),
                "-cp",
                System.getProperty("java.class.path"),
                main.getName()));
        command.addAll(List.of(arguments));
        String library = System.getProperty("nimbra.library.path");
        if (library != null) {
            command.add(1, "-Dnimbra.library.path=" + library);
        }
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        return new Ended(process.waitFor(), output);
    }

    @Test
    void moreThanMemoryHoldsGoesToDiskAndComesBack() throws Exception {
        Ended ended = fork(
                OverflowDemo.class,
                "--input",
                files().toString(),
                "--maximum",
                "12M",
                "--values",
                "30M",
                "--seconds",
                "1",
                "--threads",
                "3");
        assertEquals(0, ended.status(), ended::output);
        assertTrue(ended.output().contains("Every value agrees with the source"), ended::output);
        assertTrue(number(ended.output(), "values moved out") > 0, ended::output);
        assertTrue(number(ended.output(), "values moved back") > 0, ended::output);
        assertTrue(number(ended.output(), "times looked") > 0, ended::output);
        assertTrue(number(ended.output(), "most bytes in use seen") <= 12 << 20, ended::output);
        try (var left = Files.list(folder.resolve("temporary"))) {
            assertEquals(
                    List.of(),
                    left.map(file -> file.getFileName().toString())
                            .filter(name -> name.startsWith("nimbra-overflow"))
                            .toList());
        }
    }

    @Test
    void aSmallMaximumIsNamed() throws Exception {
        Path input = files();
        Files.write(input.resolve("a large file"), new byte[12 << 20]);
        Ended ended = fork(OverflowDemo.class, "--input", input.toString(), "--maximum", "8M", "--values", "1");
        assertEquals(2, ended.status(), ended::output);
        assertTrue(ended.output().contains("overflow-demo: the maximum of 8388608 bytes is too small"), ended::output);
    }

    /** One file changes after it was stored for the first time. */
    static final class Tampered {
        public static void main(String[] arguments) throws IOException {
            byte[] changed = new byte[10_000];
            changed[5] = 1;
            AtomicInteger asked = new AtomicInteger();
            List<byte[]> files = new AbstractList<>() {
                @Override
                public byte[] get(int file) {
                    return file == 3 && asked.getAndIncrement() > 0 ? changed : new byte[10_000];
                }

                @Override
                public int size() {
                    return FILES;
                }
            };
            List<String> names =
                    IntStream.range(0, FILES).mapToObj(i -> "name " + i).toList();
            try (CountingStore store = new CountingStore(ValueStores.open(Path.of(arguments[0]), 64 << 20))) {
                Nimbra nimbra =
                        Nimbra.builder().maximumBytes(8 << 20).overflowTo(store).start();
                Progress progress = new Progress(System.out, false);
                Contents contents = new Contents(names, files, 20);
                new OverflowJob(nimbra, store, contents, 2, 0, progress, System.out)
                        .run()
                        .forEach(System.out::println);
            }
        }
    }

    @Test
    void aChangedByteIsFound() throws Exception {
        Ended ended = fork(Tampered.class, folder.resolve("values").toString());
        assertEquals(0, ended.status(), ended::output);
        assertTrue(
                ended.output()
                        .contains("copy-0/name 3 differs from the source at byte 5; it has 10000 bytes of 10000\n"),
                ended::output);
        assertTrue(!ended.output().contains("Every value agrees"), ended::output);
    }

    // ---- Parts, in this process --------------------------------------------------------------

    @Test
    void wrongValuesAreTold() {
        Contents contents = new Contents(List.of("a", "b"), List.of(new byte[20], new byte[30]), 2);
        assertEquals("copy-1/b", contents.name(3));
        assertNull(contents.check(3, null));
        byte[] value = contents.value(3, 1, 1);
        assertEquals("was removed and is found", contents.check(3, value));
        contents.stored(3, 1, 1);
        assertNull(contents.check(3, value));
        assertEquals("is missing", contents.check(3, null));
        assertEquals("has the value of key 2", contents.check(3, contents.value(2, 1, 1)));
        assertEquals(
                "has generation 2 with file 1 instead of 1 with file 1", contents.check(3, contents.value(3, 1, 2)));
        assertEquals(
                "has generation 1 with file 0 instead of 1 with file 1", contents.check(3, contents.value(3, 0, 1)));
        assertEquals("has 5 bytes", contents.check(3, new byte[5]));
        value[Contents.HEADER + 29] ^= 1;
        assertEquals("differs from the source at byte 29; it has 30 bytes of 30", contents.check(3, value));
        assertEquals("differs from the source at byte 29; it has 30 bytes of 30", contents.checkBetween(3, value, 1));

        contents.removed(3, 5);
        assertEquals(5, contents.generation(3));
        assertNull(contents.checkBetween(3, null, 5));
        assertNull(contents.checkBetween(3, contents.value(3, 0, 6), 5));
        assertEquals("has generation 4, not from 5 to 6", contents.checkBetween(3, contents.value(3, 0, 4), 5));
        assertEquals("has generation 7, not from 5 to 6", contents.checkBetween(3, contents.value(3, 0, 7), 5));
    }

    @Test
    void everyPlaceIsVisitedOnce() {
        for (int count : new int[] {1, 2, 3, 10, 97, 1_000}) {
            int step = OverflowJob.stepThrough(count);
            BitSet visited = new BitSet();
            for (int i = 0, place = 0; i < count; i++, place = (place + step) % count) {
                visited.set(place);
            }
            assertEquals(count, visited.cardinality());
        }
    }

    @Test
    void findingsBeyondTenAreCounted() {
        Findings findings = new Findings();
        assertEquals(List.of(), findings.lines());
        IntStream.range(0, 13).forEach(i -> findings.add("wrong " + i));
        assertEquals(13, findings.count());
        assertEquals(11, findings.lines().size());
        assertEquals("and 3 more", findings.lines().get(10));
    }

    @Test
    void theStoreCountsPayload() throws IOException {
        try (CountingStore store = new CountingStore(ValueStores.open(folder.resolve("store"), 1 << 20))) {
            long position = store.write(ByteBuffer.allocate(700));
            store.read(position, 700, ByteBuffer.allocate(700));
            store.read(position, 700, ByteBuffer.allocate(700));
            store.free(position, 700);
            assertEquals(700, store.bytesWritten());
            assertEquals(1_400, store.bytesRead());
            assertEquals(0, store.bytesLive());
        }
    }

    @Test
    void badOptionsAreNamed() {
        assertNotDone("Unknown option: '--wrong'; --help lists the options", "--wrong");
        assertNotDone("--threads has to be at least 1, --seconds at least 0", "--threads", "0");
        assertNotDone("--threads has to be at least 1, --seconds at least 0", "--seconds", "-1");
        assertNotDone("folder missing does not exist", "--input", "missing");
        assertEquals(0, OverflowDemo.run(new String[] {"--help"}, stream(out), stream(err), false));
        assertTrue(out.toString().contains("--directory"), out.toString());
    }

    private void assertNotDone(String message, String... arguments) {
        err.reset();
        assertEquals(2, OverflowDemo.run(arguments, stream(out), stream(err), false));
        assertEquals("overflow-demo: " + message + "\n", err.toString());
    }

    private Path files() throws IOException {
        Path input = Files.createDirectory(folder.resolve("input"));
        Random random = new Random(1);
        for (int i = 0; i < FILES; i++) {
            byte[] bytes = new byte[random.nextInt(20_000)];
            random.nextBytes(bytes);
            Files.write(input.resolve("file " + i), bytes);
        }
        return input;
    }

    private static long number(String text, String name) {
        String line = text.lines()
                .filter(candidate -> candidate.startsWith(name))
                .findFirst()
                .orElseThrow();
        return Long.parseLong(line.substring(name.length()).strip().replace(",", ""));
    }

    private static PrintStream stream(ByteArrayOutputStream bytes) {
        return new PrintStream(bytes, true, StandardCharsets.UTF_8);
    }
}
