package com.velt.rz.corvane.nimbra.demo;

import java.util.List;

/** Where entries come from: named byte sequences that can be read again at any time. */
interface Source {
    /** What the names stand for, in the plural. */
    String description();

    /** All names, sorted, so that every run makes the same choices. */
    List<String> names();

    /**
     * Reads the bytes of one name.
     *
     * @throws SourceException when they cannot be read
     */
    byte[] read(String name);

    /** The source cannot be used; the message is for the person who named it. */
    final class SourceException extends RuntimeException {
        private static final long serialVersionUID = 1L;

        SourceException(String message, Throwable cause) {
            super(message, cause);
        }
    }
}
