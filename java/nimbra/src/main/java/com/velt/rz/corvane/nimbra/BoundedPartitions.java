package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.impl.LuOffHeapEvictionQueue;
import com.velt.rz.corvane.io.offheap.overflow.NotEnoughResourcesException;
import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.lang.System.Logger;
import java.lang.System.Logger.Level;
import java.util.Arrays;
import java.util.concurrent.Executor;
import java.util.concurrent.ThreadLocalRandom;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.LongAdder;
import java.util.concurrent.locks.LockSupport;
import java.util.function.LongSupplier;

/**
 * The operations of a map that has limits, an expiry or statistics. It owns the partitions' eviction queues and the
 * bound that they share; the native maps belong to the {@link OffHeapMap}.
 *
 * <p>A write asks the native first and makes room when that finds none: it evicts one entry, then two, four, at most
 * {@link #STEP} at a time, from its own partition while that has entries, and asks again. So no more goes than has to.
 * Where the map has an executor, a task there keeps a little room, and callers seldom make it themselves.
 *
 * <p>Expired entries are found by nobody from their deadline on; their memory is collected a few at a time by whoever
 * writes, and by whoever reads and finds nothing.
 *
 * <p>Thread safe. Natives are entered through the partition's gate; listeners and executors are called outside all of
 * them.
 */
final class BoundedPartitions {
    /** Most entries that one call evicts at a time. */
    static final int STEP = 16;

    private static final int COLLECTED_AT_ONCE = 8;
    private static final int FIELDS = 5;

    /** A write looks after another partition one time in this many. A power of two. */
    private static final int VISIT_OTHERS = 8;

    /** Attempts, some ten seconds of them, after which entries on their way in or out count as stuck there. */
    private static final int FRUITLESS_ATTEMPTS = 100_000;

    private static final Logger LOGGER = System.getLogger("com.velt.rz.corvane.nimbra");
    private static final LuOffHeapEvictionQueue QUEUES = new LuOffHeapEvictionQueue();

    /** Where a thread receives what it evicts. It is read before a listener runs, which may evict in its turn. */
    private static final ThreadLocal<long[]> EVICTED = ThreadLocal.withInitial(() -> new long[STEP * FIELDS]);

    private final String mapName;
    private final long[] handles;
    private final PartitionGates gates;
    private final AtomicLong revisions;

    private final long bound;
    private final long[] queues;
    private final long[] timeQueues;

    private final int policy;
    private final long maximumBytes;
    private final long maximumEntries;
    private final long timeToLive;

    /** A power of two. */
    private final long deadlineStep;

    private final boolean accessExtends;
    private final EvictionListener listener;
    private final Executor executor;
    private final LongSupplier ticker;

    /** Deadlines count from here, so that they cannot overflow. */
    private final long tickerStart;

    /** Bytes that the bound counts for an entry with an empty key and an empty value. */
    private final long emptyEntryBytes;

    /** Null without disk overflow. */
    private final OverflowManager overflow = Nimbra.get().overflow();

    private final AtomicInteger nextPartition = new AtomicInteger();
    private final AtomicBoolean maintenanceScheduled = new AtomicBoolean();

    /** When the executor last looked for expired entries. Racy: at worst it looks once more. */
    private volatile long lastMaintenance;

    private volatile boolean closing;

    /** Whether a refusal of the executor was logged. Racy: at worst it is logged twice. */
    private volatile boolean executorRefused;

    private final LongAdder hits = new LongAdder();
    private final LongAdder misses = new LongAdder();
    private final LongAdder puts = new LongAdder();
    private final LongAdder removals = new LongAdder();
    private final LongAdder sizeEvictions = new LongAdder();
    private final LongAdder expirations = new LongAdder();
    private final LongAdder lateRefusals = new LongAdder();

