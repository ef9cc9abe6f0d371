package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;

/**
 * The floor: every value at a 4 KiB boundary of a segment file whose length was set beforehand, one positional write
 * and one positional read, no checksum, no index.
 */
final class PlainFilePaging implements PagingStore {
    private static final int SLOT = 4096;
    private static final int SLOTS_PER_SEGMENT = 1 << 16;

    private final Path folder;
    private final List<FileChannel> segments = new ArrayList<>();
    private final ArrayDeque<Long> free = new ArrayDeque<>();
    private long next;

    PlainFilePaging(Path folder) {
        this.folder = folder;
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        Long reused = free.poll();
        long slot = reused != null ? reused : next++;
        if (slot / SLOTS_PER_SEGMENT == segments.size()) {
            FileChannel segment = FileChannel.open(
                    folder.resolve("segment-" + segments.size()),
                    StandardOpenOption.CREATE_NEW,
                    StandardOpenOption.READ,
                    StandardOpenOption.WRITE);
            segment.write(ByteBuffer.allocate(1), (long) SLOTS_PER_SEGMENT * SLOT - 1);
            segments.add(segment);
        }
        FileChannel segment = segments.get((int) (slot / SLOTS_PER_SEGMENT));
        long offset = slot % SLOTS_PER_SEGMENT * SLOT;
        while (value.hasRemaining()) {
            offset += segment.write(value, offset);
        }
        return slot;
    }

    @Override
    public void read(long handle, int length, ByteBuffer target) throws IOException {
        FileChannel segment = segments.get((int) (handle / SLOTS_PER_SEGMENT));
        long offset = handle % SLOTS_PER_SEGMENT * SLOT;
        target.clear().limit(length);
        while (target.hasRemaining()) {
            offset += segment.read(target, offset);
        }
        target.flip();
    }

    @Override
    public void free(long handle, int length) {
        free.push(handle);
    }

    @Override
    public void close() throws IOException {
        for (FileChannel segment : segments) {
            segment.close();
        }
    }
}
