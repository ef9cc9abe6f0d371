package com.velt.rz.corvane.io.offheap.overflow;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;

import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;

/** The methods that native code will call while disk overflow is on reach the registered handler. */
class OverflowCallbackTest {
    @Test
    void nativeCodeFindsItsMethods() throws NoSuchMethodException {
        assertStaticVoid(Overflow.class, "moreMainMemoryNeeded", long[].class);
        assertStaticVoid(NOFStruct.class, "updatingNative", long[].class);
        assertStaticVoid(NOFStruct.class, "deletingNative", long[].class);
        assertStaticVoid(NOFStruct.class, "getOccurred", int[].class);
    }

    private static void assertStaticVoid(Class<?> owner, String name, Class<?> parameter) throws NoSuchMethodException {
        var method = owner.getMethod(name, parameter);
        assertEquals(Modifier.PUBLIC | Modifier.STATIC, method.getModifiers(), name);
        assertEquals(void.class, method.getReturnType(), name);
    }

    @Test
    void reportsReachTheHandler() {
        List<Object> seen = new ArrayList<>();
        OverflowHandler recorder = new OverflowHandler() {
            @Override
            public void moreMainMemoryNeeded(long[] limitAndSize) {
                seen.add(limitAndSize);
            }

            @Override
            public void updating(long[] entry) {
                seen.add(entry);
            }

            @Override
            public void deleting(long[] entry) {
                seen.add(entry);
            }

            @Override
            public void accessed(int[] mapAndResidence) {
                seen.add(mapAndResidence);
            }
        };
        long[] needed = {1, 2};
        long[] updating = {3};
        long[] deleting = new long[9];
        int[] accessed = {4, 1};
        OverflowHandler before = Overflow.setHandler(recorder);
        try {
            Overflow.moreMainMemoryNeeded(needed);
            NOFStruct.updatingNative(updating);
            NOFStruct.deletingNative(deleting);
            NOFStruct.getOccurred(accessed);
        } finally {
            assertSame(recorder, Overflow.setHandler(before));
        }
        assertEquals(List.of(needed, updating, deleting, accessed), seen);
        Overflow.moreMainMemoryNeeded(needed);
        assertEquals(4, seen.size(), "the recorder is no longer registered");
    }

    @Test
    void thereIsAlwaysAHandler() {
        assertSame(OverflowHandler.NONE, Overflow.handler());
        assertThrows(NullPointerException.class, () -> Overflow.setHandler(null));
        assertSame(OverflowHandler.NONE, Overflow.handler());
    }

    @Test
    void refusalsWithOverflowAreRuntimeExceptions() {
        RuntimeException refused = assertInstanceOf(RuntimeException.class, new NotEnoughResourcesException("text"));
        assertEquals("text", refused.getMessage());
    }
}
