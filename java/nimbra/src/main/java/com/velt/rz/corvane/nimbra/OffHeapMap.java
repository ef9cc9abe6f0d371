package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.io.offheap.impl.LuOffHeapMapImpl;
import com.velt.rz.corvane.io.offheap.overflow.NotEnoughResourcesException;
import com.velt.rz.corvane.io.offheap.util.PhantomWindows;
import java.nio.ByteBuffer;
import java.security.SecureRandom;
import java.time.Duration;
import java.util.Objects;
import java.util.concurrent.Executor;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.ReentrantLock;
import java.util.function.BiConsumer;
import java.util.function.LongSupplier;

/**
 * A map from byte arrays to byte arrays whose entries live outside the Java heap.
 *
 * <p>Keys and values are copied on the way in and on the way out; an array must not change while a call with it is under
 * way. Keys have at most {@link #MAX_KEY_LENGTH} bytes, values at most the builder's {@link Builder#maximumValueLength};
 * both may be empty, neither may be null.
 *
 * <p>The entries are spread over several native maps, the partitions, by a keyed hash with a random key for each map, so
 * that writers seldom meet on a lock and chosen keys do not pile up in one place. {@link #put} crosses into
 * native code once. {@link #get} does so only when it meets a write or an unusual entry, or when the map is a cache or
 * values go to disk; else it reads native memory from Java, without a lock. Neither makes garbage, apart from the array
 * that {@code get} returns.
 *
 * <p>All methods may be called from any thread. A call on one key is atomic; {@link #size}, {@link #bytesUsed}, {@link
 * #forEach} and {@link #clear} go through the partitions one after the other and are no snapshot while others write.
 *
 * <p>A map may be a cache: with {@link Builder#maximumEntries} or {@link Builder#maximumBytes} it gives up entries to
 * make room, with {@link Builder#expireAfterWrite} or {@link Builder#expireAfterAccess} it gives them up when their time
 * is over. An expired entry is not found by any method from then on, but its memory, and its place in {@link #size} and
 * {@link #bytesUsed}, go only when a later call or the executor collects it.
 *
 * <p>The map has to be closed: its memory is not the collector's. After {@link #close} every method but {@code close}
 * and {@link #name} throws {@link IllegalStateException}, naming the map and the operation. A write for which the limits
 * leave no memory throws {@link OffHeapMemoryException} and leaves the map as it was.
 */
public final class OffHeapMap implements AutoCloseable {
    /** The greatest length of a key, in bytes: 65,535. */
    public static final int MAX_KEY_LENGTH = 65_535;

    /** The greatest length of a value, in bytes: 1 GiB, the most that one direct view spans. */
    public static final int MAX_VALUE_LENGTH = PhantomWindows.MAX_LENGTH;

    private static final AtomicInteger MAPS_MADE = new AtomicInteger();
    private static final SecureRandom RANDOM = new SecureRandom();

    private final String name;
    private final int maximumValueLength;
    private final LuOffHeapMapImpl natives;

    /** Native map of each partition. A handle is used only between entering and leaving the partition's gate. */
    private final long[] handles;

    private final int partitionShift;
    private final int partitionMask;
    private final KeyedHash keyedHash = new KeyedHash(RANDOM);
    private final PartitionGates gates;

    /** Number of the latest write that began. */
    private final AtomicLong revisions;

    /** Does the work of a map with limits, an expiry or statistics; null for all others. */
    private final BoundedPartitions bounded;

    private final ChangeReaders readers;

    /** Seen by tests, which want to know when a read cannot tell. */
    final UnlockedReads reads;

    /** Null without disk overflow. */
    private final OverflowManager overflow = Nimbra.get().overflow();

    /** Serialises {@link #clear} and {@link #close}. No code of a caller runs while it is held. */
    private final ReentrantLock lifecycle = new ReentrantLock();

    /** Guarded by {@link #lifecycle}. */
    private boolean closed;

