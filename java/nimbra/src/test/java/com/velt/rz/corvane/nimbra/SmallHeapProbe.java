package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/**
 * Values for which the heap has no room: whoever asks for a copy gets the heap's error, and nothing else changes. Run by
 * {@link SmallHeapTest} with a heap of 40 MiB; with a directory as argument, values go to disk.
 */
final class SmallHeapProbe {
    private static final int LARGE = 6 << 20;
    private static final byte[] LARGE_KEY = {1};
    private static final byte[] SMALL_KEY = {2};
    private static final byte[] SMALL = {3, 4};

    private static final boolean[] FOUND = new boolean[1];
    private static List<byte[]> ballast = new ArrayList<>();

    private SmallHeapProbe() {}

    public static void main(String[] arguments) {
        try {
            run(arguments);
            System.out.println("passed");
        } catch (Throwable e) {
            ballast = null; // the report needs room
            e.printStackTrace(System.out);
            Runtime.getRuntime().exit(1);
        }
    }

    private static void run(String[] arguments) {
        Nimbra.Builder options = Nimbra.builder().maximumBytes(64 << 20);
        if (arguments.length > 0) {
            options.overflowTo(Path.of(arguments[0]), 64 << 20);
        }
        Nimbra nimbra = options.start();
        NimbraStats before = nimbra.stats();
        warmUp(nimbra);
        plain(nimbra, false);
        counting(nimbra, false);
        evicting(nimbra);
        if (nimbra.overflows()) {
            plain(nimbra, true);
            counting(nimbra, true);
            nimbra.overflow().drain();
            assertEquals(0, nimbra.overflowStats().bytesLive());
        }
        assertEquals(before.blocks(), nimbra.stats().blocks(), "live blocks");
        assertEquals(before.internalMetadataBytes(), nimbra.stats().internalMetadataBytes(), "internal metadata bytes");
    }

    private static void putLarge(OffHeapMap map) {
        byte[] large = new byte[LARGE];
        large[0] = 5;
        large[LARGE - 1] = 6;
        map.put(LARGE_KEY, large);
        map.put(SMALL_KEY, SMALL);
    }

    /** Leaves a few hundred kilobytes of the heap. */
    private static void fillHeap() {
        for (int length = 1 << 20; length >= 1 << 18; length /= 2) {
            try {
                for (; ; ) {
                    ballast.add(new byte[length]);
                }
            } catch (OutOfMemoryError e) {
                // As full as blocks of this length get it.
            }
        }
        ballast.remove(ballast.size() - 1);
        ballast.remove(ballast.size() - 1);
    }

    /** Loads the classes while there is room for them. */
    private static void warmUp(Nimbra nimbra) {
        fillHeap();
        ballast = new ArrayList<>();
        try (OffHeapMap map = nimbra.newMap()) {
            putLarge(map);
            for (Runnable copy : copies(map)) {
                copy.run();
            }
            try (PinnedValue pinned = map.pin(LARGE_KEY)) {
                assertNotNull(pinned);
            }
        }
        assertRefused(() -> ballast.add(new byte[Integer.MAX_VALUE]));
    }

    private static List<Runnable> copies(OffHeapMap map) {
        TypedMap<byte[], byte[]> typed = map.typed(Codecs.bytes(), Codecs.bytes());
        return List.of(
                () -> map.get(LARGE_KEY),
                () -> typed.get(LARGE_KEY),
                () -> map.forEach((key, value) -> FOUND[0] = true),
                () -> {
                    try (ChangeIterator changes = map.changesSince(0)) {
                        while (changes.hasNext()) {
                            changes.next().copyValue();
                        }
                    }
                });
    }

    private static void assertRefused(Runnable copy) {
        boolean refused = false;
        try {
            copy.run();
        } catch (OutOfMemoryError e) {
            refused = true;
        }
        assertTrue(refused, "the heap had room");
    }

