package com.velt.rz.corvane.nimbra.overflow;

import com.velt.rz.corvane.nimbra.overflow.SlabAllocator.Segment;
import com.velt.rz.corvane.nimbra.overflow.SlabAllocator.Slot;
import java.io.IOException;
import java.nio.BufferOverflowException;
import java.nio.ByteBuffer;
import java.nio.ReadOnlyBufferException;
import java.nio.channels.ClosedChannelException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Locale;
import java.util.concurrent.atomic.AtomicLong;
import java.util.regex.Pattern;

/**
 * Values in segment files. {@link SlabAllocator} says where, {@link ValueFrame} how; this class owns the files and
 * turns what goes wrong into the exceptions of {@link ValueStore}.
 *
 * <p>Locks: the allocator's monitor, for bookkeeping; a segment's monitor, for creating, closing and deleting its file.
 * Neither is held during a transfer, and no thread takes one while it holds the other.
 */
final class SegmentStore implements ValueStore {
    private static final Pattern FILE_NAME = Pattern.compile("nimbra-overflow-\\d+\\.values");

    private final Path directory;
    private final DirectoryLock lock;
    private final long limit;
    private final BlockFile.Opener opener;
    private final SlabAllocator allocator;
    private final ValueFrame frame = new ValueFrame();
    private final AtomicLong lastFile = new AtomicLong(); // no name is used twice: an index of a segment can be

    /** Set once; a segment's file is created only if it is not set yet under that segment's monitor. */
    private volatile boolean closed;

    private SegmentStore(Path directory, DirectoryLock lock, long limit, int slabsPerSegment, BlockFile.Opener opener) {
        this.directory = directory;
        this.lock = lock;
        this.limit = limit;
        this.opener = opener;
        this.allocator = new SlabAllocator(limit, slabsPerSegment);
    }

    static SegmentStore open(Path directory, long limit, int slabsPerSegment, BlockFile.Opener opener)
            throws IOException {
        if (limit < SlabAllocator.SLAB_BYTES) {
            throw new IllegalArgumentException(
                    "the limit of a value store is at least " + SlabAllocator.SLAB_BYTES + " bytes, not " + limit);
        }
        Path real = Files.createDirectories(directory).toRealPath();
        DirectoryLock lock = DirectoryLock.take(real);
        try {
            deleteLeftovers(real);
            return new SegmentStore(real, lock, limit, slabsPerSegment, opener);
        } catch (IOException | RuntimeException e) {
            lock.close();
            throw e;
        }
    }

    private static void deleteLeftovers(Path directory) throws IOException {
        try (DirectoryStream<Path> files = Files.newDirectoryStream(directory, SegmentStore::isSegment)) {
            for (Path file : files) {
                Files.delete(file);
            }
        }
    }

    private static boolean isSegment(Path file) {
        return FILE_NAME.matcher(file.getFileName().toString()).matches() && Files.isRegularFile(file);
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        checkOpen();
        int length = value.remaining();
        if (length > MAX_LENGTH) {
            throw new IllegalArgumentException("a value has at most " + MAX_LENGTH + " bytes, not " + length);
        }
        Slot slot = allocator.allocate(length);
        if (slot == null) {
            throw new StoreFullException(
                    "no room for " + length + " bytes in " + directory + ": its files take " + bytesOnDisk()
                            + " of at most " + limit + " bytes",
                    null);
        }
        try {
            frame.write(file(slot.segment()), slot.offset(), slot.position(), value);
            return slot.position();
        } catch (IOException e) {
            giveBack(slot, length, e);
            throw writeFailure(length, e);
        } catch (RuntimeException | Error e) {
            giveBack(slot, length, e);
            throw e;
        }
    }

    private void giveBack(Slot slot, int length, Throwable reason) {
        try {
            release(slot.position(), length);
        } catch (IOException e) {
            reason.addSuppressed(e);
        }
    }

