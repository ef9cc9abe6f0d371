package com.velt.rz.corvane.io.offheap.child;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;

/** Prints the level word that the configuration gives. */
public final class LevelProbe {
    private LevelProbe() {}

    public static void main(String[] arguments) {
        System.out.println("level=" + OffHeapLogger.getLogLevel());
    }
}
