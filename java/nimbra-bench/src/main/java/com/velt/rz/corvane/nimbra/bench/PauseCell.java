package com.velt.rz.corvane.nimbra.bench;

import java.util.List;
import java.util.Locale;

/**
 * One process of the pause benchmark: a store under a collector.
 *
 * @param heapBytes size of its Java heap, smallest and largest alike
 * @param nativeBytes what the store is expected to need beside the heap
 */
record PauseCell(PauseStore store, Collector collector, PauseLoad load, long heapBytes, long nativeBytes) {
    /** What the virtual machine, its threads and the collector's tables take in addition, roughly. */
    private static final long PROCESS_BYTES = 384L << 20;

    /** What a store on the heap gets of the bytes that live there, to leave its collector room to work. */
    private static final double HEAP_FACTOR = 1.5;

    /** A collector of the virtual machine. */
    enum Collector {
        G1("G1", "-XX:+UseG1GC"),
        ZGC("ZGC", "-XX:+UseZGC");

        private final String title;
        private final String option;

        Collector(String title, String option) {
            this.title = title;
            this.option = option;
        }

        String title() {
            return title;
        }

        String option() {
            return option;
        }
    }

    static PauseCell of(PauseStore store, Collector collector, PauseLoad load, long smallHeapBytes) {
        if (!store.onHeap()) {
            return new PauseCell(store, collector, load, smallHeapBytes, load.liveBytes());
        }
        long heap = (long) (load.liveBytes() * HEAP_FACTOR) + smallHeapBytes;
        return new PauseCell(store, collector, load, heap >> 20 << 20, 0);
    }

    String name() {
        return store.title() + ", " + collector.title();
    }

    /** The name as part of a file's name. */
    String fileName() {
        return store.name().toLowerCase(Locale.ROOT) + "-" + collector.title().toLowerCase(Locale.ROOT);
    }

    /** Bytes that the process may come to occupy. A collector keeps tables in proportion to its heap. */
    long neededBytes() {
        return heapBytes + heapBytes / 16 + nativeBytes + PROCESS_BYTES;
    }

    List<String> virtualMachineOptions() {
        String size = (heapBytes >> 20) + "m";
        return List.of(collector.option(), "-Xms" + size, "-Xmx" + size, "-XX:+AlwaysPreTouch");
    }
}
