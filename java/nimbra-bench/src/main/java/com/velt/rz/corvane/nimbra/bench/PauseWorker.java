package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.io.Writer;
import java.lang.management.ManagementFactory;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Base64;
import java.util.List;
import java.util.Locale;
import java.util.Properties;
import java.util.SplittableRandom;
import java.util.concurrent.locks.LockSupport;
import org.HdrHistogram.Histogram;

/**
 * The measured process: fills one store, puts it under a steady load, and writes what it saw to a file of properties.
 * Arguments: the store's name, entries, value bytes, operations a second, threads, seconds of warm-up, recorded
 * seconds, and the file.
 *
 * <p>Every operation has a moment at which it ought to begin, at equal distances whatever happened before. Its response
 * time counts from that moment, so that operations that had to wait behind a pause show the wait, too. Its service time
 * counts from when it did begin.
 */
final class PauseWorker {
    private static final long HIGHEST_NANOSECONDS = 600_000_000_000L;
    private static final int DIGITS = 3;
    private static final long SPIN_NANOSECONDS = 200_000; // shorter waits than this are spun away

    private PauseWorker() {}

    /** Runs the load. Any failure ends the process with status 1 and its stack trace. */
    public static void main(String[] arguments) throws Exception {
        PauseStore kind = PauseStore.valueOf(arguments[0]);
        int[] numbers = new int[6];
        for (int i = 0; i < numbers.length; i++) {
            numbers[i] = Integer.parseInt(arguments[i + 1]);
        }
        PauseLoad load = new PauseLoad(numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5]);
        Properties result = run(kind, load);
        try (Writer writer = Files.newBufferedWriter(Path.of(arguments[7]))) {
            result.store(writer, null);
        }
    }

    static Properties run(PauseStore kind, PauseLoad load) throws InterruptedException, IOException {
        try (Store store = kind.open(load.entries())) {
            byte[][] values = load.values();
            for (int i = 0; i < load.entries(); i++) {
                store.put(PauseLoad.key(i), values[i & (values.length - 1)]);
            }
            drive(store, load, values, load.warmUpSeconds());
            double from = uptimeSeconds();
            List<Driver> drivers = drive(store, load, values, load.seconds());
            double to = uptimeSeconds();
            if (store.size() != load.entries()) {
                throw new IllegalStateException(
                        kind.title() + " holds " + store.size() + " entries, not " + load.entries());
            }
            Histogram response = new Histogram(HIGHEST_NANOSECONDS, DIGITS);
            Histogram service = new Histogram(HIGHEST_NANOSECONDS, DIGITS);
            for (Driver driver : drivers) {
                response.add(driver.response);
                service.add(driver.service);
            }
            Properties result = new Properties();
            result.setProperty("from", String.format(Locale.ROOT, "%.3f", from));
            result.setProperty("to", String.format(Locale.ROOT, "%.3f", to));
            result.setProperty("response", encoded(response));
            result.setProperty("service", encoded(service));
            result.setProperty("residentBytes", Long.toString(residentBytes()));
            return result;
        }
    }

    private static List<Driver> drive(Store store, PauseLoad load, byte[][] values, int seconds)
            throws InterruptedException {
        List<Driver> drivers = new ArrayList<>();
        long start = System.nanoTime() + 10_000_000;
        for (int i = 0; i < load.threads(); i++) {
            drivers.add(new Driver(store, load, values, i, start, seconds));
        }
        drivers.forEach(Thread::start);
        for (Driver driver : drivers) {
            driver.join();
        }
        for (Driver driver : drivers) {
            if (driver.failure != null) {
                throw new IllegalStateException("the load failed", driver.failure);
            }
        }
        return drivers;
    }

    static String encoded(Histogram histogram) {
        ByteBuffer buffer = ByteBuffer.allocate(histogram.getNeededByteBufferCapacity());
        int length = histogram.encodeIntoCompressedByteBuffer(buffer);
        return Base64.getEncoder().encodeToString(Arrays.copyOf(buffer.array(), length));
    }

    /** Seconds since the virtual machine started, as its log counts them. */
    private static double uptimeSeconds() {
        return ManagementFactory.getRuntimeMXBean().getUptime() / 1e3;
    }

    /**
     * Bytes of this process that are in memory, a page that it maps several times counted once; 0 where the system does
     * not say.
     */
    private static long residentBytes() throws IOException {
        Path rollup = Path.of("/proc/self/smaps_rollup");
        if (!Files.isReadable(rollup)) {
            return 0;
        }
        for (String line : Files.readAllLines(rollup)) {
            if (line.startsWith("Pss:")) {
                return Long.parseLong(line.replaceAll("\\D", "")) << 10;
            }
        }
        return 0;
    }

    /** One thread of the load. Its fields are read after it has ended. */
    private static final class Driver extends Thread {
        private final Histogram response = new Histogram(HIGHEST_NANOSECONDS, DIGITS);
        private final Histogram service = new Histogram(HIGHEST_NANOSECONDS, DIGITS);
        private final Store store;
        private final PauseLoad load;
        private final byte[][] values;
        private final SplittableRandom random;
        private final long start;
        private final long end;
        private final double interval; // nanoseconds between two beginnings
        private Throwable failure;

        Driver(Store store, PauseLoad load, byte[][] values, int number, long start, int seconds) {
            this.store = store;
            this.load = load;
            this.values = values;
            this.random = new SplittableRandom(number);
            this.interval = 1e9 * load.threads() / load.rate();
            this.start = start + (long) (interval * number / load.threads());
            this.end = start + seconds * 1_000_000_000L;
        }

        @Override
        public void run() {
            try {
                long intended = start;
                for (long i = 1; intended - end < 0; i++) {
                    waitUntil(intended);
                    long begun = System.nanoTime();
                    operate();
                    long done = System.nanoTime();
                    record(response, done - intended);
                    record(service, done - begun);
                    intended = start + (long) (i * interval);
                }
            } catch (Throwable e) { // an OutOfMemoryError is a result, too
                failure = e;
            }
        }

        private void operate() {
            byte[] key = PauseLoad.key(random.nextInt(load.entries()));
            if (random.nextInt(100) < PauseLoad.PUT_PERCENT) {
                store.put(key, values[random.nextInt(values.length)]);
            } else if (store.get(key) == null) {
                throw new IllegalStateException("a key is missing");
            }
        }

        private static void waitUntil(long moment) {
            for (long left = moment - System.nanoTime(); left > 0; left = moment - System.nanoTime()) {
                if (left > SPIN_NANOSECONDS) {
                    LockSupport.parkNanos(left - SPIN_NANOSECONDS);
                } else {
                    Thread.onSpinWait();
                }
            }
        }

        private static void record(Histogram histogram, long nanoseconds) {
            histogram.recordValue(Math.min(nanoseconds, HIGHEST_NANOSECONDS));
        }
    }
}
