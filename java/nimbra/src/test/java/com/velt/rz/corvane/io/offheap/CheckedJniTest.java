package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Runs every test of this module again in a virtual machine that checks each JNI call, and reads all that it prints:
 * the checks write their warnings to the standard output and go on. The tests of disk overflow have processes, with
 * these checks, of their own.
 */
@Tag("child-jvm")
class CheckedJniTest {
    /** Every warning of the checks begins so; a fatal one ends the process as well. */
    private static final Pattern WARNING =
            Pattern.compile("WARNING in native method|WARNING: JNI|FATAL ERROR in native");

    private static final Pattern SUCCESSFUL = Pattern.compile("\\[\\s*(\\d+) tests successful\\s*]");

    private static List<String> warnings(String output) {
        return output.lines().filter(line -> WARNING.matcher(line).find()).collect(Collectors.toList());
    }

    /** The failed tests, which the launcher lists at its end; without such a list, the last lines. */
    private static String end(String output) {
        List<String> lines = output.lines().collect(Collectors.toList());
        int from = IntStream.range(0, lines.size())
                .filter(i -> lines.get(i).startsWith("Failures ("))
                .findFirst()
                .orElse(Math.max(0, lines.size() - 50));
        return String.join("\n", lines.subList(from, lines.size()));
    }

    @Test
    void noNativeDrawsAWarning() {
        ChildJvm.Result result = ChildJvm.run(
                List.of("-Xcheck:jni", "-Xmx512m", "-Dnimbra.log.level=0"),
                "org.junit.platform.console.ConsoleLauncher",
                "execute",
                "--disable-banner",
                "--disable-ansi-colors",
                "--details=summary",
                "--fail-if-no-tests",
                "--select-package=com.velt.rz.corvane",
                "--exclude-tag=child-jvm",
                "--exclude-tag=overflow",
                "--exclude-tag=lincheck");
        assertEquals(List.of(), warnings(result.output()), () -> end(result.output()));
        assertEquals(0, result.exitCode(), () -> end(result.output()));
        Matcher successful = SUCCESSFUL.matcher(result.output());
        assertTrue(successful.find(), () -> end(result.output()));
        assertTrue(Integer.parseInt(successful.group(1)) > 100, () -> end(result.output()));
    }

    @ParameterizedTest
    @ValueSource(
            strings = {
                "WARNING in native method: JNI call made without checking exceptions when required to from FindClass",
                "WARNING: JNI local refs: 33, exceeds capacity: 32",
                "FATAL ERROR in native method: Using JNIEnv in the wrong thread",
            })
    void warningsAreRecognised(String line) {
        assertEquals(List.of(line), warnings("before\n" + line + "\nafter\n"));
    }

    @Test
    void otherOutputIsNoWarning() {
        assertFalse(WARNING.matcher("WARNING: a record of some logger").find());
    }
}
