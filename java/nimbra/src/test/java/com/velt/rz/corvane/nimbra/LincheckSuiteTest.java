package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Runs the classes with the tag "lincheck", each in a virtual machine of its own: Lincheck attaches an agent to its
 * process, whose own native calls -Xcheck:jni warns about, and one of the classes needs disk overflow.
 */
@Tag("child-jvm")
class LincheckSuiteTest {
    private static final Pattern SUCCESSFUL = Pattern.compile("\\[\\s*([1-9]\\d*) tests successful\\s*]");

    @ParameterizedTest
    @ValueSource(classes = {LinearizabilityTest.class, OverflowLinearizabilityTest.class})
    void inAProcessOfItsOwn(Class<?> type) {
        String iterations = System.getProperty("nimbra.lincheck.iterations", "8");
        ChildJvm.Result result = ChildJvm.run(
                List.of("-Xmx256m", "-Dnimbra.log.level=0", "-Dnimbra.lincheck.iterations=" + iterations),
                "org.junit.platform.console.ConsoleLauncher",
                "execute",
                "--disable-banner",
                "--disable-ansi-colors",
                "--details=tree",
                "--select-class=" + type.getName());
        assertEquals(0, result.exitCode(), result::output);
        Matcher successful = SUCCESSFUL.matcher(result.output());
        assertTrue(successful.find(), result::output);
        System.out.println(result.output());
    }
}
