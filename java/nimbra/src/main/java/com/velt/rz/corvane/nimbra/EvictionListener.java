package com.velt.rz.corvane.nimbra;

/**
 * Is told of every entry that a map gives up by itself. An expired entry that a write to its own key meets first is
 * replaced or removed without a word.
 */
@FunctionalInterface
public interface EvictionListener {
    /**
     * Called after the entry has gone, on the thread that made room: one that uses the map, or one of the map's executor.
     * No lock of the map is held, so the listener may use the map; several threads may call it at once. What it throws is
     * logged and goes no further.
     *
     * @param key a copy of the key
     * @param value a copy of the value
     */
    void evicted(byte[] key, byte[] value, EvictionCause cause);
}
