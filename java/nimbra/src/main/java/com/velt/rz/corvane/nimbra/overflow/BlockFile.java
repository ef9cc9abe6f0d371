package com.velt.rz.corvane.nimbra.overflow;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.ClosedChannelException;
import java.nio.file.Path;

/** Positional input and output on one file. Tests put one that fails in between. */
interface BlockFile extends Closeable {
    /**
     * Writes some of the remaining bytes at {@code offset}, advancing the buffer by as many.
     *
     * @throws ClosedChannelException after {@link #close}
     */
    int write(ByteBuffer bytes, long offset) throws IOException;

    /**
     * Reads some bytes from {@code offset}, at most as many as remain in the buffer; -1 at the end of the file.
     *
     * @throws ClosedChannelException after {@link #close}
     */
    int read(ByteBuffer bytes, long offset) throws IOException;

    /** Creates a file. */
    interface Opener {
        BlockFile create(Path path) throws IOException;
    }
}
