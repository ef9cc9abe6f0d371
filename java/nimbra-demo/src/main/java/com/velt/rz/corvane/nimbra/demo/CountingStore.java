package com.velt.rz.corvane.nimbra.demo;

import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.concurrent.atomic.LongAdder;

/** A store that counts what goes through it. Thread safe, and holds no lock of its own. */
final class CountingStore implements ValueStore {
    private final ValueStore store;
    private final LongAdder bytesWritten = new LongAdder();
    private final LongAdder bytesRead = new LongAdder();

    CountingStore(ValueStore store) {
        this.store = store;
    }

    long bytesWritten() {
        return bytesWritten.sum();
    }

    long bytesRead() {
        return bytesRead.sum();
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        int length = value.remaining();
        long position = store.write(value);
        bytesWritten.add(length);
        return position;
    }

    @Override
    public void read(long position, int length, ByteBuffer target) throws IOException {
        store.read(position, length, target);
        bytesRead.add(length);
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
