package com.velt.rz.corvane.nimbra;

import static com.velt.rz.corvane.nimbra.OverflowRuntime.STORE;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.drain;
import static com.velt.rz.corvane.nimbra.OverflowRuntime.pushOut;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.extension.ExtendWith;

/** Keys and values around the lengths up to which they pass through memory of the thread, with disk overflow. */
@Tag("overflow")
@ExtendWith(OverflowRuntime.class)
@Timeout(value = 120, threadMode = Timeout.ThreadMode.SEPARATE_THREAD)
class OverflowCallMemoryTest {
    @Test
    void everyLengthStaysInMemory() {
        try (OffHeapMap map = Nimbra.get().newMap()) {
            CallMemoryTest.everyLengthGoesInAndOutAgain(map, CallMemoryTest.KEYS, CallMemoryTest.VALUES, () -> {});
            assertEquals(0, map.bytesUsed());
        }
    }

    @Test
    void longestAndLongerGoToDiskAndBack() {
        int[] keys = {CallMemory.MAX_KEY, CallMemory.MAX_KEY + 1};
        int[] values = {0, CallMemory.MAX_VALUE, CallMemory.MAX_VALUE + 1};
        long[] onDisk = new long[1];
        try (OffHeapMap map = Nimbra.get().newMap()) {
            CallMemoryTest.everyLengthGoesInAndOutAgain(map, keys, values, () -> {
                pushOut();
                onDisk[0] += STORE.bytesLive();
            });
            drain();
            assertEquals(0, map.bytesUsed());
        }
        assertTrue(onDisk[0] > 0, "no value was on disk");
    }
}
