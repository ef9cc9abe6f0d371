package com.velt.rz.corvane.nimbra.bench;

import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import com.velt.rz.corvane.nimbra.overflow.ValueStores;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Path;

/** The library's own segment files, checksums included. */
final class NimbraPaging implements PagingStore {
    private static final long LIMIT = 64L << 30;

    private final ValueStore store;

    NimbraPaging(Path folder) throws IOException {
        store = ValueStores.open(folder, LIMIT);
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        return store.write(value);
    }

    @Override
    public void read(long handle, int length, ByteBuffer target) throws IOException {
        store.read(handle, length, target.clear());
        target.flip();
    }

    @Override
    public void free(long handle, int length) throws IOException {
        store.free(handle, length);
    }

    @Override
    public void close() throws IOException {
        store.close();
    }
}
