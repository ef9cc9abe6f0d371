package com.velt.rz.corvane.io.offheap.child;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.impl.LuOffHeapMapImpl;
import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.nio.ByteBuffer;

/**
 * Starts the library with disk overflow and then without, and prints what is different. Uses no class of the overflow
 * package, so that it also runs where there is none.
 */
public final class SwitchProbe {
    private static final OffHeapManager MANAGER = new OffHeapManager();

    private SwitchProbe() {}

    public static void main(String[] arguments) {
        OffHeapLogger.setLogLevel(OffHeapLogger.ERROR | OffHeapLogger.INFO);
        OffHeapLogger.setSink((method, key, text) -> System.out.println(method + " " + key + " " + text));
        start(true);
        describe();
        start(false);
        describe();
    }

    private static void start(boolean overflow) {
        System.out.println("start " + overflow + "=" + MANAGER.initializeOffHeap(64 << 20, 0, 0, overflow));
    }

    private static void describe() {
        System.out.println("record of " + MANAGER.getSize_LuValue() + " bytes");
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl();
        long blocks = MANAGER.getAllocatingCountInOffHeap();
        long map = maps.allocateLuOffHeapMap(0, 1, 1, 0, 0);
        ByteBuffer block = MANAGER.allocateDirectFromOffHeap(8, (byte) 0, (byte) 1);
        long entry = maps.insertAndGetNewAndPin(map, block, block, (short) 0, 1);
        System.out.println("pins left=" + MANAGER.unpinLuOffHeapValue_native(entry, 16));
        System.out.println("found=" + maps.containsKey(map, block));
        maps.clear(map);
        maps.deleteLuOffHeapMap(map);
        MANAGER.unpinToFree(block, 4);
        System.out.println("blocks left=" + (MANAGER.getAllocatingCountInOffHeap() - blocks));
        try {
            System.out.println("granted " + MANAGER.allocateDirectFromOffHeap(100 << 20, (byte) 0, (byte) 1));
        } catch (RuntimeException | OutOfMemoryError e) {
            String refusal = e.getClass().getSimpleName();
            // Which of the plain checks it meets is not of interest here.
            boolean plain = e instanceof IllegalStateException || e instanceof OutOfMemoryError;
            System.out.println("refused" + (plain ? "" : " by " + refusal));
        }
    }
}
