package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** A soak of seconds, and whether a soak finds what it is there to find. */
@Tag("child-jvm")
class SoakTest {
    private static ChildJvm.Result soak(Path directory, String seconds, String... properties) {
        List<String> options = new ArrayList<>(List.of(
                "-Xcheck:jni",
                "-Xms128m",
                "-Xmx128m",
                "-XX:+AlwaysPreTouch",
                "-XX:+UseSerialGC",
                // So little that values go to disk at once, and that it stays below the margin even where
                // the native allocator has not given its pages back yet.
                "-Dnimbra.soak.maximum=16",
                // After so short a warm-up the virtual machine itself still grows.
                "-Dnimbra.soak.margin=48",
                "-Dnimbra.log.level=0"));
        options.addAll(List.of(properties));
        return ChildJvm.run(options, Soak.class.getName(), directory.toString(), seconds);
    }

    @Test
    void everythingReturnsToItsStart(@TempDir Path directory) {
        ChildJvm.Result result = soak(directory, "8", "-Dnimbra.soak.settle=12");
        assertEquals(0, result.exitCode(), result::output);
        assertTrue(result.output().endsWith("passed\n"), result::output);
        assertFalse(result.output().contains("WARNING in native method"), result::output);
    }

    @Test
    void aForgottenPinIsFound(@TempDir Path directory) {
        ChildJvm.Result result = soak(directory, "3", "-Dnimbra.soak.settle=1", "-Dnimbra.soak.plant=pin");
        assertEquals(1, result.exitCode(), result::output);
        assertTrue(result.output().contains("live blocks: not as at the start"), result::output);
    }

    @Test
    void heldNativeMemoryIsFound(@TempDir Path directory) {
        // Less is allowed than elsewhere: what the virtual machine gives back meanwhile hides a part of it.
        ChildJvm.Result result =
                soak(directory, "3", "-Dnimbra.soak.settle=1", "-Dnimbra.soak.plant=memory", "-Dnimbra.soak.margin=8");
        assertEquals(1, result.exitCode(), result::output);
        assertTrue(result.output().contains("AssertionError: resident memory"), result::output);
    }
}
