package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;

/** What {@link ValueStoreMain} measures: values of opaque bytes under handles that the store chooses. One thread. */
interface PagingStore extends AutoCloseable {
    /** Stores the remaining bytes of a direct buffer. */
    long write(ByteBuffer value) throws IOException;

    /** Puts the value of {@code length} bytes at the start of a direct buffer and flips it. */
    void read(long handle, int length, ByteBuffer target) throws IOException;

    /** Gives the space of the value back. */
    void free(long handle, int length) throws IOException;

    /** Hands everything that the store still holds in buffers of its own to the operating system; no fsync. */
    default void flush() throws IOException {}

    @Override
    void close() throws IOException;

    /** Opens a store in an empty folder. */
    interface Opener {
        PagingStore open(Path folder) throws IOException;
    }

    /** Bytes of all blocks that the files in the folder occupy; holes count nothing. */
    static long bytesOnDisk(Path folder) throws IOException {
        Process du = new ProcessBuilder("du", "-s", "--block-size=1", folder.toString())
                .redirectError(ProcessBuilder.Redirect.INHERIT)
                .start();
        String text = new String(du.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        return Long.parseLong(text.substring(0, text.indexOf('\t')));
    }
}
