package com.velt.rz.corvane.nimbra;

/**
 * What disk overflow has done since the start, and what is on disk now. The figures are taken one after the other.
 *
 * @param pageOuts values that were dropped from memory, their bytes standing on disk
 * @param copiesReused page-outs among them that found an earlier copy still valid and wrote nothing
 * @param pageIns values that were read from disk and put back into memory
 * @param memoryHits lookups that found their value in memory
 * @param diskHits lookups that found their value on disk
 * @param sweeps searches for values to move, each by one thread for one allocation
 * @param sweepNanos nanoseconds that they took together, writing included
 * @param failedWrites values that stayed in memory because the store refused them
 * @param bytesOnDisk bytes that the store's files take
 * @param bytesLive bytes of the values in the store
 * @param diskLimit the most bytes that the files may take
 */
public record OverflowStats(
        long pageOuts,
        long copiesReused,
        long pageIns,
        long memoryHits,
        long diskHits,
        long sweeps,
        long sweepNanos,
        long failedWrites,
        long bytesOnDisk,
        long bytesLive,
        long diskLimit) {
    /** Returns the share of lookups that found their value in memory, from 0 to 1; 1 when there was none. */
    public double memoryHitRatio() {
        long hits = memoryHits + diskHits;
        return hits == 0 ? 1 : (double) memoryHits / hits;
    }
}
