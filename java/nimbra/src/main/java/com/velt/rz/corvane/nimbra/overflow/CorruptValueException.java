package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;

/** What stands on disk at a position is not the value that was written there. No other value is affected. */
public final class CorruptValueException extends IOException {
    private static final long serialVersionUID = 1L;

    private final long position;
    private final String expected;
    private final String found;

    CorruptValueException(long position, String expected, String found) {
        super("value at position " + position + ": expected " + expected + ", found " + found);
        this.position = position;
        this.expected = expected;
        this.found = found;
    }

    /** The value's position. */
    public long position() {
        return position;
    }

    /** What should have been there: a length or a checksum. */
    public String expected() {
        return expected;
    }

    /** What was there instead. */
    public String found() {
        return found;
    }
}
