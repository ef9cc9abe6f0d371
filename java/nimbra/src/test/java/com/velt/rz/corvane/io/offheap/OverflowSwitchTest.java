package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import com.velt.rz.corvane.io.offheap.child.SwitchProbe;
import java.io.File;
import java.io.IOException;
import java.net.URISyntaxException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Disk overflow is switched on and off by the start, in processes of their own: records change their size. */
@Tag("child-jvm")
class OverflowSwitchTest {
    /** The logger's own lines are not wanted beside those of the probe. */
    private static final String QUIET = "-Djava.util.logging.config.file=none";

    private static final String OFF = String.join(
            "\n",
            "record of 88 bytes",
            "pins left=3",
            "found=true",
            "blocks left=0",
            "error null OUT_OF_MEMORY_KTZAR7930",
            "refused");

    @Test
    void theSwitchChoosesRecordsAndLimits() {
        ChildJvm.Result result = ChildJvm.run(List.of("-Xcheck:jni", QUIET), SwitchProbe.class.getName());
        assertEquals(
                String.join(
                        "\n",
                        "info null OVERFLOW_ACTIVATED_KTZAR7932",
                        "start true=true",
                        "record of 232 bytes",
                        "pins left=3",
                        "found=true",
                        "blocks left=0",
                        "error null OUT_OF_MEMORY_KTZAR7930",
                        "refused by NotEnoughResourcesException",
                        "start false=true",
                        OFF),
                printed(result));
        assertEquals(0, result.exitCode());
    }

    @ParameterizedTest
    @ValueSource(strings = {"NOFStruct", "Overflow"})
    void withoutItsClassesTheStartFailsAndSaysSo(String missing, @TempDir Path classes)
            throws IOException, URISyntaxException {
        Path tests = location(OverflowSwitchTest.class);
        copyWithout(missing, location(OffHeapManager.class), classes);
        ChildJvm.Result result = ChildJvm.runRaw(
                List.of("-Xcheck:jni", QUIET, "-cp", tests + File.pathSeparator + classes),
                SwitchProbe.class.getName());
        assertTrue(result.output().contains("java.lang.NoClassDefFoundError: "), result::output);
        assertTrue(result.output().contains("overflow/" + missing + "\n"), result::output);
        assertEquals(
                String.join(
                        "\n",
                        "errorGeneric OVERFLOW_GENERIC_ERROR_KTZAR7931 overflow error during initializing",
                        "start true=false",
                        OFF,
                        "start false=true",
                        OFF),
                printed(result));
        assertEquals(0, result.exitCode(), result::output);
    }

    /** What the probe itself has printed, without the description of exceptions. */
    private static String printed(ChildJvm.Result result) {
        return result.output()
                .lines()
                .filter(line -> !line.startsWith("Exception in thread")
                        && !line.startsWith("Caused by: ")
                        && !line.startsWith("\t"))
                .collect(Collectors.joining("\n"));
    }

    private static Path location(Class<?> type) throws URISyntaxException {
        return Path.of(type.getProtectionDomain().getCodeSource().getLocation().toURI());
    }

    private static void copyWithout(String missing, Path from, Path to) throws IOException {
        try (Stream<Path> files = Files.walk(from)) {
            for (Path file : files.toList()) {
                if (!file.endsWith(Path.of("overflow", missing + ".class")) && !file.equals(from)) {
                    Files.copy(file, to.resolve(from.relativize(file)));
                }
            }
        }
    }
}
