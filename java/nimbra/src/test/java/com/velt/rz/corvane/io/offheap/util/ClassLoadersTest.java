package com.velt.rz.corvane.io.offheap.util;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import com.velt.rz.corvane.io.offheap.child.LoadersProbe;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/** Several class loaders in one process, and class loaders that go. */
@Tag("child-jvm")
class ClassLoadersTest {
    private static List<String> probe(String what, String... options) {
        List<String> all = new ArrayList<>(
                List.of("-cp", ChildJvm.testClasses().toString(), "-Xcheck:jni", "-Xmx128m", "-Dnimbra.log.level=0"));
        all.addAll(List.of(options));
        ChildJvm.Result result = ChildJvm.runRaw(
                all, LoadersProbe.class.getName(), what, ChildJvm.mainClasses().toString());
        assertEquals(0, result.exitCode(), result::output);
        assertFalse(result.output().contains("WARNING in native method"), result::output);
        List<String> lines = result.output().lines().toList();
        assertTrue(lines.contains("end"), result::output);
        return lines;
    }

    private static String line(List<String> lines, String start) {
        Optional<String> found =
                lines.stream().filter(line -> line.startsWith(start)).findFirst();
        return found.orElseThrow(() -> new AssertionError("no \"" + start + "\" in " + lines));
    }

    @Test
    void aSecondLoaderGetsACopyOfItsOwn() {
        List<String> lines = probe("two", "-Djava.library.path=");
        assertTrue(line(lines, "first Nimbra").contains("maximumBytes=67108864"), lines::toString);
        assertTrue(line(lines, "second Nimbra").contains("blocks=0,"), lines::toString);
        assertTrue(line(lines, "second Nimbra").contains("maximumBytes=33554432"), lines::toString);
        assertEquals("second finds null", line(lines, "second finds"));
        assertEquals("first finds 2", line(lines, "first finds"));
    }

    @Test
    void aSecondLoaderIsRefusedTheNamedFile() {
        List<String> lines = probe("two", "-D" + NativeLoader.PATH_PROPERTY + "=" + ChildJvm.library());
        assertTrue(line(lines, "second").contains("UnsatisfiedLinkError"), lines::toString);
        assertTrue(line(lines, "  system property").contains("already loaded in another classloader"), lines::toString);
        assertEquals("first finds 2", line(lines, "first finds"));
    }

    @Test
    void aSecondLoaderPassesOverTheLibraryPath() {
        List<String> lines =
                probe("two", "-Djava.library.path=" + ChildJvm.library().getParent());
        assertTrue(line(lines, "second Nimbra").contains("blocks=0,"), lines::toString);
        assertEquals("first finds 2", line(lines, "first finds"));
    }

    /** The allocator's destructor of a thread's data was called where the library had been. */
    @Test
    void aThreadThatEndsAfterTheLoaderIsGoneDoesNotCrash() {
        List<String> lines = probe("loaded", "-Djava.library.path=");
        assertTrue(lines.contains("collected"), lines::toString);
    }

    @Test
    void theLoaderOfAStartedRuntimeIsKept() {
        List<String> lines = probe("used", "-Djava.library.path=");
        assertTrue(lines.contains("kept"), lines::toString);
    }
}
