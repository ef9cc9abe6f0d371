package com.velt.rz.corvane.nimbra;

import java.lang.invoke.VarHandle;
import java.util.Arrays;

/**
 * Looks keys up in the native tables of one map from Java, without a lock and without a crossing into native code.
 *
 * <p>Each bucket set has a stamp, which native code changes before the first and after the last change of a set, and
 * which says how many threads are at work. A lookup that finds nobody at work, and the same stamp before and after what
 * it reads, has seen a state that the set really had in between. It follows an address only after it has compared the
 * stamp once more: then the address was right at that moment, and since the allocator keeps address space mapped for good,
 * what lies there can be read even when it has been freed meanwhile. What is read then is thrown away by the next
 * comparison.
 *
 * <p>Everything that is not plain is left to native code: a set that is being changed, a long value, and lookups that
 * ought to be traced. Disk overflow and limits are not known here; maps with them do not use this class.
 *
 * <p>Locks: none. Pins: none; nothing that is read is held. Any thread may call.
 */
final class UnlockedReads {
    /** What {@link #get} answers when it cannot tell. */
    static final byte[] UNKNOWN = new byte[0];

    /** Longest value, in bytes, that is copied without a lock; copying a longer one in vain would cost too much. */
    static final int MAX_VALUE = 64 << 10;

    private static final byte[] PRESENT = new byte[0];

    // Answers of find that are no address.
    private static final long ABSENT = 0;
    private static final long CHANGED = -1;

    // A set has the size of a stamp, so the low bits of its address, but for those inside it, are its stamp's offset.
    private static final long STAMP_MASK = (1024 - 1) * 64;
    private static final long AT_WORK = 0xffff;

    // Bucket set: address of the buckets, their number less one.
    private static final int SET_SIZE = 64;
    private static final int SET_BUCKETS = 40;
    private static final int SET_MASK = 56;

    // Entry.
    private static final int ENTRY_KEY = 24;
    private static final int ENTRY_VALUE = 32;
    private static final int ENTRY_NEXT = 40;
    private static final int ENTRY_HASH = 80;

    // Buffer: length of the data, the data.
    private static final int BUFFER_LENGTH = 8;
    private static final int BUFFER_DATA = 24;

    /** Static in the library, and there as long as it is. No stamps: nothing may be read. */
    private static final long STAMP_AREA = RawMemory.isReadable() ? CallNatives.stamps() : 0;

    /** The address of each partition's first bucket set; null where nothing may be read. */
    private final long[] sets;

    private final int setMask;
    private final int setShift;
    private final PartitionGates gates;

    /**
     * Makes the reads of a map.
     *
     * @param handles the native map of each partition; null for a map that none of this is for
     * @param setsInPartition bucket sets of each, a power of two
     */
    UnlockedReads(long[] handles, int setsInPartition, PartitionGates gates) {
        this.sets = handles == null || STAMP_AREA == 0
                ? null
                : Arrays.stream(handles).map(CallNatives::bucketSets).toArray();
        this.setMask = setsInPartition - 1;
        this.setShift = Integer.SIZE - Integer.numberOfTrailingZeros(setsInPartition);
        this.gates = gates;
    }

    /** Returns a copy of the key's value, null when the key is absent, or {@link #UNKNOWN}. */
    byte[] get(int partition, byte[] key, int hash) {
        return read(partition, key, hash, true);
    }

    /** Returns 1 when the key is present, 0 when it is absent, or -1 when that cannot be told. */
    int containsKey(int partition, byte[] key, int hash) {
        byte[] found = read(partition, key, hash, false);
        return found == UNKNOWN ? -1 : found == null ? 0 : 1;
    }

    /** As {@link #get}; without {@code wanted}, {@link #PRESENT} in place of the value. */
    private byte[] read(int partition, byte[] key, int hash, boolean wanted) {
        if (sets == null) {
            return UNKNOWN;
        }
        int mixed = mix(hash);
        long set = sets[partition] + (long) (mixed >>> setShift & setMask) * SET_SIZE;
        long stampAt = STAMP_AREA + (set & STAMP_MASK);
        long stamp = RawMemory.getLong(stampAt);
        if (!isAtRest(stamp, partition)) {
            return UNKNOWN;
        }
        long stored = find(set, mixed, key, hash, stampAt, stamp);
        if (stored == ABSENT) {
            return null;
        }
        if (stored == CHANGED) {
            return UNKNOWN;
        }
        byte[] value = wanted ? copy(stored, stampAt, stamp) : PRESENT;
        return isChanged(stampAt, stamp) ? UNKNOWN : value;
    }

    /** Returns what stands in a value's buffer, right or not, or {@link #UNKNOWN}. */
    private static byte[] copy(long stored, long stampAt, long stamp) {
        long length = RawMemory.getLong(stored + BUFFER_LENGTH);
        if (isChanged(stampAt, stamp) || length > MAX_VALUE) {
            return UNKNOWN;
        }
        byte[] value = new byte[(int) length];
        RawMemory.copy(stored + BUFFER_DATA, value);
        return value;
    }

    /** Returns the address of the key's value, {@link #ABSENT}, or {@link #CHANGED}. The stamp is that from before. */
    private static long find(long set, int mixed, byte[] key, int hash, long stampAt, long stamp) {
        long bucket =
                RawMemory.getLong(set + SET_BUCKETS) + (mixed & RawMemory.getInt(set + SET_MASK)) * (long) Long.BYTES;
        if (isChanged(stampAt, stamp)) {
            return CHANGED;
        }
        long entry = RawMemory.getLong(bucket);
        while (true) {
            if (isChanged(stampAt, stamp)) {
                return CHANGED;
            }
            if (entry == 0) {
                return ABSENT;
            }
            if (RawMemory.getInt(entry + ENTRY_HASH) == hash) {
                long storedKey = RawMemory.getLong(entry + ENTRY_KEY);
                long storedValue = RawMemory.getLong(entry + ENTRY_VALUE);
                if (isChanged(stampAt, stamp)) {
                    return CHANGED;
                }
                boolean sameLength = RawMemory.getLong(storedKey + BUFFER_LENGTH) == key.length;
                if (isChanged(stampAt, stamp)) {
                    return CHANGED; // the length may be no length, and reach beyond what is mapped
                }
                if (sameLength && RawMemory.isEqual(storedKey + BUFFER_DATA, key)) {
                    return storedValue;
                }
            }
            entry = RawMemory.getLong(entry + ENTRY_NEXT);
        }
    }

    /** Whether nobody is changing the set, nobody waits to change the partition, and nothing is to be traced. */
    private boolean isAtRest(long stamp, int partition) {
        VarHandle.acquireFence();
        // The gate after the stamp: a map is closed before its sets are stamped for the last time and freed.
        return (stamp & AT_WORK) == 0 && gates.isOpen(partition) && TraceLevels.areOff();
    }

    private static boolean isChanged(long stampAt, long stamp) {
        VarHandle.acquireFence();
        return RawMemory.getLong(stampAt) != stamp;
    }

    /** The mixing that chooses set and bucket, as native code does it. */
    private static int mix(int hash) {
        int mixed = hash;
        mixed -= mixed << 9;
        mixed ^= mixed >>> 14;
        mixed -= mixed << 5;
        mixed ^= mixed << 4;
        mixed -= mixed << 7;
        mixed ^= mixed << 7;
        mixed ^= mixed >>> 18;
        return mixed;
    }
}
