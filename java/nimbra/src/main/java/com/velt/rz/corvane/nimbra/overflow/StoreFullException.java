package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;

/**
 * There is no room on disk for a value: the store's limit is reached, or the file system is full, in which case its
 * error is the cause. Nothing was stored; space that other values leave can be used at once.
 */
public final class StoreFullException extends IOException {
    private static final long serialVersionUID = 1L;

    StoreFullException(String message, IOException cause) {
        super(message, cause);
    }
}
