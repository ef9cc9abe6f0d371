package com.velt.rz.corvane.nimbra.bench;

import java.nio.ByteBuffer;
import java.util.Base64;
import java.util.List;
import java.util.Properties;
import java.util.zip.DataFormatException;
import org.HdrHistogram.Histogram;

/**
 * What one process showed. Either an error, or everything else.
 *
 * @param error why there are no figures; null when there are
 * @param response nanoseconds from when each operation ought to have begun
 * @param service nanoseconds from when it did begin
 */
record PauseResult(
        PauseCell cell,
        String error,
        Histogram response,
        Histogram service,
        List<PauseLog.Event> events,
        long residentBytes) {
    static PauseResult failed(PauseCell cell, String error) {
        return new PauseResult(cell, error, null, null, List.of(), 0);
    }

    static PauseResult of(PauseCell cell, Properties properties, List<PauseLog.Event> events) {
        return new PauseResult(
                cell,
                null,
                decoded(properties.getProperty("response")),
                decoded(properties.getProperty("service")),
                events,
                Long.parseLong(properties.getProperty("residentBytes")));
    }

    private static Histogram decoded(String text) {
        try {
            return Histogram.decodeFromCompressedByteBuffer(
                    ByteBuffer.wrap(Base64.getDecoder().decode(text)), 0);
        } catch (DataFormatException e) {
            throw new IllegalArgumentException("a histogram cannot be read", e);
        }
    }

    long count(PauseLog.Kind kind) {
        return events.stream().filter(event -> event.kind() == kind).count();
    }

    /** Milliseconds; 0 when there was none. */
    double longest(PauseLog.Kind kind) {
        return events.stream()
                .filter(event -> event.kind() == kind)
                .mapToDouble(PauseLog.Event::milliseconds)
                .max()
                .orElse(0);
    }

    /** Milliseconds. */
    double total(PauseLog.Kind kind) {
        return events.stream()
                .filter(event -> event.kind() == kind)
                .mapToDouble(PauseLog.Event::milliseconds)
                .sum();
    }
}
