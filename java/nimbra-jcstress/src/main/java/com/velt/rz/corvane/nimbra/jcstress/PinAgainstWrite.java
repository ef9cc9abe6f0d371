package com.velt.rz.corvane.nimbra.jcstress;

import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.PinnedValue;
import org.openjdk.jcstress.annotations.Actor;
import org.openjdk.jcstress.annotations.Arbiter;
import org.openjdk.jcstress.annotations.Expect;
import org.openjdk.jcstress.annotations.JCStressTest;
import org.openjdk.jcstress.annotations.Outcome;
import org.openjdk.jcstress.annotations.State;
import org.openjdk.jcstress.infra.results.LL_Result;
import org.openjdk.jcstress.infra.results.L_Result;

/** A value is pinned, or already is, while another thread replaces or removes the entry. */
public final class PinAgainstWrite {
    private PinAgainstWrite() {}

    @JCStressTest
    @Outcome(id = Values.OLD, expect = Expect.ACCEPTABLE, desc = "the pin came first")
    @Outcome(id = Values.NEW, expect = Expect.ACCEPTABLE, desc = "the replacement came first")
    @State
    public static class PinAgainstReplace {
        private final OffHeapMap map = Values.map();

        @Actor
        public void replace() {
            map.replace(Values.KEY, Values.newValue());
        }

        @Actor
        public void pin(L_Result result) {
            try (PinnedValue pinned = map.pin(Values.KEY)) {
                result.r1 = Values.name(pinned);
            }
        }

        @Arbiter
        public void after() {
            map.close();
        }
    }

    @JCStressTest
    @Outcome(id = Values.OLD, expect = Expect.ACCEPTABLE, desc = "the pin came first")
    @Outcome(id = Values.ABSENT, expect = Expect.ACCEPTABLE, desc = "the removal came first")
    @State
    public static class PinAgainstRemove {
        private final OffHeapMap map = Values.map();

        @Actor
        public void remove() {
            map.remove(Values.KEY);
        }

        @Actor
        public void pin(L_Result result) {
            try (PinnedValue pinned = map.pin(Values.KEY)) {
                result.r1 = Values.name(pinned);
            }
        }

        @Arbiter
        public void after() {
            map.close();
        }
    }

    /** What is pinned shows the same bytes before, while and after its entry goes. */
    @JCStressTest
    @Outcome(id = "old, old", expect = Expect.ACCEPTABLE, desc = "the view keeps its value")
    @State
    public static class ViewAgainstRemoveAndPut {
        private final OffHeapMap map = Values.map();
        private final PinnedValue pinned = map.pin(Values.KEY);

        @Actor
        public void write() {
            map.remove(Values.KEY);
            map.put(Values.KEY, Values.newValue());
        }

        @Actor
        public void read(LL_Result result) {
            result.r1 = Values.name(pinned);
        }

        @Arbiter
        public void after(LL_Result result) {
            result.r2 = Values.name(pinned);
            pinned.close();
            map.close();
        }
    }

    /** Two threads close one pinned value: one pin goes, and the other holder's view stays. */
    @JCStressTest
    @Outcome(id = "old", expect = Expect.ACCEPTABLE, desc = "the other pin holds the value")
    @State
    public static class CloseTwice {
        private final OffHeapMap map = Values.map();
        private final PinnedValue closed = map.pin(Values.KEY);
        private final PinnedValue kept = map.pin(Values.KEY);

        public CloseTwice() {
            map.remove(Values.KEY);
        }

        @Actor
        public void first() {
            closed.close();
        }

        @Actor
        public void second() {
            closed.close();
        }

        @Arbiter
        public void after(L_Result result) {
            // Memory that was freed by mistake is likely to be handed out again here.
            map.put(Values.KEY, Values.newValue());
            result.r1 = Values.name(kept);
            kept.close();
            map.close();
        }
    }

    /** A pinned value is closed by one thread while another asks for its view. */
    @JCStressTest
    @Outcome(id = "300", expect = Expect.ACCEPTABLE, desc = "asked first")
    @Outcome(id = Values.CLOSED, expect = Expect.ACCEPTABLE, desc = "closed first")
    @State
    public static class CloseAgainstSize {
        private final OffHeapMap map = Values.map();
        private final PinnedValue pinned = map.pin(Values.KEY);

        @Actor
        public void close() {
            pinned.close();
        }

        @Actor
        public void size(L_Result result) {
            try {
                result.r1 = pinned.size();
            } catch (IllegalStateException e) {
                result.r1 = Values.CLOSED;
            }
        }

        @Arbiter
        public void after() {
            map.close();
        }
    }
}
