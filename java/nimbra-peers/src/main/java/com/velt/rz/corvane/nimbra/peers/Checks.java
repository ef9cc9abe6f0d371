package com.velt.rz.corvane.nimbra.peers;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/** Looks at options that both commands have. */
final class Checks {
    private static final int LEAST_ENTRIES = 1_000;

    private Checks() {}

    /** Returns what keeps the run from being possible, or null. */
    static String whatIsWrong(
            List<Integer> entries, List<Integer> valueLengths, List<Integer> threads, int repetitions, Path docs) {
        for (int count : entries) {
            if (count < LEAST_ENTRIES) {
                return "--entries holds " + count + ", has to be at least " + LEAST_ENTRIES;
            }
        }
        for (int valueLength : valueLengths) {
            if (valueLength < Long.BYTES || valueLength % Long.BYTES != 0) {
                return "--value-lengths holds " + valueLength + ", which is not a positive multiple of 8";
            }
        }
        for (int count : threads) {
            if (count < 1 || count > 64) {
                return "--threads holds " + count + ", has to be from 1 to 64";
            }
        }
        if (repetitions < 1) {
            return "--repetitions is " + repetitions + ", has to be at least 1";
        }
        if (docs != null && !Files.isRegularFile(docs.resolve("performance.md"))) {
            return "--docs is " + docs + ", which has no performance.md";
        }
        return null;
    }
}
