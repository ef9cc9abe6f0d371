package com.velt.rz.corvane.nimbra.demo;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicLongArray;

/**
 * What a map of files has to hold. The names stand in it several times, each time behind another prefix. A value is the
 * number of its key, the number of the file and a generation, then the file's bytes; every change of a key has a
 * generation of its own, so that an old value is told from the new one even where their files are the same.
 *
 * <p>The state of a key may be read by any thread; it is set by one, the key's owner, after the map has changed.
 */
final class Contents {
    /** Bytes of a value in front of the file's. */
    static final int HEADER = 3 * Integer.BYTES;

    private final List<String> names;
    private final List<byte[]> files;

    /** For each key the generation, and below it the number of the file plus one, or 0 where there is no entry. */
    private final AtomicLongArray states;

    Contents(List<String> names, List<byte[]> files, int copies) {
        this.names = names;
        this.files = files;
        this.states = new AtomicLongArray(Math.multiplyExact(names.size(), copies));
    }

    int keys() {
        return states.length();
    }

    int files() {
        return files.size();
    }

    String name(int key) {
        return "copy-" + key / names.size() + "/" + names.get(key % names.size());
    }

    byte[] key(int key) {
        return name(key).getBytes(StandardCharsets.UTF_8);
    }

    /** The file that a key has at first. */
    int originalFile(int key) {
        return key % names.size();
    }

    boolean present(int key) {
        return (int) states.get(key) != 0;
    }

    int generation(int key) {
        return generation(states.get(key));
    }

    private static int generation(long state) {
        return (int) (state >>> Integer.SIZE);
    }

    byte[] value(int key, int file, int generation) {
        byte[] bytes = files.get(file);
        return ByteBuffer.allocate(HEADER + bytes.length)
                .putInt(key)
                .putInt(file)
                .putInt(generation)
                .put(bytes)
                .array();
    }

    void stored(int key, int file, int generation) {
        states.set(key, (long) generation << Integer.SIZE | file + 1);
    }

    void removed(int key, int generation) {
        states.set(key, (long) generation << Integer.SIZE);
    }

    /** For the key's owner: returns what is wrong with a value, or with there being none, otherwise null. */
    String check(int key, byte[] value) {
        long state = states.get(key);
        if (value == null) {
            return present(key) ? "is missing" : null;
        }
        if (!present(key)) {
            return "was removed and is found";
        }
        String wrong = checkBytes(key, value);
        if (wrong != null) {
            return wrong;
        }
        ByteBuffer header = ByteBuffer.wrap(value);
        int file = header.getInt(Integer.BYTES);
        int generation = header.getInt(2 * Integer.BYTES);
        if (generation != generation(state) || file != (int) state - 1) {
            return "has generation " + generation + " with file " + file + " instead of " + generation(state)
                    + " with file " + ((int) state - 1);
        }
        return null;
    }

    /**
     * For all others, while the owner may be at work: at most one change can have reached the map and not yet this
     * object.
     *
     * @param before the generation before the value was looked up
     */
    String checkBetween(int key, byte[] value, int before) {
        if (value == null) {
            return null;
        }
        String wrong = checkBytes(key, value);
        if (wrong != null) {
            return wrong;
        }
        int generation = ByteBuffer.wrap(value).getInt(2 * Integer.BYTES);
        int latest = generation(key) + 1;
        return generation >= before && generation <= latest
                ? null
                : "has generation " + generation + ", not from " + before + " to " + latest;
    }

    private String checkBytes(int key, byte[] value) {
        if (value.length < HEADER) {
            return "has " + value.length + " bytes";
        }
        ByteBuffer header = ByteBuffer.wrap(value);
        int whose = header.getInt();
        if (whose != key) {
            return "has the value of key " + whose;
        }
        int file = header.getInt();
        if (file < 0 || file >= files.size()) {
            return "has file " + file + " of " + files.size();
        }
        byte[] bytes = files.get(file);
        int at = Arrays.mismatch(value, HEADER, value.length, bytes, 0, bytes.length);
        return at < 0
                ? null
                : "differs from the source at byte " + at + "; it has " + (value.length - HEADER) + " bytes of "
                        + bytes.length;
    }
}
