package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.nimbra.overflow.ValueStores;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadInfo;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Locale;
import java.util.concurrent.TimeUnit;
import java.util.logging.LogManager;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.management.JMException;
import javax.management.ObjectName;

/**
 * Uses the whole public face for a long time, with the oracle beside it, prints a line a minute, and compares the end
 * with the start: blocks, bytes, internal metadata, values on disk, and the physical memory of the process.
 *
 * <p>The start of the physical memory is taken when a warm-up of the same work has closed all its maps: by then the
 * classes are loaded and most code is compiled. The heap has to be fixed and touched beforehand (-Xms as -Xmx, and
 * AlwaysPreTouch), so that what moves afterwards is native.
 *
 * <p>Arguments: a directory for the values, seconds, and optionally a seed. Ends with status 0; 1 for anything wrong; 3
 * for a thread without progress. For its own tests there are system properties: "nimbra.soak.maximum" and
 * "nimbra.soak.margin" in MiB, "nimbra.soak.settle" in seconds, and "nimbra.soak.plant", which makes it fail: with "pin"
 * a pin is forgotten, with "memory" native memory is held.
 */
final class Soak {
    private static final long MAXIMUM_BYTES = Long.getLong("nimbra.soak.maximum", 40) << 20;
    private static final long DISK_LIMIT = 1L << 30;
    private static final long WARM_UP_SECONDS = 60;
    private static final long PATIENCE_NANOS = TimeUnit.SECONDS.toNanos(120);
    private static final int STUCK = 3;

    /**
     * How far above its start the physical memory may end. The virtual machine goes on compiling and loading after the
     * warm-up, the more the shorter that was; the native library's own share has the narrower margin below.
     */
    private static final long MARGIN = Long.getLong("nimbra.soak.margin", 16) << 20;

    /** Twice the time after which the native allocator has given unused pages back. */
    private static final long SETTLE_SECONDS = Long.getLong("nimbra.soak.settle", 20);

    /** How far above its start the part of it may end that the native allocator has. */
    private static final long ALLOCATOR_MARGIN = 4L << 20;

    /** In the native allocator's line of totals. */
    private static final Pattern ALLOCATOR_RESIDENT =
            Pattern.compile("^Allocated: \\d+, active: \\d+,.* resident: (\\d+),", Pattern.MULTILINE);

    private static final Pattern RESIDENT = Pattern.compile("^VmRSS:\\s+(\\d+) kB$", Pattern.MULTILINE);
    private static final double MIB = 1 << 20;
    private static final ByteBuffer[] PLANTED = new ByteBuffer[1];

    private final Nimbra nimbra;
    private final SoakStore store;
    private final SoakCounts counts = new SoakCounts();
    private final long seconds;
    private final long seed;
    private final String plant = System.getProperty("nimbra.soak.plant", "");

    // What the main thread has seen of the threads at work.
    private SoakWork work;
    private long[] progress;
    private long progressed;
    private long nextRow;
    private long began;
    private long lastOperations;
    private long lastTime;

    private Soak(Nimbra nimbra, SoakStore store, long seconds, long seed) {
        this.nimbra = nimbra;
        this.store = store;
        this.seconds = seconds;
        this.seed = seed;
    }

    public static void main(String[] arguments) throws IOException, InterruptedException {
        LogManager.getLogManager().reset(); // traces are made and go nowhere
        long seconds = Long.parseLong(arguments[1]);
        long seed = arguments.length > 2 ? Long.parseLong(arguments[2]) : System.nanoTime();
        System.out.println("seed " + seed + ", " + seconds + " seconds, at most " + (MAXIMUM_BYTES >> 20)
                + " MiB, Java " + Runtime.version());
        SoakStore store = new SoakStore(ValueStores.open(Path.of(arguments[0]), DISK_LIMIT));
        Nimbra nimbra =
                Nimbra.builder().maximumBytes(MAXIMUM_BYTES).overflowTo(store).start();
        new Soak(nimbra, store, seconds, seed).run();
        System.out.println("passed");
    }

