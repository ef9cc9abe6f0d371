package com.velt.rz.corvane.nimbra;

import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.concurrent.atomic.AtomicLong;

/** A store that knows how many values are in it. Thread safe, and holds no lock of its own. */
final class SoakStore extends ForwardingStore {
    private final AtomicLong values = new AtomicLong();

    SoakStore(ValueStore store) {
        super(store);
    }

    /** Values written and not freed yet. */
    long values() {
        return values.get();
    }

    @Override
    public long write(ByteBuffer value) throws IOException {
        long position = super.write(value);
        values.incrementAndGet();
        return position;
    }

    @Override
    public void free(long position, int length) throws IOException {
        super.free(position, length);
        values.decrementAndGet();
    }
}
