package com.velt.rz.corvane.io.offheap.util;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.List;
import java.util.logging.Handler;
import java.util.logging.Level;
import java.util.logging.LogRecord;
import java.util.logging.Logger;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** The level word's notation, and where records go. No native code is involved. */
class OffHeapLoggerTest {
    @ParameterizedTest
    @CsvSource(
            delimiter = ';',
            value = {
                "0; 0",
                "7; 7",
                "0x0; 0",
                "0x1a0; 416",
                "0X7FFFFFFF; 2147483647",
                "debug; 1",
                "event; 2",
                "entry; 4",
                "detail; 8",
                "info; 32",
                "warning; 128",
                "error; 256",
                "fatal; 512",
                "profiling; 1024",
                "pintrack; 2048",
                "pintrack_all; 4096",
                "PinTrack_All,info; 4128",
                "debug,event; 3",
                "'  Debug , FATAL '; 513",
                "0x10,error,3; 275",
                "010; 10",
            })
    void levelWordsAreReadAsNumbersOrNames(String text, int word) {
        assertEquals(word, OffHeapLogger.parseLevel(text));
    }

    @ParameterizedTest
    @ValueSource(
            strings = {
                "",
                " ",
                "debug,",
                ",debug",
                "bogus",
                "-1",
                "+1",
                "0x",
                "0x-1",
                "0x100000000",
                "2147483648",
                "1.5",
                "debug event",
                "trace"
            })
    void anythingElseIsNamedAndRefused(String text) {
        IllegalArgumentException refused =
                assertThrows(IllegalArgumentException.class, () -> OffHeapLogger.parseLevel(text));
        assertTrue(refused.getMessage().contains("'" + text + "'"), refused::getMessage);
    }

    @Test
    void withoutConfigurationWarningsAndErrorsArrive() {
        assertEquals(0x380, OffHeapLogger.DEFAULT_LEVEL);
    }

    @Test
    void theLevelCanBeSet() {
        int before = OffHeapLogger.getLogLevel();
        try {
            OffHeapLogger.setLogLevel(0x1ff);
            assertEquals(0x1ff, OffHeapLogger.getLogLevel());
        } finally {
            OffHeapLogger.setLogLevel(before);
        }
    }

    @Test
    void infoRecordsOfThisThreadAreCollected() throws InterruptedException {
        List<String> seen = new ArrayList<>();
        List<String> inner = new ArrayList<>();
        OffHeapLogger.Sink before = OffHeapLogger.setSink((method, key, text) -> {
            seen.add(text);
            if (text.equals("first")) {
                // A record that the sink causes is its own affair.
                OffHeapLogger.info("caused by the sink".toCharArray());
            }
        });
        try {
            List<String> outer = OffHeapLogger.collectInfo(() -> {
                OffHeapLogger.info("first".toCharArray());
                OffHeapLogger.audit("not info".toCharArray());
                inner.addAll(OffHeapLogger.collectInfo(() -> OffHeapLogger.info("inner".toCharArray())));
                Thread other = new Thread(() -> OffHeapLogger.info("other thread".toCharArray()));
                other.start();
                try {
                    other.join();
                } catch (InterruptedException e) {
                    throw new IllegalStateException(e);
                }
                OffHeapLogger.info("last".toCharArray());
            });
            OffHeapLogger.info("after".toCharArray());
            assertEquals(List.of("first", "last"), outer);
            assertEquals(List.of("inner"), inner);
            assertEquals(
                    List.of("first", "caused by the sink", "not info", "inner", "other thread", "last", "after"), seen);
            assertThrows(
                    ArithmeticException.class,
                    () -> OffHeapLogger.collectInfo(() -> {
                        throw new ArithmeticException();
                    }));
            assertEquals(List.of(), OffHeapLogger.collectInfo(() -> {}));
        } finally {
            OffHeapLogger.setSink(before);
        }
    }

    @Test
    void nativeCodeFindsItsMethods() throws NoSuchMethodException {
        assertSignature(int.class, "getLogLevel");
        for (String name :
                List.of("audit", "debug", "dump", "error", "warning", "event", "entry", "exit", "fatal", "info")) {
            assertSignature(void.class, name, char[].class);
        }
        assertSignature(void.class, "errorGeneric", char[].class, char[].class);
    }

    private static void assertSignature(Class<?> result, String name, Class<?>... parameters)
            throws NoSuchMethodException {
        Method method = OffHeapLogger.class.getMethod(name, parameters);
        assertTrue(Modifier.isStatic(method.getModifiers()), name);
        assertEquals(result, method.getReturnType(), name);
    }

    @Test
    void recordsReachTheSinkAndTheLogger() {
        List<String> seen = new ArrayList<>();
        List<LogRecord> logged = new ArrayList<>();
        Logger logger = Logger.getLogger(OffHeapLogger.LOGGER_NAME);
        Handler handler = new Handler() {
            @Override
            public void publish(LogRecord record) {
                logged.add(record);
            }

            @Override
            public void flush() {}

            @Override
            public void close() {}
        };
        Level level = logger.getLevel();
        boolean useParents = logger.getUseParentHandlers();
        OffHeapLogger.Sink before =
                OffHeapLogger.setSink((method, key, text) -> seen.add(method + "|" + key + "|" + text));
        logger.setLevel(Level.ALL);
        logger.setUseParentHandlers(false);
        logger.addHandler(handler);
        try {
            char[] text = "text {0} %s".toCharArray();
            OffHeapLogger.audit(text);
            OffHeapLogger.debug(text);
            OffHeapLogger.dump(text);
            OffHeapLogger.error(text);
            OffHeapLogger.warning(text);
            OffHeapLogger.event(text);
            OffHeapLogger.entry(text);
            OffHeapLogger.exit(text);
            OffHeapLogger.fatal(text);
            OffHeapLogger.info(text);
            OffHeapLogger.errorGeneric("KEY".toCharArray(), text);
        } finally {
            logger.removeHandler(handler);
            logger.setUseParentHandlers(useParents);
            logger.setLevel(level);
            assertNotNull(OffHeapLogger.setSink(before));
        }
        assertEquals(
                List.of(
                        "audit|null|text {0} %s",
                        "debug|null|text {0} %s",
                        "dump|null|text {0} %s",
                        "error|null|text {0} %s",
                        "warning|null|text {0} %s",
                        "event|null|text {0} %s",
                        "entry|null|text {0} %s",
                        "exit|null|text {0} %s",
                        "fatal|null|text {0} %s",
                        "info|null|text {0} %s",
                        "errorGeneric|KEY|text {0} %s"),
                seen);
        Level[] levels = {
            Level.INFO,
            Level.FINE,
            Level.FINER,
            Level.SEVERE,
            Level.WARNING,
            Level.FINE,
            Level.FINER,
            Level.FINER,
            Level.SEVERE,
            Level.INFO,
            Level.SEVERE
        };
        assertArrayEquals(levels, logged.stream().map(LogRecord::getLevel).toArray());
        assertEquals("text {0} %s", logged.get(0).getMessage());
        assertEquals("KEY: text {0} %s", logged.get(10).getMessage());
    }
}
