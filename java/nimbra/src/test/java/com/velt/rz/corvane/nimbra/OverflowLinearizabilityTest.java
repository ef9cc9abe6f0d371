package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/** The same while a thread moves every value to disk all the time. */
@Tag("lincheck")
@ExtendWith(OverflowRuntime.class)
class OverflowLinearizabilityTest {
    @Test
    void valuesOnDisk() throws InterruptedException {
        AtomicBoolean stop = new AtomicBoolean();
        Thread pusher = new Thread(
                () -> {
                    while (!stop.get()) {
                        OverflowRuntime.pushOut();
                        Thread.yield();
                    }
                },
                "pusher");
        pusher.start();
        try {
            assertTrue(LinearizableMap.check(LinearizabilityTest.OnePartition.class) >= 1_000);
        } finally {
            stop.set(true);
            pusher.join();
        }
        OverflowStats stats = OverflowRuntime.stats();
        assertTrue(stats.pageOuts() > 0);
        assertTrue(stats.pageIns() > 0);
    }
}
