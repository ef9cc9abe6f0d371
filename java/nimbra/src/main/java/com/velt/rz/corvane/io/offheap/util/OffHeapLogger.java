package com.velt.rz.corvane.io.offheap.util;

import java.lang.System.Logger;
import java.lang.System.Logger.Level;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * Receives the trace records of native code and owns the level word that decides which are made.
 *
 * <p>Records go to the {@link System.Logger} named {@value #LOGGER_NAME}: {@code error}, {@code errorGeneric} and
 * {@code fatal} as ERROR, {@code warning} as WARNING, {@code audit} and {@code info} as INFO, {@code event} and {@code
 * debug} as DEBUG, {@code dump}, {@code entry} and {@code exit} as TRACE. That logger filters by its own configuration
 * as well.
 *
 * <p>The level word is read from the system property {@value #LEVEL_PROPERTY} when this class is initialised, and can
 * be set later. Native code keeps a copy that it refreshes only when the library is initialised and in {@link
 * com.velt.rz.corvane.io.offheap.OffHeapManager#setLogLevel()}.
 *
 * <p>Thread safe.
 */
public final class OffHeapLogger {
    /** Name of the logger that receives every record. */
    public static final String LOGGER_NAME = "com.velt.rz.corvane.nimbra";

    /**
     * System property: the level word as decimal, as hexadecimal behind 0x, or as names separated by commas. A value
     * that cannot be read is reported as a warning and replaced by {@link #DEFAULT_LEVEL}.
     */
    public static final String LEVEL_PROPERTY = "nimbra.log.level";

    /** Size dumps and detailed steps. */
    public static final int DEBUG = 0x1;

    /** Single events such as allocations and pins. */
    public static final int EVENT = 0x2;

    /** Entry into and exit from operations. */
    public static final int ENTRY = 0x4;

    /** Extra records of long operations, each under its own level as well. */
    public static final int DETAIL = 0x8;

    /** Information. */
    public static final int INFO = 0x20;

    /** Warnings. */
    public static final int WARNING = 0x80;

    /** Errors. */
    public static final int ERROR = 0x100;

    /** Fatal errors. */
    public static final int FATAL = 0x200;

    /** Timing of the phases of write operations. */
    public static final int PROFILING = 0x400;

    /** Recording of every pin and unpin; the report shows objects with outstanding pins. */
    public static final int PINTRACK = 0x800;

    /** Recording of every pin and unpin; the report shows balanced objects as well. */
    public static final int PINTRACK_ALL = 0x1000;

    /** The level word without configuration: warnings, errors and fatal errors. */
    public static final int DEFAULT_LEVEL = WARNING | ERROR | FATAL;

    /** Sees every record before the logger does, on the thread that made it. */
    @FunctionalInterface
    public interface Sink {
        /**
         * Takes one record. An exception is cleared by native code.
         *
         * @param method name of the method of {@link OffHeapLogger} that native code called
         * @param key message key of {@code errorGeneric}, otherwise null
         * @param text the record; each unit holds one byte of the native text, sign-extended
         */
        void record(String method, String key, String text);
    }

    private static final Logger LOGGER = System.getLogger(LOGGER_NAME);

    /** Where {@link #collectInfo} on this thread puts info records; unset otherwise. */
    private static final ThreadLocal<List<String>> COLLECTED = new ThreadLocal<>();

    private static volatile Sink sink;
    private static volatile int logLevel = configuredLevel(System.getProperty(LEVEL_PROPERTY));

    private OffHeapLogger() {}

    /** Called by native code: returns the level word. */
    public static int getLogLevel() {
        return logLevel;
    }

    /**
     * Sets the level word. Native code follows at the next {@link
     * com.velt.rz.corvane.io.offheap.OffHeapManager#setLogLevel()}.
     *
     * @param word bits as named by the constants of this class
     */
    public static void setLogLevel(int word) {
        logLevel = word;
    }

    /**
     * Replaces the sink.
     *
     * @param newSink receives every record from now on, or null for none
     * @return the previous sink, or null
     */
    public static synchronized Sink setSink(Sink newSink) {
        Sink previous = sink;
        sink = newSink;
        return previous;
    }

    /**
     * Runs an action and returns the info records that native code makes on this thread meanwhile, in order, beside
     * handing them to the sink and the logger as always. Records that those two cause themselves are not among them.
     * The info level has to be on.
     *
     * @param action calls a native; what it throws is passed on
     */
    public static List<String> collectInfo(Runnable action) {
        List<String> outer = COLLECTED.get();
        List<String> lines = new ArrayList<>();
        COLLECTED.set(lines);
        try {
            action.run();
        } finally {
            restore(outer);
        }
        return lines;
    }

    private static void restore(List<String> lines) {
        if (lines == null) {
            COLLECTED.remove();
        } else {
            COLLECTED.set(lines);
        }
    }

    /**
     * Reads a level word: decimal, hexadecimal behind 0x, or names of this class's levels in any case, separated by
     * commas.
     *
     * @throws IllegalArgumentException naming the part that is neither a number nor a level
     */
    public static int parseLevel(String text) {
        int word = 0;
        for (String part : text.split(",", -1)) {
            word |= parsePart(part.trim(), text);
        }
        return word;
    }

    private static int parsePart(String part, String whole) {
        switch (part.toLowerCase(Locale.ROOT)) {
            case "debug":
                return DEBUG;
            case "event":
                return EVENT;
            case "entry":
                return ENTRY;
            case "detail":
                return DETAIL;
            case "info":
                return INFO;
            case "warning":
                return WARNING;
            case "error":
                return ERROR;
            case "fatal":
                return FATAL;
            case "profiling":
                return PROFILING;
            case "pintrack":
                return PINTRACK;
            case "pintrack_all":
                return PINTRACK_ALL;
            default:
                return parseNumber(part, whole);
        }
    }

    private static int parseNumber(String part, String whole) {
        boolean hex = part.startsWith("0x") || part.startsWith("0X");
        String digits = hex ? part.substring(2) : part;
        // Integer.parseInt also takes a sign, which has no meaning in a set of bits.
        if (digits.isEmpty() || Character.digit(digits.charAt(0), 16) < 0) {
            throw badLevel(part, whole, null);
        }
        try {
            return Integer.parseInt(digits, hex ? 16 : 10);
        } catch (NumberFormatException e) {
            throw badLevel(part, whole, e);
        }
    }

    private static IllegalArgumentException badLevel(String part, String whole, Throwable cause) {
        return new IllegalArgumentException(
                "'" + part + "' in log level '" + whole + "' is neither a number nor the name of a level", cause);
    }

    private static int configuredLevel(String text) {
        if (text == null) {
            return DEFAULT_LEVEL;
        }
        try {
            return parseLevel(text);
        } catch (IllegalArgumentException e) {
            // A typing error must not silence warnings and errors.
            LOGGER.log(
                    Level.WARNING,
                    "System property " + LEVEL_PROPERTY + ": " + e.getMessage() + "; using 0x"
                            + Integer.toHexString(DEFAULT_LEVEL));
            return DEFAULT_LEVEL;
        }
    }

    /** Called by native code. */
    public static void audit(char[] text) {
        record("audit", Level.INFO, text);
    }

    /** Called by native code. */
    public static void debug(char[] text) {
        record("debug", Level.DEBUG, text);
    }

    /** Called by native code. */
    public static void dump(char[] text) {
        record("dump", Level.TRACE, text);
    }

    /** Called by native code. */
    public static void error(char[] text) {
        record("error", Level.ERROR, text);
    }

    /** Called by native code. */
    public static void warning(char[] text) {
        record("warning", Level.WARNING, text);
    }

    /** Called by native code. */
    public static void event(char[] text) {
        record("event", Level.DEBUG, text);
    }

    /** Called by native code. */
    public static void entry(char[] text) {
        record("entry", Level.TRACE, text);
    }

    /** Called by native code. */
    public static void exit(char[] text) {
        record("exit", Level.TRACE, text);
    }

    /** Called by native code. */
    public static void fatal(char[] text) {
        record("fatal", Level.ERROR, text);
    }

    /** Called by native code. */
    public static void info(char[] text) {
        List<String> lines = COLLECTED.get();
        if (lines != null) {
            lines.add(new String(text));
            COLLECTED.remove();
        }
        try {
            record("info", Level.INFO, text);
        } finally {
            restore(lines);
        }
    }

    /** Called by native code: an error with a message key in front. */
    public static void errorGeneric(char[] key, char[] text) {
        String keyText = new String(key);
        String message = new String(text);
        toSink("errorGeneric", keyText, message);
        LOGGER.log(Level.ERROR, keyText + ": " + message);
    }

    private static void record(String method, Level level, char[] text) {
        String message = new String(text);
        toSink(method, null, message);
        LOGGER.log(level, message);
    }

    private static void toSink(String method, String key, String text) {
        Sink current = sink;
        if (current != null) {
            current.record(method, key, text);
        }
    }
}
