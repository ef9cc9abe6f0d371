package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.io.IOException;
import java.net.URISyntaxException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Runs every test class with the tag "overflow" in a virtual machine of its own that checks each JNI call: disk overflow
 * is on from a runtime's start or never, and a store that one class has closed is no use to the next.
 */
@Tag("child-jvm")
class OverflowSuiteTest {
    private static final String TAG = "overflow";
    private static final Pattern SUCCESSFUL = Pattern.compile("\\[\\s*([1-9]\\d*) tests successful\\s*]");
    private static final Pattern WARNING =
            Pattern.compile("WARNING in native method|WARNING: JNI|FATAL ERROR in native");

    static List<String> classes() throws IOException, URISyntaxException {
        Path root = Path.of(OverflowSuiteTest.class
                .getProtectionDomain()
                .getCodeSource()
                .getLocation()
                .toURI());
        try (Stream<Path> files = Files.walk(root)) {
            return files.map(file -> root.relativize(file).toString())
                    .filter(file -> file.endsWith("Test.class"))
                    .map(file ->
                            file.substring(0, file.length() - ".class".length()).replace('/', '.'))
                    .filter(OverflowSuiteTest::isTagged)
                    .sorted()
                    .toList();
        }
    }

    private static boolean isTagged(String name) {
        try {
            // Not initialised: that would start things here.
            Class<?> type = Class.forName(name, false, OverflowSuiteTest.class.getClassLoader());
            return Arrays.stream(type.getAnnotationsByType(Tag.class))
                    .anyMatch(tag -> tag.value().equals(TAG));
        } catch (ClassNotFoundException e) {
            throw new IllegalStateException(e);
        }
    }

    @ParameterizedTest
    @MethodSource("classes")
    void inAProcessOfItsOwn(String name) {
        ChildJvm.Result result = ChildJvm.run(
                List.of("-Xcheck:jni", "-Xmx128m", "-Dnimbra.log.level=0", "-Djava.util.logging.config.file=none"),
                "org.junit.platform.console.ConsoleLauncher",
                "execute",
                "--disable-banner",
                "--disable-ansi-colors",
                "--details=tree",
                "--select-class=" + name);
        assertEquals(0, result.exitCode(), result::output);
        assertFalse(WARNING.matcher(result.output()).find(), result::output);
        Matcher successful = SUCCESSFUL.matcher(result.output());
        assertTrue(successful.find(), result::output);
    }
}