    /**
     * Makes the bound and the queues of native maps that are empty and that nobody else uses yet.
     *
     * @throws OffHeapMemoryException when memory was refused; nothing is left behind then
     */
    BoundedPartitions(
            String mapName, long[] handles, PartitionGates gates, AtomicLong revisions, EvictionOptions options) {
        this.mapName = mapName;
        this.handles = handles;
        this.gates = gates;
        this.revisions = revisions;
        this.policy = options.limited() ? options.policy.code() : BoundedNatives.NO_POLICY;
        this.maximumBytes = options.maximumBytes == 0 ? Long.MAX_VALUE : options.maximumBytes;
        this.maximumEntries = options.maximumEntries == 0 ? Long.MAX_VALUE : options.maximumEntries;
        this.timeToLive = options.timeToLive();
        this.deadlineStep = Math.max(1, Long.highestOneBit(timeToLive >> 12));
        this.accessExtends = options.afterAccess != 0;
        this.listener = options.listener;
        this.executor = options.executor;
        this.ticker = options.ticker;
        this.tickerStart = ticker.getAsLong();
        this.queues = new long[handles.length];
        this.timeQueues = new long[handles.length];
        MemoryRequest request =
                new MemoryRequest("build", mapName, MemoryRequest.UNKNOWN, "creating map \"" + mapName + "\"");
        long made = 0;
        boolean complete = false;
        try {
            made = BoundedNatives.allocateBound(options.maximumBytes, options.maximumEntries);
            if (made == 0) {
                throw request.refuse();
            }
            allocate(queues, policy != BoundedNatives.NO_POLICY, request);
            allocate(timeQueues, options.expiring(), request);
            emptyEntryBytes = measureEmptyEntry(request);
            complete = true;
        } catch (IllegalStateException | OutOfMemoryError | NotEnoughResourcesException e) {
            throw request.refuse(e);
        } finally {
            bound = made;
            if (!complete) {
                release();
            }
        }
    }

    private static void allocate(long[] target, boolean wanted, MemoryRequest request) {
        for (int partition = 0; wanted && partition < target.length; partition++) {
            target[partition] = QUEUES.allocateQueue();
            if (target[partition] == 0) {
                throw request.refuse();
            }
        }
    }

    /** Stores an empty entry under a bound without limits and looks what it was counted as. */
    private long measureEmptyEntry(MemoryRequest request) {
        byte[] empty = {};
        long unlimited = BoundedNatives.allocateBound(0, 0);
        if (unlimited == 0) {
            throw request.refuse();
        }
        try {
            int stored = BoundedNatives.put(
                    handles[0],
                    unlimited,
                    0,
                    BoundedNatives.NO_POLICY,
                    0,
                    empty,
                    0,
                    empty,
                    0,
                    0,
                    0,
                    BoundedNatives.PUT);
            if (stored != 1) {
                throw request.refuse();
            }
            long bytes = BoundedNatives.bytes(unlimited);
            BoundedNatives.clear(handles[0], unlimited, 0, 0);
            return bytes;
        } finally {
            BoundedNatives.freeBound(unlimited);
        }
    }

    // ---- Writing -----------------------------------------------------------------------------

    /**
     * Stores the value as {@code mode} says and makes room for it if need be.
     *
     * @param mode as {@link BoundedNatives#put} takes it
     * @param operation named in messages
     * @return what {@link BoundedNatives#put} returns, 0 or 1
     * @throws OffHeapMemoryException when the entry is larger than all that the limits allow, in which case nothing was
     *     evicted, or when nothing more can be evicted
     */
    int put(int partition, byte[] key, int hash, byte[] value, int mode, String operation) {
        checkFits(key, value, operation);
        long now = now();
        if (timeToLive != 0) {
            collectSome(partition, now, operation);
        }
        int wantedMode = mode;
        int step = 1;
        int fruitless = 0;
        while (true) {
            int outcome;
            OffHeapMemoryException refusal = null;
            boolean crowded = false;
            gates.enter(partition, operation);
            try {
                outcome = BoundedNatives.put(
                        handles[partition],
                        bound,
                        queues[partition],
                        policy,
                        timeQueues[partition],
                        key,
                        hash,
                        value,
                        revisions.incrementAndGet(),
                        now,
                        deadline(now),
                        wantedMode);
                crowded = executor != null && isCrowded();
            } catch (IllegalStateException | OutOfMemoryError | NotEnoughResourcesException e) {
                RuntimeException raised = request(operation, key, value).convert(e);
                if (!(raised instanceof OffHeapMemoryException refused)) {
                    throw raised;
                }
                if (e instanceof OutOfMemoryError) {
                    lateRefusals.increment();
                }
                refusal = refused;
                outcome = -1;
            } finally {
                gates.exit(partition);
            }
            if (outcome >= 0) {
                if (outcome == 1 || wantedMode == BoundedNatives.PUT) {
                    puts.increment();
                }
                maintainSoon(crowded, now);
                return wantedMode == mode ? outcome : 1;
            }
            if (outcome != BoundedNatives.NO_ROOM) {
                checkFitsProcess(key, value, operation, refusal);
            }
            boolean[] own = {false};
            if (makeRoom(partition, step, now, operation, mode == BoundedNatives.REPLACE ? key : null, own)) {
                if (own[0]) {
                    // The key was there, and only this call has taken it away: the replacement goes on as a store.
                    wantedMode = BoundedNatives.PUT;
                }
                step = Math.min(2 * step, STEP);
                fruitless = 0;
            } else if (mayComeYet(fruitless++, outcome, operation)) {
                pause(fruitless);
            } else {
                MemoryRequest request = request(operation, key, value);
                throw request.record(refusal != null ? refusal : exhausted(outcome, request));
            }
        }
    }

