package com.velt.rz.corvane.nimbra.bench;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import java.util.Properties;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

class PauseWorkerTest {
    private static final PauseLoad LOAD = new PauseLoad(1_000, 64, 2_000, 2, 0, 1);

    @ParameterizedTest
    @EnumSource(PauseStore.class)
    void carriesOutEveryIntendedOperation(PauseStore kind) throws Exception {
        Properties properties = PauseWorker.run(kind, LOAD);
        PauseResult result =
                PauseResult.of(PauseCell.of(kind, PauseCell.Collector.G1, LOAD, 64 << 20), properties, List.of());
        assertEquals(2_000, result.response().getTotalCount());
        assertEquals(2_000, result.service().getTotalCount());
        assertTrue(result.response().getMaxValue() >= result.service().getMaxValue());
        double recorded =
                Double.parseDouble(properties.getProperty("to")) - Double.parseDouble(properties.getProperty("from"));
        assertTrue(recorded > 0.9, Double.toString(recorded));
    }

    @Test
    void caffeineKeepsAndHandsOutCopies() {
        try (Store store = new CaffeineStore(10)) {
            byte[] value = {0, 0, 0, 0, 0, 0, 0, 7};
            store.put(PauseLoad.key(1), value);
            value[7] = 9;
            byte[] copy = store.get(PauseLoad.key(1));
            assertArrayEquals(new byte[] {0, 0, 0, 0, 0, 0, 0, 7}, copy);
            assertNotSame(copy, store.get(PauseLoad.key(1)));
            assertEquals(7, store.read(PauseLoad.key(1)));
            assertTrue(store.replace(PauseLoad.key(1), value));
            assertEquals(9, store.read(PauseLoad.key(1)));
            assertFalse(store.replace(PauseLoad.key(2), value));
            assertEquals(1, store.size());
            assertTrue(store.remove(PauseLoad.key(1)));
            assertFalse(store.remove(PauseLoad.key(1)));
        }
    }
}
