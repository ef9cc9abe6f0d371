package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.overflow.CacheIter;
import com.velt.rz.corvane.io.offheap.overflow.NotEnoughResourcesException;
import com.velt.rz.corvane.io.offheap.overflow.Overflow;
import com.velt.rz.corvane.io.offheap.overflow.OverflowHandler;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import com.velt.rz.corvane.nimbra.overflow.StoreFullException;
import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import java.io.IOException;
import java.lang.System.Logger;
import java.lang.System.Logger.Level;
import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.atomic.LongAdder;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Moves values to disk when memory runs short, and back when they are read.
 *
 * <p>An allocation that comes near the limits calls {@link #moreMainMemoryNeeded} on its own thread, with its native
 * locks held. One thread sweeps at a time; the others wait for it. They may, since a sweep only tries the native locks
 * of entries and never waits for one. The locks of this class are leaves: nothing is called under them that could take a
 * lock of a map.
 *
 * <p>A deletion is reported in the middle of a native operation, too. It is only noted; {@link #drain} frees the space
 * on disk and drops the pin that kept the record.
 *
 * <p>Thread safe.
 */
final class OverflowManager implements OverflowHandler {
    private static final Logger LOGGER = System.getLogger(OffHeapLogger.LOGGER_NAME);

    /** Room below the maximum at which native code asks for more, whatever the hard cap is: a chunk of the allocator. */
    static final long CHUNK = 2L << 20;

    private static final int FLAG_ON_DISK = 0x200;
    private static final int REVERSE_MAP_PIN = 32_778;

    /** {@link #valueForWalk}: the latest value, whichever that is. */
    static final long ANY_REVISION = -1;

    /** Failed writes in a row after which a sweep writes no more: the store is not to be asked once for each entry. */
    private static final int MOST_FAILURES = 8;

    /** No position of a store. */
    private static final long NOT_WRITTEN = 0;

    private static final int SWEEP_WORDS = 7;
    private static final int READ_WORDS = 4;

    private final OffHeapManager manager;
    private final ValueStore store;

    private final ReentrantLock sweeping = new ReentrantLock();
    private final ReentrantLock draining = new ReentrantLock();
    private final ConcurrentLinkedQueue<Released> released = new ConcurrentLinkedQueue<>();
    private final Thread reaper;

    private final LongAdder pageOuts = new LongAdder();
    private final LongAdder copiesReused = new LongAdder();
    private final LongAdder pageIns = new LongAdder();
    private final LongAdder memoryHits = new LongAdder();
    private final LongAdder diskHits = new LongAdder();
    private final LongAdder sweeps = new LongAdder();
    private final LongAdder sweepNanos = new LongAdder();
    private final LongAdder failedWrites = new LongAdder();

    /**
     * The page-ins at the begin of the last sweep that went over all entries without writing, otherwise -1. Only a
     * page-in makes a value in memory that has a copy on disk, so until the next one there is nothing to look for without
     * writing. Guarded by {@link #sweeping}.
     */
    private long pageInsWithoutCopies = -1;

    /** A record that lives only for the sake of its copy on disk. */
    private record Released(long record, long position, int length) {}

    OverflowManager(OffHeapManager manager, ValueStore store) {
        this.manager = manager;
        this.store = store;
        this.reaper = new Thread(this::reap, "nimbra-overflow");
        reaper.setDaemon(true);
    }

    /** Starts the thread that frees what was deleted. Until then only {@link #drain} does. */
    void startReaper() {
        reaper.start();
    }

    OverflowStats stats() {
        return new OverflowStats(
                pageOuts.sum(),
                copiesReused.sum(),
                pageIns.sum(),
                memoryHits.sum(),
                diskHits.sum(),
                sweeps.sum(),
                sweepNanos.sum(),
                failedWrites.sum(),
                store.bytesOnDisk(),
                store.bytesLive(),
                store.limit());
    }

    /** Closes the store: from then on values on disk cannot be read, and nothing is moved there. */
    void closeStore() {
        try {
            store.close();
        } catch (Exception e) {
            LOGGER.log(Level.WARNING, "the overflow store could not be closed", e);
        }
    }

    // ---- Out ---------------------------------------------------------------------------------

    @Override
    public void moreMainMemoryNeeded(long[] limitAndSize) {
        long size = SizeClasses.round(limitAndSize[1]);
        makeRoom(size);
        long maximum = manager.getCurrentMaxOffHeapSize();
        long used = manager.getAllocatingSizeInOffHeap();
        // Refused here, since a refusal behind the allocation leaves the native counts raised.
        if (used + size > maximum) {
            throw new NotEnoughResourcesException("All available memory is used: " + used + " of at most " + maximum
                    + " bytes, with no further value that could be moved to disk for " + size + " more");
        }
    }

    /** Moves values out until {@code size} bytes fit below the limits, as far as there are values to move. */
    void makeRoom(long size) {
        if (fits(size) || sweeping.isHeldByCurrentThread()) {
            return;
        }
        sweeping.lock();
        try {
            drain();
            if (!fits(size)) {
                sweep(size);
            }
        } finally {
            sweeping.unlock();
        }
    }

    /** The bytes in use from which on native code asks for more. */
    private long threshold() {
        return Math.min(MapNatives.hardCapLimit(), manager.getCurrentMaxOffHeapSize() - CHUNK);
    }

    private boolean fits(long size) {
        return manager.getAllocatingSizeInOffHeap() + size < threshold();
    }

    /** REQUIRES: {@link #sweeping}. A little more is moved than is needed, so that not every allocation sweeps. */
    private void sweep(long size) {
        long begun = System.nanoTime();
        long threshold = threshold();
        long goal = threshold - size - Math.min(1L << 20, Math.max(0, threshold) / 256);
        long blocks = Math.max(1, manager.getAllocatingCountInOffHeap());
        // Two rounds over all entries, each of at least two blocks: the first takes the marks of their last use away.
        // Not more: where there are few entries, each costs the sweep a way past all its lists.
        CacheIter.init(blocks, 2 * blocks, true);
        try {
            moveOut(goal);
        } finally {
            CacheIter.dispose();
            sweeps.increment();
            sweepNanos.add(System.nanoTime() - begun);
        }
    }

    /**
     * Moves values out until the bytes in use are below the goal, or no entry is left to visit. A store that goes on
     * failing is not asked again; values that have a copy on disk still go.
     */
    private void moveOut(long goal) {
        long pageInsBefore = pageIns.sum();
        long[] candidate = new long[SWEEP_WORDS];
        int failures = 0;
        while (manager.getAllocatingSizeInOffHeap() >= goal) {
            boolean writes = failures < MOST_FAILURES;
            if (!writes && pageInsBefore == pageInsWithoutCopies) {
                return;
            }
            long record = OverflowNatives.nextEvictable(candidate);
            if (record == 0) {
                if (!writes) {
                    pageInsWithoutCopies = pageInsBefore;
                }
                return;
            }
            if (candidate[5] == 1) {
                reuseCopy(record, candidate);
            } else if (!writes) {
                OverflowNatives.keep(record);
            } else if (writeOut(record, candidate)) {
                failures = 0;
            } else {
                failures++;
            }
        }
    }

    private void reuseCopy(long record, long[] candidate) {
        OverflowNatives.evicted(record, candidate[2], (int) candidate[3], candidate[4]);
        copiesReused.increment();
        pageOuts.increment();
    }

    /** Returns false when the value stays in memory. */
    private boolean writeOut(long record, long[] candidate) {
        long position = NOT_WRITTEN;
        try {
            position = write(candidate);
        } finally {
            if (position == NOT_WRITTEN) {
                OverflowNatives.keep(record);
            }
        }
        if (position == NOT_WRITTEN) {
            return false;
        }
        OverflowNatives.evicted(record, position, (int) candidate[1], 0);
        pageOuts.increment();
        return true;
    }

    /** Returns the position on disk, or {@link #NOT_WRITTEN}. */
    private long write(long[] candidate) {
        long length = candidate[1];
        if (length > Math.min(PhantomWindows.MAX_LENGTH, ValueStore.MAX_LENGTH)) {
            return NOT_WRITTEN;
        }
        try {
            return store.write(PhantomWindows.readOnlySlice(candidate[0], (int) length));
        } catch (IOException | RuntimeException e) {
            // Whatever the store throws, the allocation that is under way has no part in it.
            failedWrites.increment();
            LOGGER.log(e instanceof StoreFullException ? Level.DEBUG : Level.WARNING, "a value stays in memory", e);
            return NOT_WRITTEN;
        }
    }

    // ---- In ----------------------------------------------------------------------------------

    /**
     * Completes a lookup by {@link MapNatives#get}: counts it, and reads a value that is on disk. REQUIRES: inside the
     * gate of the entry's partition.
     *
     * @param record what the native answered for a value on disk, otherwise 0
     */
    byte[] complete(byte[] value, long record, String map, String operation) {
        if (record != 0) {
            return load(record, map, operation);
        }
        if (value != null) {
            memoryHits.increment();
        }
        return value;
    }

    /** The same for {@link MapNatives#pin}. */
    long complete(long handle, long[] info, String map, String operation) {
        if (handle < 0) {
            return pin(-handle, info, map, operation);
        }
        if (handle != 0) {
            memoryHits.increment();
        }
        return handle;
    }

    /** Counts a lookup that found its value in memory. */
    void countMemoryHit() {
        memoryHits.increment();
    }

    /**
     * Returns the value of a record, which goes back into memory if there is room, and drops the caller's pin on the
     * record. REQUIRES: inside the gate of the entry's partition.
     *
     * @param map name of the map, for messages
     * @throws OffHeapStorageException when it cannot be read
     */
    private byte[] load(long record, String map, String operation) {
        try {
            long[] place = new long[READ_WORDS];
            byte[] inMemory = copyIfInMemory(record, place);
            if (inMemory != null) {
                memoryHits.increment();
                return inMemory;
            }
            byte[] payload = readLocked(record, place, map, operation);
            diskHits.increment();
            if (OverflowNatives.pageIn(record, payload, place[0], place[3], null) == 1) {
                pageIns.increment();
            }
            return valueOf(payload);
        } finally {
            OverflowNatives.unpinRecord(record);
        }
    }

    /**
     * Pins the value of a record, reading it back first where it has to, and drops the caller's pin on the record.
     * REQUIRES: inside the gate of the entry's partition.
     *
     * @param info receives address, length in bytes and revision
     * @return the handle of the pinned buffer, as {@link MapNatives#pin}
     * @throws OffHeapStorageException when it cannot be read
     * @throws OffHeapMemoryException when there is no memory to read it into
     */
    private long pin(long record, long[] info, String map, String operation) {
        MemoryRequest request =
                new MemoryRequest(operation, map, MemoryRequest.UNKNOWN, operation + " on map \"" + map + "\"");
        try {
            long[] place = new long[READ_WORDS];
            if (OverflowNatives.beginRead(record, place) == OverflowNatives.IN_MEMORY) {
                memoryHits.increment();
                System.arraycopy(place, 1, info, 0, 3);
                return place[0];
            }
            byte[] payload = readLocked(record, place, map, operation);
            diskHits.increment();
            info[2] = place[3];
            long handle = OverflowNatives.pageIn(record, payload, place[0], place[3], info);
            if (handle == 0) {
                throw request.refuse();
            }
            pageIns.increment();
            return handle;
        } catch (IllegalStateException | OutOfMemoryError | NotEnoughResourcesException e) {
            throw request.refuse(e);
        } finally {
            OverflowNatives.unpinRecord(record);
        }
    }

    /**
     * Drops the pins on the records of those entries of a walk whose values are on disk. A walk reads them later and one
     * by one: many values together may be more than the heap holds. REQUIRES: inside the gate of the entries' partition.
     *
     * @param found as {@link MapNatives#scan} fills it
     */
    static void letRecordsGo(long[] found, int count) {
        for (int entry = 0; entry < count; entry++) {
            int at = entry * EntryWalk.FIELDS;
            if (found[at + 2] == 0) {
                long record = found[at + 3];
                found[at + 3] = 0;
                OverflowNatives.unpinRecord(record);
            }
        }
    }

    /**
     * Reads the values on disk among entries that were evicted, and drops the pins on their records. A value that cannot
     * be read is gone all the same, so that is only logged. REQUIRES: inside the gate of the entries' partition.
     *
     * @param found as {@link BoundedNatives#evict} fills it; when this throws, all its pins are dropped
     * @param wanted false when nobody wants the values
     * @return the values on disk, at their entry's index
     */
    byte[][] resolveEvicted(long[] found, int count, boolean wanted, String map) {
        byte[][] values = new byte[count][];
        boolean complete = false;
        try {
            for (int entry = 0; entry < count; entry++) {
                int at = entry * EntryWalk.FIELDS;
                if (found[at + 2] == 0) {
                    long record = found[at + 3];
                    if (wanted) {
                        values[entry] = readEvicted(record, map);
                    }
                    found[at + 3] = 0;
                    OverflowNatives.unpinRecord(record);
                }
            }
            complete = true;
        } finally {
            if (!complete) {
                MapNatives.unpinAll(found, 0, count);
            }
        }
        return values;
    }

    private byte[] readEvicted(long record, String map) {
        try {
            return read(record, map, "eviction").value;
        } catch (OffHeapStorageException e) {
            LOGGER.log(Level.WARNING, "the listener misses an eviction", e);
            return null;
        }
    }

    /**
     * Returns the value that a lookup for a walk has found, or null when the entry has changed since or is gone. REQUIRES:
     * inside the gate of the entry's partition.
     *
     * @param handle as {@link MapNatives#pin} returns it
     * @param info what it filled in
     * @param revision the only one that is wanted, or {@link #ANY_REVISION}
     */
    byte[] valueForWalk(long handle, long[] info, long revision, String map, String operation) {
        if (handle >= 0) {
            if (handle == 0) {
                return null;
            }
            try {
                boolean wanted = revision == ANY_REVISION || revision == info[2];
                return wanted ? PhantomWindows.copy(info[0], info[1]) : null;
            } finally {
                MapNatives.unpin(handle);
            }
        }
        try {
            Read read = read(-handle, map, operation);
            return revision == ANY_REVISION || revision == read.revision ? read.value : null;
        } finally {
            OverflowNatives.unpinRecord(-handle);
        }
    }

    /** A value and the revision that it belongs to. */
    record Read(byte[] value, long revision) {}

    /**
     * Returns the value of a record and leaves it where it is, as well as the caller's pin. REQUIRES: inside the gate of
     * the entry's partition.
     */
    Read read(long record, String map, String operation) {
        long[] place = new long[READ_WORDS];
        byte[] inMemory = copyIfInMemory(record, place);
        if (inMemory != null) {
            return new Read(inMemory, place[3]);
        }
        return new Read(valueOf(readLocked(record, place, map, operation)), place[3]);
    }

    /** Begins to read a record; null when its value is on disk, and its node then locked for this thread. */
    private static byte[] copyIfInMemory(long record, long[] place) {
        if (OverflowNatives.beginRead(record, place) != OverflowNatives.IN_MEMORY) {
            return null;
        }
        try {
            return PhantomWindows.copy(place[1], place[2]);
        } finally {
            MapNatives.unpin(place[0]);
        }
    }

    /** Reads what the record's node points to, and lets the node go, whatever happens. */
    private byte[] readLocked(long record, long[] place, String map, String operation) {
        try {
            byte[] payload = new byte[(int) place[1]];
            store.read(place[0], payload.length, ByteBuffer.wrap(payload));
            return payload;
        } catch (IOException | RuntimeException e) {
            throw new OffHeapStorageException(
                    operation + " on map \"" + map + "\": a value of " + (place[1] - OverflowNatives.PAYLOAD_HEADER)
                            + " bytes at position " + place[0] + " on disk could not be read: " + e.getMessage(),
                    e);
        } finally {
            Overflow.unlockMetadata(record);
        }
    }

    private static byte[] valueOf(byte[] payload) {
        return Arrays.copyOfRange(payload, OverflowNatives.PAYLOAD_HEADER, payload.length);
    }

    // ---- Deletions ---------------------------------------------------------------------------

    @Override
    public void deleting(long[] entry) {
        if ((entry[1] & FLAG_ON_DISK) != 0) {
            released.add(new Released(entry[4], entry[5], (int) entry[6]));
            LockSupport.unpark(reaper);
        }
    }

    @Override
    public void accessed(int[] mapAndResidence) {
        (mapAndResidence[1] == 1 ? memoryHits : diskHits).increment();
    }

    /** Frees the space of all deletions noted so far. When it returns, none of them is half done. */
    void drain() {
        draining.lock();
        try {
            for (Released next = released.poll(); next != null; next = released.poll()) {
                free(next);
            }
        } finally {
            draining.unlock();
        }
    }

    private void free(Released deleted) {
        try {
            store.free(deleted.position, deleted.length);
        } catch (IOException | RuntimeException e) {
            LOGGER.log(Level.WARNING, "the space of a deleted value could not be freed", e);
        } finally {
            manager.unpinLuOffHeapValue_native(deleted.record, REVERSE_MAP_PIN);
        }
    }

    private void reap() {
        for (; ; ) {
            try {
                drain();
                if (released.isEmpty()) {
                    LockSupport.park(this);
                }
            } catch (Throwable e) {
                LOGGER.log(Level.ERROR, "freeing deleted values failed", e);
            }
        }
    }
}
