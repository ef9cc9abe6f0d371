package com.velt.rz.corvane.io.offheap.util;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import com.velt.rz.corvane.io.offheap.child.LoadProbe;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Where the library is looked for, in child virtual machines: a process loads it only once. */
@Tag("child-jvm")
class NativeLoaderTest {
    private static final String PROBE = LoadProbe.class.getName();
    private static final String VERSION = "version [rb52718.11230907]";
    private static final String ENTRY = "/META-INF/native/" + NativeLoader.platform() + "/libnimbra.so";

    @TempDir
    Path folder;

    /** The classes under test without the library that their jar carries. */
    private Path classesWithoutLibrary() throws IOException {
        Path target = folder.resolve("classes");
        try (Stream<Path> sources = Files.walk(ChildJvm.mainClasses())) {
            for (Path source : (Iterable<Path>) sources::iterator) {
                Path relative = ChildJvm.mainClasses().relativize(source);
                if (!relative.startsWith("META-INF")) {
                    Files.copy(source, target.resolve(relative.toString()));
                }
            }
        }
        return target;
    }

    private ChildJvm.Result probeWithoutLibrary(String... options) throws IOException {
        List<String> all =
                new ArrayList<>(List.of("-cp", ChildJvm.path(classesWithoutLibrary(), ChildJvm.testClasses())));
        all.addAll(List.of(options));
        return ChildJvm.runRaw(all, PROBE);
    }

    private static void assertContains(String part, ChildJvm.Result result) {
        assertTrue(result.output().contains(part), () -> "no \"" + part + "\" in\n" + result.output());
    }

    private static void assertLacks(String part, ChildJvm.Result result) {
        assertFalse(result.output().contains(part), () -> "\"" + part + "\" in\n" + result.output());
    }

    @ParameterizedTest
    @CsvSource({
        "Linux, amd64, linux-x86_64",
        "Linux, x86_64, linux-x86_64",
        "Linux, x64, linux-x86_64",
        "Linux, aarch64, linux-aarch64",
        "Linux, arm64, linux-aarch64",
        "Linux, riscv64, linux-riscv64",
        "Mac OS X, aarch64, mac_os_x-aarch64",
    })
    void platformsAreNamedBySystemAndArchitecture(String os, String arch, String platform) {
        assertEquals(platform, NativeLoader.platform(os, arch));
    }

    @Test
    void theJarCarriesTheLibraryAndNothingIsLeftUnpacked() throws IOException {
        Path temporary = Files.createDirectory(folder.resolve("tmp"));
        ChildJvm.Result result = ChildJvm.run(List.of("-Djava.library.path=", "-Djava.io.tmpdir=" + temporary), PROBE);
        assertContains(VERSION, result);
        assertContains("origin jar entry " + ENTRY, result);
        assertContains("module null", result);
        try (Stream<Path> left = Files.list(temporary)) {
            assertEquals(List.of(), left.toList());
        }
    }

    @Test
    void aNamedModuleLoadsItsLibrary() {
        ChildJvm.Result result = ChildJvm.runRaw(
                List.of(
                        "-Djava.library.path=",
                        "--module-path",
                        ChildJvm.mainClasses().toString(),
                        "--add-modules",
                        "com.velt.rz.corvane.nimbra",
                        "-cp",
                        ChildJvm.testClasses().toString()),
                PROBE);
        assertContains("module com.velt.rz.corvane.nimbra", result);
        assertContains(VERSION, result);
        assertContains("origin jar entry " + ENTRY, result);
    }

    @Test
    void threadsLoadItTogether() {
        ChildJvm.Result result = ChildJvm.run(List.of(), PROBE, "8");
        assertEquals(8, result.output().lines().filter("loaded"::equals).count(), result::output);
        assertContains(VERSION, result);
    }

    @Test
    void aNamedFileIsLoaded() throws IOException {
        Path copy = folder.resolve("renamed.so");
        Files.copy(ChildJvm.library(), copy);
        ChildJvm.Result result = probeWithoutLibrary("-Dnimbra.library.path=" + copy);
        assertContains(VERSION, result);
        assertContains("origin " + copy, result);
    }

