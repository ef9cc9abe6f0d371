package com.velt.rz.corvane.nimbra.peers;

import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * A store that could not be measured.
 *
 * @param impl name of the store
 * @param entries entries that it should have held
 * @param valueBytes length of every value
 * @param reason why it was not measured
 */
record LeftOut(String impl, int entries, int valueBytes, String reason) {
    /** Returns Markdown lines that name all of them, or none when nothing was left out. */
    static List<String> lines(List<LeftOut> leftOut) {
        List<String> lines = new ArrayList<>();
        if (!leftOut.isEmpty()) {
            lines.add("Not measured:");
            lines.add("");
            for (LeftOut store : leftOut) {
                lines.add(String.format(
                        Locale.ROOT,
                        "- %s, %,d entries of %,d bytes: %s",
                        Peer.labelOf(store.impl),
                        store.entries,
                        store.valueBytes,
                        store.reason));
            }
            lines.add("");
        }
        return lines;
    }
}