    /**
     * Whether another attempt may find room although there was nothing to evict. An entry on its way in is counted
     * before it can be evicted, and the room of one on its way out may be free by now: the limits are worth a wait, since
     * the entry fits within them. Memory that was refused with no entry left will not come from here, but the entries may
     * have gone only after the refusal: one more attempt tells.
     */
    private boolean mayComeYet(int fruitless, int outcome, String operation) {
        if (policy == BoundedNatives.NO_POLICY || fruitless == FRUITLESS_ATTEMPTS) {
            return false;
        }
        return outcome == BoundedNatives.NO_ROOM || fruitless == 0 || entries(operation) > 0;
    }

    /** Lets the threads go on whose entries are on their way. */
    private static void pause(int fruitless) {
        if (fruitless < 100) {
            Thread.yield();
        } else {
            LockSupport.parkNanos(100_000);
        }
    }

    private void checkFits(byte[] key, byte[] value, String operation) {
        long bytes = entryBytes(key.length, value.length);
        if (bytes > maximumBytes) {
            MemoryRequest request = request(operation, key, value);
            throw request.record(new OffHeapMemoryException(
                    request.what() + ": the entry takes " + bytes + " bytes, more than the map's limit of "
                            + maximumBytes + "; nothing was evicted for it",
                    null));
        }
    }

    /** An entry that the whole process has no room for is refused before anything goes for it. */
    private void checkFitsProcess(byte[] key, byte[] value, String operation, OffHeapMemoryException refusal) {
        long bytes = entryBytes(key.length, value.length);
        long maximum = Nimbra.get().stats().maximumBytes();
        if (bytes > maximum) {
            MemoryRequest request = request(operation, key, value);
            throw request.record(new OffHeapMemoryException(
                    request.what() + ": the entry takes " + bytes + " bytes, more than the process may hold, " + maximum
                            + "; nothing was evicted for it",
                    refusal));
        }
    }

    private static OffHeapMemoryException exhausted(int outcome, MemoryRequest request) {
        if (outcome != BoundedNatives.NO_ROOM) {
            return OffHeapMemoryException.refused(request.what(), null);
        }
        return new OffHeapMemoryException(
                request.what() + ": no room within the map's limits, and nothing left to evict", null);
    }

    /** The bytes that the bound counts for an entry. */
    long entryBytes(int keyLength, int valueLength) {
        return emptyEntryBytes
                - 2 * SizeClasses.bufferBytes(0)
                + SizeClasses.bufferBytes(keyLength)
                + SizeClasses.bufferBytes(valueLength);
    }

