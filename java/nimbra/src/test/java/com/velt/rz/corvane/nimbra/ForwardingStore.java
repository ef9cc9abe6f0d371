package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import java.io.IOException;
import java.nio.ByteBuffer;

/** Passes every call on to another store. As thread safe as that one, and holds no lock of its own. */
class ForwardingStore implements ValueStore {
    private final ValueStore store;

    ForwardingStore(ValueStore store) {
        this.store = store;
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        return store.write(value);
    }

    @Override
    public void read(long position, int length, ByteBuffer target) throws IOException {
        store.read(position, length, target);
    }

    @Override
    public void free(long position, int length) throws IOException {
        store.free(position, length);
    }

    @Override
    public int chunkSize(long position) throws IOException {
        return store.chunkSize(position);
    }

    @Override
    public long bytesOnDisk() {
        return store.bytesOnDisk();
    }

    @Override
    public long bytesLive() {
        return store.bytesLive();
    }

    @Override
    public long limit() {
        return store.limit();
    }

    @Override
    public void close() throws IOException {
        store.close();
    }
}
