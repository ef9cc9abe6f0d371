package com.velt.rz.corvane.nimbra;

/**
 * Turns objects of one type into bytes and back, for the keys and values of a {@link TypedMap}. {@link Codecs} has those
 * of the usual types.
 *
 * <p>A codec of keys has to be exact: equal keys become equal bytes, and keys that are not equal become different bytes.
 * Neither method is ever called with null, and neither may return it. A codec is called by many threads at once.
 *
 * @param <T> the type of the objects
 */
public interface Codec<T> {
    /**
     * Returns the bytes of an object. The map copies them before the call with them returns, so the array may be shared
     * with the object, as long as it does not change meanwhile.
     *
     * @throws IllegalArgumentException when the object has no such bytes; the message names it
     */
    byte[] encode(T object);

    /**
     * Returns the object that the bytes stand for. The array belongs to the codec from then on.
     *
     * @throws IllegalArgumentException when they stand for none; the message shows them
     */
    T decode(byte[] bytes);
}
