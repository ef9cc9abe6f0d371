package com.velt.rz.corvane.io.offheap.child;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.impl.LuOffHeapMapImpl;
import java.nio.ByteBuffer;

/** Uses a library that was never initialised, and prints what it answers. */
public final class FreshProbe {
    private FreshProbe() {}

    public static void main(String[] arguments) {
        OffHeapManager manager = new OffHeapManager();
        System.out.println("version=" + manager.getLibraryVersion());
        System.out.println("finalized=" + manager.finalizeOffHeap());
        System.out.println("maximum=" + manager.getCurrentMaxOffHeapSize());
        System.out.println("blocks=" + manager.getAllocatingCountInOffHeap());
        System.out.println("metadata=" + manager.getAllocatingInternalMetadataSize());
        try {
            System.out.println("checked=" + manager.allocateDirectFromOffHeap(64, (byte) 0, (byte) 0));
        } catch (IllegalStateException e) {
            System.out.println("checked refused: " + e.getMessage());
        }
        try {
            System.out.println("map=" + new LuOffHeapMapImpl().allocateLuOffHeapMap(0, 1, 1, 0, 0));
        } catch (IllegalStateException e) {
            System.out.println("map refused: " + e.getMessage());
        }
        ByteBuffer buffer = manager.allocateDirectFromOffHeap(64, (byte) 1, (byte) 0);
        System.out.println("unchecked=" + buffer.capacity());
        System.out.println("freed=" + manager.unpinToFree(buffer, 4));
        System.out.println("blocks=" + manager.getAllocatingCountInOffHeap());
        // Without a maximum a map can still be made once there is one; its key callbacks are not known yet.
        manager.setCurrentMaxOffHeapSize(1 << 30);
        LuOffHeapMapImpl maps = new LuOffHeapMapImpl();
        long map = maps.allocateLuOffHeapMap(0, 1, 1, 0, 0);
        ByteBuffer key = manager.allocateDirectFromOffHeap(1, (byte) 0, (byte) 1);
        manager.setOffHeapByteBufferDeserializedType(key, 100);
        manager.unpinLuOffHeapValue_native(maps.insertAndGetNewAndPinWithHashCode(map, key, 1, key, (short) 0, 1), 16);
        System.out.println("callbacks unknown=" + !maps.containsKeyWithHashCode(map, key, 1));
        System.out.println("initialized=" + manager.initializeOffHeap(1 << 30, 0, 0, false));
        System.out.println("callbacks known=" + maps.containsKeyWithHashCode(map, key, 1));
        maps.clear(map);
        maps.deleteLuOffHeapMap(map);
        manager.unpinToFree(key, 4);
        System.out.println("blocks=" + manager.getAllocatingCountInOffHeap());
        System.out.println("metadata=" + manager.getAllocatingInternalMetadataSize());
    }
}
