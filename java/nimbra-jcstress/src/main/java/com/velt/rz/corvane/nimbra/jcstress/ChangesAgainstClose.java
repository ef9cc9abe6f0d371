package com.velt.rz.corvane.nimbra.jcstress;

import com.velt.rz.corvane.nimbra.Change;
import com.velt.rz.corvane.nimbra.ChangeIterator;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import org.openjdk.jcstress.annotations.Actor;
import org.openjdk.jcstress.annotations.Arbiter;
import org.openjdk.jcstress.annotations.Expect;
import org.openjdk.jcstress.annotations.JCStressTest;
import org.openjdk.jcstress.annotations.Outcome;
import org.openjdk.jcstress.annotations.State;
import org.openjdk.jcstress.infra.results.L_Result;

/** A map is closed while another thread reads its changes. */
public final class ChangesAgainstClose {
    private ChangesAgainstClose() {}

    private static String read(ChangeIterator changes) {
        if (!changes.hasNext()) {
            return Values.ABSENT;
        }
        Change change = changes.next();
        String name = Values.name(change.value());
        return name.equals(Values.name(change.copyValue())) ? name : "changed";
    }

    /** A change that was handed out stays readable. */
    @JCStressTest
    @Outcome(id = Values.OLD, expect = Expect.ACCEPTABLE, desc = "the reading came first")
    @Outcome(id = Values.CLOSED, expect = Expect.ACCEPTABLE, desc = "the close came first")
    @State
    public static class Reading {
        private final OffHeapMap map = Values.map();
        private final ChangeIterator changes = map.changesSince(0);

        @Actor
        public void close() {
            map.close();
        }

        @Actor
        public void read(L_Result result) {
            try {
                result.r1 = ChangesAgainstClose.read(changes);
            } catch (IllegalStateException e) {
                result.r1 = Values.CLOSED;
            }
        }

        @Arbiter
        public void after() {
            changes.close();
        }
    }

    @JCStressTest
    @Outcome(id = Values.OLD, expect = Expect.ACCEPTABLE, desc = "the iterator came first")
    @Outcome(id = Values.CLOSED, expect = Expect.ACCEPTABLE, desc = "the close came first")
    @State
    public static class Beginning {
        private final OffHeapMap map = Values.map();

        @Actor
        public void close() {
            map.close();
        }

        @Actor
        public void read(L_Result result) {
            try (ChangeIterator changes = map.changesSince(0)) {
                result.r1 = ChangesAgainstClose.read(changes);
            } catch (IllegalStateException e) {
                result.r1 = Values.CLOSED;
            }
        }
    }
}
