package com.velt.rz.corvane.nimbra.peers;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.function.Function;
import java.util.stream.Collectors;

/** The competitors, in the order of the tables. */
enum Peer {
    NIMBRA("nimbra", "Nimbra", false, sizing -> new NimbraPeer()),
    OHC("ohc", "OHC", false, OhcPeer::new),
    CHRONICLE("chronicle-map", "Chronicle Map", false, ChroniclePeer::new),
    EHCACHE("ehcache", "Ehcache", false, EhcachePeer::new),
    INFINISPAN("infinispan", "Infinispan", false, sizing -> new InfinispanPeer()),
    CAFFEINE("caffeine", "Caffeine", true, CaffeinePeer::new),
    HEAP_MAP("concurrent-hash-map", "ConcurrentHashMap", true, sizing -> new HeapMapPeer());

    private static final int ENTRY_OVERHEAD_ON_HEAP = 200; // bytes; headers, node and table of an entry, generously

    /** What Chronicle's page on Java 17 asks for. */
    private static final List<String> CHRONICLE_FLAGS = List.of(
            "--add-exports=java.base/jdk.internal.ref=ALL-UNNAMED",
            "--add-exports=java.base/sun.nio.ch=ALL-UNNAMED",
            "--add-exports=jdk.unsupported/sun.misc=ALL-UNNAMED",
            "--add-exports=jdk.compiler/com.sun.tools.javac.file=ALL-UNNAMED",
            "--add-opens=jdk.compiler/com.sun.tools.javac=ALL-UNNAMED",
            "--add-opens=java.base/java.lang=ALL-UNNAMED",
            "--add-opens=java.base/java.lang.reflect=ALL-UNNAMED",
            "--add-opens=java.base/java.io=ALL-UNNAMED",
            "--add-opens=java.base/java.util=ALL-UNNAMED");

    private final String id;
    private final String label;
    private final boolean onHeap;
    private final Function<Sizing, PeerStore> maker;

    Peer(String id, String label, boolean onHeap, Function<Sizing, PeerStore> maker) {
        this.id = id;
        this.label = label;
        this.onHeap = onHeap;
        this.maker = maker;
    }

    /** Returns the name that options and results use. */
    String id() {
        return id;
    }

    /** Returns the name that tables use. */
    String label() {
        return label;
    }

    boolean onHeap() {
        return onHeap;
    }

    PeerStore open(Sizing sizing) {
        return maker.apply(sizing);
    }

    /**
     * Returns the JVM's options for a process that measures this store. The heap is fixed and touched beforehand, so
     * that neither its growth nor page faults are measured. Every store gets what the harness needs and 1 GiB; those on
     * the heap get twice their entries in addition.
     */
    List<String> jvmOptions(Sizing sizing) {
        long heap = heapMegabytes(sizing);
        List<String> options = new ArrayList<>(
                List.of("-Xms" + heap + "m", "-Xmx" + heap + "m", "-XX:+AlwaysPreTouch", "-XX:+UseG1GC"));
        if (this == EHCACHE) {
            options.add("-XX:MaxDirectMemorySize=" + (EhcachePeer.poolMegabytes(sizing) + 512) + "m");
        }
        if (this == CHRONICLE) {
            options.addAll(CHRONICLE_FLAGS);
        }
        return options;
    }

    long heapMegabytes(Sizing sizing) {
        long harness = Keys.heapBytes(sizing.entries());
        return 1024 + (harness >> 20) + (onHeap ? 2 * sizing.bytes(ENTRY_OVERHEAD_ON_HEAP) >> 20 : 0);
    }

    /** Returns the memory that a process of this store may take at most, roughly. */
    long processMegabytes(Sizing sizing) {
        long offHeap = this == EHCACHE
                ? EhcachePeer.poolMegabytes(sizing)
                : onHeap ? 0 : sizing.bytes(ENTRY_OVERHEAD_ON_HEAP) >> 20;
        return heapMegabytes(sizing) + offHeap + 512;
    }

    /**
     * Returns the store of that name.
     *
     * @throws IllegalArgumentException naming all there are
     */
    static Peer of(String id) {
        return Arrays.stream(values())
                .filter(peer -> peer.id.equals(id))
                .findFirst()
                .orElseThrow(() -> new IllegalArgumentException("no store is called \"" + id + "\"; there are "
                        + Arrays.stream(values()).map(Peer::id).collect(Collectors.joining(", "))));
    }

    /** Returns the name for tables of a result's store, which need not be one of these. */
    static String labelOf(String id) {
        return Arrays.stream(values())
                .filter(peer -> peer.id.equals(id))
                .findFirst()
                .map(Peer::label)
                .orElse(id);
    }
}
