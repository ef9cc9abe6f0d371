package com.velt.rz.corvane.nimbra.overflow;

import static com.velt.rz.corvane.nimbra.overflow.Values.SLAB;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.overflow.Values.Written;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class ValueStoreFaultTest {
    private static final String NO_SPACE = "No space left on device";

    @TempDir
    Path directory;

    private final Random random = new Random(23);
    private final FaultyFiles faults = new FaultyFiles();
    private ValueStore store;

    @BeforeEach
    void open() throws IOException {
        store = SegmentStore.open(directory, 64L * SLAB, 8, faults);
    }

    @AfterEach
    void close() throws IOException {
        store.close();
    }

    private void flip(long position, long byteOfChunk) throws IOException {
        try (RandomAccessFile file =
                new RandomAccessFile(Values.files(directory).get(0).toFile(), "rw")) {
            long offset = (position & 0xffff_ffffL) + byteOfChunk;
            file.seek(offset);
            int old = file.read();
            file.seek(offset);
            file.write(old ^ 0x10);
        }
    }

    /** The target must show neither an advance nor a byte of the file. */
    private CorruptValueException readCorrupt(Written value) {
        ByteBuffer target = ByteBuffer.allocate(value.bytes().length);
        CorruptValueException e = assertThrows(
                CorruptValueException.class, () -> store.read(value.position(), value.bytes().length, target));
        assertEquals(value.position(), e.position());
        assertTrue(
                e.getMessage()
                        .equals("value at position " + value.position() + ": expected " + e.expected() + ", found "
                                + e.found()),
                e.getMessage());
        assertEquals(0, target.position());
        assertArrayEquals(new byte[value.bytes().length], target.array());
        return e;
    }

    /** One of several writes of a large value, or the only one of a small one. */
    @ParameterizedTest
    @ValueSource(ints = {100, 3000, 200_000})
    void storesNothingWhenTheDiskIsFull(int length) throws IOException {
        Written other = Values.write(store, Values.random(random, 50));
        long live = store.bytesLive();
        byte[] bytes = Values.random(random, length);
        for (int good = 0; good < (length > 65536 ? 3 : 1); good++) {
            faults.goodWrites = good;
            faults.writeError = NO_SPACE;
            StoreFullException e = assertThrows(StoreFullException.class, () -> store.write(ByteBuffer.wrap(bytes)));
            assertEquals(NO_SPACE, e.getCause().getMessage());
            assertTrue(e.getMessage().contains("no room for " + length + " bytes in "), e.getMessage());
            assertEquals(live, store.bytesLive());
            other.check(store);
            faults.repair();
        }
        Written written = Values.write(store, bytes);
        written.check(store);
        other.check(store);
    }

    /** The space of failed writes is free again: otherwise it would not do for this many. */
    @Test
    void failedWritesKeepNoSpace() throws IOException {
        Written first = Values.write(store, Values.random(random, 100_000));
        for (int i = 0; i < 1000; i++) {
            faults.goodWrites = 0;
            faults.writeError = i % 2 == 0 ? NO_SPACE : "Input/output error";
            assertThrows(IOException.class, () -> store.write(ByteBuffer.allocate(100_000)));
        }
        faults.repair();
        assertTrue(store.bytesOnDisk() <= SLAB, "" + store.bytesOnDisk());
        assertEquals(100_000, store.bytesLive());
        first.check(store);
    }

    @Test
    void namesOtherWriteErrors() throws IOException {
        faults.goodWrites = 0;
        faults.writeError = "Input/output error";
        IOException e = assertThrows(IOException.class, () -> store.write(ByteBuffer.allocate(10)));
        assertFalse(e instanceof StoreFullException);
        assertEquals(
                "a value of 10 bytes cannot be written in " + directory.toRealPath() + ": Input/output error",
                e.getMessage());
        assertEquals(0, store.bytesLive());
        assertEquals(0, store.bytesOnDisk());
        assertTrue(Values.files(directory).isEmpty());
    }

    @Test
    void createsASegmentLaterWhenItCannotNow() throws IOException {
        faults.goodCreations = 0;
        faults.writeError = "Too many open files";
        assertThrows(IOException.class, () -> store.write(ByteBuffer.allocate(10)));
        faults.writeError = NO_SPACE;
        assertThrows(StoreFullException.class, () -> store.write(ByteBuffer.allocate(10)));
        assertEquals(0, store.bytesOnDisk());
        faults.repair();
        Values.write(store, Values.random(random, 10)).check(store);
    }

    @ParameterizedTest
    @ValueSource(ints = {1000, 300_000})
    void refusesAShortWrite(int length) throws IOException {
        faults.goodWrites = 0;
        IOException e = assertThrows(IOException.class, () -> store.write(ByteBuffer.allocate(length)));
        assertTrue(e.getMessage().matches(".*: only \\d+ of \\d+ bytes could be written"), e.getMessage());
        assertEquals(0, store.bytesLive());
        faults.repair();
        Values.write(store, Values.random(random, length)).check(store);
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 1, 1000, 300_000})
    void completesTransfersThatMoveLittle(int length) throws IOException {
        faults.mostBytes = 7;
        Values.write(store, Values.random(random, length)).check(store);
    }

    @ParameterizedTest
    @ValueSource(ints = {1000, 300_000})
    void refusesAShortRead(int length) throws IOException {
        Written value = Values.write(store, Values.random(random, length));
        for (int good = 0; good < (length > 65536 ? 3 : 1); good++) {
            faults.goodReads = good;
            CorruptValueException e = readCorrupt(value);
            assertEquals(length + ValueFrame.BYTES + " bytes on disk", e.expected());
            assertTrue(e.found().startsWith("the end of the file after "), e.found());
            faults.repair();
            value.check(store);
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {1000, 300_000})
    void namesTheValueOfAReadError(int length) throws IOException {
        Written value = Values.write(store, Values.random(random, length));
        faults.goodReads = 0;
        faults.readError = "Input/output error";
        ByteBuffer target = ByteBuffer.allocate(length);
        IOException e = assertThrows(IOException.class, () -> store.read(value.position(), length, target));
        assertEquals(
                "value at position " + value.position() + " in " + directory.toRealPath()
                        + " cannot be read: Input/output error",
                e.getMessage());
        assertInstanceOf(IOException.class, e.getCause());
        assertEquals(0, target.position());
        faults.repair();
        value.check(store);
    }

    /** Every byte of a short chunk; of a long one, every byte of the frame and some in between. */
    @ParameterizedTest
    @ValueSource(ints = {0, 1, 100, 300_000})
    void findsEveryFlippedByte(int length) throws IOException {
        Written before = Values.write(store, Values.random(random, length));
        Written value = Values.write(store, Values.random(random, length));
        Written after = Values.write(store, Values.random(random, length));
        int chunk = length + ValueFrame.BYTES;
        for (int i = 0; i < chunk; i += i < 8 || i > chunk - 8 ? 1 : Math.max(1, length / 100)) {
            flip(value.position(), i);
            CorruptValueException e = readCorrupt(value);
            assertTrue(e.expected().startsWith(i < 4 ? "length " + length : "checksum "), e.getMessage());
            before.check(store);
            after.check(store);
            flip(value.position(), i);
            value.check(store);
        }
    }

    @Test
    void findsAValueThatStandsAtAnothersPlace() throws IOException {
        Written one = Values.write(store, Values.random(random, 100));
        Written two = Values.write(store, Values.random(random, 100));
        try (RandomAccessFile file =
                new RandomAccessFile(Values.files(directory).get(0).toFile(), "rw")) {
            byte[] chunk = new byte[store.chunkSize(one.position())];
            file.seek(one.position() & 0xffff_ffffL);
            file.readFully(chunk, 0, 100 + ValueFrame.BYTES);
            file.seek(two.position() & 0xffff_ffffL);
            file.write(chunk);
        }
        readCorrupt(two);
        one.check(store);
    }

    @Test
    void refusesAnotherLengthThanWritten() throws IOException {
        Written value = Values.write(store, Values.random(random, 100));
        for (int length : new int[] {-1, 0, 99, 101, 5000}) {
            assertThrows(
                    CorruptValueException.class, () -> store.read(value.position(), length, ByteBuffer.allocate(5000)));
        }
    }

    @Test
    void survivesATruncatedFile() throws IOException {
        List<Written> values = new ArrayList<>();
        for (int i = 0; i < 20; i++) {
            values.add(Values.write(store, Values.random(random, 1000)));
        }
        try (RandomAccessFile file =
                new RandomAccessFile(Values.files(directory).get(0).toFile(), "rw")) {
            file.setLength((values.get(10).position() & 0xffff_ffffL) + 20);
        }
        for (Written value : values.subList(0, 10)) {
            value.check(store);
        }
        for (Written value : values.subList(10, 20)) {
            readCorrupt(value);
            value.free(store);
        }
        for (int i = 0; i < 10; i++) {
            Values.write(store, Values.random(random, 1000)).check(store);
        }
    }

    /** A real device that is always full. */
    @Test
    void recognisesTheSystemsOwnError() throws IOException {
        Path full = Path.of("/dev/full");
        try (ValueStore onFull = SegmentStore.open(directory.resolve("full"), 64L * SLAB, 8, path -> {
            RandomAccessFile device = new RandomAccessFile(full.toFile(), "rw");
            return new BlockFile() {
                @Override
                public int write(ByteBuffer bytes, long offset) throws IOException {
                    return device.getChannel().write(bytes);
                }

                @Override
                public int read(ByteBuffer bytes, long offset) {
                    return -1;
                }

                @Override
                public void close() throws IOException {
                    device.close();
                }
            };
        })) {
            byte[] bytes = new byte[100];
            Arrays.fill(bytes, (byte) 1);
            assertThrows(StoreFullException.class, () -> onFull.write(ByteBuffer.wrap(bytes)));
            assertEquals(0, onFull.bytesLive());
        }
    }
}
