package com.velt.rz.corvane.nimbra;

import jdk.jfr.Category;
import jdk.jfr.DataAmount;
import jdk.jfr.Description;
import jdk.jfr.Enabled;
import jdk.jfr.Event;
import jdk.jfr.Label;
import jdk.jfr.Name;

/** A map gave up entries, as many as one step took. Its duration is that of the removal, without the listener. */
@Name("com.velt.rz.corvane.nimbra.Eviction")
@Label("Eviction")
@Category("Nimbra")
@Description("A map evicted entries to make room, or collected expired ones")
@Enabled(false)
final class EvictionEvent extends Event {
    @Label("Map")
    String map;

    @Label("Cause")
    @Description("SIZE or EXPIRED")
    String cause;

    @Label("Entries")
    int entries;

    @Label("Bytes")
    @Description("Lengths of the keys and values")
    @DataAmount
    long bytes;
}
