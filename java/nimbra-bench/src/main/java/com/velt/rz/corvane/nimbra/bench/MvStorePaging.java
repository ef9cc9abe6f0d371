package com.velt.rz.corvane.nimbra.bench;

import java.nio.ByteBuffer;
import java.nio.file.Path;
import org.h2.mvstore.MVMap;
import org.h2.mvstore.MVStore;
import org.h2.mvstore.type.ByteArrayDataType;
import org.h2.mvstore.type.LongDataType;

/**
 * H2's MVStore: no compression, commits by the size of the write buffer, superseded chunks reused at once. The
 * background thread stays on, because it is what compacts.
 */
final class MvStorePaging implements PagingStore {
    private final MVStore store;
    private final MVMap<Long, byte[]> values;
    private long next = 1;

    MvStorePaging(Path folder) {
        store = new MVStore.Builder()
                .fileName(folder.resolve("values.mv").toString())
                .cacheSize(64)
                .autoCommitBufferSize(4096)
                .open();
        store.setRetentionTime(0);
        store.setVersionsToKeep(0);
        values = store.openMap(
                "values",
                new MVMap.Builder<Long, byte[]>().keyType(LongDataType.INSTANCE).valueType(ByteArrayDataType.INSTANCE));
    }

    @Override
    public long write(ByteBuffer value) {
        byte[] bytes = new byte[value.remaining()];
        value.get(bytes);
        values.append(next, bytes);
        return next++;
    }

    @Override
    public void read(long handle, int length, ByteBuffer target) {
        target.clear().put(values.get(handle)).flip();
    }

    @Override
    public void free(long handle, int length) {
        values.remove(handle);
    }

    @Override
    public void flush() {
        store.commit();
    }

    @Override
    public void close() {
        store.closeImmediately();
    }
}
