package com.velt.rz.corvane.nimbra;

import java.nio.ByteBuffer;
import java.util.HashSet;
import java.util.Random;
import java.util.Set;
import java.util.concurrent.atomic.AtomicIntegerArray;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.LongAdder;
import java.util.concurrent.locks.ReentrantLock;

/**
 * A map and, beside it, what it has to hold. Every key belongs to one thread, which alone writes it, so that this thread
 * knows its state exactly; other threads know only between which generations a value must lie. Only {@link #clear}
 * crosses the border: it is counted when it begins and when it has ended, and an owner compares the counts with those
 * around its last write.
 */
final class StressedMap {
    final OffHeapMap map;

    /** Entries go by themselves. */
    private final boolean evicting;

    private final int owners;
    private final int keysEach;

    /** The latest generation that a write of the key has begun with, and ended with. Removals count as writes. */
    private final AtomicIntegerArray begun;

    private final AtomicIntegerArray ended;

    // The owner's alone: the generation that has to be there, 0 for none, and the clears around its write.
    private final int[] present;
    private final long[] clearsEndedBefore;
    private final long[] clearsBegunAfter;

    /** The owner has written the key since its reader last came past. */
    private final boolean[] unread;

    private final long[] positions;

    private final AtomicLong clearsBegun = new AtomicLong();
    private final AtomicLong clearsEnded = new AtomicLong();
    private final ReentrantLock clearing = new ReentrantLock();

    final LongAdder refusals = new LongAdder();

    /** Refusals that keep the count of blocks raised. */
    final LongAdder refusedAfterAllocation = new LongAdder();

    StressedMap(OffHeapMap map, boolean evicting, int owners, int keysEach) {
        this.map = map;
        this.evicting = evicting;
        this.owners = owners;
        this.keysEach = keysEach;
        int keys = owners * keysEach;
        this.begun = new AtomicIntegerArray(keys);
        this.ended = new AtomicIntegerArray(keys);
        this.present = new int[keys];
        this.clearsEndedBefore = new long[keys];
        this.clearsBegunAfter = new long[keys];
        this.unread = new boolean[keys];
        this.positions = new long[owners];
    }

    long clears() {
        return clearsEnded.get();
    }

    private int own(int owner, Random random) {
        return owner * keysEach + random.nextInt(keysEach);
    }

    private AssertionError wrong(int number, String what) {
        return new AssertionError(map.name() + ": key " + number + " " + what + "; generation there " + present[number]
                + ", latest " + begun.get(number) + ", clears ended before its write "
                + clearsEndedBefore[number] + ", begun after it " + clearsBegunAfter[number] + ", begun now "
                + clearsBegun + ", ended now " + clearsEnded);
    }

    /**
     * Compares what the owner has seen of a key with what it knows.
     *
     * @param endedBefore clears that had ended before it looked
     */
    private void seen(int number, boolean there, long endedBefore) {
        long begunNow = clearsBegun.get();
        if (there) {
            if (present[number] == 0) {
                throw wrong(number, "is present, but was removed");
            }
            if (endedBefore > clearsBegunAfter[number]) {
                throw wrong(number, "is present, but was cleared");
            }
            return;
        }
        if (present[number] != 0 && !evicting && begunNow == clearsEndedBefore[number]) {
            throw wrong(number, "is lost");
        }
        present[number] = 0;
    }

    private void refused(OffHeapMemoryException refusal) {
        refusals.increment();
        if (refusal.getCause() instanceof OutOfMemoryError) {
            refusedAfterAllocation.increment();
        }
    }

    // ---- Writing own keys --------------------------------------------------------------------

    void write(int owner, Random random) {
        int number = own(owner, random);
        int generation = begun.incrementAndGet(number);
        byte[] key = StressValues.key(number);
        byte[] value = StressValues.value(number, generation);
        long endedBefore = clearsEnded.get();
        boolean stored;
        boolean wasThere;
        try {
            switch (random.nextInt(8)) {
                case 0, 1 -> {
                    stored = map.putIfAbsent(key, value);
                    wasThere = !stored;
                }
                case 2, 3 -> {
                    stored = map.replace(key, value);
                    wasThere = stored;
                }
                default -> {
                    wasThere = !map.put(key, value);
                    stored = true;
                }
            }
        } catch (OffHeapMemoryException e) {
            refused(e);
            return;
        }
        seen(number, wasThere, endedBefore);
        if (stored) {
            present[number] = generation;
            clearsEndedBefore[number] = endedBefore;
            clearsBegunAfter[number] = clearsBegun.get();
            unread[number] = true;
            ended.set(number, generation);
        }
    }

    void remove(int owner, Random random) {
        int number = own(owner, random);
        int generation = begun.incrementAndGet(number);
        long endedBefore = clearsEnded.get();
        seen(number, map.remove(StressValues.key(number)), endedBefore);
        present[number] = 0;
        ended.set(number, generation);
    }

    /** Empties the map, unless another thread is about to. */
    void clear() {
        if (clearing.tryLock()) {
            try {
                clearsBegun.incrementAndGet();
                map.clear();
                clearsEnded.incrementAndGet();
            } finally {
                clearing.unlock();
            }
        }
    }

    // ---- Reading -----------------------------------------------------------------------------

