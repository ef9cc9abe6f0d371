package com.velt.rz.corvane.nimbra;

import jdk.jfr.Category;
import jdk.jfr.DataAmount;
import jdk.jfr.Description;
import jdk.jfr.Enabled;
import jdk.jfr.Event;
import jdk.jfr.Label;
import jdk.jfr.Name;

/** An operation ended in an {@link OffHeapMemoryException}. Recorded on the thread that is about to throw it. */
@Name("com.velt.rz.corvane.nimbra.RefusedAllocation")
@Label("Refused Allocation")
@Category("Nimbra")
@Description("An operation failed because memory outside the heap was refused")
@Enabled(false)
final class RefusedAllocationEvent extends Event {
    @Label("Operation")
    String operation;

    @Label("Map")
    String map;

    @Label("Requested Bytes")
    @Description("Lengths of key and value, or the needs of a new map; -1 where it is not known")
    @DataAmount
    long requestedBytes;

    @Label("Bytes in Use")
    @DataAmount
    long bytesInUse;

    @Label("Maximum Bytes")
    @DataAmount
    long maximumBytes;
}
