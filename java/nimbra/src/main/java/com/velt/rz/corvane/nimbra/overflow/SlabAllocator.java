package com.velt.rz.corvane.nimbra.overflow;

import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.BitSet;
import java.util.Comparator;
import java.util.List;
import java.util.TreeSet;

/**
 * Which bytes of which segment are free. Knows nothing of files and does no input or output.
 *
 * <p>A segment is divided into slabs of 256 KiB, a slab into slots of one size. A value that needs more than half a slab
 * gets a run of adjacent slabs, which counts as one slab with one slot; a value that needs more than a segment gets a
 * longer segment. Slots and slabs are taken from the lowest position on, so that the last segments run empty. A segment
 * without values is taken out and handed to the caller.
 *
 * <p>A position is the index of the segment plus one in the upper half, the offset in the segment in the lower half.
 *
 * <p>Every method is atomic; the monitor of this object guards all state, that of segments and slabs included.
 */
final class SlabAllocator {
    static final int SLAB_BYTES = 256 << 10;
    static final int SLABS_PER_SEGMENT = 1024;
    static final int MAX_LENGTH = Integer.MAX_VALUE - SLAB_BYTES - ValueFrame.BYTES;

    /** Sizes of slots in ascending order, four to a doubling, the frame on top so that round lengths fit well. */
    private static final int[] SLOT_BYTES = slotSizes();

    private final int slabsPerSegment;
    private final long limit;
    private final List<Segment> segments = new ArrayList<>(); // by index; null where one was taken out
    private final List<TreeSet<Slab>> notFull = new ArrayList<>(); // by size of slots: slabs with free ones
    private long bytesOnDisk;
    private long bytesLive;

    /** A file's worth of slabs. */
    static final class Segment {
        private final int index;
        private final Slab[] slabs; // at the first slab of each run; null elsewhere
        private final BitSet taken = new BitSet();
        private int reached; // slabs below this have been in use and take space on disk

        /** Null before the first value; owned by the store, as the path, under the monitor of this segment. */
        BlockFile file;

        /** Null until the file was created. */
        Path path;

        private Segment(int index, int slabs) {
            this.index = index;
            this.slabs = new Slab[slabs];
        }

        /** The bytes that its file takes at most. */
        private long bytes() {
            return (long) reached * SLAB_BYTES;
        }
    }

    private static final class Slab {
        private static final Comparator<Slab> BY_POSITION =
                Comparator.<Slab>comparingInt(slab -> slab.segment.index).thenComparingInt(slab -> slab.first);

        private final Segment segment;
        private final int first;
        private final int count;
        private final int slotBytes;
        private final int slots;
        private final BitSet live = new BitSet();
        private int used;

        private Slab(Segment segment, int first, int count, int slotBytes) {
            this.segment = segment;
            this.first = first;
            this.count = count;
            this.slotBytes = slotBytes;
            this.slots = Math.max(1, SLAB_BYTES / slotBytes);
        }
    }

    /** Space for one value. */
    record Slot(Segment segment, long offset, int bytes) {
        long position() {
            return (segment.index + 1L) << 32 | offset;
        }
    }

    SlabAllocator(long limit, int slabsPerSegment) {
        this.limit = limit;
        this.slabsPerSegment = slabsPerSegment;
        for (int i = 0; i < SLOT_BYTES.length; i++) {
            notFull.add(new TreeSet<>(Slab.BY_POSITION));
        }
    }

    private static int[] slotSizes() {
        int[] sizes = new int[64];
        int count = 0;
        for (int step = 16; step <= 8 << 10; step *= 2) {
            for (int size = 4 * step; size < 8 * step; size += step) {
                sizes[count++] = size + ValueFrame.BYTES;
            }
        }
        sizes[count++] = SLAB_BYTES / 3;
        sizes[count++] = SLAB_BYTES / 2;
        return Arrays.copyOf(sizes, count);
    }

    /** Takes space for a value of {@code length} bytes and its frame; null if the limit leaves none. */
    synchronized Slot allocate(int length) {
        int bytes = length + ValueFrame.BYTES;
        Slab slab = bytes > SLAB_BYTES / 2 ? slabsFor(bytes) : slabWithSlot(bytes);
        if (slab == null) {
            return null;
        }
        int slot = slab.live.nextClearBit(0);
        slab.live.set(slot);
        if (++slab.used == slab.slots && slab.slots > 1) {
            notFull(slab).remove(slab);
        }
        bytesLive += length;
        return new Slot(slab.segment, (long) slab.first * SLAB_BYTES + (long) slot * slab.slotBytes, slab.slotBytes);
    }

    private Slab slabsFor(int bytes) {
        int count = (bytes + SLAB_BYTES - 1) / SLAB_BYTES;
        return newSlab(count, count * SLAB_BYTES);
    }