    private void run() throws InterruptedException {
        NimbraStats before = nimbra.stats();
        sayMemory("loaded");
        long warmUp = Math.min(WARM_UP_SECONDS, Math.max(3, seconds / 4));
        work(warmUp, seed + 1, false);
        settle(0);
        long start = resident();
        long allocatorStart = allocatorResident();
        sayMemory("start, after " + warmUp + " seconds of warm-up");
        if (plant.equals("memory")) {
            PLANTED[0] = ByteBuffer.allocateDirect(64 << 20);
            for (int i = 0; i < PLANTED[0].capacity(); i += 1_024) {
                PLANTED[0].put(i, (byte) 1);
            }
        }
        work(seconds, seed, true);
        long took = settle(start + MARGIN);
        long end = resident();
        long allocatorEnd = allocatorResident();
        sayMemory("end, all maps closed for " + took + " seconds");
        say("resident memory: %+.1f MiB since the start, %.1f allowed", (end - start) / MIB, MARGIN / MIB);
        say(
                "the native allocator's part: %+.1f MiB since the start, %.1f allowed",
                (allocatorEnd - allocatorStart) / MIB, ALLOCATOR_MARGIN / MIB);
        compare(before);
        require(end <= start + MARGIN, "resident memory: not as at the start");
        require(
                allocatorEnd <= allocatorStart + ALLOCATOR_MARGIN,
                "the native allocator's resident memory: not as at the start");
    }

    private void compare(NimbraStats before) {
        NimbraStats after = nimbra.stats();
        long late = counts.refusedAfterAllocation.sum();
        say("%,d refusals, %,d of them after their allocation", counts.refusals.sum(), late);
        say("blocks %d, at the start %d", after.blocks(), before.blocks());
        say("bytes in use %d, at the start %d", after.bytesInUse(), before.bytesInUse());
        say(
                "internal metadata bytes %d, at the start %d",
                after.internalMetadataBytes(), before.internalMetadataBytes());
        say("values on disk %d, their bytes %d", store.values(), store.bytesLive());
        require(after.blocks() == before.blocks() + late, "live blocks: not as at the start");
        require(after.bytesInUse() == before.bytesInUse(), "bytes in use: not as at the start");
        require(
                after.internalMetadataBytes() == before.internalMetadataBytes(),
                "internal metadata bytes: not as at the start");
        require(store.values() == 0 && store.bytesLive() == 0, "values are left on disk");
        require(nimbra.overflowStats().failedWrites() == 0, "writes to disk have failed");
    }

    private static void require(boolean right, String what) {
        if (!right) {
            throw new AssertionError(what);
        }
    }

    // ---- Work --------------------------------------------------------------------------------

    private void work(long length, long itsSeed, boolean table) throws InterruptedException {
        try (SoakWork itsWork = new SoakWork(nimbra, counts, itsSeed)) {
            work = itsWork;
            progress = new long[0];
            began = System.nanoTime();
            lastTime = began;
            lastOperations = counts.operations.sum();
            long interval = TimeUnit.SECONDS.toNanos(Math.min(60, length));
            nextRow = table ? began + interval : Long.MAX_VALUE;
            if (table) {
                head();
            }
            itsWork.run(TimeUnit.SECONDS.toNanos(length), () -> {
                watch();
                if (table && System.nanoTime() - nextRow >= 0) {
                    row();
                    nextRow += interval;
                }
            });
            itsWork.checkAll();
            itsWork.clear();
            if (table) {
                require(nimbra.overflowStats().pageIns() > 0, "no value has come back from disk");
                settle(0);
                sayMemory("all maps cleared");
                if (plant.equals("pin")) {
                    forgetPin();
                }
            }
        }
    }

    @SuppressWarnings("resource")
    private void forgetPin() {
        try (OffHeapMap map = nimbra.newMap()) {
            map.put(new byte[1], new byte[1]);
            map.pin(new byte[1]);
        }
    }

    private static void head() {
        say("| minute | operations | a second | maps opened | MiB in use | blocks | MiB resident "
                + "| values on disk | MiB on disk | moved out | moved back |");
        say("|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|");
    }

