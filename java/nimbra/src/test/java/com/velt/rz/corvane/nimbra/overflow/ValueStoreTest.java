package com.velt.rz.corvane.nimbra.overflow;

import static com.velt.rz.corvane.nimbra.overflow.Values.SLAB;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.nimbra.overflow.Values.Written;
import java.io.IOException;
import java.nio.BufferOverflowException;
import java.nio.ByteBuffer;
import java.nio.ReadOnlyBufferException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class ValueStoreTest {
    private static final long AMPLE = 1L << 30;

    @TempDir
    Path directory;

    private final Random random = new Random(17);
    private ValueStore store;

    private void open(long limit, int slabsPerSegment) throws IOException {
        store = SegmentStore.open(directory, limit, slabsPerSegment, ChannelFile::create);
    }

    @AfterEach
    void close() throws IOException {
        store.close();
    }

    @ParameterizedTest
    @ValueSource(
            ints = {
                0,
                1,
                63,
                64,
                65,
                1023,
                1024,
                1025,
                4096,
                57344,
                57345,
                65535,
                65536,
                65537,
                87373,
                87374,
                131064,
                131065,
                262136,
                262137,
                1 << 20,
                (1 << 20) + 1,
                3_500_001
            })
    void returnsEveryLengthFromBothKindsOfBuffers(int length) throws IOException {
        open(AMPLE, 8);
        byte[] bytes = Values.random(random, length);
        ByteBuffer direct = ByteBuffer.allocateDirect(length + 10).position(3);
        direct.put(bytes).flip().position(3);
        Written heap = Values.write(store, bytes);
        long position = store.write(direct.asReadOnlyBuffer());
        assertTrue(position >= 1 && heap.position() >= 1);
        assertEquals(3, direct.position());

        ByteBuffer target = ByteBuffer.allocateDirect(length + 20).position(7).limit(length + 9);
        store.read(heap.position(), length, target);
        assertEquals(length + 7, target.position());
        assertEquals(length + 9, target.limit());
        assertEquals(ByteBuffer.wrap(bytes), target.flip().position(7));
        assertArrayEquals(bytes, Values.read(store, position, length));

        assertEquals(2L * length, store.bytesLive());
        int chunk = store.chunkSize(position);
        assertTrue(
                chunk >= length + ValueFrame.BYTES && chunk <= Math.max(72, 2L * (length + ValueFrame.BYTES)),
                "" + chunk);
        assertTrue(Values.fileBytes(directory) <= store.bytesOnDisk());
    }

    @Test
    void roundsUpByAtMostAQuarter() throws IOException {
        open(AMPLE, 8);
        for (int length = 64; length <= 57344; length += 61) {
            long position = store.write(ByteBuffer.allocate(length));
            int chunk = store.chunkSize(position);
            assertTrue(chunk - ValueFrame.BYTES <= length + length / 4 + 1, length + " bytes in " + chunk);
            store.free(position, length);
        }
    }

    @Test
    void fillsSegmentsAndGoesOnInTheNext() throws IOException {
        open(AMPLE, 2);
        List<Written> all = new ArrayList<>();
        Set<Long> positions = new HashSet<>();
        for (int i = 0; i < 1000; i++) {
            all.add(Values.write(store, Values.random(random, 3000)));
            assertTrue(positions.add(all.get(i).position()));
        }
        int perSlab = SLAB / store.chunkSize(all.get(0).position());
        int slabs = (1000 + perSlab - 1) / perSlab;
        assertEquals((long) slabs * SLAB, store.bytesOnDisk());
        assertEquals((slabs + 1) / 2, Values.files(directory).size());
        for (Written value : all) {
            value.check(store);
        }
    }

    @Test
    void givesAValueLongerThanASegmentAFileOfItsOwn() throws IOException {
        open(AMPLE, 2);
        Written small = Values.write(store, Values.random(random, 100));
        Written large = Values.write(store, Values.random(random, 5 * SLAB));
        Written fitting = Values.write(store, Values.random(random, 2 * SLAB - ValueFrame.BYTES));
        small.check(store);
        large.check(store);
        fitting.check(store);
        assertEquals(3, Values.files(directory).size());
        assertEquals(9L * SLAB, store.bytesOnDisk());
        large.free(store);
        assertEquals(3L * SLAB, store.bytesOnDisk());
        small.check(store);
        fitting.check(store);
    }

    @Test
    void deletesFilesThatRunEmpty() throws IOException {
        open(AMPLE, 2);
        List<Written> all = new ArrayList<>();
        for (int i = 0; i < 500; i++) {
            all.add(Values.write(store, Values.random(random, 4096)));
        }
        Written kept = all.remove(250);
        for (Written value : all) {
            value.free(store);
        }
        assertEquals(1, Values.files(directory).size());
        assertEquals(kept.bytes().length, store.bytesLive());
        kept.check(store);
        kept.free(store);
        assertEquals(0, Values.files(directory).size());
        assertEquals(0, store.bytesOnDisk());
        assertEquals(0, store.bytesLive());
        Values.write(store, kept.bytes()).check(store);
    }

    /** Ten times the live bytes pass through. */
    @Test
    void reusesSpaceUnderChurn() throws IOException {
        open(AMPLE, 16);
        List<Written> live = new ArrayList<>();
        for (int i = 0; i < 4000; i++) {
            live.add(Values.write(store, Values.random(random, 1024 + random.nextInt(3073))));
        }
        long before = store.bytesOnDisk();
        for (int i = 0; i < 40_000; i++) {
            int victim = random.nextInt(live.size());
            live.get(victim).check(store);
            live.get(victim).free(store);
            live.set(victim, Values.write(store, Values.random(random, 1024 + random.nextInt(3073))));
        }
        long payload = live.stream().mapToLong(value -> value.bytes().length).sum();
        assertEquals(payload, store.bytesLive());
        assertTrue(store.bytesOnDisk() <= before + before / 5, before + " -> " + store.bytesOnDisk());
        assertTrue(Values.fileBytes(directory) <= store.bytesOnDisk());
        for (Written value : live) {
            value.check(store);
        }
    }

    /** One length after the other: each finds the slabs that the former one has left. */
    @Test
    void reusesWholeSlabsForOtherLengths() throws IOException {
        open(AMPLE, 64);
        int batch = 4 << 20;
        Written kept = Values.write(store, Values.random(random, 100)); // or the file would go each time
        for (int length = 100; length < 60_000; length += length / 3) {
            List<Written> all = new ArrayList<>();
            for (int i = 0; i < batch; i += length) {
                all.add(Values.write(store, Values.random(random, length)));
            }
            assertTrue(store.bytesOnDisk() <= batch + batch / 2, length + ": " + store.bytesOnDisk());
            for (Written value : all) {
                value.check(store);
                value.free(store);
            }
        }
        kept.check(store);
        assertEquals(1, Values.files(directory).size());
    }

    @Test
    void keepsToItsLimitAndRecovers() throws IOException {
        open(4L * SLAB, 3);
        List<Written> all = new ArrayList<>();
        StoreFullException full = null;
        while (full == null) {
            try {
                all.add(Values.write(store, Values.random(random, 4096)));
            } catch (StoreFullException e) {
                full = e;
            }
        }
        assertEquals(4 * (SLAB / store.chunkSize(all.get(0).position())), all.size());
        assertTrue(full.getMessage().contains("4096 bytes in " + directory.toRealPath()), full.getMessage());
        assertTrue(full.getMessage().contains("1048576 of at most 1048576"), full.getMessage());
        assertEquals(4L * SLAB, store.limit());
        assertEquals(store.limit(), store.bytesOnDisk());
        assertEquals(all.size() * 4096L, store.bytesLive());
        all.remove(5).free(store);
        all.add(Values.write(store, Values.random(random, 4095)));
        // A short value may have a slot for longer ones when no slab is left.
        all.remove(7).free(store);
        all.add(Values.write(store, Values.random(random, 10)));
        assertThrows(StoreFullException.class, () -> store.write(ByteBuffer.allocate(10)));
        for (Written value : all) {
            value.check(store);
        }
    }

    @Test
    void refusesASecondFreeAndPositionsOfNoValue() throws IOException {
        open(AMPLE, 4);
        Written kept = Values.write(store, Values.random(random, 500));
        Written freed = Values.write(store, Values.random(random, 500));
        freed.free(store);
        String text = assertThrows(IllegalArgumentException.class, () -> freed.free(store))
                .getMessage();
        assertEquals("no value stands at position " + freed.position(), text);
        for (long position : new long[] {
            Long.MIN_VALUE, -1, 0, 1, kept.position() + 1, kept.position() + SLAB, 5L << 32, Long.MAX_VALUE
        }) {
            assertThrows(IllegalArgumentException.class, () -> store.free(position, 500), "" + position);
            assertThrows(IllegalArgumentException.class, () -> store.chunkSize(position), "" + position);
            CorruptValueException missing = assertThrows(
                    CorruptValueException.class, () -> store.read(position, 500, ByteBuffer.allocate(500)));
            assertEquals(position, missing.position());
        }
        int tooLong = store.chunkSize(kept.position()) - ValueFrame.BYTES + 1;
        assertThrows(IllegalArgumentException.class, () -> store.free(kept.position(), tooLong));
        assertThrows(IllegalArgumentException.class, () -> store.free(kept.position(), -1));
        assertEquals(500, store.bytesLive());
        kept.check(store);
    }

    @Test
    void looksAtTheTargetFirst() throws IOException {
        open(AMPLE, 4);
        Written value = Values.write(store, Values.random(random, 500));
        assertThrows(BufferOverflowException.class, () -> store.read(value.position(), 500, ByteBuffer.allocate(499)));
        assertThrows(
                ReadOnlyBufferException.class,
                () -> store.read(value.position(), 500, ByteBuffer.allocate(500).asReadOnlyBuffer()));
    }

    @Test
    void saysThatItIsClosed() throws IOException {
        open(AMPLE, 4);
        Written value = Values.write(store, Values.random(random, 500));
        store.close();
        store.close();
        String text = assertThrows(StoreClosedException.class, () -> store.write(ByteBuffer.allocate(1)))
                .getMessage();
        assertEquals("the value store in " + directory.toRealPath() + " is closed", text);
        assertThrows(StoreClosedException.class, () -> value.check(store));
        assertThrows(StoreClosedException.class, () -> value.free(store));
        assertThrows(StoreClosedException.class, () -> store.chunkSize(value.position()));
        assertTrue(Values.files(directory).isEmpty());
        assertFalse(store.limit() < 0);
    }
}
