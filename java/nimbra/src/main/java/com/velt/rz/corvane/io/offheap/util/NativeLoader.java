package com.velt.rz.corvane.io.offheap.util;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * Loads the native library once for this class loader. Places, in this order: the file that the system property {@value
 * #PATH_PROPERTY} names; the directories of {@code java.library.path}; the copy inside the jar, which is unpacked to a
 * private file and deleted as soon as it is mapped.
 *
 * <p>A named file that cannot be loaded is an error at once. The other places are tried in turn, and when all have
 * failed the error names each of them with its reason.
 *
 * <p>A virtual machine lets only one class loader have a library file. Where a second one loads these classes again, it
 * gets a copy of its own out of the jar, with limits, maps and figures of its own: together the copies may hold the sum
 * of their maxima. With {@value #PATH_PROPERTY} there is only the one file, and the second class loader gets an error that says so;
 * a file in {@code java.library.path} is passed over for the copy in the jar.
 *
 * <p>A class loader whose runtime was started is never collected, since native code refers to its classes. One that has
 * only loaded the library can be; the library's code, less than two megabytes, stays mapped for threads that have been
 * in it.
 *
 * <p>Thread safe. After a failure the next call tries again.
 */
public final class NativeLoader {
    /** System property: path of the library file, instead of every other place. */
    public static final String PATH_PROPERTY = "nimbra.library.path";

    private static final String LIBRARY = "nimbra";

    // Guarded by the class lock for writing; non-null means loaded.
    private static volatile String origin;

    private NativeLoader() {}

    /**
     * Loads the library unless it is loaded already.
     *
     * @throws UnsatisfiedLinkError when no place has a library that can be loaded; the message names every place tried
     */
    public static void load() {
        if (origin == null) {
            loadOnce();
        }
    }

    /** Returns where the library was loaded from, for diagnostics: a file path or the name of a jar entry. */
    public static String origin() {
        load();
        return origin;
    }

    /** Returns operating system and architecture as the jar's folders are named, for example {@code linux-x86_64}. */
    public static String platform() {
        return platform(System.getProperty("os.name", "unknown"), System.getProperty("os.arch", "unknown"));
    }

    static String platform(String osName, String osArch) {
        String os = osName.toLowerCase(Locale.ROOT).replace(' ', '_');
        String arch = osArch.toLowerCase(Locale.ROOT);
        switch (arch) {
            case "amd64":
            case "x64":
            case "x86_64":
                arch = "x86_64";
                break;
            case "arm64":
            case "aarch64":
                arch = "aarch64";
                break;
            default:
                break;
        }
        return os + "-" + arch;
    }

    private static synchronized void loadOnce() {
        if (origin != null) {
            return;
        }
        List<String> failures = new ArrayList<>();
        String named = System.getProperty(PATH_PROPERTY);
        if (named != null) {
            origin = fromFile(new File(named), "system property " + PATH_PROPERTY, failures);
        } else {
            origin = fromLibraryPath(failures);
            if (origin == null) {
                origin = fromJar(failures);
            }
        }
        if (origin == null) {
            throw new UnsatisfiedLinkError(describe(failures));
        }
    }

    private static String describe(List<String> failures) {
        StringBuilder text = new StringBuilder("The Nimbra library cannot be loaded on ")
                .append(platform())
                .append(" (os.name=")
                .append(System.getProperty("os.name"))
                .append(", os.arch=")
                .append(System.getProperty("os.arch"))
                .append("). Tried:");
        for (String failure : failures) {
            text.append(System.lineSeparator()).append("  ").append(failure);
        }
        return text.append(System.lineSeparator())
                .append("Set the system property ")
                .append(PATH_PROPERTY)
                .append(" to the path of the library file to use that file and no other.")
                .toString();
    }

    private static String fromFile(File file, String place, List<String> failures) {
        String path = file.getAbsolutePath();
        if (!file.isFile()) {
            failures.add(place + ": " + path + ": " + (file.exists() ? "not a regular file" : "no such file"));
            return null;
        }
        try {
            System.load(path);
            return path;
        } catch (UnsatisfiedLinkError | SecurityException e) {
            failures.add(place + ": " + path + ": " + e.getMessage());
            return null;
        }
    }

    // The directories are probed here rather than by System.loadLibrary, whose message names only the whole path.
    private static String fromLibraryPath(List<String> failures) {
        String path = System.getProperty("java.library.path", "");
        if (path.isEmpty()) {
            failures.add("java.library.path: empty");
            return null;
        }
        for (String directory : path.split(File.pathSeparator)) {
            File file = new File(directory.isEmpty() ? "." : directory, System.mapLibraryName(LIBRARY));
            String loaded = fromFile(file, "java.library.path", failures);
            if (loaded != null) {
                return loaded;
            }
        }
        return null;
    }

    private static String fromJar(List<String> failures) {
        String resource = "/META-INF/native/" + platform() + "/" + System.mapLibraryName(LIBRARY);
        String place = "jar entry " + resource;
        try (InputStream in = NativeLoader.class.getResourceAsStream(resource)) {
            if (in == null) {
                failures.add(place + ": no such entry");
                return null;
            }
            return fromStream(in, place, failures);
        } catch (IOException | UnsupportedOperationException e) {
            failures.add(place + ": cannot be unpacked below " + System.getProperty("java.io.tmpdir") + ": " + e);
            return null;
        }
    }

    private static String fromStream(InputStream in, String place, List<String> failures) throws IOException {
        Path directory = Files.createTempDirectory(
                "nimbra-", PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------")));
        Path file = directory.resolve(System.mapLibraryName(LIBRARY));
        try {
            Files.createFile(file, PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------")));
            Files.copy(in, file, StandardCopyOption.REPLACE_EXISTING);
            return fromFile(file.toFile(), place, failures) == null ? null : place;
        } finally {
            // The mapping outlives the name, so nothing is left behind however the process ends.
            Files.deleteIfExists(file);
            Files.deleteIfExists(directory);
        }
    }
}
