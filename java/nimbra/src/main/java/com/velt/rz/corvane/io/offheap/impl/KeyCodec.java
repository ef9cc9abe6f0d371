package com.velt.rz.corvane.io.offheap.impl;

import java.nio.ByteBuffer;

/**
 * Gives keys of type tag 100 their meaning. Both methods run inside a native call with the key's bucket set locked:
 * they must not call a map. An exception is logged and counts as no match. Implementations are safe for use by several
 * threads.
 *
 * <p>A search asks once: the first such key of the chain that has the searched hash code decides, and an entry behind
 * it is not found. Hash codes of different keys must therefore differ.
 */
public interface KeyCodec {
    /** Deserializes nothing: the key object is the buffer, and keys match when all their bytes are equal. */
    KeyCodec BYTES = new KeyCodec() {
        @Override
        public Object deserialize(ByteBuffer buffer) {
            return buffer;
        }

        @Override
        public boolean matches(Object key, ByteBuffer stored) {
            // A key is the whole block, wherever its user has moved the position.
            return key instanceof ByteBuffer
                    && ((ByteBuffer) key)
                            .duplicate()
                            .clear()
                            .equals(stored.duplicate().clear());
        }
    };

    /**
     * Makes a key object of a key's serialized bytes. Runs at most once in a search.
     *
     * @param buffer the searched key as the caller passed it; position and limit are the caller's
     * @return the key object, or null, which matches nothing
     */
    Object deserialize(ByteBuffer buffer);

    /**
     * Tells whether a stored key equals the searched one.
     *
     * @param key what {@link #deserialize} returned
     * @param stored read-only view of the stored key's bytes; it must not be kept
     */
    boolean matches(Object key, ByteBuffer stored);
}
