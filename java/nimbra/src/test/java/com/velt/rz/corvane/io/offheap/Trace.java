package com.velt.rz.corvane.io.offheap;

import com.velt.rz.corvane.io.offheap.util.OffHeapLogger;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;

/**
 * Sets the trace level for the length of a block and records what this thread's native calls report. Closing restores
 * level and sink.
 */
public final class Trace implements AutoCloseable {
    /** One record: the logger's method, the message key if it has one, and the text. */
    public record Line(String method, String key, String text) {
        /** The record with every address as P, so that it can be compared. */
        public String normal() {
            return method + " " + (key == null ? "" : key + " ") + text.replaceAll("0x[0-9a-f]+|\\(nil\\)", "P");
        }
    }

    private final OffHeapManager manager = new OffHeapManager();
    private final int previousLevel = OffHeapLogger.getLogLevel();
    private final OffHeapLogger.Sink previousSink;
    private final List<Line> lines = new ArrayList<>();

    private Trace(int level) {
        Thread owner = Thread.currentThread();
        previousSink = OffHeapLogger.setSink((method, key, text) -> {
            if (Thread.currentThread() == owner) {
                lines.add(new Line(method, key, text));
            }
        });
        setLevel(level);
    }

    public static Trace at(int level) {
        return new Trace(level);
    }

    public void setLevel(int level) {
        OffHeapLogger.setLogLevel(level);
        manager.setLogLevel();
    }

    public List<Line> lines() {
        return lines;
    }

    /** Every record with addresses replaced, without the lines of native backtraces. */
    public List<String> normal() {
        return lines.stream()
                .filter(line ->
                        !line.text.startsWith("JNI:pin backtrace:") && !line.text.startsWith("JNI:unpin backtrace:"))
                .map(Line::normal)
                .collect(Collectors.toList());
    }

    public List<String> texts(String method) {
        return lines.stream()
                .filter(line -> line.method.equals(method))
                .map(Line::text)
                .collect(Collectors.toList());
    }

    /** The reasons with which a record was pinned; the level must report events. */
    public List<String> pinsOf(long address) {
        String start = "enter pin: header=0x" + Long.toHexString(address) + ", reason=";
        return lines.stream()
                .map(Line::text)
                .filter(text -> text.contains(start))
                .map(text -> text.substring(text.indexOf(start) + start.length()))
                .collect(Collectors.toList());
    }

    @Override
    public void close() {
        setLevel(previousLevel);
        OffHeapLogger.setSink(previousSink);
    }
}
