package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.nio.ByteBuffer;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.Assertions;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Disk overflow in a process of its own: a process runs with it or without it. */
class OverflowStressTest {
    @Tag("child-jvm")
    @Test
    void nothingIsLostOrStaleUnderConstantSweeps(@TempDir Path directory) {
        ChildJvm.Result result = ChildJvm.run(
                List.of("-Xcheck:jni", "-Xmx256m", "-Dnimbra.log.level=0"),
                OverflowStress.class.getName(),
                directory.toString(),
                "12");
        System.out.println(result.output());
        assertEquals(0, result.exitCode(), result::output);
        assertTrue(result.output().endsWith("passed\n"), result::output);
        assertFalse(result.output().contains("WARNING in native method"), result::output);
    }

    @Test
    void aTornValueIsRecognised() {
        byte[] value = StressValues.value(7, 3);
        assertEquals(3, StressValues.generation(7, ByteBuffer.wrap(value)));
        Assertions.assertThrows(AssertionError.class, () -> StressValues.generation(8, ByteBuffer.wrap(value)));
        byte[] mixed = StressValues.value(7, 4);
        byte[] torn = value.clone();
        int half = Math.min(value.length, mixed.length) / 2;
        System.arraycopy(mixed, half, torn, half, Math.min(value.length, mixed.length) - half);
        Assertions.assertThrows(AssertionError.class, () -> StressValues.generation(7, ByteBuffer.wrap(torn)));
    }
}
