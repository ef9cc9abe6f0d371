package com.velt.rz.corvane.nimbra.demo;

import java.util.ArrayList;
import java.util.List;

/** What was found wrong: the first ten in words, the rest as a count. Thread safe. */
final class Findings {
    private static final int SHOWN = 10;

    private final List<String> shown = new ArrayList<>();
    private long count;

    synchronized void add(String what) {
        count++;
        if (shown.size() < SHOWN) {
            shown.add(what);
        }
    }

    synchronized long count() {
        return count;
    }

    /** One line each, and one for the rest; empty when nothing was wrong. */
    synchronized List<String> lines() {
        List<String> lines = new ArrayList<>(shown);
        if (count > SHOWN) {
            lines.add("and " + (count - SHOWN) + " more");
        }
        return lines;
    }
}
