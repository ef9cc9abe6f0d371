package com.velt.rz.corvane.nimbra.bench;

import java.util.function.LongFunction;

/** The stores of the pause benchmark. */
enum PauseStore {
    NIMBRA("Nimbra", false, entries -> new NimbraStore()),
    CAFFEINE("Caffeine", true, CaffeineStore::new),
    CONCURRENT_HASH_MAP("ConcurrentHashMap", true, entries -> new HeapStore());

    private final String title;
    private final boolean onHeap;
    private final LongFunction<Store> opener;

    PauseStore(String title, boolean onHeap, LongFunction<Store> opener) {
        this.title = title;
        this.onHeap = onHeap;
        this.opener = opener;
    }

    String title() {
        return title;
    }

    /** Whether the entries are objects of the Java heap. */
    boolean onHeap() {
        return onHeap;
    }

    Store open(long entries) {
        return opener.apply(entries);
    }
}
