package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;

import org.junit.jupiter.api.extension.AfterEachCallback;
import org.junit.jupiter.api.extension.BeforeEachCallback;
import org.junit.jupiter.api.extension.ExtensionContext;

/**
 * After every test, the live blocks and the internal metadata have to be what they were before it. A refusal that came
 * after the allocation keeps the block count raised by one; a test that provokes such refusals announces them.
 */
final class LeakCheck implements BeforeEachCallback, AfterEachCallback {
    private static NimbraStats before;
    private static long raised;

    /** Tells the check of a refusal that kept the block count raised. */
    static void refusedAfterAllocation() {
        raised++;
    }

    @Override
    public void beforeEach(ExtensionContext context) {
        before = TestRuntime.start().stats();
        raised = 0;
    }

    @Override
    public void afterEach(ExtensionContext context) {
        NimbraStats after = Nimbra.get().stats();
        assertEquals(before.blocks() + raised, after.blocks(), "live blocks");
        assertEquals(before.internalMetadataBytes(), after.internalMetadataBytes(), "internal metadata bytes");
    }
}
