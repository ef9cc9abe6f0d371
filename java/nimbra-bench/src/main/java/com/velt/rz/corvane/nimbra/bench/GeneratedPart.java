package com.velt.rz.corvane.nimbra.bench;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/** The lines of a document between two marks, which a command writes. The marks stand alone on their lines. */
final class GeneratedPart {
    private GeneratedPart() {}

    /** Whether the document has both marks, in this order. */
    static boolean isIn(Path document, String begin, String end) throws IOException {
        List<String> lines = Files.readAllLines(document);
        int first = lines.indexOf(begin);
        return first >= 0 && lines.lastIndexOf(end) > first;
    }

    /** Puts the lines between the marks, with an empty line before and after. REQUIRES: {@link #isIn}. */
    static void replace(Path document, String begin, String end, List<String> lines) throws IOException {
        List<String> old = Files.readAllLines(document);
        List<String> all = new ArrayList<>(old.subList(0, old.indexOf(begin) + 1));
        all.add("");
        all.addAll(lines);
        all.add("");
        all.addAll(old.subList(old.lastIndexOf(end), old.size()));
        Files.write(document, all);
    }
}
