package com.velt.rz.corvane.io.offheap.impl;

import java.nio.ByteBuffer;

/**
 * The seven types of keys that have natives of their own, with the four natives of each: a key is given as a double and
 * narrowed to the type. Values are stored whole, under one type tag.
 */
enum NumberKey {
    BYTE(12, 1) {
        @Override
        long bits(double key) {
            return (byte) key;
        }

        @Override
        long insert(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithByte(
                    map, (byte) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithByteBB(map, (byte) key, hash, value, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithByte(
                    map, (byte) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithByteBB(map, (byte) key, hash, value, (short) owner, revision);
        }
    },
    SHORT(15, 2) {
        @Override
        long bits(double key) {
            return (short) key;
        }

        @Override
        long insert(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithShort(
                    map, (short) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithShortBB(map, (short) key, hash, value, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithShort(
                    map, (short) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithShortBB(map, (short) key, hash, value, (short) owner, revision);
        }
    },
    INT(16, 4) {
        @Override
        long bits(double key) {
            return (int) key;
        }

        @Override
        long insert(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithInt(
                    map, (int) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithIntBB(map, (int) key, hash, value, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithInt(
                    map, (int) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithIntBB(map, (int) key, hash, value, (short) owner, revision);
        }
    },
    LONG(17, 8) {
        @Override
        long bits(double key) {
            return (long) key;
        }

        @Override
        long insert(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithLong(
                    map, (long) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithLongBB(map, (long) key, hash, value, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithLong(
                    map, (long) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithLongBB(map, (long) key, hash, value, (short) owner, revision);
        }
    },
    FLOAT(18, 4) {
        @Override
        long bits(double key) {
            return Float.floatToRawIntBits((float) key);
        }

        @Override
        long insert(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithFloat(
                    map, (float) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithFloatBB(map, (float) key, hash, value, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithFloat(
                    map, (float) key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithFloatBB(map, (float) key, hash, value, (short) owner, revision);
        }
    },
    DOUBLE(19, 8) {
        @Override
        long bits(double key) {
            return Double.doubleToRawLongBits(key);
        }

        @Override
        long insert(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithDouble(
                    map, key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithDoubleBB(map, key, hash, value, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithDouble(
                    map, key, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithDoubleBB(map, key, hash, value, (short) owner, revision);
        }
    },
    BOOLEAN(13, 1) {
        @Override
        long bits(double key) {
            return key != 0 ? 1 : 0;
        }

        @Override
        long insert(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithBoolean(
                    map, key != 0, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.insertAndGetNewAndPinWithBooleanBB(map, key != 0, hash, value, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, byte[] value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithBoolean(
                    map, key != 0, hash, value, value.length, VALUE_TAG, (short) owner, revision);
        }

        @Override
        long update(long map, double key, int hash, ByteBuffer value, int owner, long revision) {
            return MAPS.updateAndGetNewAndPinWithBooleanBB(map, key != 0, hash, value, (short) owner, revision);
        }
    };

    private static final LuOffHeapMapImpl MAPS = new LuOffHeapMapImpl();

    /** The type tag under which values that come as arrays are stored. */
    static final byte VALUE_TAG = 44;

    final int tag;
    final int size;

    NumberKey(int tag, int size) {
        this.tag = tag;
        this.size = size;
    }

    /** The bit pattern that is stored, in the low {@link #size} bytes. */
    abstract long bits(double key);

    abstract long insert(long map, double key, int hash, byte[] value, int owner, long revision);

    abstract long insert(long map, double key, int hash, ByteBuffer value, int owner, long revision);

    abstract long update(long map, double key, int hash, byte[] value, int owner, long revision);

    abstract long update(long map, double key, int hash, ByteBuffer value, int owner, long revision);

    byte[] stored(double key) {
        return MapTestBase.nativeOrder(size, bits(key));
    }
}
