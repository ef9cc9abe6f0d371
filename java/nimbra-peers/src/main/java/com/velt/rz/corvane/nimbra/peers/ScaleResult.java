package com.velt.rz.corvane.nimbra.peers;

import com.fasterxml.jackson.jr.ob.JSON;
import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/**
 * One store with one number of entries.
 *
 * @param impl name of the store; a native program's map has a name that is no {@link Peer}'s
 * @param entries entries of the filled store
 * @param valueBytes length of every value
 * @param getNs nanoseconds for copying out the value of a random key that is present
 * @param putNs nanoseconds for an insert, on the way from no entries to all
 * @param bytesPerEntry heap and native bytes for each entry of the filled store, key and value included
 */
record ScaleResult(String impl, int entries, int valueBytes, double getNs, double putNs, double bytesPerEntry) {
    /** Puts together what a process with the two workloads has measured. */
    static ScaleResult of(Plan plan, Outcome outcome) {
        List<PeerResult> results = PeerResult.of(plan, List.of(outcome));
        return new ScaleResult(
                plan.impl(),
                plan.entries(),
                plan.valueBytes(),
                nanoseconds(results, Workload.GET_HIT),
                nanoseconds(results, Workload.INSERT),
                (double) (outcome.heapBytes() + outcome.nativeBytes()) / plan.entries());
    }

    private static double nanoseconds(List<PeerResult> results, Workload workload) {
        return results.stream()
                .filter(result -> result.workload().equals(workload.id()))
                .findFirst()
                .orElseThrow()
                .nanoseconds();
    }

    /** Reads a line of the native program. */
    static ScaleResult parse(String line) throws IOException {
        return JSON.std.beanFrom(ScaleResult.class, line);
    }

    double overheadPerEntry() {
        return bytesPerEntry - Keys.KEY_BYTES - valueBytes;
    }

    static void writeJson(Path file, List<ScaleResult> results) throws IOException {
        List<Map<String, Object>> objects = new ArrayList<>();
        for (ScaleResult result : results) {
            Map<String, Object> object = new LinkedHashMap<>();
            object.put("impl", result.impl);
            object.put("entries", result.entries);
            object.put("valueBytes", result.valueBytes);
            object.put("getNs", result.getNs);
            object.put("putNs", result.putNs);
            object.put("bytesPerEntry", result.bytesPerEntry);
            objects.add(object);
        }
        PeerResult.writeObjects(file, objects);
    }
}