    private OffHeapMap(
            Builder options,
            String name,
            LuOffHeapMapImpl natives,
            long[] handles,
            PartitionGates gates,
            AtomicLong revisions,
            BoundedPartitions bounded) {
        this.name = name;
        this.maximumValueLength = options.maximumValueLength;
        this.natives = natives;
        this.handles = handles;
        this.partitionShift = Long.SIZE - Integer.numberOfTrailingZeros(handles.length);
        this.partitionMask = handles.length - 1;
        this.gates = gates;
        this.revisions = revisions;
        this.bounded = bounded;
        this.readers = new ChangeReaders(name);
        boolean plain = bounded == null && overflow == null;
        this.reads = new UnlockedReads(plain ? handles : null, options.bucketSets, gates);
    }

    /** Returns a builder with the default options. */
    public static Builder builder() {
        return new Builder();
    }

    /** Returns the name that messages use for this map; also after {@link #close}. */
    public String name() {
        return name;
    }

    /** Returns the number of partitions. */
    int partitions() {
        return handles.length;
    }

    /**
     * Stores the value, whether or not the key is present.
     *
     * @return true when the key was new, false when its value was replaced
     * @throws NullPointerException when the key or the value is null
     * @throws IllegalArgumentException when the key or the value is too long
     * @throws OffHeapMemoryException when memory was refused, or the entry is larger than a limit allows; the map is as
     *     it was, apart from entries that a map with a limit has evicted in between
     * @throws IllegalStateException when the map is closed
     */
    public boolean put(byte[] key, byte[] value) {
        return write(BoundedNatives.PUT, "put", key, value);
    }

    /**
     * Stores the value unless the key is present.
     *
     * @return true when the value was stored, false when the key was present
     * @throws NullPointerException when the key or the value is null
     * @throws IllegalArgumentException when the key or the value is too long
     * @throws OffHeapMemoryException when memory was refused, or the entry is larger than a limit allows; the map is as
     *     it was, apart from entries that a map with a limit has evicted in between
     * @throws IllegalStateException when the map is closed
     */
    public boolean putIfAbsent(byte[] key, byte[] value) {
        return write(BoundedNatives.PUT_IF_ABSENT, "putIfAbsent", key, value);
    }

    /**
     * Replaces the value of a key that is present.
     *
     * @return true when the value was replaced, false when the key was absent
     * @throws NullPointerException when the key or the value is null
     * @throws IllegalArgumentException when the key or the value is too long
     * @throws OffHeapMemoryException when memory was refused, or the entry is larger than a limit allows; the map is as
     *     it was, apart from entries that a map with a limit has evicted in between
     * @throws IllegalStateException when the map is closed
     */
    public boolean replace(byte[] key, byte[] value) {
        return write(BoundedNatives.REPLACE, "replace", key, value);
    }

    private boolean write(int mode, String operation, byte[] key, byte[] value) {
        checkKey(key);
        checkValue(value);
        long hash = hash(key);
        int partition = partition(hash);
        if (bounded != null) {
            return bounded.put(partition, key, (int) hash, value, mode, operation) == 1;
        }
        int outcome;
        gates.enter(partition, operation);
        try {
            outcome = CallMemory.write(mode, handles[partition], key, (int) hash, value, revisions.incrementAndGet());
        } catch (IllegalStateException | OutOfMemoryError | NotEnoughResourcesException e) {
            throw request(operation, key, value).refuse(e);
        } finally {
            gates.exit(partition);
        }
        return succeeded(outcome, operation, key, value);
    }