    /** Compares a value that a thread has found with what it knows; {@code latest} was read before it looked. */
    private int check(int reader, int number, ByteBuffer value, int latest) {
        int generation = StressValues.generation(number, value);
        if (number / keysEach == reader) {
            if (generation != present[number]) {
                throw wrong(number, "has generation " + generation);
            }
        } else if (generation < latest || generation > begun.get(number)) {
            throw wrong(number, "has generation " + generation + ", at least " + latest + " was due");
        }
        return generation;
    }

    void get(int reader, Random random) {
        read(reader, random.nextBoolean() ? own(reader, random) : random.nextInt(present.length));
    }

    private void read(int reader, int number) {
        int latest = ended.get(number);
        long endedBefore = clearsEnded.get();
        byte[] value = map.get(StressValues.key(number));
        if (number / keysEach == reader) {
            seen(number, value != null, endedBefore);
        }
        if (value != null) {
            check(reader, number, ByteBuffer.wrap(value), latest);
        }
    }

    void containsKey(int owner, Random random) {
        int number = own(owner, random);
        long endedBefore = clearsEnded.get();
        seen(number, map.containsKey(StressValues.key(number)), endedBefore);
    }

    /** A value that has to stay as it is until its pin is dropped. */
    record Held(PinnedValue pinned, int number, int generation) {
        void release() {
            try (pinned) {
                int now = StressValues.generation(number, pinned.buffer());
                if (now != generation) {
                    throw new AssertionError(
                            "key " + number + ": generation " + now + " stands under a pin on " + generation);
                }
            }
        }
    }

    /** Returns a pinned value, or null. */
    Held pin(int reader, Random random) {
        int number = random.nextBoolean() ? own(reader, random) : random.nextInt(present.length);
        int latest = ended.get(number);
        long endedBefore = clearsEnded.get();
        PinnedValue pinned;
        try {
            pinned = map.pin(StressValues.key(number));
        } catch (OffHeapMemoryException e) {
            refused(e);
            return null;
        }
        if (number / keysEach == reader) {
            seen(number, pinned != null, endedBefore);
        }
        return pinned == null ? null : new Held(pinned, number, check(reader, number, pinned.buffer(), latest));
    }

    private int[] latest() {
        int[] latest = new int[present.length];
        for (int number = 0; number < latest.length; number++) {
            latest[number] = ended.get(number);
        }
        return latest;
    }

    /** Walks over all entries; own keys have to come exactly once. */
    void walk(int reader) {
        int[] latest = latest();
        long endedBefore = clearsEnded.get();
        Set<Integer> own = new HashSet<>();
        map.forEach((key, value) -> {
            int number = StressValues.number(key);
            if (number / keysEach == reader) {
                seen(number, true, endedBefore);
                if (!own.add(number)) {
                    throw wrong(number, "comes twice in a walk");
                }
            }
            check(reader, number, ByteBuffer.wrap(value), latest[number]);
        });
        for (int number = reader * keysEach; number < (reader + 1) * keysEach; number++) {
            if (!own.contains(number)) {
                seen(number, false, endedBefore);
            }
        }
    }

    /** Reads on from where the reader has stopped, now and then from the start, and not always to the end. */
    void changes(int reader, Random random) {
        if (random.nextInt(4) == 0) {
            positions[reader] = 0;
            for (int number = reader * keysEach; number < (reader + 1) * keysEach; number++) {
                unread[number] = true;
            }
        }
        int most = random.nextInt(4) == 0 ? random.nextInt(2_000) : Integer.MAX_VALUE;
        int[] latest = latest();
        long endedBefore = clearsEnded.get();
        boolean complete = false;
        try (ChangeIterator changes = map.changesSince("reader " + reader, positions[reader])) {
            for (int i = 0; i < most && !complete; i++) {
                complete = !changes.hasNext();
                if (!complete) {
                    change(reader, changes.next(), positions[reader], latest, endedBefore);
                    positions[reader] = changes.lastRevision();
                }
            }
            positions[reader] = changes.lastRevision();
        } catch (OffHeapMemoryException e) {
            refused(e);
            return;
        }
        for (int number = reader * keysEach; complete && number < (reader + 1) * keysEach; number++) {
            if (unread[number]) {
                seen(number, false, endedBefore);
                unread[number] = false;
            }
        }
    }

    private void change(int reader, Change change, long after, int[] latest, long endedBefore) {
        int number = StressValues.number(change.key());
        if (change.revision() <= after) {
            throw wrong(number, "has revision " + change.revision() + " behind " + after);
        }
        check(reader, number, ByteBuffer.wrap(change.copyValue()), latest[number]);
        if (number / keysEach == reader) {
            seen(number, true, endedBefore);
            if (!unread[number]) {
                throw wrong(number, "comes twice among the changes");
            }
            unread[number] = false;
        }
    }

    /** Reads every key for its owner, when nobody writes any more, and compares the size. */
    void checkAll() {
        long count = 0;
        for (int owner = 0; owner < owners; owner++) {
            for (int number = owner * keysEach; number < (owner + 1) * keysEach; number++) {
                read(owner, number);
                count += present[number] != 0 ? 1 : 0;
            }
        }
        if (evicting ? map.size() > count : map.size() != count) {
            throw new AssertionError(map.name() + " has " + map.size() + " entries, " + count + " can be read");
        }
    }
}
