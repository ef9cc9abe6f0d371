package com.velt.rz.corvane.nimbra.peers;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/** Drives every store and a plain map side by side. */
class PeerStoreTest {
    private static final int KEYS = 300;
    private static final int VALUE_BYTES = 64;
    private static final int OPERATIONS = 10_000;
    private static final Sizing SIZING = new Sizing(1_000, Keys.KEY_BYTES, VALUE_BYTES);

    private static byte[] key(int number) {
        byte[] key = new byte[Keys.KEY_BYTES];
        new Random(number).nextBytes(key);
        return key;
    }

    private static byte[] value(Random random) {
        byte[] value = new byte[VALUE_BYTES];
        random.nextBytes(value);
        return value;
    }

    @ParameterizedTest
    @EnumSource(Peer.class)
    void doesWhatAPlainMapDoes(Peer peer) {
        Random random = new Random(7);
        Map<Integer, byte[]> oracle = new HashMap<>();
        try (PeerStore store = peer.open(SIZING)) {
            for (int i = 0; i < OPERATIONS; i++) {
                int number = random.nextInt(KEYS);
                switch (random.nextInt(4)) {
                    case 0 -> {
                        store.remove(key(number));
                        oracle.remove(number);
                    }
                    case 1 -> {
                        byte[] value = value(random);
                        store.put(key(number), value);
                        oracle.put(number, value);
                    }
                    default -> assertArrayEquals(oracle.get(number), store.get(key(number)), "key " + number);
                }
            }
            assertEquals(oracle.size(), store.size());
            for (int number = 0; number < KEYS; number++) {
                assertArrayEquals(oracle.get(number), store.get(key(number)), "key " + number);
            }
        }
    }

    @ParameterizedTest
    @EnumSource(Peer.class)
    void keepsCopiesAndHandsCopiesOut(Peer peer) {
        try (PeerStore store = peer.open(SIZING)) {
            byte[] key = key(1);
            byte[] value = value(new Random(1));
            byte[] expected = value.clone();
            store.put(key, value);
            value[0]++;
            key[0]++;
            byte[] first = store.get(key(1));
            assertArrayEquals(expected, first);
            first[1]++;
            byte[] second = store.get(key(1));
            assertArrayEquals(expected, second);
            assertNotSame(first, second);
            assertNull(store.get(key));
        }
    }

    @ParameterizedTest
    @EnumSource(Peer.class)
    void readsInPlaceWhereItSaysSo(Peer peer) {
        try (PeerStore store = peer.open(SIZING)) {
            byte[] value = value(new Random(2));
            store.put(key(1), value);
            if (store.readsInPlace()) {
                assertEquals(Words.sum(value), store.read(key(1)));
                assertThrows(IllegalStateException.class, () -> store.read(key(2)));
            } else {
                assertThrows(UnsupportedOperationException.class, () -> store.read(key(1)));
            }
        }
    }

    @ParameterizedTest
    @EnumSource(Peer.class)
    void countsItsOwnBytesWhereItCan(Peer peer) {
        try (PeerStore store = peer.open(SIZING)) {
            for (int number = 0; number < KEYS; number++) {
                store.put(key(number), value(new Random(number)));
            }
            long bytes = store.nativeBytes();
            assertTrue(peer.onHeap() ? bytes == -1 : bytes >= (long) KEYS * (Keys.KEY_BYTES + VALUE_BYTES), "" + bytes);
        }
    }

    @ParameterizedTest
    @EnumSource(Peer.class)
    void holdsAllEntriesItWasSizedFor(Peer peer) {
        int entries = 20_000;
        Keys keys = new Keys(entries, 256, List.of());
        try (PeerStore store = peer.open(new Sizing(entries, Keys.KEY_BYTES, 256))) {
            for (int i = 0; i < entries; i++) {
                store.put(keys.toInsert(i), keys.value(i));
            }
            for (int i = 0; i < entries; i++) {
                store.remove(keys.inRandomOrder(i));
                store.put(keys.inRandomOrder(i), keys.value(i + 1));
            }
            assertEquals(entries, store.size());
        }
    }
}