    /**
     * Copies the value of a key.
     *
     * @return a new array that belongs to the caller, or null when the key is absent
     * @throws NullPointerException when the key is null
     * @throws IllegalArgumentException when the key is too long
     * @throws OffHeapStorageException when the value is on disk and cannot be read
     * @throws IllegalStateException when the map is closed
     */
    public byte[] get(byte[] key) {
        checkKey(key);
        long hash = hash(key);
        int partition = partition(hash);
        if (bounded != null) {
            return bounded.get(partition, key, (int) hash);
        }
        byte[] copy = reads.get(partition, key, (int) hash);
        if (copy != UnlockedReads.UNKNOWN) {
            return copy;
        }
        gates.enter(partition, "get");
        try {
            CallMemory memory = CallMemory.with(key);
            int length = memory == null ? CallMemory.ORDINARY : memory.get(handles[partition], key.length, (int) hash);
            if (length != CallMemory.ORDINARY) {
                byte[] value = memory.value(length);
                return overflow == null ? value : overflow.complete(value, 0, name, "get");
            }
            if (overflow == null) {
                return MapNatives.get(handles[partition], key, (int) hash, null);
            }
            long[] onDisk = new long[1];
            byte[] value = MapNatives.get(handles[partition], key, (int) hash, onDisk);
            return overflow.complete(value, onDisk[0], name, "get");
        } finally {
            gates.exit(partition);
        }
    }

    /**
     * Pins the value of a key, to be read where it stands.
     *
     * @return the value with one pin that the caller drops through {@link PinnedValue#close}, or null when the key is
     *     absent
     * @throws NullPointerException when the key is null
     * @throws IllegalArgumentException when the key is too long
     * @throws OffHeapStorageException when the value is on disk and cannot be read
     * @throws OffHeapMemoryException when the value is on disk and there is no memory to read it into
     * @throws IllegalStateException when the map is closed
     */
    public PinnedValue pin(byte[] key) {
        checkKey(key);
        long hash = hash(key);
        int partition = partition(hash);
        if (bounded != null) {
            long[] info = new long[3];
            long handle = bounded.pin(partition, key, (int) hash, info);
            PinnedValue pinned = handle == 0 ? null : PinnedValue.adopt(handle, info[0], info[1], info[2]);
            // Last, since it may run a listener, and nothing must come between the pin and its owner.
            bounded.countLookup(handle != 0, partition, "pin");
            return pinned;
        }
        gates.enter(partition, "pin");
        try {
            CallMemory memory = CallMemory.with(key);
            if (memory == null) {
                long[] info = new long[3];
                return adopt(MapNatives.pin(handles[partition], key, (int) hash, info), info);
            }
            long handle = memory.pin(handles[partition], key.length, (int) hash);
            if (handle <= 0) {
                return adopt(handle, new long[3]);
            }
            if (overflow != null) {
                overflow.countMemoryHit();
            }
            return memory.adopt(handle);
        } finally {
            gates.exit(partition);
        }
    }

    /** Takes over what {@link MapNatives#pin} found; a value on disk is read first. Inside the partition's gate. */
    private PinnedValue adopt(long found, long[] info) {
        long handle = overflow == null ? found : overflow.complete(found, info, name, "pin");
        return handle == 0 ? null : PinnedValue.adopt(handle, info[0], info[1], info[2]);
    }

    /**
     * Removes a key and its value. Memory that a {@link PinnedValue} still shows is freed when that is closed.
     *
     * @return true when the key was present
     * @throws NullPointerException when the key is null
     * @throws IllegalArgumentException when the key is too long
     * @throws IllegalStateException when the map is closed
     */
    public boolean remove(byte[] key) {
        checkKey(key);
        long hash = hash(key);
        int partition = partition(hash);
        int outcome;
        if (bounded != null) {
            outcome = bounded.remove(partition, key, (int) hash);
        } else {
            gates.enter(partition, "remove");
            try {
                outcome = CallMemory.remove(handles[partition], key, (int) hash);
            } finally {
                gates.exit(partition);
            }
        }
        if (outcome < 0) {
            throw lockFailure("remove");
        }
        return outcome == 1;
    }

