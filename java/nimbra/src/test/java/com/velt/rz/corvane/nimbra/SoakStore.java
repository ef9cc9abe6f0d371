package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.concurrent.atomic.AtomicLong;

/** A store that knows how many values are in it. Thread safe, and holds no lock of its own. */
final class SoakStore implements ValueStore {
    private final ValueStore store;
    private final AtomicLong values = new AtomicLong();

    SoakStore(ValueStore store) {
        this.store = store;
    }

    /** Values written and not freed yet. */
    long values() {
        return values.get();
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        long position = store.write(value);
        values.incrementAndGet();
        return position;
    }

    @Override
    public void read(long position, int length, ByteBuffer target) throws IOException {
        store.read(position, length, target);
    }

    @Override
    public void free(long position, int length) throws IOException {
        store.free(position, length);
        values.decrementAndGet();
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
