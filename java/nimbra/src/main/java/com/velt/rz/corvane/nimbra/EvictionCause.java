package com.velt.rz.corvane.nimbra;

/** Why a map gave up an entry by itself. */
public enum EvictionCause {
    /** It made room for others. */
    SIZE,

    /** Its time was over. */
    EXPIRED
}