    /**
     * Returns whether a key is present.
     *
     * @throws NullPointerException when the key is null
     * @throws IllegalArgumentException when the key is too long
     * @throws IllegalStateException when the map is closed
     */
    public boolean containsKey(byte[] key) {
        checkKey(key);
        long hash = hash(key);
        int partition = partition(hash);
        if (bounded != null) {
            return bounded.containsKey(partition, key, (int) hash);
        }
        int present = reads.containsKey(partition, key, (int) hash);
        if (present >= 0) {
            return present == 1;
        }
        gates.enter(partition, "containsKey");
        try {
            return CallMemory.containsKey(handles[partition], key, (int) hash);
        } finally {
            gates.exit(partition);
        }
    }

    /**
     * Returns the number of entries. A map with a limit or an expiry counts those that are just being stored, too, and
     * never shows more than its limit.
     *
     * @throws IllegalStateException when the map is closed
     */
    public long size() {
        if (bounded != null) {
            return bounded.entries("size");
        }
        long entries = 0;
        for (int partition = 0; partition < handles.length; partition++) {
            long counted = size(partition);
            if (counted < 0) {
                throw lockFailure("size");
            }
            entries += counted;
        }
        return entries;
    }

    /** Returns the number of entries of one partition, or -1 when a lock failed. */
    long size(int partition) {
        gates.enter(partition, "size");
        try {
            return natives.size(handles[partition]);
        } finally {
            gates.exit(partition);
        }
    }

    /**
     * Returns the bytes that the entries hold: their keys, their values and their records, without the tables. A map
     * with a limit or an expiry counts those that are just being stored, too, and never shows more than its limit.
     *
     * @throws IllegalStateException when the map is closed
     */
    public long bytesUsed() {
        if (bounded != null) {
            return bounded.bytes("bytesUsed");
        }
        long bytes = 0;
        for (int partition = 0; partition < handles.length; partition++) {
            gates.enter(partition, "bytesUsed");
            try {
                bytes += natives.getCurrentBytesUsed(handles[partition]);
            } finally {
                gates.exit(partition);
            }
        }
        return bytes;
    }

    /**
     * Hands a copy of every entry to the consumer, on the calling thread. An entry that is present during the whole walk
     * is handed over exactly once; one that comes, changes or goes meanwhile may or may not be, in its old state or its
     * new one. No lock is held while the consumer runs, so it may use this map, and close it.
     *
     * @param consumer receives key and value in arrays of its own; what it throws ends the walk and is passed on
     * @throws OffHeapStorageException when a value is on disk and cannot be read
     * @throws IllegalStateException when the map is closed, before the walk or during it
     */
    public void forEach(BiConsumer<? super byte[], ? super byte[]> consumer) {
        Objects.requireNonNull(consumer, "consumer");
        EntryWalk.run(this, consumer);
    }

    /**
     * One step of a walk over a partition, as {@link MapNatives#scan} describes it, but without pins on records: for a
     * value that is on disk, 0 and 0 stand in place of its address and length.
     */
    int scan(int partition, long[] cursor, long[] found) {
        if (bounded != null) {
            bounded.collectAll(partition, "forEach");
        }
        gates.enter(partition, "forEach");
        try {
            int count = MapNatives.scan(handles[partition], cursor, found);
            if (overflow != null) {
                OverflowManager.letRecordsGo(found, count);
            }
            return count;
        } finally {
            gates.exit(partition);
        }
    }

    /**
     * Removes all entries, partition by partition: each is emptied while no other call is inside it, and calls that come
     * meanwhile wait. Pinned values stay as they are.
     *
     * @throws IllegalStateException when the map is closed
     */
    public void clear() {
        lifecycle.lock();
        try {
            if (closed) {
                throw gates.closed("clear");
            }
            ClearEvent event = new ClearEvent();
            boolean recorded = event.isEnabled();
            if (recorded) {
                event.begin();
            }
            boolean cleared = true;
            for (int partition = 0; partition < handles.length; partition++) {
                gates.exclude(partition);
                try {
                    if (recorded) {
                        event.entries += natives.size(handles[partition]);
                    }
                    cleared &= bounded != null ? bounded.clear(partition) : natives.clear(handles[partition]);
                } finally {
                    gates.readmit(partition);
                }
            }
            drainOverflow();
            if (event.shouldCommit()) {
                event.map = name;
                event.commit();
            }
            if (!cleared) {
                throw lockFailure("clear");
            }
        } finally {
            lifecycle.unlock();
        }
    }

