package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * Reads without a lock while others write: whatever they answer was in the map. Values say whose they are and of which
 * generation, and every byte follows from that ({@link StressValues}).
 */
@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class UnlockedReadsConcurrencyTest {
    @BeforeAll
    static void memoryStaysReadable() {
        assumeTrue(CallNatives.stamps() != 0, "address space may be unmapped here, so nothing is read without a lock");
    }

    private static final int READERS = 3;
    private static final int KEYS = 32;

    /** Bytes of a value that takes as much memory as an entry's record. */
    private static final int RECORD_DATA = 64;

    /** Answers without which a test has seen too little of what it is about. */
    private static final long ENOUGH = 20_000;

    private static final long LAST_CHANCE = TimeUnit.SECONDS.toNanos(20);

    private static final long NANOS = TimeUnit.MILLISECONDS.toNanos(1_000);

    private final ExecutorService threads = Executors.newCachedThreadPool();
    private final AtomicBoolean stop = new AtomicBoolean();

    /** Generation of each key that its writer has begun to write, and that it has written. */
    private final AtomicLong[] begun = new AtomicLong[KEYS];

    private final AtomicLong[] written = new AtomicLong[KEYS];

    private final AtomicLong asked = new AtomicLong();
    private final AtomicLong answered = new AtomicLong();

    @AfterEach
    void stopThreads() throws InterruptedException {
        stop.set(true);
        threads.shutdown();
        assertTrue(threads.awaitTermination(60, TimeUnit.SECONDS));
    }

    /** A read finds no generation older than the one written when it began, nor one not yet begun when it ended. */
    @ParameterizedTest
    @CsvSource({"1, 1", "1, 64", "16, 16"})
    void replacedValuesAreReadWholeAndInOrder(int partitions, int bucketSets) throws Exception {
        try (OffHeapMap map = newMap(partitions, bucketSets)) {
            fill(map);
            List<Future<?>> running = startReaders(map);
            running.add(threads.submit(() -> replaceAll(map, 0, KEYS)));
            finish(running);
        }
    }

    @ParameterizedTest
    @CsvSource({"1, 1", "1, 64", "16, 16"})
    void keysThatStayAreFoundWhileOthersComeAndGo(int partitions, int bucketSets) throws Exception {
        try (OffHeapMap map = newMap(partitions, bucketSets)) {
            fill(map);
            List<Future<?>> running = startReaders(map);
            running.add(threads.submit(() -> comeAndGo(map)));
            finish(running);
        }
    }

    /**
     * Many keys in few chains, which records leave in front of those that are looked for. Their memory is taken at once by
     * values of the same size, where the next record's address would be read as none, or as one that is not mapped.
     */
    @Test
    void keysThatStayAreFoundBehindRecordsThatAreFreed() throws Exception {
        try (OffHeapMap map =
                OffHeapMap.builder().partitions(1).bucketSets(1).loadFactor(64).build()) {
            fill(map);
            List<Future<?>> running = startReaders(map);
            running.add(threads.submit(() -> reuseRecords(map)));
            finish(running);
        }
    }

    /** Each round the tables grow from nothing, so that buckets move under the readers. */
    @ParameterizedTest
    @CsvSource({"1, 1", "1, 64", "16, 16"})
    void keysThatStayAreFoundWhileTheTablesGrow(int partitions, int bucketSets) throws Exception {
        long start = System.nanoTime();
        while (!isEnough(start)) {
            try (OffHeapMap map = newMap(partitions, bucketSets)) {
                fill(map);
                stop.set(false);
                List<Future<?>> running = startReaders(map);
                for (int number = KEYS; number < KEYS + 5_000; number++) {
                    map.put(StressValues.key(number), new byte[number % 16]);
                }
                stop.set(true);
                for (Future<?> each : running) {
                    get(each);
                }
            }
        }
        assertOftenAnswered();
    }

    /** Keys go and come with every round, but none is read that was not written. */
    @ParameterizedTest
    @CsvSource({"1, 1", "16, 16"})
    void noValueIsReadThatAClearHasFreed(int partitions, int bucketSets) throws Exception {
        try (OffHeapMap map = newMap(partitions, bucketSets)) {
            fill(map);
            List<Future<?>> running = new ArrayList<>();
            MapReads reads = new MapReads(map);
            for (int reader = 0; reader < READERS; reader++) {
                Random random = new Random(reader);
                running.add(threads.submit(() -> {
                    while (!stop.get()) {
                        int number = random.nextInt(KEYS);
                        long least = written[number].get();
                        byte[] value = count(reads.get(StressValues.key(number)));
                        if (value != null && value != UnlockedReads.UNKNOWN) {
                            checkGeneration(number, value, least);
                        }
                    }
                }));
            }
            running.add(threads.submit(() -> {
                while (!stop.get()) {
                    map.clear();
                    for (int number = 0; number < KEYS; number++) {
                        replace(map, number);
                    }
                }
            }));
            finish(running);
        }
    }

    /**
     * Tables are closed under readers, which go on to read them while others with the same hashes take their memory.
     * Whose a value is says its generation.
     */
    @ParameterizedTest
    @CsvSource({"1, 1", "1, 64", "4, 16"})
    void nothingIsReadFromWhatTookTheMemoryOfAClosedMap(int partitions, int bucketSets) throws Exception {
        int keys = 64;
        int perRound = 1 << 20;
        AtomicLong closed = new AtomicLong();
        long start = System.nanoTime();
        for (int round = 0; !isEnough(start); round++) {
            int tag = round % 1000;
            AtomicBoolean done = new AtomicBoolean();
            AtomicLong reads = new AtomicLong();
            List<Future<?>> readers = new ArrayList<>();
            try (UnlockedTables next = new UnlockedTables(partitions, bucketSets, 0.75f)) {
                try (UnlockedTables tables = new UnlockedTables(partitions, bucketSets, 0.75f)) {
                    put(tables, keys, tag * perRound);
                    for (int reader = 0; reader < READERS; reader++) {
                        Random random = new Random(reader);
                        readers.add(threads.submit(() -> {
                            while (!done.get()) {
                                int number = random.nextInt(keys);
                                byte[] value = count(
                                        tables.reads.get(number % partitions, StressValues.key(number), hash(number)));
                                if (value != null && value != UnlockedReads.UNKNOWN) {
                                    int found = StressValues.generation(number, ByteBuffer.wrap(value)) / perRound;
                                    if (found != tag) {
                                        throw new AssertionError("a value of map " + found + " in map " + tag);
                                    }
                                }
                                reads.incrementAndGet();
                            }
                        }));
                    }
                    awaitAtLeast(reads, 2_000, readers);
                }
                closed.incrementAndGet();
                try (UnlockedTables heir = new UnlockedTables(partitions, bucketSets, 0.75f)) {
                    put(heir, keys, (tag + 1) * perRound);
                    awaitAtLeast(reads, reads.get() + 500, readers);
                }
                put(next, keys, (tag + 2) * perRound);
            }
            done.set(true);
            for (Future<?> reader : readers) {
                get(reader);
            }
        }
        assertTrue(closed.get() > 3, closed + " rounds");
        assertOftenAnswered();
    }

    /** A map whose reads fall back as they must answers like any other, until it is closed. */
    @Test
    void theMapItselfAnswersRightUntilItIsClosed() throws Exception {
        OffHeapMap map = newMap(1, 4);
        fill(map);
        List<Future<?>> running = new ArrayList<>();
        AtomicLong calls = new AtomicLong();
        for (int reader = 0; reader < READERS; reader++) {
            Random random = new Random(reader);
            running.add(threads.submit(() -> {
                try {
                    while (true) {
                        int number = random.nextInt(KEYS);
                        long least = written[number].get();
                        byte[] value = map.get(StressValues.key(number));
                        checkGeneration(number, value, least);
                        assertTrue(map.containsKey(StressValues.key(number)));
                        calls.incrementAndGet();
                    }
                } catch (IllegalStateException e) {
                    assertTrue(e.getMessage().contains("is closed"), e.getMessage());
                }
            }));
        }
        Future<?> writer = threads.submit(() -> replaceAll(map, 0, KEYS));
        awaitAtLeast(calls, 20_000, running);
        stop.set(true);
        get(writer);
        // Closing clears first, partition by partition, behind closed gates: nobody sees an empty map.
        map.close();
        for (Future<?> each : running) {
            get(each);
        }
    }

    // ---- Readers -----------------------------------------------------------------------------

    /** Every reader asks for keys that are never removed. */
    private List<Future<?>> startReaders(OffHeapMap map) {
        MapReads reads = new MapReads(map);
        List<Future<?>> readers = new ArrayList<>();
        for (int reader = 0; reader < READERS; reader++) {
            Random random = new Random(reader);
            readers.add(threads.submit(() -> {
                while (!stop.get()) {
                    int number = random.nextInt(KEYS);
                    byte[] key = StressValues.key(number);
                    long least = written[number].get();
                    byte[] value = count(reads.get(key));
                    if (value != UnlockedReads.UNKNOWN) {
                        checkGeneration(number, value, least);
                    }
                    if (reads.containsKey(key) == 0) {
                        throw new AssertionError("key " + number + " is reported absent");
                    }
                }
            }));
        }
        return readers;
    }

    private void checkGeneration(int number, byte[] value, long least) {
        if (value == null) {
            throw new AssertionError("key " + number + " is reported absent");
        }
        int generation = StressValues.generation(number, ByteBuffer.wrap(value));
        long most = begun[number].get();
        if (generation < least || generation > most) {
            throw new AssertionError(
                    "key " + number + " has generation " + generation + ", not " + least + " to " + most);
        }
    }

    private byte[] count(byte[] value) {
        asked.incrementAndGet();
        if (value != UnlockedReads.UNKNOWN) {
            answered.incrementAndGet();
        }
        return value;
    }

    // ---- Writers -----------------------------------------------------------------------------

    private static OffHeapMap newMap(int partitions, int bucketSets) {
        return OffHeapMap.builder()
                .partitions(partitions)
                .bucketSets(bucketSets)
                .build();
    }

    private void fill(OffHeapMap map) {
        for (int number = 0; number < KEYS; number++) {
            begun[number] = new AtomicLong();
            written[number] = new AtomicLong();
            map.put(StressValues.key(number), StressValues.value(number, 0));
        }
    }

    /** REQUIRES: the only writer of the key. */
    private void replace(OffHeapMap map, int number) {
        int generation = (int) begun[number].incrementAndGet();
        map.put(StressValues.key(number), StressValues.value(number, generation));
        written[number].set(generation);
    }

    private void replaceAll(OffHeapMap map, int from, int to) {
        while (!stop.get()) {
            for (int number = from; number < to; number++) {
                replace(map, number);
            }
        }
    }

    private void comeAndGo(OffHeapMap map) {
        while (!stop.get()) {
            for (int number = KEYS; number < 3 * KEYS; number++) {
                map.put(StressValues.key(number), StressValues.value(number, 0));
            }
            for (int number = KEYS; number < 3 * KEYS; number++) {
                assertTrue(map.remove(StressValues.key(number)));
            }
        }
    }

    private void reuseRecords(OffHeapMap map) {
        Random random = new Random(1);
        byte[] noAddress = new byte[RECORD_DATA];
        Arrays.fill(noAddress, (byte) 0x5a);
        byte[][] values = {new byte[RECORD_DATA], noAddress};
        while (!stop.get()) {
            byte[] key = StressValues.key(KEYS + random.nextInt(2 * KEYS));
            if (map.remove(key)) {
                map.put(StressValues.key(3 * KEYS), values[random.nextInt(2)]);
            } else {
                map.put(key, values[random.nextInt(2)]);
            }
        }
    }

    private static void put(UnlockedTables tables, int keys, int generation) {
        for (int number = 0; number < keys; number++) {
            tables.put(
                    number % tables.partitions(),
                    StressValues.key(number),
                    hash(number),
                    StressValues.value(number, generation));
        }
    }

    private static int hash(int number) {
        return number * 0x9e3779b9;
    }

    // ---- Threads -----------------------------------------------------------------------------

    private void finish(List<Future<?>> running) throws Exception {
        long start = System.nanoTime();
        while (!isEnough(start) && running.stream().noneMatch(Future::isDone)) {
            TimeUnit.MILLISECONDS.sleep(1);
        }
        stop.set(true);
        for (Future<?> each : running) {
            get(each);
        }
        assertOftenAnswered();
    }

    private boolean isEnough(long start) {
        long passed = System.nanoTime() - start;
        return passed > LAST_CHANCE || passed > NANOS && answered.get() >= ENOUGH;
    }

    /** A test passes by what the reads answer, not by their falling back. */
    private void assertOftenAnswered() {
        assertTrue(answered.get() >= ENOUGH, this::counts);
    }

    private String counts() {
        return answered + " of " + asked + " answered";
    }

    private static void awaitAtLeast(AtomicLong counter, long count, List<Future<?>> counting) throws Exception {
        while (counter.get() < count) {
            for (Future<?> each : counting) {
                if (each.isDone()) {
                    get(each);
                    throw new AssertionError("a thread has ended at " + counter);
                }
            }
            Thread.onSpinWait();
        }
    }

    /** Waits for a thread and passes its failure on. */
    private static void get(Future<?> thread) throws Exception {
        try {
            thread.get();
        } catch (ExecutionException e) {
            if (e.getCause() instanceof Error error) {
                throw error;
            }
            throw e;
        }
    }
}