    private static void plain(Nimbra nimbra, boolean onDisk) {
        try (OffHeapMap map = OffHeapMap.builder().name("plain").partitions(1).build()) {
            use(nimbra, map, onDisk);
        }
    }

    private static void counting(Nimbra nimbra, boolean onDisk) {
        try (OffHeapMap map = OffHeapMap.builder()
                .name("counting")
                .partitions(1)
                .maximumEntries(10)
                .build()) {
            use(nimbra, map, onDisk);
        }
    }

    private static void use(Nimbra nimbra, OffHeapMap map, boolean onDisk) {
        // The place of a reader takes a block that stays with the map.
        map.put(SMALL_KEY, SMALL);
        try (ChangeIterator changes = map.changesSince(0)) {
            assertTrue(changes.hasNext());
        }
        map.clear();
        long empty = nimbra.stats().blocks();
        for (int round = 0; round < 3; round++) {
            putLarge(map);
            if (onDisk) {
                nimbra.overflow().makeRoom(nimbra.stats().maximumBytes());
                assertTrue(nimbra.overflowStats().bytesLive() >= LARGE);
                map.get(SMALL_KEY); // brings it back, so that later reads change nothing
            }
            long full = nimbra.stats().blocks();
            try {
                fillHeap();
                int number = 0;
                for (Runnable copy : copies(map)) {
                    assertRefused(copy);
                    assertEquals(full, nimbra.stats().blocks(), "live blocks after refused copy " + number++);
                    assertArrayEquals(SMALL, map.get(SMALL_KEY));
                    assertTrue(map.containsKey(LARGE_KEY));
                    assertEquals(2, map.size());
                }
                if (onDisk) {
                    // On its way into memory the value passes through the heap.
                    assertRefused(() -> map.pin(LARGE_KEY).close());
                    assertEquals(full, nimbra.stats().blocks(), "live blocks after a refused pin");
                } else {
                    try (PinnedValue pinned = map.pin(LARGE_KEY)) {
                        assertEquals(LARGE, pinned.size());
                        assertEquals(5, pinned.buffer().get(0));
                        assertEquals(6, pinned.buffer().get(LARGE - 1));
                    }
                }
                assertFalse(map.put(SMALL_KEY, SMALL));
                // A pin that a failed copy had left would keep the block.
                assertTrue(map.remove(LARGE_KEY));
                assertTrue(map.remove(SMALL_KEY));
            } finally {
                ballast = new ArrayList<>();
            }
            if (nimbra.overflows()) {
                nimbra.overflow().drain();
            }
            assertEquals(empty, nimbra.stats().blocks(), "live blocks of the emptied map");
            putLarge(map);
            assertEquals(LARGE, map.get(LARGE_KEY).length);
            map.clear();
        }
    }

    /**
     * The listener's copy of an evicted value finds no room: the write that makes room ends with the heap's error and
     * stores nothing, the evicted entry has gone without a word, and the map goes on.
     */
    private static void evicting(Nimbra nimbra) {
        int[] told = new int[1];
        try (OffHeapMap map = OffHeapMap.builder()
                .name("evicting")
                .partitions(1)
                .maximumEntries(2)
                .evictionListener((key, value, cause) -> told[0]++)
                .build()) {
            long empty = nimbra.stats().blocks();
            putLarge(map);
            map.get(SMALL_KEY);
            try {
                fillHeap();
                assertRefused(() -> map.put(new byte[] {9}, SMALL));
            } finally {
                ballast = new ArrayList<>();
            }
            assertEquals(0, told[0]);
            assertEquals(1, map.size());
            assertArrayEquals(SMALL, map.get(SMALL_KEY));
            map.put(new byte[] {10}, SMALL);
            map.put(new byte[] {11}, SMALL);
            assertArrayEquals(SMALL, map.get(new byte[] {11}));
            assertNull(map.get(LARGE_KEY));
            map.clear();
            assertEquals(empty, nimbra.stats().blocks(), "live blocks of the emptied map");
        }
    }
}