    /**
     * Waits for the calls that are inside the map to leave, removes all entries and frees the map's memory. Pinned values
     * stay readable until they are closed themselves. Further calls do nothing, except that they return only when the
     * map is closed.
     */
    @Override
    public void close() {
        lifecycle.lock();
        try {
            if (closed) {
                return;
            }
            closed = true;
            if (bounded != null) {
                bounded.closing();
            }
            for (int partition = 0; partition < handles.length; partition++) {
                gates.close(partition);
            }
            boolean released = bounded == null || bounded.release();
            if (!release(natives, handles, handles.length) || !released) {
                throw lockFailure("close");
            }
        } finally {
            lifecycle.unlock();
        }
    }

    /**
     * Returns this map seen through codecs.
     *
     * @param <K> the type of the keys
     * @param <V> the type of the values
     */
    public <K, V> TypedMap<K, V> typed(Codec<K> keyCodec, Codec<V> valueCodec) {
        return new TypedMap<>(this, keyCodec, valueCodec);
    }

    /**
     * Returns the entries written after a revision, for a reader that does not come back. As {@link
     * #changesSince(String, long)}, except that it looks at all older entries first.
     */
    public ChangeIterator changesSince(long revision) {
        return iterate(null, revision);
    }

    /**
     * Returns the entries written after a revision, in the order of their revisions over all partitions, up to the
     * revision that the map has reached now. {@link ChangeIterator#lastRevision} says from where to go on.
     *
     * <p>A reader that goes on from there pays for what has changed since, not for the size of the map: every partition
     * keeps a bookmark for it, where its last iterator stopped. One that goes back, or that left its last iterator before
     * the end, makes the partitions look at all older entries once. A map has at most 64 readers, counting the iterators
     * of {@link #changesSince(long)} that are open; {@link #forgetReader} frees a place.
     *
     * <p>This call waits for the writes that have begun, and holds up those that come meanwhile, for the moment that
     * takes.
     *
     * @param reader a name of the caller's choice
     * @param revision 0 for all entries, otherwise a revision that an iterator of this map has returned
     * @return an iterator, to be closed
     * @throws NullPointerException when the reader is null
     * @throws IllegalArgumentException when the revision is negative, or beyond what the map has reached
     * @throws IllegalStateException when the map is closed, when the reader has an iterator that is not closed yet, or
     *     when there are too many readers
     */
    public ChangeIterator changesSince(String reader, long revision) {
        return iterate(Objects.requireNonNull(reader, "reader"), revision);
    }

    private ChangeIterator iterate(String reader, long revision) {
        if (revision < 0) {
            throw new IllegalArgumentException("revision is " + revision + ", has to be at least 0");
        }
        long reached = completeWrites();
        if (revision > reached) {
            throw new IllegalArgumentException(
                    "revision is " + revision + ", but map \"" + name + "\" has only reached " + reached);
        }
        return readers.begin(this, reader, revision, reached);
    }

    /**
     * Returns a revision up to which all writes have ended. A write takes its revision inside its partition, so those
     * with a lower one are still inside now, or gone.
     */
    private long completeWrites() {
        lifecycle.lock();
        try {
            if (closed) {
                throw gates.closed("changesSince");
            }
            long reached = revisions.get();
            for (int partition = 0; partition < handles.length; partition++) {
                gates.drain(partition);
            }
            return reached;
        } finally {
            lifecycle.unlock();
        }
    }

