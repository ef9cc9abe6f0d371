package com.velt.rz.corvane.nimbra;

import java.util.Objects;
import java.util.function.BiConsumer;

/**
 * An {@link OffHeapMap} seen through codecs: the same entries, the same guarantees, objects instead of byte arrays. A
 * view costs nothing to make and has no state; closing the map ends all its views.
 *
 * <p>All methods may be called from any thread, and throw what the map's method of the same name throws, besides {@link
 * IllegalArgumentException} from a codec that refuses an object or finds bytes that another codec has stored.
 *
 * @param <K> the type of the keys
 * @param <V> the type of the values
 */
public final class TypedMap<K, V> {
    private final OffHeapMap map;
    private final Codec<K> keys;
    private final Codec<V> values;

    TypedMap(OffHeapMap map, Codec<K> keys, Codec<V> values) {
        this.map = map;
        this.keys = Objects.requireNonNull(keys, "keyCodec");
        this.values = Objects.requireNonNull(values, "valueCodec");
    }

    /** Returns the map behind this view. */
    public OffHeapMap map() {
        return map;
    }

    /** Stores the value; returns true when the key was new. See {@link OffHeapMap#put}. */
    public boolean put(K key, V value) {
        return map.put(encode(key), encodeValue(value));
    }

    /** Stores the value unless the key is present; returns true when stored. See {@link OffHeapMap#putIfAbsent}. */
    public boolean putIfAbsent(K key, V value) {
        return map.putIfAbsent(encode(key), encodeValue(value));
    }

    /** Replaces the value of a key that is present; returns true when replaced. See {@link OffHeapMap#replace}. */
    public boolean replace(K key, V value) {
        return map.replace(encode(key), encodeValue(value));
    }

    /** Returns the value of a key, or null when the key is absent. See {@link OffHeapMap#get}. */
    public V get(K key) {
        byte[] value = map.get(encode(key));
        return value == null ? null : values.decode(value);
    }

    /** Pins the value of a key, or returns null when the key is absent. See {@link OffHeapMap#pin}. */
    public PinnedValue pin(K key) {
        return map.pin(encode(key));
    }

    /** Removes a key and its value; returns true when the key was present. See {@link OffHeapMap#remove}. */
    public boolean remove(K key) {
        return map.remove(encode(key));
    }

    /** Returns whether a key is present. See {@link OffHeapMap#containsKey}. */
    public boolean containsKey(K key) {
        return map.containsKey(encode(key));
    }

    /** Returns the number of entries. See {@link OffHeapMap#size}. */
    public long size() {
        return map.size();
    }

    /** Hands every entry to the consumer. See {@link OffHeapMap#forEach}. */
    public void forEach(BiConsumer<? super K, ? super V> consumer) {
        Objects.requireNonNull(consumer, "consumer");
        map.forEach((key, value) -> consumer.accept(keys.decode(key), values.decode(value)));
    }

    /** Decodes the key of a change of this view's map. */
    public K key(Change change) {
        return keys.decode(change.key());
    }

    /** Decodes the value of a change of this view's map. */
    public V value(Change change) {
        return values.decode(change.copyValue());
    }

    /** Removes all entries. See {@link OffHeapMap#clear}. */
    public void clear() {
        map.clear();
    }

    @Override
    public String toString() {
        return "TypedMap[" + map.name() + "]";
    }

    private byte[] encode(K key) {
        return keys.encode(Objects.requireNonNull(key, "key"));
    }

    private byte[] encodeValue(V value) {
        return values.encode(Objects.requireNonNull(value, "value"));
    }
}
