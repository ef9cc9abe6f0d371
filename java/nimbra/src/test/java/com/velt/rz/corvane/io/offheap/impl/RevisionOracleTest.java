package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.stream.Collectors;
import org.junit.jupiter.api.Test;

/**
 * The revision queues of a map beside ordered lists on the heap under random operations, queries and walks. A failure
 * prints the seed; the system property nimbra.test.seed repeats it.
 */
class RevisionOracleTest extends MapTestBase {
    private static final int OWNERS = 3;
    private static final int KEYS = 60;
    private static final int OPERATIONS = 6_000;

    private final long seed = Long.getLong("nimbra.test.seed", System.nanoTime());
    private final Random random = new Random(seed);

    /** What the heap knows of an entry; equal revisions stand in order of arrival. */
    private static final class Model {
        final int key;
        final long entry;
        int owner;
        long revision;

        Model(int key, long entry) {
            this.key = key;
            this.entry = entry;
        }

        @Override
        public String toString() {
            return key + "@" + owner + ":" + revision;
        }
    }

    private final List<List<Model>> queues = new ArrayList<>();
    private final Model[] byKey = new Model[KEYS];
    /** The end of each client's last query, for each owner. */
    private final long[][] reached = new long[3][OWNERS];

    private void place(Model model, int owner, long revision) {
        model.owner = owner;
        model.revision = revision;
        List<Model> queue = queues.get(owner);
        int place = queue.size();
        while (place > 0 && queue.get(place - 1).revision > revision) {
            place--;
        }
        queue.add(place, model);
    }

    @Test
    void queuesQueriesAndWalksAgreeWithTheHeap() {
        for (int i = 0; i < OWNERS; i++) {
            queues.add(new ArrayList<>());
        }
        try {
            for (int i = 1; i <= OPERATIONS; i++) {
                step(i);
            }
            checkWalk(true);
        } catch (AssertionError e) {
            throw new AssertionError("with -Dnimbra.test.seed=" + seed, e);
        }
    }

    private void step(int number) {
        int key = random.nextInt(KEYS);
        Model model = byKey[key];
        int owner = random.nextInt(OWNERS);
        // Mostly the newest end, sometimes anywhere.
        long revision = random.nextInt(4) > 0 ? number : 1 + random.nextInt(number);
        int choice = random.nextInt(100);
        if (choice < 40) {
            write(key, model, owner, revision);
        } else if (choice < 55) {
            touch(key, model, random.nextInt(3) == 0 ? -1 : revision);
        } else if (choice < 65) {
            remove(key, model);
        } else if (choice < 90) {
            query(random.nextInt(reached.length), number);
        } else if (choice < 99) {
            checkWalk(random.nextBoolean());
        } else if (random.nextInt(10) == 0) {
            assertTrue(MAPS.clear(map));
            queues.forEach(List::clear);
            Arrays.fill(byKey, null);
        }
    }

    private void write(int key, Model before, int owner, long revision) {
        if (before == null) {
            long entry = MAPS.insertAndGetNewAndPinWithInt(
                    map, key, key, nativeOrder(8, revision), 8, (byte) 0, (short) owner, revision);
            assertNotEquals(0, entry);
            assertEquals(PINS_OF_MAP, unpin(entry));
            byKey[key] = new Model(key, entry);
        } else {
            long snapshot = MAPS.updateAndGetNewAndPinWithShort(
                    map, (short) key, key, nativeOrder(8, revision), 8, (byte) 0, (short) owner, revision);
            assertEquals(before.owner, VALUES.getRevisionOwner(snapshot));
            assertEquals(before.revision, VALUES.getRevisionNumber(snapshot));
            assertEquals(0, unpin(snapshot));
            queues.get(before.owner).remove(before);
        }
        place(byKey[key], owner, revision);
    }

    /** A touch moves within the owner's queue; -1 keeps the revision and goes behind its equals. */
    private void touch(int key, Model model, long revision) {
        long entry = MAPS.getLuValue_Number(map, key, 0, true, revision, key);
        assertEquals(model == null ? 0 : model.entry, entry);
        if (model != null) {
            assertEquals(PINS_OF_MAP, unpin(entry));
            queues.get(model.owner).remove(model);
            place(model, model.owner, revision == -1 ? model.revision : revision);
        }
    }

    private void remove(int key, Model model) {
        long entry = MAPS.removeAndGetAndPinWithHashCodeNumber(map, key, key);
        assertEquals(model == null ? 0 : model.entry, entry);
        if (model != null) {
            assertEquals(0, unpin(entry));
            queues.get(model.owner).remove(model);
            byKey[key] = null;
        }
    }

    private void query(int client, long newest) {
        long[] starts = new long[OWNERS];
        long[] ends = new long[OWNERS];
        List<Model> expected = new ArrayList<>();
        for (int owner = 0; owner < OWNERS; owner++) {
            starts[owner] = random.nextInt(5) > 0 ? reached[client][owner] : random.nextInt((int) newest + 1);
            ends[owner] = random.nextBoolean() ? newest : random.nextInt((int) newest + 1);
            long start = starts[owner];
            long end = ends[owner];
            if (start < end && end >= 1) {
                queues.get(owner).stream()
                        .filter(model -> model.revision > start && model.revision <= end)
                        .forEach(expected::add);
                reached[client][owner] = end;
            }
        }
        List<RevisionQuery.Words> found = RevisionQuery.run(map, KEYS, client, starts, ends);
        assertEquals(
                expected.stream().map(model -> model.entry).collect(Collectors.toList()),
                found.stream().map(RevisionQuery.Words::entry).collect(Collectors.toList()),
                () -> "expected " + expected);
        for (int i = 0; i < found.size(); i++) {
            RevisionQuery.Words words = found.get(i);
            Model model = expected.get(i);
            assertEquals(model.owner, words.owner());
            assertEquals(model.revision, words.revision());
            assertArrayEquals(nativeOrder(4, model.key), bytesAt(words.keyAddress(), words.keyLength()));
            assertEquals(PINS_OF_MAP, words.release());
        }
    }

    private void checkWalk(boolean lock) {
        List<Long> walked = new ArrayList<>();
        long entry = MAPS.getAndPinFirstInQueue(map, ENTRY, lock);
        while (entry != 0) {
            walked.add(entry);
            long next = MAPS.getAndPinNextInQueue(map, entry, ENTRY, lock);
            assertEquals(PINS_OF_MAP, unpin(entry));
            entry = next;
        }
        assertEquals(
                queues.stream().flatMap(List::stream).map(model -> model.entry).collect(Collectors.toList()), walked);
        assertEquals(walked.size(), MAPS.size(map));
    }
}
