package com.velt.rz.corvane.nimbra.peers;

/**
 * The store of this process. It outlives single JMH benchmarks: filled once, it serves all workloads that leave the
 * number of entries as it is. Used by one thread at a time.
 */
final class Session {
    private static final int REHEARSED_STORES = 4;
    private static final int REHEARSED_OPERATIONS = 20_000;
    private static final int LEAST_REHEARSED = 100;
    private static final int MOST_REHEARSED = 2_000;

    private static Session current;

    private final Peer peer;
    private final Sizing sizing;
    private final Keys keys;
    private PeerStore store;

    Session(Plan plan, Keys keys) {
        this.peer = plan.peer();
        this.sizing = plan.sizing();
        this.keys = keys;
    }

    /** Makes this the session that benchmarks find. */
    void begin() {
        current = this;
    }

    static Session current() {
        return current;
    }

    Keys keys() {
        return keys;
    }

    PeerStore store() {
        return store;
    }

    /** Replaces the store by an empty one. */
    void renew() {
        close();
        System.gc(); // the old one's garbage is not the new one's business
        store = peer.open(sizing);
    }

    void fill() {
        for (int i = 0; i < keys.entries(); i++) {
            store.put(keys.toInsert(i), keys.value(i));
        }
        requireAllEntries();
    }

    void requireAllEntries() {
        long size = store.size();
        if (size != keys.entries()) {
            throw new IllegalStateException(peer.label() + " holds " + size + " entries instead of " + keys.entries());
        }
    }

    void close() {
        if (store != null) {
            store.close();
            store = null;
        }
    }

    /**
     * Lets the compilers and class loaders do their work, on stores of a hundredth of the size, so that what an
     * allocator keeps of them hardly counts as memory.
     */
    void rehearse() {
        int entries = Math.max(LEAST_REHEARSED, Math.min(MOST_REHEARSED, keys.entries() / 100));
        Sizing small = new Sizing(entries, sizing.keyBytes(), sizing.valueBytes());
        for (int i = 0; i < REHEARSED_STORES; i++) {
            try (PeerStore rehearsed = peer.open(small)) {
                for (int operations = 0; operations < REHEARSED_OPERATIONS; operations += entries) {
                    rehearse(rehearsed, entries);
                }
            }
        }
    }

    private void rehearse(PeerStore rehearsed, int entries) {
        for (int i = 0; i < entries; i++) {
            rehearsed.put(keys.toInsert(i), keys.value(i));
        }
        for (int i = 0; i < entries; i++) {
            if (rehearsed.get(keys.toInsert(i)) == null) {
                throw Words.missing();
            }
            rehearsed.remove(keys.toInsert(i));
        }
    }
}
