package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;
import java.nio.file.Path;

/** Opens the stores that come with the library. */
public final class ValueStores {
    private ValueStores() {}

    /**
     * Opens an empty store of segment files in a directory, which is created if it is missing. Segment files that a
     * former process left there are deleted; other files stay untouched. The directory belongs to the store until it is
     * closed; then only an empty lock file remains.
     *
     * <p>Values of up to 128 KiB share slabs of 256 KiB, each divided into slots of one size, longer ones get slabs of
     * their own. A slot is at most a quarter longer than what is put into it, up to values of 56 KiB, and at most twice
     * as long above. A value takes a free slot of its size first, wherever it lies; then a slab without values, to be
     * divided anew; the files grow only when there is neither. So, with values of up to 256 KiB, they never take more
     * than the sum, over the 43 sizes of slots, of the most slabs that the values of one size ever needed at a time; for
     * values whose lengths keep their distribution they stop growing when the number of values does. Among longer values,
     * gaps too short for the next one can stay behind.
     *
     * @param limitBytes the most that the files may take together, at least 262,144
     * @throws IOException if another store uses the directory, or the file system reports an error
     * @throws IllegalArgumentException if the limit is too small for a single slab
     */
    public static ValueStore open(Path directory, long limitBytes) throws IOException {
        return SegmentStore.open(directory, limitBytes, SlabAllocator.SLABS_PER_SEGMENT, ChannelFile::create);
    }
}
