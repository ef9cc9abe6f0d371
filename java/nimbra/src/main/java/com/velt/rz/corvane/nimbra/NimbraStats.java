package com.velt.rz.corvane.nimbra;

/**
 * What the process holds outside the Java heap at one moment. The figures are read one after the other: with writers
 * at work they are not a snapshot.
 *
 * @param blocks live native blocks: buffers, entry records and internal structures. An allocation that passed the first
 *     check of the maximum and failed the second, because other threads were faster, leaves this count one too high for
 *     good; such a refusal carries an {@link OutOfMemoryError} as its cause
 * @param bytesInUse bytes in use as the native allocator counts them, in whole pages; this is what the maximum limits
 * @param internalMetadataBytes bytes of the structures that do not belong to single entries: tables, queues, maps
 * @param maximumBytes the most bytes that may be in use
 * @param hardCapBytes 97 % of the maximum
 */
public record NimbraStats(
        long blocks, long bytesInUse, long internalMetadataBytes, long maximumBytes, long hardCapBytes) {}
