package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import com.velt.rz.corvane.io.offheap.child.FreshProbe;
import com.velt.rz.corvane.io.offheap.child.LevelProbe;
import java.util.List;
import java.util.stream.Collectors;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** What only a new process can show: the library before its initialisation, and the configured level. */
@Tag("child-jvm")
class FreshProcessTest {
    private static final String REFUSED =
            "[malloc_nb] Allocation by the Nimbra library failed. All available memory is used.";

    /**
     * A refused map raises a second exception on top of the allocator's; the library then has the first one described
     * on the standard error, and lets it win.
     */
    @Test
    void beforeItsInitialisationTheLibraryRefusesCheckedRequests() {
        ChildJvm.Result result = ChildJvm.run(List.of("-Xcheck:jni"), FreshProbe.class.getName());
        assertEquals(
                String.join(
                        "\n",
                        "version=[rb52718.11230907]",
                        "finalized=true",
                        "maximum=0",
                        "blocks=0",
                        "metadata=0",
                        "checked refused: " + REFUSED,
                        "map refused: " + REFUSED,
                        "unchecked=64",
                        "freed=true",
                        "blocks=0",
                        "callbacks unknown=true",
                        "initialized=true",
                        "callbacks known=true",
                        "blocks=0",
                        "metadata=0"),
                result.output()
                        .lines()
                        .filter(line -> !line.startsWith("Exception in thread") && !line.startsWith("\tat "))
                        .collect(Collectors.joining("\n")));
        assertEquals(0, result.exitCode());
    }

    @ParameterizedTest
    @CsvSource(
            delimiter = ';',
            value = {"0; 0", "0x1f; 31", "debug,error; 257", "none; 896", "''; 896"})
    void theLevelComesFromTheSystemProperty(String configured, int level) {
        ChildJvm.Result result = ChildJvm.run(List.of("-Dnimbra.log.level=" + configured), LevelProbe.class.getName());
        assertTrue(result.output().endsWith("level=" + level + "\n"), result::output);
        boolean bad = level == 896;
        assertEquals(bad, result.output().contains("'" + configured + "' in log level"), result::output);
    }

    @Test
    void withoutTheSystemPropertyTheDefaultLevelHolds() {
        ChildJvm.Result result = ChildJvm.run(List.of(), LevelProbe.class.getName());
        assertEquals("level=896\n", result.output());
    }
}
