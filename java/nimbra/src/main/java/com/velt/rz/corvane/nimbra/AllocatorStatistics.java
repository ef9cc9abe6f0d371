package com.velt.rz.corvane.nimbra;

/**
 * The allocator's state.
 *
 * @param stats what the process holds outside the Java heap
 * @param refusedOperations operations that ended in an {@link OffHeapMemoryException} since the process began
 * @param text the native allocator's own report, some hundred lines: arenas, size classes, fragmentation
 */
public record AllocatorStatistics(NimbraStats stats, long refusedOperations, String text) {}
