package com.velt.rz.corvane.nimbra;

/**
 * What a map has counted since it was made. The figures are read one after the other: with others at work they are not a
 * snapshot.
 *
 * @param hits calls of {@code get} and {@code pin} that found a value
 * @param misses calls of {@code get} and {@code pin} that found none, or an expired one
 * @param puts values stored, by any of the writing methods
 * @param removals entries that {@code remove} has removed
 * @param sizeEvictions entries that made room for others
 * @param expirations entries collected because their time was over
 */
public record MapStatistics(long hits, long misses, long puts, long removals, long sizeEvictions, long expirations) {

    /** Returns the entries that the map gave up for this cause. */
    public long evictions(EvictionCause cause) {
        return switch (cause) {
            case SIZE -> sizeEvictions;
            case EXPIRED -> expirations;
        };
    }
}
