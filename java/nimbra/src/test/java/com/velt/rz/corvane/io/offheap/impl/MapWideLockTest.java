package com.velt.rz.corvane.io.offheap.impl;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicReference;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

/** The lock over a whole map: who waits for it, and who does not. */
class MapWideLockTest extends MapTestBase {
    private static final long DEADLINE_SECONDS = 60;

    /** A thread that makes one native call, which is expected to wait for a lock. */
    private static final class Caller {
        private final AtomicReference<Throwable> failure = new AtomicReference<>();
        private final String nativeMethod;
        private final Thread thread;

        /** The name must be short enough for the system to keep it whole: it names the thread there too. */
        Caller(String name, String nativeMethod, Runnable call) {
            this.nativeMethod = nativeMethod;
            thread = new Thread(
                    () -> {
                        try {
                            call.run();
                        } catch (Throwable e) {
                            failure.set(e);
                        }
                    },
                    name);
            thread.start();
        }

        /** Returns once the thread is asleep inside the native call: for Java it runs, for the system it waits. */
        void awaitBlocked() throws IOException {
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(DEADLINE_SECONDS);
            while (!isInside() || !isAsleep()) {
                assertNull(failure.get());
                assertTrue(thread.isAlive(), "the call did not wait");
                assertTrue(System.nanoTime() < deadline, "the call neither waits nor ends");
                Thread.onSpinWait();
            }
        }

        private boolean isInside() {
            StackTraceElement[] stack = thread.getStackTrace();
            return stack.length > 0
                    && stack[0].getMethodName().equals(nativeMethod)
                    && thread.getState() == Thread.State.RUNNABLE;
        }

        private boolean isAsleep() throws IOException {
            try (Stream<Path> tasks = Files.list(Path.of("/proc/self/task"))) {
                for (Path task : (Iterable<Path>) tasks::iterator) {
                    try {
                        String stat = Files.readString(task.resolve("stat"), StandardCharsets.ISO_8859_1);
                        String comm = stat.substring(stat.indexOf('(') + 1, stat.lastIndexOf(')'));
                        if (comm.equals(thread.getName())) {
                            return stat.charAt(stat.lastIndexOf(')') + 2) == 'S';
                        }
                    } catch (NoSuchFileException e) {
                        continue; // a thread that has ended meanwhile
                    }
                }
            }
            return false;
        }

        void join() throws InterruptedException {
            thread.join(TimeUnit.SECONDS.toMillis(DEADLINE_SECONDS));
            assertFalse(thread.isAlive(), "the call still waits");
            assertNull(failure.get());
        }
    }

    @Test
    void anInsertWaitsUntilTheMapIsUnlocked() throws Exception {
        put(map, bytes(1), bytes(1), 2, 1);
        assertEquals(0, MAPS.lockMapAndQueues(map));
        long[] inserted = new long[1];
        Caller insert = new Caller(
                "wide-insert",
                "insertAndGetNewAndPinWithInt",
                () -> inserted[0] = MAPS.insertAndGetNewAndPinWithInt(map, 7, 7, bytes(1), 1, (byte) 0, OWNER, 1));
        insert.awaitBlocked();
        assertEquals(1, MAPS.size(map));
        assertFalse(MAPS.containsKeyWithHashCodeNumber(map, 7, 7));
        assertEquals(0, MAPS.unlockMapAndQueues(map));
        insert.join();
        assertNotEquals(0, inserted[0]);
        assertTrue(MAPS.containsKeyWithHashCodeNumber(map, 7, 7));
        assertEquals(PINS_OF_MAP, unpin(inserted[0]));
    }

    @Test
    void anUpdateWaitsUntilTheMapIsUnlocked() throws Exception {
        long entry = put(map, bytes(1), bytes(1), 0, 1);
        assertEquals(0, MAPS.lockMapAndQueues(map));
        long[] snapshot = new long[1];
        Caller update = new Caller(
                "wide-update",
                "updateAndGetNewAndPinWithHashCodeBABA",
                () -> snapshot[0] = MAPS.updateAndGetNewAndPinWithHashCodeBABA(
                        map, bytes(1), 1, bytes(2, 2), 2, (byte) 0, OWNER, 2));
        update.awaitBlocked();
        assertEquals(1, VALUES.getRevisionNumber(entry));
        assertEquals(0, MAPS.unlockMapAndQueues(map));
        update.join();
        assertEquals(2, VALUES.getRevisionNumber(entry));
        assertEquals(0, unpin(snapshot[0]));
    }

