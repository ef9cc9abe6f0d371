package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/** What {@link OverflowStartTest} checks in processes of their own. The arguments name the check and a path. */
final class OverflowStartProbe {
    private static final long MAXIMUM = 8 << 20;
    private static final long DISK = 64 << 20;

    private OverflowStartProbe() {}

    public static void main(String[] arguments) throws IOException {
        Path path = Path.of(arguments[1]);
        switch (arguments[0]) {
            case "twice" -> startedTwice(path);
            case "without" -> startedWithout(path);
            case "refused" -> refusedAndTriedAgain(path);
            case "levels" -> everyLevel(path);
            case "locked" -> unusable(path, " is in use by a value store of another process");
            case "unusable" -> unusable(path, path.toString());
            default -> throw new IllegalArgumentException(arguments[0]);
        }
        System.out.println("passed " + arguments[0]);
    }

    private static Nimbra.Builder options() {
        return Nimbra.builder().maximumBytes(MAXIMUM);
    }

    private static void assertStores(Nimbra nimbra) {
        assertTrue(nimbra.overflows());
        // Left open: the end of the process takes it.
        OffHeapMap map = nimbra.newMap();
        byte[] value = new byte[4_000];
        for (int i = 0; i < 3_000; i++) {
            value[0] = (byte) i;
            map.put(bytes(i), value);
        }
        assertTrue(nimbra.overflowStats().bytesLive() > 0);
        value[0] = 0;
        assertArrayEquals(value, map.get(bytes(0)));
    }

    private static void startedTwice(Path path) {
        Nimbra nimbra = options().overflowTo(path, DISK).start();
        assertEquals(DISK, nimbra.overflowStats().diskLimit());
        assertStores(nimbra);
        assertSame(nimbra, options().overflowTo(path, DISK).start());
        assertSame(nimbra, Nimbra.get());
        assertEquals(
                "Nimbra already runs with disk overflow, which cannot be changed",
                assertThrows(IllegalStateException.class, () -> options().start())
                        .getMessage());
        Nimbra.Builder other = Nimbra.builder().maximumBytes(2 * MAXIMUM).overflowTo(path, DISK);
        assertTrue(assertThrows(IllegalStateException.class, other::start)
                .getMessage()
                .startsWith("Nimbra already runs with maximumBytes " + MAXIMUM));
    }

    private static void startedWithout(Path path) {
        Nimbra nimbra = options().start();
        assertFalse(nimbra.overflows());
        assertThrows(IllegalStateException.class, nimbra::overflowStats);
        Nimbra.Builder other = options().overflowTo(path, DISK);
        assertEquals(
                "Nimbra already runs without disk overflow, which cannot be changed",
                assertThrows(IllegalStateException.class, other::start).getMessage());
        assertFalse(Files.exists(path), "the directory was not touched");
    }

    /** The library does not start while others hold all of its memory. */
    private static void refusedAndTriedAgain(Path path) {
        OffHeapManager manager = new OffHeapManager();
        manager.setInternalTracking(true);
        ByteBuffer block = manager.allocateDirectFromOffHeap((int) MAXIMUM, (byte) 1, (byte) 0);
        Nimbra.Builder builder = options().overflowTo(path, DISK);
        String message =
                assertThrows(IllegalStateException.class, builder::start).getMessage();
        assertTrue(message.contains("did not start with maximumBytes " + MAXIMUM), message);
        assertFalse(Nimbra.isStarted());
        assertTrue(manager.unpinToFree(block, 4));
        assertStores(builder.start());
    }

    /** All records are made, and the pins that disk overflow takes and drops leave nothing behind. */
    private static void everyLevel(Path path) {
        OffHeapLogger.setSink((method, key, text) -> {});
        Nimbra nimbra = options()
                .overflowTo(path, DISK)
                .traceLevels(TraceLevel.values())
                .start();
        long before = nimbra.stats().blocks();
        byte[] value = new byte[100_000];
        try (OffHeapMap map = OffHeapMap.builder().partitions(1).build()) {
            for (int i = 0; i < 100; i++) {
                map.put(bytes(i), value);
            }
            map.put(bytes(0), value);
            map.remove(bytes(1));
            assertArrayEquals(value, map.get(bytes(2)));
            map.pin(bytes(3)).close();
            map.forEach((key, found) -> assertEquals(value.length, found.length));
            try (ChangeIterator changes = map.changesSince(0)) {
                while (changes.hasNext()) {
                    assertArrayEquals(value, changes.next().copyValue());
                }
            }
            assertTrue(nimbra.overflowStats().diskHits() >= 2);
        }
        assertEquals(before, nimbra.stats().blocks());
        List<PinReport.TrackedObject> tracked = nimbra.diagnostics().pinReport().objects();
        assertTrue(tracked.size() > 200, "the levels keep those whose pins are gone");
        tracked.forEach(object -> assertEquals(0, object.outstandingPins(), object::toString));
    }

    private static void unusable(Path path, String reason) throws IOException {
        Nimbra.Builder builder = options().overflowTo(path, DISK);
        UncheckedIOException e = assertThrows(UncheckedIOException.class, builder::start);
        assertTrue(e.getMessage().startsWith("disk overflow to " + path + ": "), e::getMessage);
        assertTrue(e.getCause().getMessage().contains(reason), e::getMessage);
        assertFalse(Nimbra.isStarted());
        assertThrows(IllegalStateException.class, Nimbra::get);

        Path other = Files.createTempDirectory("nimbra-overflow-test-");
        assertStores(options().overflowTo(other, DISK).start());
        Nimbra.get().overflow().closeStore();
        try (OffHeapMap map = Nimbra.get().newMap()) {
            assertNull(map.get(bytes(1)));
        }
        Files.delete(other.resolve("nimbra-overflow.lock"));
        Files.delete(other);
    }
}
