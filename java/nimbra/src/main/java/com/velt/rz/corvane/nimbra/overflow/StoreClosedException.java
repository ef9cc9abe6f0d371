package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;
import java.nio.file.Path;

/** The store was closed before or during the call. */
public final class StoreClosedException extends IOException {
    private static final long serialVersionUID = 1L;

    StoreClosedException(Path directory) {
        super("the value store in " + directory + " is closed");
    }
}
