package com.velt.rz.corvane.nimbra.peers;

import java.util.List;

/**
 * What one process measures.
 *
 * @param impl name of the store
 * @param entries entries of the filled store
 * @param valueBytes length of every value
 * @param threads numbers of threads, one after the other
 * @param workloads names of the workloads
 * @param warmups unmeasured iterations before each workload
 * @param iterations measured ones
 * @param milliseconds length of an iteration
 * @param passes measured passes of insert, after half as many unmeasured ones and at least one
 */
record Plan(
        String impl,
        int entries,
        int valueBytes,
        List<Integer> threads,
        List<String> workloads,
        int warmups,
        int iterations,
        int milliseconds,
        int passes) {

    Peer peer() {
        return Peer.of(impl);
    }

    Sizing sizing() {
        return new Sizing(entries, Keys.KEY_BYTES, valueBytes);
    }
}
