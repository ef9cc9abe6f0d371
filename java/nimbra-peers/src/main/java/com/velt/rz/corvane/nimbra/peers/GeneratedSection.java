package com.velt.rz.corvane.nimbra.peers;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/** The part of a Markdown file between two comments, {@code <!-- NAME:begin -->} and {@code <!-- NAME:end -->}. */
final class GeneratedSection {
    private GeneratedSection() {}

    /**
     * Replaces what stands between the comments.
     *
     * @throws IOException also when the file lacks the comments; it stays as it is then
     */
    static void replace(Path file, String name, List<String> lines) throws IOException {
        List<String> old = Files.readAllLines(file);
        int begin = old.indexOf("<!-- " + name + ":begin -->");
        int end = old.indexOf("<!-- " + name + ":end -->");
        if (begin < 0 || end < begin) {
            throw new IOException(
                    file + " has no lines \"<!-- " + name + ":begin -->\" and \"<!-- " + name + ":end -->\"");
        }
        List<String> replaced = new ArrayList<>(old.subList(0, begin + 1));
        replaced.add("");
        replaced.addAll(lines);
        while (replaced.get(replaced.size() - 1).isEmpty()) {
            replaced.remove(replaced.size() - 1);
        }
        replaced.add("");
        replaced.addAll(old.subList(end, old.size()));
        Files.write(file, replaced);
    }
}