    @Test
    void aNamedFileThatIsMissingIsAnErrorAtOnce() {
        Path missing = folder.resolve("missing.so");
        ChildJvm.Result result = ChildJvm.run(
                List.of(
                        "-Dnimbra.library.path=" + missing,
                        "-Djava.library.path=" + ChildJvm.library().getParent()),
                PROBE);
        assertContains("failed The Nimbra library cannot be loaded on " + NativeLoader.platform(), result);
        assertContains("system property nimbra.library.path: " + missing + ": no such file", result);
        assertLacks("java.library.path:", result);
        assertLacks("jar entry", result);
        assertLacks("version", result);
    }

    @Test
    void aNamedFolderIsNoLibrary() {
        ChildJvm.Result result = ChildJvm.run(List.of("-Dnimbra.library.path=" + folder), PROBE);
        assertContains("system property nimbra.library.path: " + folder + ": not a regular file", result);
        assertLacks("version", result);
    }

    @Test
    void aNamedFileThatIsNoLibraryIsAnErrorAtOnce() throws IOException {
        Path text = Files.writeString(folder.resolve("text.so"), "not a library");
        ChildJvm.Result result = ChildJvm.run(List.of("-Dnimbra.library.path=" + text), PROBE);
        assertContains("system property nimbra.library.path: " + text + ": ", result);
        assertContains("file too short", result);
        assertLacks("jar entry", result);
    }

    @Test
    void theLibraryPathComesBeforeTheJar() throws IOException {
        Path empty = Files.createDirectory(folder.resolve("empty"));
        Path broken = Files.createDirectory(folder.resolve("broken"));
        Files.writeString(broken.resolve("libnimbra.so"), "not a library");
        Path good = Files.createDirectory(folder.resolve("good"));
        Path library = good.resolve("libnimbra.so");
        Files.copy(ChildJvm.library(), library);
        ChildJvm.Result result =
                ChildJvm.run(List.of("-Djava.library.path=" + ChildJvm.path(empty, broken, good)), PROBE);
        assertContains(VERSION, result);
        assertContains("origin " + library, result);
    }

    @Test
    void aFailureNamesEveryPlaceWithItsReason() throws IOException {
        Path empty = Files.createDirectory(folder.resolve("empty"));
        Path broken = Files.createDirectory(folder.resolve("broken"));
        Files.writeString(broken.resolve("libnimbra.so"), "not a library");
        ChildJvm.Result result = probeWithoutLibrary("-Djava.library.path=" + ChildJvm.path(empty, broken));
        assertContains("failed The Nimbra library cannot be loaded on " + NativeLoader.platform(), result);
        assertContains("os.arch=" + System.getProperty("os.arch"), result);
        assertContains("java.library.path: " + empty.resolve("libnimbra.so") + ": no such file", result);
        assertContains("java.library.path: " + broken.resolve("libnimbra.so") + ": ", result);
        assertContains("file too short", result);
        assertContains("jar entry " + ENTRY + ": no such entry", result);
        assertContains("Set the system property nimbra.library.path to the path of the library file", result);
    }

    @Test
    void anEmptyLibraryPathIsNamed() throws IOException {
        ChildJvm.Result result = probeWithoutLibrary("-Djava.library.path=");
        assertContains("java.library.path: empty", result);
    }

    @Test
    void aPlatformWithoutLibraryIsNamed() {
        ChildJvm.Result result = ChildJvm.run(List.of("-Dos.arch=riscv64", "-Djava.library.path="), PROBE);
        assertContains("cannot be loaded on linux-riscv64", result);
        assertContains("jar entry /META-INF/native/linux-riscv64/libnimbra.so: no such entry", result);
    }

    @Test
    void aTemporaryFolderThatCannotBeUsedIsNamed() {
        Path missing = folder.resolve("no-tmp");
        ChildJvm.Result result = ChildJvm.run(List.of("-Djava.io.tmpdir=" + missing, "-Djava.library.path="), PROBE);
        assertContains("jar entry " + ENTRY + ": cannot be unpacked below " + missing, result);
    }
}
