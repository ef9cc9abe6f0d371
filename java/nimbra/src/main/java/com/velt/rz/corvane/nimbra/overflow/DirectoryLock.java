package com.velt.rz.corvane.nimbra.overflow;

import java.io.Closeable;
import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;

/**
 * The right to use a directory, across processes through a locked file in it and within this process through a set.
 * The set is asked first: a process loses its lock on a file as soon as it closes any other channel to that file. The
 * file stays when the lock is given back, empty: were it deleted, two processes could hold locks on two files of the
 * same name.
 */
final class DirectoryLock implements Closeable {
    static final String FILE_NAME = "nimbra-overflow.lock";

    private static final Set<Path> HELD = ConcurrentHashMap.newKeySet();

    private final Path directory;
    private final FileChannel channel;

    private DirectoryLock(Path directory, FileChannel channel) {
        this.directory = directory;
        this.channel = channel;
    }

    /**
     * Takes the lock without waiting.
     *
     * @param directory its real path
     * @throws IOException if another store has it
     */
    static DirectoryLock take(Path directory) throws IOException {
        if (!HELD.add(directory)) {
            throw new IOException(directory + " is in use by another value store of this process");
        }
        FileChannel channel = null;
        boolean taken = false;
        try {
            channel =
                    FileChannel.open(directory.resolve(FILE_NAME), StandardOpenOption.CREATE, StandardOpenOption.WRITE);
            if (channel.tryLock() == null) {
                throw new IOException(directory + " is in use by a value store of another process");
            }
            taken = true;
            return new DirectoryLock(directory, channel);
        } finally {
            if (!taken) {
                HELD.remove(directory);
                if (channel != null) {
                    channel.close();
                }
            }
        }
    }

    @Override
    public void close() throws IOException {
        try {
            channel.close();
        } finally {
            HELD.remove(directory);
        }
    }
}
