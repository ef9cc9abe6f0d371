package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.OffHeapMap;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.net.URI;
import java.nio.file.AccessDeniedException;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.List;
import java.util.function.Predicate;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/** The regular files below a folder of any file system. Links are not followed. */
final class FileSource implements Source {
    private final String description;
    private final Path folder;
    private final List<String> names;

    private FileSource(String description, Path folder, Predicate<Path> wanted) {
        this.description = description;
        this.folder = folder;
        try (Stream<Path> files = Files.walk(folder)) {
            names = files.filter(file -> Files.isRegularFile(file, LinkOption.NOFOLLOW_LINKS))
                    .filter(wanted)
                    .map(file -> folder.relativize(file).toString())
                    .sorted()
                    .collect(Collectors.toUnmodifiableList());
        } catch (UncheckedIOException e) {
            throw unreadable(folder.toString(), e.getCause());
        } catch (IOException e) {
            throw unreadable(folder.toString(), e);
        }
        if (names.isEmpty()) {
            throw new SourceException("there is no file in " + folder, null);
        }
    }

    /** Every class file of the JDK that runs this program. */
    static FileSource runtimeImage() {
        Path modules = FileSystems.getFileSystem(URI.create("jrt:/")).getPath("/modules");
        return new FileSource("class files of Java " + Runtime.version(), modules, file -> file.toString()
                .endsWith(".class"));
    }

    /**
     * Every regular file below a folder.
     *
     * @throws SourceException when it is missing, is no folder, is empty or cannot be listed
     */
    static FileSource folder(Path folder) {
        if (!Files.exists(folder)) {
            throw new SourceException("folder " + folder + " does not exist", null);
        }
        if (!Files.isDirectory(folder)) {
            throw new SourceException(folder + " is not a folder", null);
        }
        return new FileSource("files of " + folder, folder, file -> true);
    }

    @Override
    public String description() {
        return description;
    }

    @Override
    public List<String> names() {
        return names;
    }

    @Override
    public byte[] read(String name) {
        Path file = folder.resolve(name);
        try {
            long length = Files.size(file);
            if (length > OffHeapMap.MAX_VALUE_LENGTH) {
                throw new SourceException(
                        "file " + file + " has " + length + " bytes, a value at most " + OffHeapMap.MAX_VALUE_LENGTH,
                        null);
            }
            return Files.readAllBytes(file);
        } catch (IOException e) {
            throw unreadable("file " + file, e);
        }
    }

    private static SourceException unreadable(String what, IOException cause) {
        String why = cause.getMessage();
        if (cause instanceof AccessDeniedException) {
            why = "access to " + cause.getMessage() + " is denied";
        } else if (cause instanceof NoSuchFileException) {
            why = cause.getMessage() + " does not exist";
        }
        return new SourceException(what + " cannot be read: " + why, cause);
    }
}
