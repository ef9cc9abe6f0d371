package com.velt.rz.corvane.io.offheap.util;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.code_intelligence.jazzer.api.FuzzedDataProvider;
import com.code_intelligence.jazzer.junit.FuzzTest;
import java.math.BigInteger;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.OptionalInt;

/** Any text is a level word as another reading of the same rules has it, or refused. */
class LevelFuzzTest {
    private static final Map<String, Integer> NAMES = Map.ofEntries(
            Map.entry("debug", OffHeapLogger.DEBUG),
            Map.entry("event", OffHeapLogger.EVENT),
            Map.entry("entry", OffHeapLogger.ENTRY),
            Map.entry("detail", OffHeapLogger.DETAIL),
            Map.entry("info", OffHeapLogger.INFO),
            Map.entry("warning", OffHeapLogger.WARNING),
            Map.entry("error", OffHeapLogger.ERROR),
            Map.entry("fatal", OffHeapLogger.FATAL),
            Map.entry("profiling", OffHeapLogger.PROFILING),
            Map.entry("pintrack", OffHeapLogger.PINTRACK),
            Map.entry("pintrack_all", OffHeapLogger.PINTRACK_ALL));
    private static final List<String> PARTS = List.of(
            "debug",
            "Event",
            "ENTRY",
            "detail",
            "info",
            "warning",
            "error",
            "fatal",
            "profiling",
            "pintrack",
            "pintrack_all",
            "0",
            "0x",
            "0X1f",
            "2147483647",
            "2147483648",
            "0x80000000",
            "-1",
            "+1",
            " ",
            ",",
            "_");

    @FuzzTest
    void readsWhatTheRulesSay(FuzzedDataProvider data) {
        StringBuilder text = new StringBuilder();
        while (data.remainingBytes() > 0) {
            if (data.consumeBoolean()) {
                text.append(data.pickValue(PARTS));
            } else {
                text.append(data.consumeChar());
            }
        }
        check(text.toString());
    }

    private static void check(String text) {
        OptionalInt expected = wordOf(text);
        if (expected.isPresent()) {
            assertEquals(expected.getAsInt(), OffHeapLogger.parseLevel(text), text);
            return;
        }
        IllegalArgumentException refused =
                assertThrows(IllegalArgumentException.class, () -> OffHeapLogger.parseLevel(text), text);
        assertTrue(refused.getMessage().contains(text), refused::getMessage);
    }

    /** Empty for a text that is to be refused. */
    private static OptionalInt wordOf(String text) {
        int word = 0;
        int from = 0;
        while (from <= text.length()) {
            int comma = text.indexOf(',', from);
            int to = comma < 0 ? text.length() : comma;
            String part = text.substring(from, to).trim();
            Integer named = NAMES.get(part.toLowerCase(Locale.ROOT));
            if (named == null) {
                named = number(part);
            }
            if (named == null) {
                return OptionalInt.empty();
            }
            word |= named;
            from = to + 1;
        }
        return OptionalInt.of(word);
    }

    private static Integer number(String part) {
        boolean hex = part.toLowerCase(Locale.ROOT).startsWith("0x");
        int radix = hex ? 16 : 10;
        String digits = hex ? part.substring(2) : part;
        if (digits.isEmpty() || !digits.chars().allMatch(c -> c < 0x10000 && Character.digit((char) c, radix) >= 0)) {
            return null;
        }
        BigInteger number = BigInteger.ZERO;
        for (char c : digits.toCharArray()) {
            number = number.multiply(BigInteger.valueOf(radix)).add(BigInteger.valueOf(Character.digit(c, radix)));
        }
        return number.bitLength() <= 31 ? Integer.valueOf(number.intValue()) : null;
    }
}
