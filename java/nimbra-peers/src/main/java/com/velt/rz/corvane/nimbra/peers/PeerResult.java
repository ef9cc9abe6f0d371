package com.velt.rz.corvane.nimbra.peers;

import com.fasterxml.jackson.jr.ob.JSON;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import org.openjdk.jmh.util.ListStatistics;

/**
 * One measured cell.
 *
 * @param workload name of the workload
 * @param impl name of the store
 * @param threads threads that did it at the same time
 * @param entries entries of the filled store
 * @param valueBytes length of every value
 * @param opsPerSecond median over the iterations of all processes, all threads together
 * @param error half the width of the mean's 95 % confidence interval, in the same unit; NaN with fewer than two
 *     iterations
 * @param heapBytes Java heap that filling the store took, the median over the processes
 * @param nativeBytes native memory that filling the store took, the median over the processes
 * @param ownBytes native memory by the first process's store's own account, or -1; no part of the JSON
 */
record PeerResult(
        String workload,
        String impl,
        int threads,
        int entries,
        int valueBytes,
        double opsPerSecond,
        double error,
        long heapBytes,
        long nativeBytes,
        long ownBytes) {

    private static final double CONFIDENCE = 0.95;

    /** Puts together what the processes of one store and one value length have measured. */
    static List<PeerResult> of(Plan plan, List<Outcome> outcomes) {
        long heapBytes =
                (long) median(outcomes.stream().map(o -> (double) o.heapBytes()).toList());
        long nativeBytes = (long)
                median(outcomes.stream().map(o -> (double) o.nativeBytes()).toList());
        List<PeerResult> results = new ArrayList<>();
        for (Outcome.Cell cell : outcomes.get(0).cells()) {
            ListStatistics all = new ListStatistics();
            outcomes.stream()
                    .flatMap(outcome -> outcome.cells().stream())
                    .filter(other -> other.workload().equals(cell.workload()) && other.threads() == cell.threads())
                    .forEach(other -> other.opsPerSecond().forEach(all::addValue));
            results.add(new PeerResult(
                    cell.workload(),
                    plan.impl(),
                    cell.threads(),
                    plan.entries(),
                    plan.valueBytes(),
                    all.getPercentile(50),
                    all.getN() < 2 ? Double.NaN : all.getMeanErrorAt(CONFIDENCE),
                    heapBytes,
                    nativeBytes,
                    outcomes.get(0).ownBytes()));
        }
        return results;
    }

    private static double median(List<Double> values) {
        ListStatistics statistics = new ListStatistics();
        values.forEach(statistics::addValue);
        return statistics.getPercentile(50);
    }

    /** Returns nanoseconds for one operation, all threads together. */
    double nanoseconds() {
        return 1e9 / opsPerSecond;
    }

    /** Returns heap and native bytes of an entry that are neither key nor value. */
    double overheadPerEntry() {
        return (double) (heapBytes + nativeBytes) / entries - Keys.KEY_BYTES - valueBytes;
    }

    /** Writes a list of objects whose fields are named as those of this record; NaN becomes null. */
    static void writeJson(Path file, List<PeerResult> results) throws IOException {
        List<Map<String, Object>> objects = new ArrayList<>();
        for (PeerResult result : results) {
            Map<String, Object> object = new LinkedHashMap<>();
            object.put("workload", result.workload);
            object.put("impl", result.impl);
            object.put("threads", result.threads);
            object.put("entries", result.entries);
            object.put("valueBytes", result.valueBytes);
            object.put("opsPerSecond", result.opsPerSecond);
            object.put("error", Double.isNaN(result.error) ? null : result.error);
            object.put("heapBytes", result.heapBytes);
            object.put("nativeBytes", result.nativeBytes);
            objects.add(object);
        }
        writeObjects(file, objects);
    }

    static void writeObjects(Path file, List<Map<String, Object>> objects) throws IOException {
        // One object a line, so that two runs can be compared with diff.
        StringBuilder text = new StringBuilder("[");
        String separator = "\n";
        for (Map<String, Object> object : objects) {
            text.append(separator)
                    .append(JSON.std.with(JSON.Feature.WRITE_NULL_PROPERTIES).asString(object));
            separator = ",\n";
        }
        Files.writeString(file, text.append("\n]\n"));
    }
}
