package com.velt.rz.corvane.nimbra;

import jdk.jfr.Category;
import jdk.jfr.Description;
import jdk.jfr.Enabled;
import jdk.jfr.Event;
import jdk.jfr.Label;
import jdk.jfr.Name;

/** A map was cleared. Its duration includes the wait for calls that were inside the map. */
@Name("com.velt.rz.corvane.nimbra.Clear")
@Label("Clear")
@Category("Nimbra")
@Description("All entries of a map were removed")
@Enabled(false)
final class ClearEvent extends Event {
    @Label("Map")
    String map;

    @Label("Entries")
    long entries;
}
