package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.nimbra.overflow.ValueStores;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.atomic.AtomicLong;

/** The store that comes with the library, in a directory of its own, with calls that fail on request. Thread safe. */
final class FaultyStore extends ForwardingStore {
    /** Runs before a call reaches the real store, and may throw instead of that. */
    interface Fault {
        Fault NONE = () -> {};

        void strike() throws IOException;
    }

    private static final long LIMIT = 256L << 20;

    private final Path directory;
    private final AtomicLong writes = new AtomicLong();
    private final AtomicLong reads = new AtomicLong();

    /** Values whose space could not be freed. */
    private final Queue<long[]> unfreed = new ConcurrentLinkedQueue<>();

    volatile Fault onWrite = Fault.NONE;
    volatile Fault onRead = Fault.NONE;
    volatile Fault onFree = Fault.NONE;

    private FaultyStore(Path directory) throws IOException {
        super(ValueStores.open(directory, LIMIT));
        this.directory = directory;
    }

    static FaultyStore open() {
        try {
            Path directory = Files.createTempDirectory("nimbra-overflow-test-");
            FaultyStore store = new FaultyStore(directory);
            Runtime.getRuntime().addShutdownHook(new Thread(store::remove));
            return store;
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** Closes the store, if nobody has yet, and leaves nothing of it behind. */
    private void remove() {
        try {
            close();
            try (var files = Files.list(directory)) {
                for (Path file : files.toList()) {
                    Files.delete(file);
                }
            }
            Files.delete(directory);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** Ends all faults and frees what they have kept. */
    void repair() {
        onWrite = Fault.NONE;
        onRead = Fault.NONE;
        onFree = Fault.NONE;
        for (long[] kept = unfreed.poll(); kept != null; kept = unfreed.poll()) {
            try {
                super.free(kept[0], (int) kept[1]);
            } catch (IOException e) {
                throw new UncheckedIOException(e);
            }
        }
    }

    Path directory() {
        return directory;
    }

    /** Calls so far, failed ones included. */
    long writes() {
        return writes.get();
    }

    long reads() {
        return reads.get();
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        writes.incrementAndGet();
        onWrite.strike();
        return super.write(value);
    }

    @Override
    public void read(long position, int length, ByteBuffer target) throws IOException {
        reads.incrementAndGet();
        onRead.strike();
        super.read(position, length, target);
    }

    @Override
    public void free(long position, int length) throws IOException {
        boolean reached = false;
        try {
            onFree.strike();
            reached = true;
        } finally {
            if (!reached) {
                unfreed.add(new long[] {position, length});
            }
        }
        super.free(position, length);
    }
}
