package com.velt.rz.corvane.nimbra;

/**
 * Memory outside the heap was refused, usually because the maximum of {@link Nimbra} is reached. The operation that
 * throws it has changed nothing. The message names the operation, the lengths, the bytes in use and the maximum; the
 * cause, where there is one, is what the native library raised.
 */
public class OffHeapMemoryException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    OffHeapMemoryException(String message, Throwable cause) {
        super(message, cause);
    }

    /**
     * Makes the exception of a refused operation, with the figures of this moment.
     *
     * @param what the operation and the lengths it asked memory for
     */
    static OffHeapMemoryException refused(String what, Throwable cause) {
        NimbraStats stats = Nimbra.get().stats();
        return new OffHeapMemoryException(
                what + ": memory refused with " + stats.bytesInUse() + " of at most " + stats.maximumBytes()
                        + " bytes in use",
                cause);
    }
}