    /**
     * Evicts up to {@code step} entries: expired ones if there are any in sight, otherwise the first of the policy's
     * order, from this partition or, when that has none, from the others in turn.
     *
     * @param watched a key, or null
     * @param seen element 0 is set when the watched key's entry was among them
     * @return whether anything was evicted
     */
    private boolean makeRoom(int partition, int step, long now, String operation, byte[] watched, boolean[] seen) {
        if (timeToLive != 0 && collectSome(partition, now, operation) > 0) {
            return true;
        }
        if (policy == BoundedNatives.NO_POLICY) {
            return timeToLive != 0 && collectAnywhere(now, operation) > 0;
        }
        int evicted = evict(partition, step, EvictionCause.SIZE, now, operation, watched, seen);
        for (int visited = 0; visited < handles.length && evicted < step; visited++) {
            int other = nextPartition();
            if (other != partition) {
                evicted += evict(other, step - evicted, EvictionCause.SIZE, now, operation, null, seen);
            }
        }
        return evicted > 0;
    }

    /**
     * Removes a key.
     *
     * @return as {@link BoundedNatives#remove} does
     */
    int remove(int partition, byte[] key, int hash) {
        long now = now();
        if (timeToLive != 0) {
            collectSome(partition, now, "remove");
        }
        int outcome;
        gates.enter(partition, "remove");
        try {
            outcome = BoundedNatives.remove(
                    handles[partition], bound, queues[partition], timeQueues[partition], key, hash, now);
        } finally {
            gates.exit(partition);
        }
        if (outcome == 1) {
            removals.increment();
        }
        return outcome;
    }

    // ---- Reading -----------------------------------------------------------------------------

    byte[] get(int partition, byte[] key, int hash) {
        long now = now();
        byte[] value;
        long[] onDisk = overflow == null ? null : new long[1];
        gates.enter(partition, "get");
        try {
            value = BoundedNatives.get(
                    handles[partition],
                    queues[partition],
                    policy,
                    timeQueues[partition],
                    key,
                    hash,
                    now,
                    deadlineAfterAccess(now),
                    onDisk);
            if (overflow != null) {
                value = overflow.complete(value, onDisk[0], mapName, "get");
            }
        } finally {
            gates.exit(partition);
        }
        countLookup(value != null, partition, now, "get");
        return value;
    }

    /** As {@link BoundedNatives#pin}. */
    long pin(int partition, byte[] key, int hash, long[] info) {
        long now = now();
        long handle;
        gates.enter(partition, "pin");
        try {
            handle = BoundedNatives.pin(
                    handles[partition],
                    queues[partition],
                    policy,
                    timeQueues[partition],
                    key,
                    hash,
                    now,
                    deadlineAfterAccess(now),
                    info);
            if (overflow != null) {
                handle = overflow.complete(handle, info, mapName, "pin");
            }
        } finally {
            gates.exit(partition);
        }
        return handle;
    }

    boolean containsKey(int partition, byte[] key, int hash) {
        gates.enter(partition, "containsKey");
        try {
            return BoundedNatives.containsKey(handles[partition], key, hash, now());
        } finally {
            gates.exit(partition);
        }
    }

    /** Counts a lookup; one that found nothing may have met an expired entry. */
    void countLookup(boolean hit, int partition, String operation) {
        countLookup(hit, partition, now(), operation);
    }

    private void countLookup(boolean hit, int partition, long now, String operation) {
        if (hit) {
            hits.increment();
            return;
        }
        misses.increment();
        if (timeToLive != 0) {
            collect(partition, COLLECTED_AT_ONCE, now, operation);
            maintainSoon(false, now);
        }
    }

    private long deadlineAfterAccess(long now) {
        return accessExtends ? deadline(now) : BoundedNatives.KEEP_DEADLINE;
    }

    /**
     * Returns when an entry of this moment expires, rounded down to a 4096th of its life or less. A deadline before the
     * last one is inserted by a walk from the head of the queue; since equal ones go to the end, writers that overtake
     * each other hardly ever cause one.
     */
    private long deadline(long now) {
        return now + timeToLive & -deadlineStep;
    }

    // ---- Collecting expired entries ----------------------------------------------------------

    /** Collects all entries of a partition that are expired by now, before a walk that is not to show them. */
    void collectAll(int partition, String operation) {
        if (timeToLive != 0) {
            long now = now();
            while (collect(partition, STEP, now, operation) > 0) {
                // Until a step finds none.
            }
        }
    }

