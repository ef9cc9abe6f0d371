package com.velt.rz.corvane.nimbra.peers;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;

/** Says in a line what a run has run on. */
final class Machine {
    private Machine() {}

    static String describe() throws IOException {
        String model = "unknown processor";
        for (String line : Files.readAllLines(Path.of("/proc/cpuinfo"))) {
            if (line.startsWith("model name")) {
                model = line.substring(line.indexOf(':') + 1).strip();
                break;
            }
        }
        long memory = ((com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean())
                .getTotalMemorySize();
        return Runtime.getRuntime().availableProcessors() + " processors (" + model + "), " + (memory >> 30)
                + " GiB, Java " + System.getProperty("java.version");
    }
}
