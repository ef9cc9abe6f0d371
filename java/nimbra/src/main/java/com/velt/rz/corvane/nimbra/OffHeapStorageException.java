package com.velt.rz.corvane.nimbra;

/**
 * A value that had been moved to disk could not be read back. The message names the operation, the map and the position
 * on disk; the cause is what the store reported. The entry stays as it is, so the operation may be tried again, and no
 * other entry is harmed.
 */
public class OffHeapStorageException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    OffHeapStorageException(String message, Throwable cause) {
        super(message, cause);
    }
}
