package com.velt.rz.corvane.nimbra.peers;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import org.junit.jupiter.api.Test;

class KeysTest {
    private static final int ENTRIES = 10_000;

    private final Keys keys = new Keys(ENTRIES, 64, List.of(Workload.values()));

    private Set<BytesKey> inserted() {
        Set<BytesKey> inserted = new HashSet<>();
        for (int i = 0; i < ENTRIES; i++) {
            inserted.add(new BytesKey(keys.toInsert(i)));
        }
        return inserted;
    }

    @Test
    void insertedKeysDifferAndAreAllFoundInRandomOrder() {
        Set<BytesKey> inserted = inserted();
        assertEquals(ENTRIES, inserted.size());
        int inPlace = 0;
        for (int i = 0; i < ENTRIES; i++) {
            BytesKey key = new BytesKey(keys.inRandomOrder(i));
            inPlace += key.equals(new BytesKey(keys.toInsert(i))) ? 1 : 0;
            assertTrue(inserted.remove(key));
        }
        assertTrue(inPlace < 20, inPlace + " keys stayed in place");
    }

    @Test
    void absentKeysAreAbsent() {
        Set<BytesKey> inserted = inserted();
        for (int i = 0; i < ENTRIES; i++) {
            assertFalse(inserted.contains(new BytesKey(keys.absent(i))));
        }
    }

    @Test
    void zipfianKeysFollowTheirLaw() {
        Map<BytesKey, Integer> drawn = new HashMap<>();
        for (int i = 0; i < ENTRIES; i++) {
            drawn.merge(new BytesKey(keys.zipfian(i)), 1, Integer::sum);
        }
        assertTrue(inserted().containsAll(drawn.keySet()));
        // The sum of 1 / i ^ 0.99 up to 10,000 is 10.2: the first has 9.8 % of all draws, the second about half of it.
        assertEquals(980, drawn.get(new BytesKey(keys.inRandomOrder(0))), 120);
        assertEquals(493, drawn.get(new BytesKey(keys.inRandomOrder(1))), 90);
        assertTrue(drawn.size() < ENTRIES / 2, drawn.size() + " different keys");
    }

    @Test
    void writesComeAsOftenAsAsked() {
        int writes = 0;
        for (int i = 0; i < ENTRIES; i++) {
            writes += keys.writes(i, 10) ? 1 : 0;
        }
        assertEquals(1_000, writes, 150);
    }
}