    private Slab slabWithSlot(int bytes) {
        int search = Arrays.binarySearch(SLOT_BYTES, bytes);
        int size = search >= 0 ? search : -search - 1;
        if (!notFull.get(size).isEmpty()) {
            return notFull.get(size).first();
        }
        Slab slab = newSlab(1, SLOT_BYTES[size]);
        if (slab != null) {
            notFull.get(size).add(slab);
            return slab;
        }
        // Too long a slot is better than none.
        for (TreeSet<Slab> longer : notFull.subList(size + 1, notFull.size())) {
            if (!longer.isEmpty()) {
                return longer.first();
            }
        }
        return null;
    }

    /** Takes adjacent slabs where the files grow least; null if that is still beyond the limit. */
    private Slab newSlab(int count, int slotBytes) {
        Segment best = null;
        int bestFirst = 0;
        int leastGrowth = Integer.MAX_VALUE;
        for (Segment segment : segments) {
            if (segment == null) {
                continue;
            }
            int first = firstRun(segment, count);
            int growth = Math.max(0, first + count - segment.reached);
            if (first + count <= segment.slabs.length && growth < leastGrowth) {
                best = segment;
                bestFirst = first;
                leastGrowth = growth;
                if (growth == 0) {
                    break;
                }
            }
        }
        long growth = best == null ? count : leastGrowth;
        if (bytesOnDisk + growth * SLAB_BYTES > limit) {
            return null;
        }
        return take(best == null ? addSegment(count) : best, bestFirst, count, slotBytes);
    }

    private Segment addSegment(int leastSlabs) {
        int index = segments.indexOf(null);
        if (index < 0) {
            index = segments.size();
            segments.add(null);
        }
        Segment segment = new Segment(index, Math.max(leastSlabs, slabsPerSegment));
        segments.set(index, segment);
        return segment;
    }

    /** The first slab of the first run of {@code count} free ones, which may end behind the segment. */
    private static int firstRun(Segment segment, int count) {
        int first = segment.taken.nextClearBit(0);
        while (true) {
            int end = segment.taken.nextSetBit(first);
            if (end < 0 || end - first >= count) {
                return first;
            }
            first = segment.taken.nextClearBit(end);
        }
    }

    private Slab take(Segment segment, int first, int count, int slotBytes) {
        Slab slab = new Slab(segment, first, count, slotBytes);
        segment.slabs[first] = slab;
        segment.taken.set(first, first + count);
        int growth = Math.max(0, first + count - segment.reached);
        segment.reached += growth;
        bytesOnDisk += (long) growth * SLAB_BYTES;
        return slab;
    }

    /** The space of the value at a position; null if there is none. */
    synchronized Slot find(long position) {
        Slab slab = slabAt(position);
        return slab == null ? null : new Slot(slab.segment, position & 0xffff_ffffL, slab.slotBytes);
    }

    /**
     * Gives the space of a value of {@code length} bytes back.
     *
     * @return the segment of the value if it is empty now; it is taken out, and counts until {@link #gone}
     * @throws IllegalArgumentException if no value stands at the position, or it cannot have this length
     */
    synchronized Segment release(long position, int length) {
        Slab slab = slabAt(position);
        if (slab == null) {
            throw new IllegalArgumentException("no value stands at position " + position);
        }
        if (length < 0 || length > slab.slotBytes - ValueFrame.BYTES) {
            throw new IllegalArgumentException("the value at position " + position + " cannot have " + length
                    + " bytes: its chunk has " + slab.slotBytes);
        }
        slab.live.clear(slotIndex(slab, position));
        bytesLive -= length;
        if (--slab.used > 0) {
            notFull(slab).add(slab);
            return null;
        }
        if (slab.slots > 1) {
            notFull(slab).remove(slab);
        }
        Segment segment = slab.segment;
        segment.slabs[slab.first] = null;
        segment.taken.clear(slab.first, slab.first + slab.count);
        if (!segment.taken.isEmpty()) {
            return null;
        }
        segments.set(segment.index, null);
        return segment;
    }

    /** The file of a segment that was taken out does not exist any more. */
    synchronized void gone(Segment segment) {
        bytesOnDisk -= segment.bytes();
    }

    /** Every segment that is not taken out. */
    synchronized List<Segment> segments() {
        return segments.stream().filter(segment -> segment != null).toList();
    }

    synchronized long bytesOnDisk() {
        return bytesOnDisk;
    }

    synchronized long bytesLive() {
        return bytesLive;
    }

    private Slab slabAt(long position) {
        long index = (position >>> 32) - 1;
        Segment segment = index >= 0 && index < segments.size() ? segments.get((int) index) : null;
        long slabIndex = (position & 0xffff_ffffL) / SLAB_BYTES;
        if (segment == null || slabIndex >= segment.slabs.length) {
            return null;
        }
        Slab slab = segment.slabs[(int) slabIndex];
        if (slab == null || (position & 0xffff_ffffL) % SLAB_BYTES % slab.slotBytes != 0) {
            return null;
        }
        return slab.live.get(slotIndex(slab, position)) ? slab : null;
    }

    private static int slotIndex(Slab slab, long position) {
        return (int) ((position & 0xffff_ffffL) % SLAB_BYTES / slab.slotBytes);
    }

    private TreeSet<Slab> notFull(Slab slab) {
        return notFull.get(Arrays.binarySearch(SLOT_BYTES, slab.slotBytes));
    }
}
