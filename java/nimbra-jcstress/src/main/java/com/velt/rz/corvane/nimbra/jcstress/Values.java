package com.velt.rz.corvane.nimbra.jcstress;

import com.velt.rz.corvane.nimbra.Nimbra;
import com.velt.rz.corvane.nimbra.OffHeapMap;
import com.velt.rz.corvane.nimbra.PinnedValue;
import java.nio.ByteBuffer;
import java.util.Arrays;

/** Small maps, values that show when they are torn, and the names of the answers. */
final class Values {
    static final String ABSENT = "absent";
    static final String CLOSED = "closed";
    static final String DONE = "done";
    static final String OLD = "old";
    static final String NEW = "new";

    static final byte[] KEY = {1, 2, 3};

    private static final byte[] OLD_VALUE = filled(1);
    private static final byte[] NEW_VALUE = filled(2);

    private Values() {}

    private static byte[] filled(int number) {
        byte[] bytes = new byte[300 * number];
        Arrays.fill(bytes, (byte) number);
        return bytes;
    }

    /** A map with the old value in it. */
    static OffHeapMap map() {
        Nimbra.builder().maximumBytes(1L << 30).start();
        OffHeapMap map =
                OffHeapMap.builder().name("raced").partitions(1).bucketSets(1).build();
        map.put(KEY, OLD_VALUE);
        return map;
    }

    static byte[] newValue() {
        return NEW_VALUE;
    }

    /** Which of the values this is; anything else is an outcome that no test accepts. */
    static String name(byte[] value) {
        if (value == null) {
            return ABSENT;
        }
        return Arrays.equals(value, OLD_VALUE) ? OLD : Arrays.equals(value, NEW_VALUE) ? NEW : "torn";
    }

    static String name(ByteBuffer view) {
        byte[] bytes = new byte[view.remaining()];
        view.get(bytes);
        return name(bytes);
    }

    /** Reads a pinned value twice: it must not change while it is pinned. */
    static String name(PinnedValue pinned) {
        if (pinned == null) {
            return ABSENT;
        }
        String first = name(pinned.buffer());
        return first.equals(name(pinned.buffer())) ? first : "changed";
    }
}
