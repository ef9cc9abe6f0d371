package com.velt.rz.corvane.io.offheap.overflow;

import com.velt.rz.corvane.io.offheap.util.NativeLoader;

/** Diagnostics of the overflow layer. */
public class Utils {
    static {
        NativeLoader.load();
    }

    /**
     * Writes the calling thread's native identifier to the trace.
     */
    public static native void printPthreadID();
}