    @Override
    public void read(long position, int length, ByteBuffer target) throws IOException {
        checkOpen();
        if (target.isReadOnly()) {
            throw new ReadOnlyBufferException();
        }
        if (target.remaining() < length) {
            throw new BufferOverflowException();
        }
        Slot slot = allocator.find(position);
        if (slot == null) {
            checkOpen();
            throw new CorruptValueException(position, "length " + length, "no value there");
        }
        if (length < 0 || length > slot.bytes() - ValueFrame.BYTES) {
            throw new CorruptValueException(position, "length " + length, "a chunk of " + slot.bytes() + " bytes");
        }
        try {
            frame.read(file(slot.segment()), slot.offset(), position, length, target);
        } catch (ClosedChannelException e) {
            checkOpen();
            throw new CorruptValueException(position, "length " + length, "a value being freed");
        } catch (CorruptValueException | StoreClosedException e) {
            throw e;
        } catch (IOException e) {
            throw new IOException(
                    "value at position " + position + " in " + directory + " cannot be read: " + e.getMessage(), e);
        }
    }

    @Override
    public void free(long position, int length) throws IOException {
        checkOpen();
        release(position, length);
    }

    private void release(long position, int length) throws IOException {
        Segment emptied = allocator.release(position, length);
        if (emptied != null) {
            delete(emptied);
            allocator.gone(emptied);
        }
    }

    @Override
    public int chunkSize(long position) throws IOException {
        checkOpen();
        Slot slot = allocator.find(position);
        if (slot == null) {
            throw new IllegalArgumentException("no value stands at position " + position);
        }
        return slot.bytes();
    }

    @Override
    public long bytesOnDisk() {
        return allocator.bytesOnDisk();
    }

    @Override
    public long bytesLive() {
        return allocator.bytesLive();
    }

    @Override
    public long limit() {
        return limit;
    }

    @Override
    public void close() throws IOException {
        synchronized (lock) {
            if (closed) {
                return;
            }
            closed = true;
        }
        IOException failure = null;
        for (Segment segment : allocator.segments()) {
            try {
                delete(segment);
            } catch (IOException e) {
                failure = suppress(failure, e);
            }
        }
        try {
            lock.close();
        } catch (IOException e) {
            failure = suppress(failure, e);
        }
        if (failure != null) {
            throw failure;
        }
    }

    private static IOException suppress(IOException first, IOException next) {
        if (first == null) {
            return next;
        }
        first.addSuppressed(next);
        return first;
    }

    private void checkOpen() throws StoreClosedException {
        if (closed) {
            throw new StoreClosedException(directory);
        }
    }

    /** The file of a segment that has a value, created for the first one. */
    private BlockFile file(Segment segment) throws IOException {
        synchronized (segment) {
            checkOpen();
            if (segment.path == null) {
                Path path = directory.resolve("nimbra-overflow-" + lastFile.incrementAndGet() + ".values");
                segment.file = opener.create(path);
                segment.path = path;
            }
            if (segment.file == null) {
                throw new ClosedChannelException(); // emptied since the position was looked up
            }
            return segment.file;
        }
    }

    /** At most once for each file: after the store is closed, another one may use the same name. */
    private static void delete(Segment segment) throws IOException {
        synchronized (segment) {
            BlockFile file = segment.file;
            if (file != null) {
                segment.file = null;
                try {
                    file.close();
                } finally {
                    Files.deleteIfExists(segment.path);
                }
            }
        }
    }

    private IOException writeFailure(int length, IOException failure) {
        if (failure instanceof StoreClosedException) {
            return failure;
        }
        if (failure instanceof ClosedChannelException) {
            return new StoreClosedException(directory);
        }
        if (isFull(length, failure)) {
            return new StoreFullException(
                    "no room for " + length + " bytes in " + directory + ": " + failure.getMessage(), failure);
        }
        return new IOException(
                "a value of " + length + " bytes cannot be written in " + directory + ": " + failure.getMessage(),
                failure);
    }

    /** The text of the error depends on the language of the process, so the room that is left is asked for as well. */
    private boolean isFull(int length, IOException failure) {
        String text = String.valueOf(failure.getMessage()).toLowerCase(Locale.ROOT);
        if (text.contains("no space left") || text.contains("quota exceeded")) {
            return true;
        }
        try {
            return Files.getFileStore(directory).getUsableSpace() < length + ValueFrame.BYTES;
        } catch (IOException e) {
            return false;
        }
    }
}
