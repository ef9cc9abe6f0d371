package com.velt.rz.corvane.nimbra.peers;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/** Sums the 64-bit words of a value. */
final class Words {
    private static final VarHandle WORDS = MethodHandles.byteArrayViewVarHandle(long[].class, ByteOrder.BIG_ENDIAN);

    private Words() {}

    static long sum(byte[] value) {
        long sum = 0;
        for (int at = 0; at < value.length; at += Long.BYTES) {
            sum += (long) WORDS.get(value, at);
        }
        return sum;
    }

    /** Sums what lies between the buffer's position and its limit; the buffer is in big-endian order. */
    static long sum(ByteBuffer value) {
        long sum = 0;
        int limit = value.limit();
        for (int at = value.position(); at < limit; at += Long.BYTES) {
            sum += value.getLong(at);
        }
        return sum;
    }

    static IllegalStateException missing() {
        return new IllegalStateException("a key is missing");
    }
}