    /** Collects a few expired entries, from this partition and now and then from another. */
    private int collectSome(int partition, long now, String operation) {
        int collected = collect(partition, COLLECTED_AT_ONCE, now, operation);
        if ((ThreadLocalRandom.current().nextInt() & (VISIT_OTHERS - 1)) == 0) {
            collected += collect(nextPartition(), COLLECTED_AT_ONCE, now, operation);
        }
        return collected;
    }

    private int collectAnywhere(long now, String operation) {
        int collected = 0;
        for (int visited = 0; visited < handles.length && collected < STEP; visited++) {
            collected += collect(nextPartition(), STEP, now, operation);
        }
        return collected;
    }

    private int collect(int partition, int count, long now, String operation) {
        return evict(partition, count, EvictionCause.EXPIRED, now, operation, null, null);
    }

    // ---- Evicting ----------------------------------------------------------------------------

    private int evict(
            int partition, int count, EvictionCause cause, long now, String operation, byte[] watched, boolean[] seen) {
        long[] out = EVICTED.get();
        int evicted;
        byte[][] onDisk = null;
        EvictionEvent event = new EvictionEvent();
        if (event.isEnabled()) {
            event.begin();
        }
        gates.enter(partition, operation);
        try {
            evicted = BoundedNatives.evict(
                    handles[partition],
                    bound,
                    queues[partition],
                    timeQueues[partition],
                    count,
                    cause == EvictionCause.EXPIRED,
                    now,
                    out);
            if (overflow != null && evicted > 0) {
                onDisk = overflow.resolveEvicted(out, evicted, listener != null, mapName);
            }
        } finally {
            gates.exit(partition);
        }
        if (evicted > 0) {
            (cause == EvictionCause.SIZE ? sizeEvictions : expirations).add(evicted);
            record(event, out, evicted, cause);
            announce(out, evicted, onDisk, cause, watched, seen);
        }
        return evicted;
    }

    /** REQUIRES: the entries are still pinned. */
    private void record(EvictionEvent event, long[] out, int evicted, EvictionCause cause) {
        if (!event.shouldCommit()) {
            return;
        }
        event.map = mapName;
        event.cause = cause.name();
        event.entries = evicted;
        for (int entry = 0; entry < evicted; entry++) {
            event.bytes += out[entry * FIELDS + 1] + out[entry * FIELDS + 3];
        }
        event.commit();
    }

    /** Drops the pins of evicted entries, whatever happens, and tells the listener. */
    private void announce(
            long[] out, int evicted, byte[][] onDisk, EvictionCause cause, byte[] watched, boolean[] seen) {
        byte[][] copies = listener == null ? null : new byte[2 * evicted][];
        try {
            for (int entry = 0; entry < evicted; entry++) {
                int at = entry * FIELDS;
                if (copies != null) {
                    copies[2 * entry] = PhantomWindows.copy(out[at], out[at + 1]);
                    copies[2 * entry + 1] =
                            out[at + 2] == 0 ? onDisk[entry] : PhantomWindows.copy(out[at + 2], out[at + 3]);
                }
                if (watched != null && out[at + 1] == watched.length) {
                    seen[0] |= Arrays.equals(watched, PhantomWindows.copy(out[at], out[at + 1]));
                }
            }
        } finally {
            MapNatives.unpinAll(out, 0, evicted);
        }
        for (int entry = 0; copies != null && entry < evicted; entry++) {
            if (copies[2 * entry + 1] == null) {
                continue; // on disk and not readable, which was logged
            }
            try {
                listener.evicted(copies[2 * entry], copies[2 * entry + 1], cause);
            } catch (Throwable e) {
                LOGGER.log(Level.ERROR, "map \"" + mapName + "\": the eviction listener failed", e);
            }
        }
    }

    private int nextPartition() {
        return nextPartition.getAndIncrement() & (handles.length - 1);
    }

    // ---- The executor ------------------------------------------------------------------------

    /** REQUIRES: inside a gate. Whether the room is less than a 64th of a limit. */
    private boolean isCrowded() {
        return BoundedNatives.bytes(bound) > maximumBytes - maximumBytes / 64
                || BoundedNatives.entries(bound) > maximumEntries - maximumEntries / 64;
    }

