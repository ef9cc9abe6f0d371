package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** A heap so small that native code cannot make the arrays that it is asked for. */
@Tag("child-jvm")
class SmallHeapTest {
    private static void assertPasses(String... arguments) {
        ChildJvm.Result result = ChildJvm.run(
                List.of("-Xcheck:jni", "-Xms40m", "-Xmx40m", "-Dnimbra.log.level=0"),
                SmallHeapProbe.class.getName(),
                arguments);
        assertEquals(0, result.exitCode(), result::output);
        assertTrue(result.output().endsWith("passed\n"), result::output);
        assertFalse(result.output().contains("WARNING in native method"), result::output);
    }

    @Test
    void aCopyWithoutRoomLeavesPinsAndMapsAsTheyWere() {
        assertPasses();
    }

    @Test
    void aCopyWithoutRoomLeavesPinsAndMapsAsTheyWereWithValuesOnDisk(@TempDir Path directory) {
        assertPasses(directory.toString());
    }
}
