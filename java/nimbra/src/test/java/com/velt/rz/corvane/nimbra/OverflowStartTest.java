package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import com.velt.rz.corvane.nimbra.overflow.ValueStores;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Starting with disk overflow. {@link OverflowStartProbe} has what needs a process of its own. */
class OverflowStartTest {
    @TempDir
    private Path directory;

    private void run(String check, Path target) {
        ChildJvm.Result result = ChildJvm.run(
                List.of("-Xcheck:jni", "-Xmx64m", "-Djava.util.logging.config.file=none"),
                OverflowStartProbe.class.getName(),
                check,
                target.toString());
        assertEquals(0, result.exitCode(), result::output);
        assertTrue(result.output().contains("passed " + check), result::output);
        assertFalse(result.output().contains("WARNING in native method"), result::output);
    }

    @Tag("child-jvm")
    @ParameterizedTest
    @ValueSource(strings = {"twice", "without", "refused", "levels"})
    void inAProcessOfItsOwn(String check) throws IOException {
        run(check, directory.resolve("new/overflow"));
        if (!check.equals("without")) {
            try (Stream<Path> left = Files.list(directory.resolve("new/overflow"))) {
                assertEquals(
                        List.of("nimbra-overflow.lock"),
                        left.map(file -> file.getFileName().toString()).toList());
            }
        }
    }

    @Tag("child-jvm")
    @Test
    void aDirectoryOfAnotherProcess() throws IOException {
        try (ValueStore store = ValueStores.open(directory, 1 << 20)) {
            run("locked", directory);
            assertEquals(0, store.bytesLive());
        }
        run("twice", directory);
    }

    @Tag("child-jvm")
    @Test
    void aFileInPlaceOfTheDirectory() throws IOException {
        run("unusable", Files.createFile(directory.resolve("file")));
    }

    @Test
    void badArgumentsAreNamed() {
        Nimbra.Builder builder = Nimbra.builder();
        for (long bad : new long[] {262_143, 0, -1, Long.MIN_VALUE}) {
            assertEquals(
                    "the disk limit is " + bad + ", has to be at least 262144",
                    assertThrows(IllegalArgumentException.class, () -> builder.overflowTo(directory, bad))
                            .getMessage());
        }
        assertEquals(
                "directory",
                assertThrows(NullPointerException.class, () -> builder.overflowTo(null, 1 << 20))
                        .getMessage());
        assertEquals(
                "store",
                assertThrows(NullPointerException.class, () -> builder.overflowTo(null))
                        .getMessage());
    }

    @Test
    void aRuntimeWithoutOverflowSaysSo() {
        Nimbra nimbra = TestRuntime.start();
        assertFalse(nimbra.overflows());
        assertEquals(
                "Nimbra runs without disk overflow",
                assertThrows(IllegalStateException.class, nimbra::overflowStats).getMessage());
    }

    @Test
    void theRatioOfHitsInMemory() {
        assertEquals(1, stats(0, 0).memoryHitRatio());
        assertEquals(0.75, stats(3, 1).memoryHitRatio());
        assertEquals(0, stats(0, 7).memoryHitRatio());
    }

    private static OverflowStats stats(long memoryHits, long diskHits) {
        return new OverflowStats(0, 0, 0, memoryHits, diskHits, 0, 0, 0, 0, 0, 0);
    }
}
