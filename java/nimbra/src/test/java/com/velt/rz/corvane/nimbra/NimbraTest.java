package com.velt.rz.corvane.nimbra;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

@ExtendWith(LeakCheck.class)
class NimbraTest {
    @Test
    void startingTwiceWithTheSameLimitsIsHarmless() {
        Nimbra first = TestRuntime.start();
        assertTrue(Nimbra.isStarted());
        assertSame(
                first, Nimbra.builder().maximumBytes(TestRuntime.MAXIMUM_BYTES).start());
        assertSame(first, Nimbra.get());
    }

    @Test
    void startingWithOtherLimitsNamesBoth() {
        Nimbra.Builder other = Nimbra.builder().maximumBytes(123_456_789);
        String message = assertThrows(IllegalStateException.class, other::start).getMessage();
        assertTrue(message.contains("1073741824") && message.contains("123456789"), message);
        assertEquals(TestRuntime.MAXIMUM_BYTES, Nimbra.get().stats().maximumBytes());
    }

    @Test
    void startersAtTheSameTimeGetTheSameRuntime() throws Exception {
        Set<Nimbra> seen = ConcurrentHashMap.newKeySet();
        CountDownLatch go = new CountDownLatch(1);
        List<Thread> starters = new ArrayList<>();
        for (int i = 0; i < 4; i++) {
            Thread starter = new Thread(() -> {
                try {
                    go.await();
                } catch (InterruptedException e) {
                    return;
                }
                seen.add(
                        Nimbra.builder().maximumBytes(TestRuntime.MAXIMUM_BYTES).start());
            });
            starter.start();
            starters.add(starter);
        }
        go.countDown();
        for (Thread starter : starters) {
            starter.join();
        }
        assertEquals(Set.of(Nimbra.get()), seen);
    }

    @Test
    void badLimitsAreNamed() {
        for (long bad : new long[] {0, -1, Long.MIN_VALUE, Nimbra.MINIMUM_BYTES - 1}) {
            String message = assertThrows(IllegalArgumentException.class, () -> Nimbra.builder()
                            .maximumBytes(bad))
                    .getMessage();
            assertTrue(message.contains("maximumBytes is " + bad), message);
        }
        assertEquals(
                "maximumBytes is not set",
                assertThrows(IllegalStateException.class, () -> Nimbra.builder().start())
                        .getMessage());
    }

    @Test
    void statsFollowTheLibrary() {
        NimbraStats empty = Nimbra.get().stats();
        assertEquals(TestRuntime.MAXIMUM_BYTES, empty.maximumBytes());
        assertEquals((long) (TestRuntime.MAXIMUM_BYTES * 0.97), empty.hardCapBytes());
        try (OffHeapMap map = Nimbra.get().newMap()) {
            NimbraStats made = Nimbra.get().stats();
            assertTrue(made.blocks() > empty.blocks());
            assertTrue(made.internalMetadataBytes() > empty.internalMetadataBytes());
            map.put(new byte[16], new byte[4 << 20]);
            NimbraStats filled = Nimbra.get().stats();
            assertTrue(filled.blocks() > made.blocks());
            assertTrue(filled.bytesInUse() >= made.bytesInUse() + (4 << 20));
        }
        TestRuntime.withMaximum(1_000_000_000, () -> {
            NimbraStats changed = Nimbra.get().stats();
            assertEquals(1_000_000_000, changed.maximumBytes());
            assertEquals(970_000_000, changed.hardCapBytes());
        });
    }

    /** In a process of its own, since this one has been started. */
    @Tag("child-jvm")
    @Test
    void beforeTheStartNothingWorksAndSaysWhy() {
        List<String> options = new ArrayList<>(List.of("-Xmx64m"));
        String library = System.getProperty("nimbra.library.path");
        if (library != null) {
            options.add("-Dnimbra.library.path=" + library);
        }
        ChildJvm.Result result = ChildJvm.run(options, NotStarted.class.getName());
        assertEquals(0, result.exitCode(), result::output);
        String output = result.output();
        assertEquals(
                """
                false
                Nimbra is not started: call Nimbra.builder().maximumBytes(bytes).start() first
                Nimbra is not started: call Nimbra.builder().maximumBytes(bytes).start() first
                true
                1048576
                stored true
                """,
                output);
    }

    /** The child process of {@link #beforeTheStartNothingWorksAndSaysWhy}. */
    static final class NotStarted {
        private NotStarted() {}

        public static void main(String[] arguments) {
            System.out.println(Nimbra.isStarted());
            try {
                Nimbra.get();
            } catch (IllegalStateException e) {
                System.out.println(e.getMessage());
            }
            try {
                OffHeapMap.builder().build();
            } catch (IllegalStateException e) {
                System.out.println(e.getMessage());
            }
            Nimbra nimbra = Nimbra.builder().maximumBytes(Nimbra.MINIMUM_BYTES).start();
            System.out.println(Nimbra.isStarted());
            System.out.println(new OffHeapManager().getCurrentMaxOffHeapSize());
            // The smallest maximum has to be of some use.
            try (OffHeapMap map = nimbra.newMap()) {
                System.out.println("stored " + map.put(new byte[16], new byte[64]));
            }
        }
    }
}