    /** REQUIRES: inside a gate. Whether the room is less than a 32nd of a limit. */
    private boolean hasLittleRoom() {
        return BoundedNatives.bytes(bound) > maximumBytes - maximumBytes / 32
                || BoundedNatives.entries(bound) > maximumEntries - maximumEntries / 32;
    }

    private void maintainSoon(boolean crowded, long now) {
        if (executor == null) {
            return;
        }
        boolean due = timeToLive != 0 && now - lastMaintenance >= timeToLive / 16;
        if ((crowded || due) && maintenanceScheduled.compareAndSet(false, true)) {
            lastMaintenance = now;
            try {
                executor.execute(this::maintain);
            } catch (RuntimeException e) {
                // Callers go on making room themselves.
                maintenanceScheduled.set(false);
                if (!executorRefused) {
                    executorRefused = true;
                    LOGGER.log(Level.WARNING, "map \"" + mapName + "\": the executor takes no task", e);
                }
            }
        }
    }

    private void maintain() {
        int step = (int) Math.max(1, Math.min(STEP, maximumEntries / 128));
        try {
            long now = now();
            for (int partition = 0; partition < handles.length; partition++) {
                collectAll(partition, "eviction");
            }
            int idle = 0;
            while (idle < handles.length && littleRoom()) {
                boolean evicted = evict(nextPartition(), step, EvictionCause.SIZE, now, "eviction", null, null) > 0;
                idle = evicted ? 0 : idle + 1;
            }
        } catch (IllegalStateException e) {
            if (!closing) {
                LOGGER.log(Level.ERROR, "map \"" + mapName + "\": eviction failed", e);
            }
        } finally {
            maintenanceScheduled.set(false);
        }
    }

    private boolean littleRoom() {
        gates.enter(0, "eviction");
        try {
            return hasLittleRoom();
        } finally {
            gates.exit(0);
        }
    }

    // ---- Figures -----------------------------------------------------------------------------

    MapStatistics statistics() {
        return new MapStatistics(
                hits.sum(), misses.sum(), puts.sum(), removals.sum(), sizeEvictions.sum(), expirations.sum());
    }

    /** Refusals that came after the allocation: each keeps the process's count of blocks raised by one. */
    long lateRefusals() {
        return lateRefusals.sum();
    }

    /** The bytes of the entries, those counted that are just being stored. */
    long bytes(String operation) {
        gates.enter(0, operation);
        try {
            return BoundedNatives.bytes(bound);
        } finally {
            gates.exit(0);
        }
    }

    /** The entries, those counted that are just being stored. */
    long entries(String operation) {
        gates.enter(0, operation);
        try {
            return BoundedNatives.entries(bound);
        } finally {
            gates.exit(0);
        }
    }

    // ---- Life --------------------------------------------------------------------------------

    /** Removes all entries of a partition. REQUIRES: the partition is excluded or closed. */
    boolean clear(int partition) {
        return BoundedNatives.clear(handles[partition], bound, queues[partition], timeQueues[partition]);
    }

    /** Says that gates begin to close. */
    void closing() {
        closing = true;
    }

    /**
     * Empties the native maps and frees queues and bound; the maps themselves stay. REQUIRES: nobody is inside, and
     * nobody will be.
     *
     * @return false when a lock failed on the way
     */
    boolean release() {
        boolean released = true;
        for (int partition = 0; partition < handles.length; partition++) {
            if (bound != 0) {
                released &= clear(partition);
            }
            for (long[] kind : new long[][] {queues, timeQueues}) {
                if (kind[partition] != 0) {
                    released &= QUEUES.freeQueue(kind[partition]);
                }
            }
        }
        if (bound != 0) {
            BoundedNatives.freeBound(bound);
        }
        return released;
    }

    private long now() {
        return timeToLive == 0 ? 0 : ticker.getAsLong() - tickerStart;
    }

    private MemoryRequest request(String operation, byte[] key, byte[] value) {
        return MemoryRequest.entry(operation, mapName, key, value);
    }
}
