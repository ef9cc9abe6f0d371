package com.velt.rz.corvane.nimbra.peers;

import java.util.List;

/**
 * What one process has measured.
 *
 * @param heapBytes Java heap that filling the store took; see {@link Memory}
 * @param nativeBytes native memory that filling the store took; see {@link Memory}
 * @param ownBytes the store's own account of the latter, or -1
 * @param cells one for each workload and number of threads
 */
record Outcome(long heapBytes, long nativeBytes, long ownBytes, List<Cell> cells) {
    /**
     * One workload with one number of threads.
     *
     * @param opsPerSecond operations a second of all threads together, for each iteration
     */
    record Cell(String workload, int threads, List<Double> opsPerSecond) {}
}
