package com.velt.rz.corvane.nimbra.peers;

import java.util.Arrays;
import java.util.stream.Collectors;

/** What is measured, in the order in which one process does it and the tables show it. */
enum Workload {
    INSERT("insert", Group.WRITES, "insert"),
    GET_HIT("get-hit", Group.READS, "getHit"),
    GET_HIT_ZIPFIAN("get-hit-zipfian", Group.READS, "getHitZipfian"),
    GET_MISS("get-miss", Group.READS, "getMiss"),
    READ_IN_PLACE("read-in-place", Group.IN_PLACE, "readInPlace"),
    OVERWRITE("overwrite", Group.WRITES, "overwrite"),
    REMOVE_INSERT("remove-insert", Group.WRITES, "removeInsert"),
    MIX_90_10("mix-90-10", Group.MIXES, "mix90To10"),
    MIX_50_50("mix-50-50", Group.MIXES, "mix50To50");

    /** The tables. */
    enum Group {
        READS("Reads that return a copy"),
        WRITES("Writes"),
        MIXES("Gets and puts mixed"),
        IN_PLACE("Reads in place, without a copy");

        private final String title;

        Group(String title) {
            this.title = title;
        }

        String title() {
            return title;
        }
    }

    private final String id;
    private final Group group;
    private final String method;

    Workload(String id, Group group, String method) {
        this.id = id;
        this.group = group;
        this.method = method;
    }

    /** Returns the name that options and results use. */
    String id() {
        return id;
    }

    Group group() {
        return group;
    }

    /** Returns the name of the method of {@link PeerBenchmarks}. */
    String method() {
        return method;
    }

    /**
     * Returns the workload of that name.
     *
     * @throws IllegalArgumentException naming all there are
     */
    static Workload of(String id) {
        return Arrays.stream(values())
                .filter(workload -> workload.id.equals(id))
                .findFirst()
                .orElseThrow(() -> new IllegalArgumentException("no workload is called \"" + id + "\"; there are "
                        + Arrays.stream(values()).map(Workload::id).collect(Collectors.joining(", "))));
    }
}
