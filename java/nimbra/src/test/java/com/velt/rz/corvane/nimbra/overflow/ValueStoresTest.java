package com.velt.rz.corvane.nimbra.overflow;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.BufferedReader;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.io.TempDir;

@Timeout(60)
class ValueStoresTest {
    private static final long LIMIT = 1 << 20;

    @TempDir
    Path directory;

    @Test
    void createsTheDirectoryAndLeavesOnlyTheLockFile() throws IOException {
        Path deep = directory.resolve("a/b");
        try (ValueStore store = ValueStores.open(deep, LIMIT)) {
            store.write(ByteBuffer.allocate(10));
            assertEquals(1, Values.files(deep).size());
            if (Files.getFileStore(deep).supportsFileAttributeView("posix")) {
                assertEquals(
                        "rw-------",
                        PosixFilePermissions.toString(
                                Files.getPosixFilePermissions(Values.files(deep).get(0))));
            }
        }
        try (var files = Files.list(deep)) {
            assertEquals(
                    "[" + DirectoryLock.FILE_NAME + "]",
                    files.map(Path::getFileName).toList().toString());
        }
    }

    @Test
    void deletesLeftOversAndNothingElse() throws IOException {
        Path leftOver = Files.createFile(directory.resolve("nimbra-overflow-12.values"));
        Path[] foreign = {
            Files.createFile(directory.resolve("nimbra-overflow-x.values")),
            Files.createFile(directory.resolve("nimbra-overflow-1.values.old")),
            Files.createFile(directory.resolve("my-nimbra-overflow-1.values")),
            Files.createDirectory(directory.resolve("nimbra-overflow-13.values")),
        };
        ValueStores.open(directory, LIMIT).close();
        assertFalse(Files.exists(leftOver));
        for (Path file : foreign) {
            assertTrue(Files.exists(file), file.toString());
        }
    }

    @Test
    void refusesADirectoryInUse() throws IOException {
        Path link =
                Files.createSymbolicLink(directory.resolve("link"), Files.createDirectory(directory.resolve("real")));
        try (ValueStore store = ValueStores.open(directory.resolve("real"), LIMIT)) {
            long position = store.write(ByteBuffer.allocate(10));
            String text = assertThrows(IOException.class, () -> ValueStores.open(link, LIMIT))
                    .getMessage();
            assertEquals(link.toRealPath() + " is in use by another value store of this process", text);
            Values.read(store, position, 10);
        }
        ValueStores.open(link, LIMIT).close();
    }

    @Test
    void refusesWhatCannotWork() throws IOException {
        String text = assertThrows(IllegalArgumentException.class, () -> ValueStores.open(directory, 262_143))
                .getMessage();
        assertEquals("the limit of a value store is at least 262144 bytes, not 262143", text);
        Path file = Files.createFile(directory.resolve("file"));
        assertThrows(FileAlreadyExistsException.class, () -> ValueStores.open(file, LIMIT));
        // A directory that could not be opened is not left locked.
        Path stale = Files.createDirectory(directory.resolve(DirectoryLock.FILE_NAME));
        assertThrows(IOException.class, () -> ValueStores.open(directory, LIMIT));
        Files.delete(stale);
        ValueStores.open(directory, LIMIT).close();
    }

    /** Another process has the directory until it is killed; what it leaves is removed. */
    @Test
    @Tag("child-jvm")
    void takesOverFromAKilledProcess() throws Exception {
        Process other = new ProcessBuilder(
                        Path.of(System.getProperty("java.home"), "bin", "java").toString(),
                        "-Xmx32m",
                        "-cp",
                        System.getProperty("java.class.path"),
                        Holder.class.getName(),
                        directory.toString())
                .redirectError(ProcessBuilder.Redirect.INHERIT)
                .start();
        try (BufferedReader output = other.inputReader()) {
            assertEquals("stored", output.readLine());
            String text = assertThrows(IOException.class, () -> ValueStores.open(directory, LIMIT))
                    .getMessage();
            assertEquals(directory.toRealPath() + " is in use by a value store of another process", text);
            assertEquals(1, Values.files(directory).size());
        } finally {
            other.destroyForcibly().waitFor();
        }
        assertEquals(1, Values.files(directory).size());
        try (ValueStore store = ValueStores.open(directory, LIMIT)) {
            assertEquals(0, Values.files(directory).size());
            Values.read(store, store.write(ByteBuffer.allocate(10)), 10);
        }
    }

    /** Stores a value and keeps the store open until its process ends. */
    static final class Holder {
        public static void main(String[] arguments) throws IOException {
            ValueStore store = ValueStores.open(Path.of(arguments[0]), LIMIT);
            store.write(ByteBuffer.allocate(1000));
            System.out.println("stored");
            System.in.read();
        }
    }
}