    /** One partition's share of a window, as {@link BoundedNatives#query} describes it. */
    void query(int partition, ByteBuffer result, int bookmark, long start, long end) {
        if (bounded != null) {
            bounded.collectAll(partition, "changesSince");
        }
        gates.enter(partition, "changesSince");
        try {
            BoundedNatives.query(handles[partition], result, bookmark, start, end);
        } catch (IllegalStateException | OutOfMemoryError | NotEnoughResourcesException e) {
            String what = "changesSince on map \"" + name + "\"";
            throw new MemoryRequest("changesSince", name, MemoryRequest.UNKNOWN, what).refuse(e);
        } finally {
            gates.exit(partition);
        }
    }

    /**
     * Reads the value of an entry that a walk has found on disk; null when it has changed since or is gone.
     *
     * @param revision the only one that is wanted, or {@link OverflowManager#ANY_REVISION}
     */
    byte[] valueForWalk(byte[] key, long revision, String operation) {
        long hash = hash(key);
        int partition = partition(hash);
        long[] info = new long[3];
        gates.enter(partition, operation);
        try {
            long handle = MapNatives.pin(handles[partition], key, (int) hash, info);
            return overflow.valueForWalk(handle, info, revision, name, operation);
        } finally {
            gates.exit(partition);
        }
    }

    /**
     * Gives up the place of a named reader; the name may be used anew.
     *
     * @return false when no reader has that name
     * @throws IllegalStateException when it has an iterator that is not closed
     */
    public boolean forgetReader(String reader) {
        return readers.forget(Objects.requireNonNull(reader, "reader"));
    }

    /**
     * Returns what the map has counted so far; also after {@link #close}.
     *
     * @throws IllegalStateException when the map counts nothing: it has no limit and no expiry, and was not built with
     *     {@link Builder#recordStatistics}
     */
    public MapStatistics statistics() {
        if (bounded == null) {
            throw new IllegalStateException("map \"" + name + "\" records no statistics");
        }
        return bounded.statistics();
    }

    /** Returns whether {@link #statistics} has something to return; also after {@link #close}. */
    public boolean recordsStatistics() {
        return bounded != null;
    }

    /** The part that a map with limits, an expiry or statistics has, or null. */
    BoundedPartitions bounded() {
        return bounded;
    }

    /** Clears and deletes the first {@code count} native maps; returns false when a lock failed on the way. */
    private static boolean release(LuOffHeapMapImpl natives, long[] handles, int count) {
        boolean released = true;
        for (int partition = 0; partition < count; partition++) {
            released &= natives.clear(handles[partition]);
            drainOverflow();
            released &= natives.deleteLuOffHeapMap(handles[partition]);
        }
        return released;
    }

    /** Lets records go that live for their copy on disk only: they must not outlive their table. */
    private static void drainOverflow() {
        OverflowManager overflow = Nimbra.get().overflow();
        if (overflow != null) {
            overflow.drain();
        }
    }

    @Override
    public String toString() {
        return "OffHeapMap[" + name + "]";
    }

    long hash(byte[] key) {
        return keyedHash.hash(key);
    }

    /** The high bits choose the partition, so that they say nothing about the low 32, which place the key inside it. */
    int partition(long hash) {
        return (int) (hash >>> partitionShift) & partitionMask;
    }

    private static void checkKey(byte[] key) {
        Objects.requireNonNull(key, "key");
        if (key.length > MAX_KEY_LENGTH) {
            throw new IllegalArgumentException("key has " + key.length + " bytes, at most " + MAX_KEY_LENGTH);
        }
    }

    private void checkValue(byte[] value) {
        Objects.requireNonNull(value, "value");
        if (value.length > maximumValueLength) {
            throw new IllegalArgumentException("value has " + value.length + " bytes, at most " + maximumValueLength);
        }
    }

    private boolean succeeded(int outcome, String operation, byte[] key, byte[] value) {
        if (outcome < 0) {
            throw request(operation, key, value).refuse();
        }
        return outcome == 1;
    }

    private MemoryRequest request(String operation, byte[] key, byte[] value) {
        return MemoryRequest.entry(operation, name, key, value);
    }

    private IllegalStateException lockFailure(String operation) {
        return new IllegalStateException("map \"" + name + "\": a native lock failed during " + operation);
    }

