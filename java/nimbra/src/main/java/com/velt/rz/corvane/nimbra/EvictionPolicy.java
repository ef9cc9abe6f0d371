package com.velt.rz.corvane.nimbra;

/** Which entry makes room in a map that is full. The order is kept for each partition of the map on its own. */
public enum EvictionPolicy {
    /** The one that was not used for the longest time. A use costs the same however many entries there are. */
    LRU(BoundedNatives.LRU),

    /**
     * The one that was used the least often; of those, the one that has waited the longest. The entries of a partition
     * stand in the order of their counts, and a use walks past those with lower counts and as many uses: its cost grows
     * with the entries.
     */
    LFU(BoundedNatives.LFU);

    private final int code;

    EvictionPolicy(int code) {
        this.code = code;
    }

    /** The natives' number of this policy. */
    int code() {
        return code;
    }
}
