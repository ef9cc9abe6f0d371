package com.velt.rz.corvane.nimbra.peers;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;
import javax.management.JMException;
import javax.management.ObjectName;

/**
 * What this process holds, as the machine sees it: the same measure for every store, whatever it says of itself.
 *
 * <p>The Java heap of a measured process is fixed and touched at the start. What its resident set gains while a store is
 * filled is therefore native memory: the store's, with its allocator's rounding and everything reserved and touched
 * beforehand, and a few MiB that the JVM takes for compiled code meanwhile.
 *
 * @param heapBytes Java heap in use after a full collection
 * @param residentBytes resident set of the process, after glibc has given free memory back
 */
record Memory(long heapBytes, long residentBytes) {
    private static final Path STATUS = Path.of("/proc/self/status");
    private static final int MOST_LOOKS = 30;
    private static final int CALM_LOOKS = 3;
    private static final long CALM_BYTES = 256L << 10;
    private static final long LOOK_MILLISECONDS = 100;
    private static final Path MACHINE = Path.of("/proc/meminfo");

    static Memory now() {
        System.gc();
        System.gc();
        long heap = ManagementFactory.getMemoryMXBean().getHeapMemoryUsage().getUsed();
        return new Memory(heap, settledResidentBytes());
    }

    /** Waits until the JVM's compilers, which take and free tens of MiB, have nothing more to do. */
    private static long settledResidentBytes() {
        long bytes = Long.MAX_VALUE;
        int calm = 0;
        for (int look = 0; look < MOST_LOOKS && calm < CALM_LOOKS; look++) {
            trimNativeHeap();
            long now = kibibytes(STATUS, "VmRSS:") << 10;
            calm = Math.abs(now - bytes) < CALM_BYTES ? calm + 1 : 0;
            bytes = now;
            LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(LOOK_MILLISECONDS));
        }
        return bytes;
    }

    /** Returns the memory that processes can still get from the machine, in MiB. */
    static long availableMegabytes() {
        return kibibytes(MACHINE, "MemAvailable:") >> 10;
    }

    Memory since(Memory before) {
        return new Memory(Math.max(0, heapBytes - before.heapBytes), Math.max(0, residentBytes - before.residentBytes));
    }

    /** Lets glibc give back what the compilers of the JVM have freed. A JVM that cannot is a little less exact. */
    private static void trimNativeHeap() {
        try {
            ManagementFactory.getPlatformMBeanServer()
                    .invoke(
                            new ObjectName("com.sun.management:type=DiagnosticCommand"),
                            "systemTrimNativeHeap",
                            new Object[0],
                            new String[0]);
        } catch (JMException | RuntimeException e) {
            System.out.println("free native memory was not given back before measuring: " + e);
        }
    }

    private static long kibibytes(Path file, String name) {
        try {
            for (String line : Files.readAllLines(file)) {
                if (line.startsWith(name)) {
                    return Long.parseLong(
                            line.substring(name.length()).replace("kB", "").strip());
                }
            }
        } catch (IOException e) {
            throw new UncheckedIOException("memory is measured through /proc, which Linux has", e);
        }
        throw new IllegalStateException(file + " has no line " + name);
    }
}
