package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.OverflowRuntime.STORE;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.drain;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.pushOut;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.stats;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.value;
import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static com.velt.rz.corvane.nimbra.TestRuntime.read;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.overflow.NotEnoughResourcesException;
import com.velt.rz.corvane.nimbra.overflow.CorruptValueException;
import com.velt.rz.corvane.nimbra.overflow.StoreFullException;
import com.velt.rz.corvane.nimbra.overflow.ValueStore;
import com.velt.rz.corvane.nimbra.overflow.ValueStores;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/** What the caller of a map sees of a store that fails, and what is left when it works again. */
@Tag("overflow")
@ExtendWith(OverflowRuntime.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OverflowFaultTest {
    private static final int LENGTH = 4_000;

    /** More than fit into the maximum. */
    private static final int TOO_MANY = 4_000;

    /** More than the small stores of these tests hold. */
    private static final ByteBuffer TOO_LONG = ByteBuffer.allocate(1 << 20).asReadOnlyBuffer();

    private static OffHeapMap map() {
        return OffHeapMap.builder().name("spill").partitions(4).build();
    }

    private static void fault() throws IOException {
        throw new IOException("injected");
    }

    /** What a store may throw. */
    enum Failure implements FaultyStore.Fault {
        IO_ERROR {
            @Override
            public void strike() throws IOException {
                fault();
            }
        },
        EXCEPTION_OF_THE_STORE {
            @Override
            public void strike() {
                throw new IllegalStateException("a store of somebody's own");
            }
        }
    }

    /** Stores values until one is refused, and returns how many were stored. */
    private static int fill(OffHeapMap map) {
        for (int i = 0; i < TOO_MANY; i++) {
            try {
                map.put(bytes(i), value(i, LENGTH));
            } catch (OffHeapMemoryException e) {
                assertInstanceOf(NotEnoughResourcesException.class, e.getCause());
                return i;
            }
        }
        throw new AssertionError("nothing was refused");
    }

    private static void assertHolds(OffHeapMap map, int from, int to) {
        for (int i = from; i < to; i++) {
            assertArrayEquals(value(i, LENGTH), map.get(bytes(i)));
        }
    }

    // ---- Writing -----------------------------------------------------------------------------

    @Test
    void aFullStoreLeavesTheEntriesInMemory(@TempDir Path directory) throws IOException {
        try (ValueStore small = ValueStores.open(directory, 1 << 18);
                OffHeapMap map = map()) {
            STORE.onWrite = () -> small.write(TOO_LONG);
            assertThrows(StoreFullException.class, STORE.onWrite::strike);
            OverflowStats before = stats();
            int stored = fill(map);
            assertTrue(stored > 1_000, () -> stored + " stored");
            assertTrue(stats().failedWrites() > before.failedWrites());
            assertEquals(before.pageOuts(), stats().pageOuts());
            assertEquals(0, STORE.bytesLive());
            assertHolds(map, 0, stored);

            // Each is refused before anything is allocated for good, and none leaves a trace.
            long blocks = OverflowRuntime.blocks();
            long bytesInUse = OverflowRuntime.bytesInUse();
            long used = map.bytesUsed();
            List<Executable> refused = List.of(
                    () -> map.put(bytes(stored), value(0, LENGTH)),
                    () -> map.putIfAbsent(bytes(stored), value(0, LENGTH)),
                    () -> map.put(bytes(1), value(0, 3 << 20)),
                    () -> map.replace(bytes(2), value(0, 3 << 20)),
                    () -> map.put(bytes(3), value(0, 3 << 20)));
            for (int round = 0; round < 10; round++) {
                for (Executable write : refused) {
                    String message =
                            assertThrows(OffHeapMemoryException.class, write).getMessage();
                    assertTrue(message.contains("map \"spill\" with a key of 8 bytes"), message);
                }
            }
            assertEquals(blocks, OverflowRuntime.blocks());
            assertEquals(bytesInUse, OverflowRuntime.bytesInUse());
            assertEquals(used, map.bytesUsed());
            assertEquals(stored, map.size());
            assertHolds(map, 0, stored);

            for (int i = 0; i < 100; i++) {
                assertTrue(map.remove(bytes(i)));
            }
            for (int i = 0; i < 90; i++) {
                assertTrue(map.put(bytes(i), value(i, LENGTH)));
            }
            assertHolds(map, 0, 90);

            STORE.onWrite = FaultyStore.Fault.NONE;
            for (int i = 90; i < TOO_MANY; i++) {
                map.put(bytes(i), value(i, LENGTH));
            }
            assertTrue(STORE.bytesLive() > 0);
            assertHolds(map, 0, TOO_MANY);
        }
    }

    @Test
    void aStoreThatFillsUpGoesOnServingWhatItHas(@TempDir Path directory) throws IOException {
        try (ValueStore small = ValueStores.open(directory, 1 << 18);
                OffHeapMap map = map()) {
            AtomicInteger written = new AtomicInteger();
            STORE.onWrite = () -> {
                if (written.incrementAndGet() > 1_000) {
                    small.write(TOO_LONG);
                }
            };
            int stored = fill(map);
            assertTrue(stored > 2_000, () -> stored + " stored");
            for (int round = 0; round < 2; round++) {
                assertHolds(map, 0, stored);
            }
            for (int i = 0; i < stored; i += 2) {
                assertTrue(map.remove(bytes(i)));
            }
            for (int i = 0; i < 500; i += 2) {
                assertTrue(map.put(bytes(i), value(i, LENGTH)));
            }
            assertHolds(map, 0, 500);
        }
    }

    /** A sweep used to give up after its first failed writes in a row, whatever stood behind those entries. */
    @Test
    void aStoreThatTakesNothingMoreStillGetsBackWhatItHas() {
        int copies = 100;
        try (OffHeapMap map = map()) {
            for (int i = 0; i < copies; i++) {
                map.put(bytes(i), value(i, LENGTH));
            }
            pushOut();
            assertHolds(map, 0, copies);
            OverflowStats before = stats();
            STORE.onWrite = OverflowFaultTest::fault;
            long last = copies;
            OffHeapMemoryException refused = null;
            while (refused == null) {
                try {
                    map.put(bytes(last), value(last, LENGTH));
                    last++;
                } catch (OffHeapMemoryException e) {
                    refused = e;
                }
            }
            assertEquals(copies, stats().copiesReused() - before.copiesReused());
            assertEquals(copies, stats().pageOuts() - before.pageOuts());

            // With no copies left, a refusal asks the store a few times and looks at no further entries.
            long writes = STORE.writes();
            int more = (int) last;
            assertThrows(OffHeapMemoryException.class, () -> map.put(bytes(more), value(more, LENGTH)));
            assertTrue(STORE.writes() - writes <= 16, () -> (STORE.writes() - writes) + " writes were tried");

            // A value that comes back is one that can go again.
            map.remove(bytes(copies));
            map.remove(bytes(copies + 1));
            before = stats();
            assertHolds(map, 0, 1);
            assertEquals(1, stats().pageIns() - before.pageIns());
            assertThrows(OffHeapMemoryException.class, () -> map.put(bytes(more), value(more, 1 << 20)));
            assertEquals(1, stats().copiesReused() - before.copiesReused());
            assertHolds(map, 0, copies);
            assertHolds(map, copies + 2, more);
        }
    }

    @ParameterizedTest
    @EnumSource
    void writesThatFailNowAndThenLoseNothing(Failure fault) {
        try (OffHeapMap map = map()) {
            AtomicInteger calls = new AtomicInteger();
            STORE.onWrite = () -> {
                if (calls.incrementAndGet() % 3 == 0) {
                    fault.strike();
                }
            };
            OverflowStats before = stats();
            for (int i = 0; i < TOO_MANY; i++) {
                assertTrue(map.put(bytes(i), value(i, LENGTH)));
            }
            assertTrue(stats().failedWrites() - before.failedWrites() > 100);
            assertEquals(calls.get() / 3, stats().failedWrites() - before.failedWrites());
            assertHolds(map, 0, TOO_MANY);
            // More than the failures of a row in one sweep.
            assertTrue(map.put(bytes(-1), value(-1, 2 << 20)));
            assertArrayEquals(value(-1, 2 << 20), map.get(bytes(-1)));
        }
    }

    @ParameterizedTest
    @EnumSource
    void writesThatAllFailRefuseTheAllocationOnly(Failure fault) {
        try (OffHeapMap map = map()) {
            STORE.onWrite = fault;
            int stored = fill(map);
            assertThrows(OffHeapMemoryException.class, () -> map.put(bytes(stored), value(stored, LENGTH)));
            assertThrows(
                    OffHeapMemoryException.class,
                    () -> OffHeapMap.builder().partitions(4_096).build());
            assertHolds(map, 0, stored);
            assertTrue(map.remove(bytes(0)));
            assertTrue(map.remove(bytes(1)));
            assertTrue(map.put(bytes(0), value(0, LENGTH)));
            STORE.onWrite = FaultyStore.Fault.NONE;
            assertTrue(map.put(bytes(stored), value(stored, LENGTH)));
            assertHolds(map, 2, stored + 1);
        }
    }

    @Test
    void anErrorInTheStoreLeavesNoLockBehind() {
        try (OffHeapMap map = map()) {
            Error injected = new Error("injected");
            STORE.onWrite = () -> {
                throw injected;
            };
            int stored = 0;
            Error seen = null;
            while (seen == null) {
                try {
                    map.put(bytes(stored), value(stored, LENGTH));
                    stored++;
                } catch (Error e) {
                    seen = e;
                }
            }
            assertSame(injected, seen);
            assertHolds(map, 0, stored);
            assertEquals(stored, map.size());
            STORE.onWrite = FaultyStore.Fault.NONE;
            for (int i = stored; i < TOO_MANY; i++) {
                assertTrue(map.put(bytes(i), value(i, LENGTH)));
            }

            STORE.onRead = () -> {
                throw injected;
            };
            int missed = 0;
            for (int i = 0; i < TOO_MANY; i++) {
                try {
                    assertArrayEquals(value(i, LENGTH), map.get(bytes(i)));
                } catch (Error e) {
                    assertSame(injected, e);
                    missed++;
                }
            }
            assertTrue(missed > 1_000, "misses: " + missed);
            assertSame(injected, assertThrows(Error.class, () -> map.forEach((key, value) -> {})));
            STORE.onRead = FaultyStore.Fault.NONE;
            assertHolds(map, 0, TOO_MANY);
        }
    }

    // ---- Reading -----------------------------------------------------------------------------

    /** A way in which a value cannot be read, and back. */
    enum Damage {
        IO_ERROR {
            @Override
            void inflict(byte[] value) {
                STORE.onRead = OverflowFaultTest::fault;
            }

            @Override
            void heal() {
                STORE.onRead = FaultyStore.Fault.NONE;
            }

            @Override
            void check(Throwable cause) {
                assertEquals(
                        "injected", assertInstanceOf(IOException.class, cause).getMessage());
            }
        },
        EXCEPTION_OF_THE_STORE {
            @Override
            void inflict(byte[] value) {
                STORE.onRead = () -> {
                    throw new IllegalStateException("a store of somebody's own");
                };
            }

            @Override
            void heal() {
                STORE.onRead = FaultyStore.Fault.NONE;
            }

            @Override
            void check(Throwable cause) {
                assertInstanceOf(IllegalStateException.class, cause);
            }
        },
        CHANGED_BYTES {
            @Override
            void inflict(byte[] value) throws IOException {
                flip(value);
            }

            @Override
            void heal() throws IOException {
                unflip();
            }

            @Override
            void check(Throwable cause) {
                assertInstanceOf(CorruptValueException.class, cause);
            }
        },
        SHORT_FILE {
            private Path file;
            private byte[] content;

            @Override
            void inflict(byte[] value) throws IOException {
                file = fileWith(value);
                content = Files.readAllBytes(file);
                try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
                    channel.truncate(indexOf(content, value) + value.length / 2);
                }
            }

            @Override
            void heal() throws IOException {
                try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
                    channel.write(ByteBuffer.wrap(content), 0);
                }
            }

            @Override
            void check(Throwable cause) {
                assertInstanceOf(CorruptValueException.class, cause);
            }
        };

        private static Path flipped;
        private static int flippedAt;

        abstract void inflict(byte[] value) throws IOException;

        abstract void heal() throws IOException;

        abstract void check(Throwable cause);

        private static void flip(byte[] value) throws IOException {
            flipped = fileWith(value);
            flippedAt = indexOf(Files.readAllBytes(flipped), value) + value.length / 2;
            unflip();
        }

        private static void unflip() throws IOException {
            try (FileChannel channel = FileChannel.open(flipped, StandardOpenOption.READ, StandardOpenOption.WRITE)) {
                ByteBuffer one = ByteBuffer.allocate(1);
                channel.read(one, flippedAt);
                one.put(0, (byte) ~one.get(0)).rewind();
                channel.write(one, flippedAt);
            }
        }

        private static Path fileWith(byte[] value) throws IOException {
            try (Stream<Path> files = Files.list(STORE.directory())) {
                for (Path file : files.toList()) {
                    if (indexOf(Files.readAllBytes(file), value) >= 0) {
                        return file;
                    }
                }
            }
            throw new AssertionError("the value is not on disk");
        }

        private static int indexOf(byte[] content, byte[] value) {
            for (int at = 0; at + value.length <= content.length; at++) {
                if (content[at] == value[0] && Arrays.equals(content, at, at + value.length, value, 0, value.length)) {
                    return at;
                }
            }
            return -1;
        }
    }

    private static void assertUnreadable(Damage damage, String operation, Executable call) {
        OffHeapStorageException e = assertThrows(OffHeapStorageException.class, call);
        assertTrue(
                Pattern.matches(
                        operation + " on map \"spill\": a value of " + LENGTH
                                + " bytes at position [1-9]\\d* on disk could not be read: .+",
                        e.getMessage()),
                e::getMessage);
        damage.check(e.getCause());
    }

    @ParameterizedTest
    @EnumSource
    void aValueThatCannotBeReadHarmsNobodyElse(Damage damage) throws IOException {
        try (OffHeapMap map = map()) {
            // Stored last, so that it lies at the end of the file.
            map.put(bytes(0), value(0, LENGTH));
            pushOut();
            map.put(bytes(9), value(9, LENGTH));
            pushOut();
            damage.inflict(value(9, LENGTH));
            OverflowStats before = stats();
            assertUnreadable(damage, "get", () -> map.get(bytes(9)));
            assertUnreadable(damage, "pin", () -> map.pin(bytes(9)));
            assertUnreadable(damage, "forEach", () -> map.forEach((key, value) -> {}));
            try (ChangeIterator changes = map.changesSince(1)) {
                assertUnreadable(damage, "changesSince", changes::hasNext);
                assertFalse(changes.hasNext(), "it has closed itself");
            }
            assertEquals(before.pageIns(), stats().pageIns());
            assertTrue(map.containsKey(bytes(9)));
            assertFalse(map.putIfAbsent(bytes(9), value(10, LENGTH)));
            assertEquals(2, map.size());

            boolean onlyThis = damage == Damage.CHANGED_BYTES || damage == Damage.SHORT_FILE;
            if (onlyThis) {
                assertArrayEquals(value(0, LENGTH), map.get(bytes(0)));
            }
            map.put(bytes(1), value(1, LENGTH));
            assertArrayEquals(value(1, LENGTH), map.get(bytes(1)));

            damage.heal();
            assertHolds(map, 0, 2);
            assertHolds(map, 9, 10);
            pushOut();
            damage.inflict(value(9, LENGTH));
            assertFalse(map.put(bytes(9), value(99, LENGTH)));
            assertArrayEquals(value(99, LENGTH), map.get(bytes(9)));
            if (damage == Damage.SHORT_FILE) {
                return; // what was cut off is free by now, and may hold something else
            }
            damage.heal();
            pushOut();
            damage.inflict(value(99, LENGTH));
            assertTrue(map.remove(bytes(9)));
            assertNull(map.get(bytes(9)));
            damage.heal();
            assertHolds(map, 0, 2);
        }
    }

    @Test
    void aPinIsRefusedWhenThereIsNoRoomToReadInto() {
        try (OffHeapMap map = map()) {
            map.put(bytes(-1), value(-1, 1 << 20));
            pushOut();
            STORE.onWrite = OverflowFaultTest::fault;
            int stored = fill(map);
            long blocks = OverflowRuntime.blocks();
            for (int i = 0; i < 5; i++) {
                String message = assertThrows(OffHeapMemoryException.class, () -> map.pin(bytes(-1)))
                        .getMessage();
                assertTrue(message.startsWith("pin on map \"spill\": memory refused"), message);
                assertArrayEquals(value(-1, 1 << 20), map.get(bytes(-1)), "a copy needs no room");
            }
            assertEquals(blocks, OverflowRuntime.blocks());
            for (int i = 0; i < 600; i++) {
                map.remove(bytes(i));
            }
            try (PinnedValue pinned = map.pin(bytes(-1))) {
                assertArrayEquals(value(-1, 1 << 20), read(pinned.buffer()));
            }
            assertHolds(map, 600, stored);
        }
    }

    @Test
    void anEvictedValueThatCannotBeReadIsGoneAllTheSame() {
        List<Integer> heard = new ArrayList<>();
        try (OffHeapMap map = OffHeapMap.builder()
                .name("spill")
                .partitions(1)
                .maximumEntries(2)
                .evictionListener((key, value, cause) -> heard.add(value.length))
                .build()) {
            map.put(bytes(1), value(1, 101));
            map.put(bytes(2), value(2, 102));
            pushOut();
            STORE.onRead = OverflowFaultTest::fault;
            map.put(bytes(3), value(3, 103));
            assertEquals(List.of(), heard);
            assertNull(map.get(bytes(1)));
            STORE.onRead = FaultyStore.Fault.NONE;
            map.put(bytes(4), value(4, 104));
            assertEquals(List.of(102), heard);

            pushOut();
            Error injected = new Error("injected");
            STORE.onRead = () -> {
                throw injected;
            };
            assertSame(injected, assertThrows(Error.class, () -> map.put(bytes(5), value(5, 105))));
            STORE.onRead = FaultyStore.Fault.NONE;
            map.put(bytes(6), value(6, 106));
            assertEquals(2, map.size());
        }
    }

    // ---- Freeing -----------------------------------------------------------------------------

    @ParameterizedTest
    @EnumSource
    void spaceThatCannotBeFreedKeepsNoMemory(Failure fault) {
        long blocks = OverflowRuntime.blocks();
        try (OffHeapMap map = map()) {
            for (int i = 0; i < 100; i++) {
                map.put(bytes(i), value(i, LENGTH));
            }
            pushOut();
            long live = STORE.bytesLive();
            STORE.onFree = fault;
            for (int i = 0; i < 40; i++) {
                map.remove(bytes(i));
            }
            for (int i = 40; i < 60; i++) {
                map.replace(bytes(i), value(-i, LENGTH));
                assertArrayEquals(value(-i, LENGTH), map.get(bytes(i)));
            }
            assertHolds(map, 60, 100);
            drain();
            assertEquals(live, STORE.bytesLive());
        }
        assertEquals(blocks, OverflowRuntime.blocks());
    }
}