    private void row() {
        NimbraStats stats = nimbra.stats();
        OverflowStats overflow = nimbra.overflowStats();
        long now = System.nanoTime();
        long operations = counts.operations.sum();
        say(
                "| %.1f | %,d | %,.0f | %,d | %.1f | %,d | %.1f | %,d | %.1f | %,d | %,d |",
                (now - began) / 60e9,
                operations,
                (operations - lastOperations) * 1e9 / (now - lastTime),
                counts.mapsOpened.sum(),
                stats.bytesInUse() / MIB,
                stats.blocks(),
                resident() / MIB,
                store.values(),
                overflow.bytesLive() / MIB,
                overflow.pageOuts(),
                overflow.pageIns());
        lastOperations = operations;
        lastTime = now;
    }

    /** Ends the process when no operation of any thread ends for long. */
    private void watch() {
        long[] now = work.progress();
        if (!Arrays.equals(now, progress)) {
            progress = now;
            progressed = System.nanoTime();
        } else if (System.nanoTime() - progressed > PATIENCE_NANOS) {
            dump();
            Runtime.getRuntime().halt(STUCK);
        }
    }

    private void dump() {
        say("no progress; %s %s", nimbra.stats(), nimbra.overflowStats());
        for (ThreadInfo thread : ManagementFactory.getThreadMXBean().dumpAllThreads(true, true)) {
            say("\"%s\" %s on %s", thread.getThreadName(), thread.getThreadState(), thread.getLockName());
            for (StackTraceElement frame : thread.getStackTrace()) {
                say("    at %s", frame);
            }
        }
    }

    // ---- Memory ------------------------------------------------------------------------------

    /** Physical memory of the process, in bytes. */
    static long resident() {
        try {
            Matcher resident = RESIDENT.matcher(Files.readString(Path.of("/proc/self/status")));
            if (!resident.find()) {
                throw new IllegalStateException("the system does not tell the resident memory");
            }
            return Long.parseLong(resident.group(1)) << 10;
        } catch (IOException e) {
            throw new IllegalStateException(e);
        }
    }

    /** Physical memory of the native allocator's pages, its own bookkeeping included, in bytes. */
    private long allocatorResident() {
        Matcher resident = ALLOCATOR_RESIDENT.matcher(
                nimbra.diagnostics().allocatorStatistics().text());
        require(resident.find(), "the native allocator's report has no totals");
        return Long.parseLong(resident.group(1));
    }

    private void sayMemory(String when) {
        say(
                "%s: %.1f MiB resident, %.1f of them the native allocator's; %,d blocks",
                when,
                resident() / MIB,
                allocatorResident() / MIB,
                nimbra.stats().blocks());
    }

    /**
     * Lets the native allocator give unused pages back. It has no thread of its own: whoever uses it does that in
     * passing, arena by arena, about ten seconds after the pages were last used. So a few threads, which are spread over
     * the arenas, go on with a small map.
     *
     * @param wanted resident bytes for which it waits somewhat longer, or 0
     * @return the seconds that it took
     */
    private long settle(long wanted) throws InterruptedException {
        long begun = System.nanoTime();
        long limit = (wanted == 0 ? SETTLE_SECONDS : 3 * SETTLE_SECONDS);
        try (SoakIdling idling = new SoakIdling(nimbra)) {
            for (long second = 1; second <= limit; second++) {
                idling.oneSecond();
                System.gc(); // direct buffers and the like go now, not later
                trimCHeap();
                if (second >= SETTLE_SECONDS && resident() <= wanted) {
                    break;
                }
            }
        }
        return TimeUnit.NANOSECONDS.toSeconds(System.nanoTime() - begun);
    }

    /**
     * Lets the C heap give unused pages back: the compilers of the virtual machine take and leave tens of megabytes
     * there. What the virtual machine or the library still holds stays.
     */
    private static void trimCHeap() {
        try {
            ManagementFactory.getPlatformMBeanServer()
                    .invoke(
                            new ObjectName("com.sun.management:type=DiagnosticCommand"),
                            "systemTrimNativeHeap",
                            new Object[0],
                            new String[0]);
        } catch (JMException e) {
            throw new IllegalStateException("the virtual machine cannot trim the C heap", e);
        }
    }

    private static void say(String format, Object... arguments) {
        System.out.println(arguments.length == 0 ? format : String.format(Locale.ROOT, format, arguments));
        System.out.flush();
    }
}