    /** The options of a map. Not thread safe. */
    public static final class Builder {
        private static final int MAX_PARTITIONS = 4_096;
        private static final int MAX_BUCKET_SETS = 65_536;
        private static final float MAX_LOAD_FACTOR = 64;

        private String name;
        private int partitions = MapSizes.defaultPartitions(Runtime.getRuntime().availableProcessors());
        private int bucketSets = 16;
        private float loadFactor = 0.75f;
        private int maximumValueLength = MAX_VALUE_LENGTH;
        private final EvictionOptions eviction = new EvictionOptions();

        private Builder() {}

        /** Sets the name that messages use; "map-" and a number by default. */
        public Builder name(String name) {
            this.name = Objects.requireNonNull(name, "name");
            return this;
        }

        /**
         * Sets the number of partitions, rounded up to a power of two. By default four for each processor, but at least
         * 16 and at most 256.
         *
         * @param count 1 to 4,096
         */
        public Builder partitions(int count) {
            MapSizes.checkRange("partitions", count, MAX_PARTITIONS);
            partitions = MapSizes.roundUp(count);
            return this;
        }

        /**
         * Sets how many parts of a partition can be locked independently, rounded up to a power of two; 16 by default.
         *
         * @param count 1 to 65,536
         */
        public Builder bucketSets(int count) {
            MapSizes.checkRange("bucketSets", count, MAX_BUCKET_SETS);
            bucketSets = MapSizes.roundUp(count);
            return this;
        }

        /**
         * Sets the entries a bucket at which a table grows; 0.75 by default.
         *
         * @param entries above 0, at most 64
         */
        public Builder loadFactor(float entries) {
            if (!(entries > 0 && entries <= MAX_LOAD_FACTOR)) {
                throw new IllegalArgumentException(
                        "loadFactor is " + entries + ", has to be above 0 and at most " + MAX_LOAD_FACTOR);
            }
            loadFactor = entries;
            return this;
        }

        /**
         * Sets the greatest length of a value; {@link OffHeapMap#MAX_VALUE_LENGTH} by default.
         *
         * @param bytes 1 to {@link OffHeapMap#MAX_VALUE_LENGTH}
         */
        public Builder maximumValueLength(int bytes) {
            MapSizes.checkRange("maximumValueLength", bytes, MAX_VALUE_LENGTH);
            maximumValueLength = bytes;
            return this;
        }

        /**
         * Limits the number of entries; none by default. A write to a full map evicts others and succeeds.
         *
         * @param entries at least 1
         */
        public Builder maximumEntries(long entries) {
            eviction.maximumEntries = EvictionOptions.checkLimit("maximumEntries", entries);
            return this;
        }

        /**
         * Limits the bytes of the entries, as {@link OffHeapMap#bytesUsed} counts them; no limit by default. A write to a
         * full map evicts others and succeeds; one that would not even fit alone is refused and evicts nothing. While a
         * value is replaced, the old one and the new one count.
         *
         * @param bytes at least 1
         */
        public Builder maximumBytes(long bytes) {
            eviction.maximumBytes = EvictionOptions.checkLimit("maximumBytes", bytes);
            return this;
        }

        /**
         * Sets which entries make room; {@link EvictionPolicy#LRU} by default. Each partition has an order of its own, so
         * that in the map as a whole the order is kept roughly; with one partition, exactly. Stores, {@code get} and
         * {@code pin} count as use, {@code containsKey} does not.
         */
        public Builder evictionPolicy(EvictionPolicy policy) {
            eviction.policy = Objects.requireNonNull(policy, "policy");
            return this;
        }

        /**
         * Lets an entry expire so long after it was stored or its value replaced, or up to a 4096th earlier. Since all
         * entries live equally long, deadlines come in order, and keeping them costs the same however many there are; a
         * write that a later one overtakes by more than that 4096th looks for its place among all entries of the
         * partition.
         *
         * @param duration more than zero; excludes {@link #expireAfterAccess}
         */
        public Builder expireAfterWrite(Duration duration) {
            eviction.afterWrite = EvictionOptions.checkDuration("expireAfterWrite", duration);
            return this;
        }

