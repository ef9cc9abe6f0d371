package com.velt.rz.corvane.io.offheap.overflow;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/** Diagnostics of the overflow layer. */
public final class Utils {
    static {
        NativeLoader.load();
    }

    private Utils() {}

    /** Writes the calling thread's native identifier to the trace. */
    public static native void printPthreadID();
}
