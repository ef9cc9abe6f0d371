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

/** A map is closed while another thread uses it: the call answers as if it came first, or is refused. */
public final class CloseAgainstUse {
    private CloseAgainstUse() {}

    @JCStressTest
    @Outcome(id = Values.OLD, expect = Expect.ACCEPTABLE, desc = "the get came first")
    @Outcome(id = Values.CLOSED, expect = Expect.ACCEPTABLE, desc = "the close came first")
    @State
    public static class Get {
        private final OffHeapMap map = Values.map();

        @Actor
        public void close() {
            map.close();
        }

        @Actor
        public void get(L_Result result) {
            try {
                result.r1 = Values.name(map.get(Values.KEY));
            } catch (IllegalStateException e) {
                result.r1 = Values.CLOSED;
            }
        }
    }

    @JCStressTest
    @Outcome(id = Values.DONE, expect = Expect.ACCEPTABLE, desc = "the put came first")
    @Outcome(id = Values.CLOSED, expect = Expect.ACCEPTABLE, desc = "the close came first")
    @State
    public static class Put {
        private final OffHeapMap map = Values.map();

        @Actor
        public void close() {
            map.close();
        }

        @Actor
        public void put(L_Result result) {
            try {
                result.r1 = map.put(Values.KEY, Values.newValue()) ? "a new key" : Values.DONE;
            } catch (IllegalStateException e) {
                result.r1 = Values.CLOSED;
            }
        }
    }

    /** A pin that came first outlives the map. */
    @JCStressTest
    @Outcome(id = "old, old", expect = Expect.ACCEPTABLE, desc = "the pin came first")
    @Outcome(id = "closed, null", expect = Expect.ACCEPTABLE, desc = "the close came first")
    @State
    public static class Pin {
        private final OffHeapMap map = Values.map();
        private PinnedValue pinned;

        @Actor
        public void close() {
            map.close();
        }

        @Actor
        public void pin(LL_Result result) {
            try {
                pinned = map.pin(Values.KEY);
                result.r1 = Values.name(pinned);
            } catch (IllegalStateException e) {
                result.r1 = Values.CLOSED;
            }
        }

        @Arbiter
        public void after(LL_Result result) {
            if (pinned != null) {
                result.r2 = Values.name(pinned);
                pinned.close();
            }
        }
    }

    /** Both closers return only when the map is closed, and nothing is freed twice. */
    @JCStressTest
    @Outcome(id = "closed, closed", expect = Expect.ACCEPTABLE, desc = "closed for both")
    @State
    public static class Close {
        private final OffHeapMap map = Values.map();

        @Actor
        public void first(LL_Result result) {
            result.r1 = closeAndLook();
        }

        @Actor
        public void second(LL_Result result) {
            result.r2 = closeAndLook();
        }

        private String closeAndLook() {
            map.close();
            try {
                return Values.name(map.get(Values.KEY));
            } catch (IllegalStateException e) {
                return Values.CLOSED;
            }
        }
    }
}