        /**
         * Lets an entry expire so long after it was last stored, replaced, got or pinned. What {@link #expireAfterWrite}
         * says of the cost holds here, too.
         *
         * @param duration more than zero; excludes {@link #expireAfterWrite}
         */
        public Builder expireAfterAccess(Duration duration) {
            eviction.afterAccess = EvictionOptions.checkDuration("expireAfterAccess", duration);
            return this;
        }

        /** Sets who is told of evicted and expired entries. Needs a limit or an expiry. */
        public Builder evictionListener(EvictionListener listener) {
            eviction.listener = Objects.requireNonNull(listener, "listener");
            return this;
        }

        /**
         * Sets an executor on which the map makes room when less than a 64th of a limit is free, and collects expired
         * entries, so that its callers seldom have to. Needs a limit or an expiry. A task that the executor runs after
         * the map was closed does nothing.
         */
        public Builder executor(Executor executor) {
            eviction.executor = Objects.requireNonNull(executor, "executor");
            return this;
        }

        /** Sets the clock of the expiry, in nanoseconds; {@link System#nanoTime} by default. Meant for tests. */
        public Builder ticker(LongSupplier nanoseconds) {
            eviction.ticker = Objects.requireNonNull(nanoseconds, "nanoseconds");
            return this;
        }

        /** Lets a map count what {@link OffHeapMap#statistics} returns; one with a limit or an expiry always does. */
        public Builder recordStatistics() {
            eviction.statistics = true;
            return this;
        }

        /**
         * Creates the map.
         *
         * @throws IllegalStateException when {@link Nimbra} is not started, or when options do not go together
         * @throws OffHeapMemoryException when the limits leave no room for it
         */
        public OffHeapMap build() {
            eviction.check();
            Nimbra nimbra = Nimbra.get();
            int id = MAPS_MADE.incrementAndGet();
            String mapName = name != null ? name : "map-" + id;
            LuOffHeapMapImpl natives = new LuOffHeapMapImpl();
            long[] handles = new long[partitions];
            MemoryRequest request = new MemoryRequest(
                    "build",
                    mapName,
                    bytesNeeded(),
                    "creating map \"" + mapName + "\" with " + partitions + " partitions");
            // A table that is refused halfway keeps what it has got, so the room is looked for beforehand.
            if (nimbra.overflows()) {
                nimbra.overflow().makeRoom(bytesNeeded());
            }
            NimbraStats stats = nimbra.stats();
            if (stats.bytesInUse() + bytesNeeded() >= stats.maximumBytes()) {
                throw request.refuse();
            }
            int made = 0;
            boolean complete = false;
            Diagnostics.BIRTHS.readLock().lock();
            try {
                for (; made < partitions; made++) {
                    handles[made] = natives.allocateLuOffHeapMap(0, bucketSets, loadFactor, id, 0);
                    if (handles[made] == 0) {
                        throw request.refuse();
                    }
                }
                PartitionGates gates = new PartitionGates(mapName, partitions);
                AtomicLong revisions = new AtomicLong();
                BoundedPartitions bounded =
                        eviction.wanted() ? new BoundedPartitions(mapName, handles, gates, revisions, eviction) : null;
                OffHeapMap map = new OffHeapMap(this, mapName, natives, handles, gates, revisions, bounded);
                complete = true;
                return map;
            } catch (IllegalStateException | OutOfMemoryError | NotEnoughResourcesException e) {
                throw request.refuse(e);
            } finally {
                Diagnostics.BIRTHS.readLock().unlock();
                if (!complete) {
                    release(natives, handles, made);
                }
            }
        }

        /** Bytes that the empty map takes at most. */
        long bytesNeeded() {
            return MapSizes.bytesOfEmptyMap(partitions, bucketSets);
        }
    }
}
