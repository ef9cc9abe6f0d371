package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.ClosedChannelException;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFileAttributeView;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Set;

/**
 * A file behind a channel that survives interrupts. A channel closes when a thread inside it is interrupted, for all
 * threads; here the interrupt waits until the transfer is done, and a channel that was closed all the same is opened
 * again by whoever meets it.
 */
final class ChannelFile implements BlockFile {
    private final Path path;

    /** Written under the monitor of this object, read without. */
    private volatile FileChannel channel;

    private boolean closed; // under the monitor of this object

    private ChannelFile(Path path, FileChannel channel) {
        this.path = path;
        this.channel = channel;
    }

    /** Creates a file that only its owner may read, where the file system knows such a thing. */
    static ChannelFile create(Path path) throws IOException {
        FileAttribute<?>[] attributes = {};
        if (Files.getFileStore(path.toAbsolutePath().getParent())
                .supportsFileAttributeView(PosixFileAttributeView.class)) {
            attributes = new FileAttribute<?>[] {
                PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------"))
            };
        }
        return new ChannelFile(
                path,
                FileChannel.open(
                        path,
                        Set.of(StandardOpenOption.CREATE_NEW, StandardOpenOption.READ, StandardOpenOption.WRITE),
                        attributes));
    }

    @Override
    public int write(ByteBuffer bytes, long offset) throws IOException {
        return transfer(true, bytes, offset);
    }

    @Override
    public int read(ByteBuffer bytes, long offset) throws IOException {
        return transfer(false, bytes, offset);
    }

    /** Both ways are positional, so that a transfer that was cut off can be done again from its start. */
    private int transfer(boolean write, ByteBuffer bytes, long offset) throws IOException {
        int start = bytes.position();
        boolean interrupted = Thread.interrupted();
        try {
            while (true) {
                FileChannel current = channel;
                try {
                    return write ? current.write(bytes, offset) : current.read(bytes, offset);
                } catch (ClosedChannelException e) {
                    interrupted |= Thread.interrupted();
                    bytes.position(start);
                    reopen(current);
                }
            }
        } finally {
            if (interrupted) {
                Thread.currentThread().interrupt();
            }
        }
    }

    private synchronized void reopen(FileChannel broken) throws IOException {
        if (closed) {
            throw new ClosedChannelException();
        }
        if (channel == broken) {
            channel = FileChannel.open(path, StandardOpenOption.READ, StandardOpenOption.WRITE);
        }
    }

    @Override
    public synchronized void close() throws IOException {
        closed = true;
        channel.close();
    }
}
