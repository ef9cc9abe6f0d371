package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.TestRuntime.bytes;
import static com.velt.rz.corvane.nimbra.TestRuntime.read;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.NoSuchElementException;
import java.util.Random;
import java.util.Set;
import java.util.TreeMap;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;

@ExtendWith(LeakCheck.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class ChangesTest {
    /** Keys of the changes since a revision, in order; checks that revisions ascend. */
    private static List<String> keys(ChangeIterator changes, long since) {
        List<String> keys = new ArrayList<>();
        long last = since;
        while (changes.hasNext()) {
            Change change = changes.next();
            assertTrue(change.revision() > last, change.revision() + " after " + last);
            last = change.revision();
            assertEquals(last, changes.lastRevision());
            keys.add(new String(change.key()));
        }
        return keys;
    }

    @Test
    void goesOnFromWhereItStopped() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            ChangeIterator none = map.changesSince("r", 0);
            assertFalse(none.hasNext());
            assertEquals(0, none.lastRevision());
            for (String key : List.of("a", "b", "c", "d")) {
                map.put(bytes(key), bytes(key + key));
            }
            ChangeIterator first = map.changesSince("r", 0);
            assertEquals(List.of("a", "b", "c", "d"), keys(first, 0));
            assertEquals(4, first.lastRevision());
            map.put(bytes("b"), bytes("new"));
            map.remove(bytes("c"));
            map.put(bytes("e"), bytes("ee"));
            map.replace(bytes("a"), bytes("new"));
            ChangeIterator second = map.changesSince("r", first.lastRevision());
            assertEquals(List.of("b", "e", "a"), keys(second, 4));
            assertEquals(7, second.lastRevision());
            ChangeIterator third = map.changesSince("r", second.lastRevision());
            assertFalse(third.hasNext());
            assertEquals(7, third.lastRevision());
            assertEquals(List.of("d", "b", "e", "a"), keys(map.changesSince(0), 0));
        }
    }

    @Test
    void changeShowsKeyValueAndRevision() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(bytes("key"), bytes("value"));
            map.put(new byte[0], new byte[0]);
            try (ChangeIterator changes = map.changesSince(0)) {
                Change change = changes.next();
                assertArrayEquals(bytes("key"), change.key());
                assertArrayEquals(bytes("value"), change.copyValue());
                ByteBuffer view = change.value();
                assertTrue(view.isReadOnly() && view.isDirect());
                map.put(bytes("key"), bytes("other, after it was shown"));
                map.remove(bytes("key"));
                assertArrayEquals(bytes("value"), read(view));
                assertEquals(1, change.revision());
                Change next = changes.next();
                assertEquals(0, next.key().length);
                assertEquals(0, next.value().remaining());
                assertEquals(
                        "the iterator has left this change: no value",
                        assertThrows(IllegalStateException.class, change::value).getMessage());
                assertThrows(IllegalStateException.class, change::key);
                assertThrows(IllegalStateException.class, change::copyValue);
                assertThrows(IllegalStateException.class, change::revision);
                changes.close();
                changes.close();
                assertThrows(IllegalStateException.class, next::key);
                assertFalse(changes.hasNext());
                assertThrows(NoSuchElementException.class, changes::next);
                assertEquals(2, changes.lastRevision());
            }
        }
    }

    /** Writes that come after the iterator was made belong to the next one. */
    @Test
    void laterWritesAreLeftToTheNextIterator() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (int i = 0; i < 10; i++) {
                map.put(bytes("" + i), bytes("old"));
            }
            ChangeIterator changes = map.changesSince("r", 0);
            map.put(bytes("3"), bytes("new"));
            map.put(bytes("10"), bytes("new"));
            assertEquals(List.of("0", "1", "2", "4", "5", "6", "7", "8", "9"), keys(changes, 0));
            assertEquals(10, changes.lastRevision());
            assertEquals(List.of("3", "10"), keys(map.changesSince("r", 10), 10));
        }
    }

    @Test
    void earlyCloseDropsAllPins() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (int i = 0; i < 5_000; i++) {
                map.put(bytes(i), bytes(i));
            }
            try (ChangeIterator changes = map.changesSince("r", 0)) {
                for (int i = 0; i < 1_500; i++) {
                    assertArrayEquals(bytes(i), changes.next().key());
                }
                map.clear();
                // What was fetched is still whole.
                assertArrayEquals(bytes(1_500), changes.next().copyValue());
                assertEquals(1_501, changes.lastRevision());
            }
            assertFalse(map.changesSince("r", 1_501).hasNext());
        }
    }

    @Test
    void mapClosedOnTheWay() {
        OffHeapMap map = OffHeapMap.builder().name("closing").build();
        for (int i = 0; i < 3_000; i++) {
            map.put(bytes(i), bytes(i));
        }
        ChangeIterator changes = map.changesSince(0);
        changes.next();
        map.close();
        for (int i = 1; i < ChangeIterator.SMALLEST_WINDOW; i++) {
            assertArrayEquals(bytes(i), changes.next().copyValue());
        }
        assertEquals(
                "map \"closing\" is closed: no changesSince",
                assertThrows(IllegalStateException.class, changes::next).getMessage());
        assertFalse(changes.hasNext());
        assertEquals(ChangeIterator.SMALLEST_WINDOW, changes.lastRevision());
    }

    @Test
    void readersAreKeptApart() {
        try (OffHeapMap map = OffHeapMap.builder().name("m").build()) {
            map.put(bytes("a"), bytes("a"));
            ChangeIterator open = map.changesSince("r", 0);
            assertEquals(
                    "map \"m\": reader \"r\" is reading already, in an iterator not closed yet",
                    assertThrows(IllegalStateException.class, () -> map.changesSince("r", 0))
                            .getMessage());
            assertThrows(IllegalStateException.class, () -> map.forgetReader("r"));
            open.close();
            map.changesSince("r", 0).close();
            assertTrue(map.forgetReader("r"));
            assertFalse(map.forgetReader("r"));

            for (int i = 0; i < ChangeReaders.MAXIMUM; i++) {
                assertEquals(List.of("a"), keys(map.changesSince("reader " + i, 0), 0));
            }
            String message = assertThrows(IllegalStateException.class, () -> map.changesSince(0))
                    .getMessage();
            assertEquals(
                    "map \"m\" has 64 readers, the most that it can have: close an iterator or forget a reader",
                    message);
            assertTrue(map.forgetReader("reader 7"));
            map.put(bytes("b"), bytes("b"));
            assertEquals(List.of("a", "b"), keys(map.changesSince(0), 0));
            assertEquals(List.of("b"), keys(map.changesSince("reader 8", 1), 1));
        }
    }

    @Test
    void wrongRevisionsAreRefused() {
        try (OffHeapMap map = OffHeapMap.builder().name("m").build()) {
            assertThrows(IllegalArgumentException.class, () -> map.changesSince(-1));
            map.put(bytes("a"), bytes("a"));
            assertEquals(
                    "revision is 2, but map \"m\" has only reached 1",
                    assertThrows(IllegalArgumentException.class, () -> map.changesSince("r", 2))
                            .getMessage());
            assertThrows(NullPointerException.class, () -> map.changesSince(null, 0));
        }
    }

    /** A long stretch of superseded revisions between two that count is crossed in wide steps. */
    @Test
    void gapsAreCrossed() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            for (int i = 0; i < 10; i++) {
                map.put(bytes("cold " + i), bytes("v"));
            }
            for (int i = 0; i < 300_000; i++) {
                map.put(bytes("hot"), bytes(i));
            }
            map.put(bytes("last"), bytes("v"));
            List<String> keys = keys(map.changesSince(0), 0);
            assertEquals(12, keys.size());
            assertEquals("cold 0", keys.get(0));
            assertEquals("hot", keys.get(10));
            assertEquals("last", keys.get(11));
        }
    }

    /** A reader needs no memory that the limits could refuse: it goes on when nothing can be written any more. */
    @Test
    void readingGoesOnWhenMemoryIsRefused() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            map.put(bytes("a"), bytes("a"));
            TestRuntime.withMaximum(1, () -> {
                assertThrows(OffHeapMemoryException.class, () -> map.put(bytes("b"), bytes("b")));
                assertEquals(List.of("a"), keys(map.changesSince("r", 0), 0));
            });
        }
    }

    /** Random writes and random readers, each with its own copy, beside an oracle in revision order. */
    @Test
    void oracle() {
        long seed = TestRuntime.seed("ChangesTest.oracle");
        Random random = new Random(seed);
        TreeMap<Long, String> byRevision = new TreeMap<>();
        Map<String, Long> revisions = new HashMap<>();
        long[] positions = new long[3];
        try (OffHeapMap map = OffHeapMap.builder().partitions(4).build()) {
            long revision = 0;
            for (int step = 0; step < 60_000; step++) {
                String key = "k" + random.nextInt(2_000);
                int choice = random.nextInt(1_000);
                if (choice < 800) {
                    map.put(bytes(key), bytes(revision));
                    revision++;
                    Long old = revisions.put(key, revision);
                    if (old != null) {
                        byRevision.remove(old);
                    }
                    byRevision.put(revision, key);
                } else if (choice < 995) {
                    map.remove(bytes(key));
                    Long old = revisions.remove(key);
                    if (old != null) {
                        byRevision.remove(old);
                    }
                } else {
                    int reader = random.nextInt(positions.length);
                    long since = random.nextInt(4) == 0 ? random.nextLong(revision + 1) : positions[reader];
                    List<String> expected =
                            new ArrayList<>(byRevision.tailMap(since, false).values());
                    try (ChangeIterator changes = map.changesSince("reader " + reader, since)) {
                        if (random.nextInt(4) == 0) {
                            for (int i = 0; i < expected.size() / 2; i++) {
                                assertEquals(
                                        expected.get(i),
                                        new String(changes.next().key()));
                            }
                        } else {
                            assertEquals(expected, keys(changes, since));
                            assertEquals(revision, changes.lastRevision());
                        }
                        positions[reader] = changes.lastRevision();
                    }
                }
            }
        }
    }

    /** While four threads write, readers follow; when the writers have stopped, every copy is the map. */
    @Test
    void followersMissNothing() throws Exception {
        long seed = TestRuntime.seed("ChangesTest.followersMissNothing");
        for (boolean bounded : new boolean[] {false, true}) {
            ExecutorService threads = Executors.newCachedThreadPool();
            OffHeapMap.Builder options = OffHeapMap.builder().partitions(4);
            if (bounded) {
                options.maximumEntries(1_000_000);
            }
            try (OffHeapMap map = options.build()) {
                AtomicInteger writing = new AtomicInteger(4);
                List<Future<?>> writers = new ArrayList<>();
                for (int writer = 0; writer < 4; writer++) {
                    Random random = new Random(seed + writer);
                    writers.add(threads.submit(() -> {
                        for (int i = 0; i < 20_000; i++) {
                            map.put(
                                    bytes("k" + random.nextInt(3_000)),
                                    TestRuntime.random(random, random.nextInt(200)));
                        }
                        writing.decrementAndGet();
                    }));
                }
                List<Future<Map<String, ByteBuffer>>> followers = new ArrayList<>();
                for (int follower = 0; follower < 2; follower++) {
                    String name = "follower " + follower;
                    followers.add(threads.submit(() -> {
                        Map<String, ByteBuffer> copy = new HashMap<>();
                        long position = 0;
                        boolean last = false;
                        while (!last) {
                            last = writing.get() == 0;
                            try (ChangeIterator changes = map.changesSince(name, position)) {
                                while (changes.hasNext()) {
                                    Change change = changes.next();
                                    assertTrue(change.revision() > position);
                                    copy.put(new String(change.key()), ByteBuffer.wrap(change.copyValue()));
                                }
                                position = changes.lastRevision();
                            }
                        }
                        return copy;
                    }));
                }
                for (Future<?> writer : writers) {
                    writer.get();
                }
                Map<String, ByteBuffer> contents = new HashMap<>();
                map.forEach((key, value) -> contents.put(new String(key), ByteBuffer.wrap(value)));
                for (Future<Map<String, ByteBuffer>> follower : followers) {
                    Map<String, ByteBuffer> copy = follower.get();
                    assertEquals(contents.keySet(), copy.keySet());
                    contents.entrySet().removeIf(entry -> entry.getValue().equals(copy.get(entry.getKey())));
                    assertEquals(Set.of(), contents.keySet(), "keys whose last write was missed");
                    contents.putAll(copy);
                }
            } finally {
                threads.shutdownNow();
            }
        }
    }
}
