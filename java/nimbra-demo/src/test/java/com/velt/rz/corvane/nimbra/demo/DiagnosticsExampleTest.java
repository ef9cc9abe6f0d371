package com.velt.rz.corvane.nimbra.demo;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import org.junit.jupiter.api.Test;

/** The example finds what it has planted. In a process of its own, since pins are recorded from the start. */
class DiagnosticsExampleTest {
    private static final Pattern MAIN_LOOP = Pattern.compile("  mainLoop +(-?\\d+) us.*");

    @Test
    void bothDefectsAreFound() throws Exception {
        Process process = new ProcessBuilder(
                        Path.of(System.getProperty("java.home"), "bin", "java").toString(),
                        "-Xmx128m",
                        "-cp",
                        System.getProperty("java.class.path"),
                        DiagnosticsExample.class.getName())
                .redirectError(ProcessBuilder.Redirect.DISCARD)
                .start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, process.waitFor(), output);
        List<String> lines = output.lines().collect(Collectors.toList());
        assertEquals("all maps are closed, live blocks: 1", lines.get(1));
        assertTrue(lines.get(2).matches("leaked: 0x[0-9a-f]+ with 1 pins, by reason \\{JNI_GET_PIN=1}"), output);
        assertEquals(1, lines.stream().filter(line -> line.startsWith("leaked")).count(), output);
        assertTrue(output.contains("by nimbra_CallNatives_pin\n"), output);

        List<Long> loops = lines.stream()
                .map(MAIN_LOOP::matcher)
                .filter(Matcher::matches)
                .map(matcher -> Long.parseLong(matcher.group(1)))
                .collect(Collectors.toList());
        assertEquals(2, loops.size(), output);
        assertTrue(loops.get(0) > 10 && loops.get(0) > 4 * loops.get(1), output);
    }
}
