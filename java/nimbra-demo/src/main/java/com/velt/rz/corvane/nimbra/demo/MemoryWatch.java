package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.Nimbra;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Looks all the time, on a thread of its own, whether the bytes in use stay within the maximum, and once a second how
 * many bytes of pages stand behind them.
 */
final class MemoryWatch implements AutoCloseable {
    private static final long LOOK_NANOS = 50_000;
    private static final long PAGES_NANOS = TimeUnit.SECONDS.toNanos(1);

    /** The line of totals in the native allocator's report. */
    private static final Pattern TOTALS =
            Pattern.compile("^Allocated: (\\d+), active: (\\d+),.* resident: (\\d+),", Pattern.MULTILINE);

    private static final Path STATUS = Path.of("/proc/self/status");
    private static final Pattern PROCESS = Pattern.compile("^VmRSS:\\s+(\\d+) kB$", Pattern.MULTILINE);

    private final Nimbra nimbra;
    private final Findings findings;
    private final CompletableFuture<Void> watching;
    private volatile boolean done;

    // Written by the watching thread, read after it has ended.
    private long looks;
    private long mostBytes;
    private long mostActive;

    /**
     * Memory at one moment, in bytes.
     *
     * @param inUse what the maximum limits
     * @param active pages that hold blocks
     * @param resident pages that the native allocator has in physical memory
     * @param process physical memory of the whole process, Java's included; 0 where the system does not tell
     */
    record Pages(long inUse, long active, long resident, long process) {
        static Pages now(Nimbra nimbra) {
            // The report may have been made before or after the other figures; a busy map moves a little in between.
            String report = nimbra.diagnostics().allocatorStatistics().text();
            Matcher totals = TOTALS.matcher(report);
            if (!totals.find()) {
                throw new IllegalStateException("the native allocator's report has no totals");
            }
            return new Pages(
                    nimbra.stats().bytesInUse(),
                    Long.parseLong(totals.group(2)),
                    Long.parseLong(totals.group(3)),
                    processBytes());
        }

        private static long processBytes() {
            try {
                Matcher process = PROCESS.matcher(Files.readString(STATUS));
                return process.find() ? Long.parseLong(process.group(1)) << 10 : 0;
            } catch (IOException e) {
                return 0;
            }
        }
    }

    MemoryWatch(Nimbra nimbra, Findings findings) {
        this.nimbra = nimbra;
        this.findings = findings;
        this.watching = CompletableFuture.runAsync(this::watch, task -> {
            Thread thread = new Thread(task, "memory watch");
            thread.setDaemon(true);
            thread.start();
        });
    }

    private void watch() {
        long maximum = nimbra.stats().maximumBytes();
        long nextPages = System.nanoTime();
        while (!done) {
            long bytes = nimbra.stats().bytesInUse();
            if (bytes > maximum) {
                findings.add(bytes + " bytes are in use, the maximum is " + maximum);
            }
            mostBytes = Math.max(mostBytes, bytes);
            looks++;
            if (System.nanoTime() - nextPages >= 0) {
                mostActive = Math.max(mostActive, Pages.now(nimbra).active());
                nextPages = System.nanoTime() + PAGES_NANOS;
            }
            LockSupport.parkNanos(LOOK_NANOS);
        }
    }

    /** After {@link #close}. */
    long looks() {
        return looks;
    }

    /** The most bytes in use that were seen. After {@link #close}. */
    long mostBytes() {
        return mostBytes;
    }

    /** The most bytes of pages with blocks that were seen. After {@link #close}. */
    long mostActive() {
        return mostActive;
    }

    @Override
    public void close() {
        done = true;
        watching.join();
    }
}
