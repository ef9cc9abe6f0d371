package com.velt.rz.corvane.io.offheap.child;

import com.velt.rz.corvane.io.offheap.OffHeapManager;
import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.util.concurrent.BrokenBarrierException;
import java.util.concurrent.CyclicBarrier;

/** Loads the library and prints from where, or why not. With an argument, that many threads load it at once. */
public final class LoadProbe {
    private LoadProbe() {}

    public static void main(String[] arguments) throws InterruptedException {
        try {
            if (arguments.length > 0) {
                loadAtOnce(Integer.parseInt(arguments[0]));
            }
            System.out.println("module " + NativeLoader.class.getModule().getName());
            System.out.println("version " + new OffHeapManager().getLibraryVersion());
            System.out.println("origin " + NativeLoader.origin());
        } catch (UnsatisfiedLinkError e) {
            System.out.println("failed " + e.getMessage());
        }
    }

    private static void loadAtOnce(int count) throws InterruptedException {
        CyclicBarrier together = new CyclicBarrier(count);
        Thread[] threads = new Thread[count];
        for (int i = 0; i < count; i++) {
            threads[i] = new Thread(() -> {
                try {
                    together.await();
                    NativeLoader.load();
                    System.out.println("loaded");
                } catch (InterruptedException | BrokenBarrierException e) {
                    System.out.println("interrupted");
                }
            });
            threads[i].start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
    }
}
