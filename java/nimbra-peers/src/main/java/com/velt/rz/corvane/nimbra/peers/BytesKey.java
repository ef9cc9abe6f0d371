package com.velt.rz.corvane.nimbra.peers;

import java.util.Arrays;

/**
 * An array as a key, compared by content; the array must not change. For competitors whose own keys are compared by
 * identity or by {@code equals}.
 */
final class BytesKey {
    final byte[] bytes;
    private final int hash;

    BytesKey(byte[] bytes) {
        this.bytes = bytes;
        this.hash = Arrays.hashCode(bytes);
    }

    @Override
    public int hashCode() {
        return hash;
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof BytesKey key && hash == key.hash && Arrays.equals(bytes, key.bytes);
    }
}