    /** A removal needs the map only when it leaves its queue: it waits there, out of the table already. */
    @Test
    void aRemovalWaitsBeforeItLeavesItsQueue() throws Exception {
        long entry = put(map, bytes(1), bytes(1), 0, 1);
        assertEquals(0, MAPS.lockMapAndQueues(map));
        long[] removed = new long[1];
        Caller remove = new Caller(
                "wide-remove",
                "removeAndGetAndPinWithHashCodeBA",
                () -> removed[0] = MAPS.removeAndGetAndPinWithHashCodeBA(map, bytes(1), 1));
        remove.awaitBlocked();
        assertFalse(MAPS.containsKeyWithHashCodeBA(map, bytes(1), 1));
        assertEquals(entry, MAPS.getAndPinFirstInQueue(map, ENTRY, false), "its queue still has it");
        unpin(entry);
        assertEquals(0, MAPS.unlockMapAndQueues(map));
        remove.join();
        assertEquals(entry, removed[0]);
        assertEquals(0, unpin(entry));
    }

    @Test
    void aQueryAndALockedWalkWait() throws Exception {
        long entry = put(map, bytes(1), bytes(1), 0, 1);
        ByteBuffer result = allocate(8 + 72, QUERY_RESULT);
        assertEquals(0, MAPS.lockMapAndQueues(map));
        long[] first = new long[1];
        Caller walk = new Caller(
                "wide-walk", "getAndPinFirstInQueue", () -> first[0] = MAPS.getAndPinFirstInQueue(map, ENTRY, true));
        Caller query = new Caller(
                "wide-query",
                "queryRevisionAndPinWithBounds",
                () -> MAPS.queryRevisionAndPinWithBounds(map, result, 0, new long[] {0}, new long[] {9}));
        Caller locker = new Caller("wide-lock", "lockMapAndQueues", () -> {
            assertEquals(0, MAPS.lockMapAndQueues(map));
            assertEquals(0, MAPS.unlockMapAndQueues(map));
        });
        walk.awaitBlocked();
        query.awaitBlocked();
        locker.awaitBlocked();
        assertEquals(0, MAPS.unlockMapAndQueues(map));
        walk.join();
        query.join();
        locker.join();
        assertEquals(entry, first[0]);
        assertEquals(1, result.order(ByteOrder.nativeOrder()).getLong(0));
        long[] info = new long[3];
        VALUES.getKeyInfo(entry, info);
        MANAGER.unpin_native(info[0] - HEADER, 8192);
        VALUES.getValueInfo(entry, 0, info);
        MANAGER.unpin_native(info[0] - HEADER, 8192);
        unpin(entry);
        assertEquals(PINS_OF_MAP, unpin(entry));
        MANAGER.freeDirectInternal(result);
    }

    @Test
    void lookupsDoNotWait() {
        long entry = put(map, bytes(1), bytes(1), 0, 1);
        assertEquals(0, MAPS.lockMapAndQueues(map));
        assertEquals(entry, MAPS.getLuValue_ByteArray(map, new long[4], bytes(1), 1, 0, false, 0));
        assertTrue(MAPS.containsKeyWithHashCodeBA(map, bytes(1), 1));
        assertEquals(1, MAPS.size(map));
        assertEquals(0, MAPS.unlockMapAndQueues(map));
        assertEquals(PINS_OF_MAP, unpin(entry));
    }

    @Test
    void theLockIsTakenAndLetGoAgainAndAgain() {
        put(map, bytes(1), bytes(1), 5, 1);
        for (int i = 0; i < 100; i++) {
            assertEquals(0, MAPS.lockMapAndQueues(map));
            assertEquals(0, MAPS.unlockMapAndQueues(map));
        }
        put(map, bytes(2), bytes(1), 0, 2);
        assertEquals(2, MAPS.size(map), "writers find it free");
    }

    @Test
    void handleZeroCannotBeLocked() {
        assertEquals(1, MAPS.lockMapAndQueues(0));
    }
}
