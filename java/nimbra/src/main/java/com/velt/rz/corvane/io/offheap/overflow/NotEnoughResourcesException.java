package com.velt.rz.corvane.io.offheap.overflow;

/** Thrown by natives when, with disk overflow on, an allocation exceeded the maximum although memory was asked for. */
public class NotEnoughResourcesException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /** Names the native function and what it was refused. */
    public NotEnoughResourcesException(String message) {
        super(message);
    }
}
