package com.velt.rz.corvane.nimbra.overflow;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Random;
import java.util.stream.Stream;

/** What the tests of the store share. */
final class Values {
    static final int SLAB = SlabAllocator.SLAB_BYTES;

    private Values() {}

    /** A value that was written. */
    record Written(long position, byte[] bytes) {
        void check(ValueStore store) throws IOException {
            assertArrayEquals(bytes, read(store, position, bytes.length));
        }

        void free(ValueStore store) throws IOException {
            store.free(position, bytes.length);
        }
    }

    static byte[] random(Random random, int length) {
        byte[] bytes = new byte[length];
        random.nextBytes(bytes);
        return bytes;
    }

    static Written write(ValueStore store, byte[] bytes) throws IOException {
        return new Written(store.write(ByteBuffer.wrap(bytes)), bytes);
    }

    static byte[] read(ValueStore store, long position, int length) throws IOException {
        ByteBuffer target = ByteBuffer.allocate(length);
        store.read(position, length, target);
        assertEquals(length, target.position());
        return target.array();
    }

    static List<Path> files(Path directory) throws IOException {
        try (Stream<Path> files = Files.list(directory)) {
            return files.filter(file -> file.toString().endsWith(".values"))
                    .sorted()
                    .toList();
        }
    }

    static long fileBytes(Path directory) throws IOException {
        long sum = 0;
        for (Path file : files(directory)) {
            sum += Files.size(file);
        }
        return sum;
    }
}
