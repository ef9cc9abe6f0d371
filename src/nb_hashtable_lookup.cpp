// Lookup: one chain of one bucket set, compared in the form in which the key came.
//
// State: none. Hash codes come from Java and are trusted. Callers hold the set's mutex unless the
// operation takes it itself.
#include <cstdio>

#include "nb_hashtable.h"
#include "nb_jni.h"
#include "nb_logging.h"

namespace nimbra {

namespace {

constexpr char kLookupTag[] = "BucketSet [om2]";

bool isSearchable(uint8_t format) {
  switch (format) {
    case OBJECT_TYPE_VALUEHEADER:
    case OBJECT_TYPE_JBYTE_ARRAY:
    case OBJECT_TYPE_JSTRING:
    case OBJECT_TYPE_JBYTE:
    case OBJECT_TYPE_JSHORT:
    case OBJECT_TYPE_JINT:
    case OBJECT_TYPE_JLONG:
    case OBJECT_TYPE_JFLOAT:
    case OBJECT_TYPE_JDOUBLE: return true;
    default: return false;
  }
}

// `key` is the caller's, of any alignment: it may be the data area of a buffer.
template <typename T>
T valueAt(const void* key) {
  T value;
  __builtin_memcpy(&value, key, sizeof value);
  return value;
}

int32_t compareInFormat(JNIEnv* env, const void* key, uint8_t format,
                        const ByteBufferHeader* stored) {
  switch (format) {
    case OBJECT_TYPE_VALUEHEADER:
      return keycmp(env, static_cast<const ByteBufferHeader*>(key), stored);
    case OBJECT_TYPE_JBYTE_ARRAY: return keycmp(env, valueAt<jbyteArray>(key), stored);
    case OBJECT_TYPE_JSTRING: return keycmp(env, valueAt<jstring>(key), stored);
    case OBJECT_TYPE_JBYTE: return keycmp(env, static_cast<double>(valueAt<int8_t>(key)), stored);
    case OBJECT_TYPE_JSHORT: return keycmp(env, static_cast<double>(valueAt<int16_t>(key)), stored);
    case OBJECT_TYPE_JINT: return keycmp(env, static_cast<double>(valueAt<int32_t>(key)), stored);
    case OBJECT_TYPE_JLONG: return keycmp(env, static_cast<double>(valueAt<int64_t>(key)), stored);
    case OBJECT_TYPE_JFLOAT: return keycmp(env, static_cast<double>(valueAt<float>(key)), stored);
    default: return keycmp(env, valueAt<double>(key), stored);
  }
}

// Java equality of a search key, deserialized once, and a stored key, seen through a phantom.
bool equalInJava(JNIEnv* env, jobject map, MapHeader* header, jobject searchKey,
                 ByteBufferHeader* stored) {
  const LocalRef<jobject> phantom(
      env, header->allocateDirectFromPhantom(env, map, bufferData(stored), stored->dataSize));
  if (catch_exception(env, "search_deserializer", true) || !phantom) {
    NB_DEBUG_AS(env, "search_deserializer", "phantomBB allocation error. backingByteBuffer=%p",
                static_cast<void*>(stored));
    return false;
  }
  const jboolean equal = header->compare(env, map, searchKey, phantom.get());
  return !catch_exception(env, "search_deserializer", true) && equal == JNI_TRUE;
}

}  // namespace

Pinnable* search_memcmp(JNIEnv* env, MapHeader* header, const void* key, uint8_t format,
                        uint32_t hash, BucketSet** set, Bucket** bucket) {
  NB_ENTRY(env, " map=%p, key=%p, currentKeyFormat=%d,hashCode=%d", static_cast<void*>(header), key,
           format, static_cast<int>(hash));
  if (!isSearchable(format)) {
    NB_DEBUG(env, "Unexpected key format, %d, passed into method", format);
    return nullptr;
  }
  Pinnable* entry = getFirstEntryByHashCode(header, hash, set, bucket);
  if (entry == nullptr) {
    NB_DEBUG(env, "no entries in bucket. map=%p, key=%p, hashCode=%d", static_cast<void*>(header),
             key, static_cast<int>(hash));
    return nullptr;
  }
  NB_DEBUG(env, "bucketSet=%p bucket=%p firstEntry=%p", static_cast<void*>(*set),
           static_cast<void*>(*bucket), static_cast<void*>(entry));
  for (; entry != nullptr; entry = header->getNext(env, entry)) {
    const uint32_t entryHash = header->getHash(env, entry);
    if (entryHash != hash) {
      NB_DEBUG(env, "skipped entry=%p. entry->hashcode=%d != hashcode=%d",
               static_cast<void*>(entry), static_cast<int>(entryHash), static_cast<int>(hash));
      continue;
    }
    // Whoever finds an entry wants its value next; the key is on its way at the same time.
    prefetch(header->getValue(env, entry));
    const int32_t result = compareInFormat(env, key, format, header->getKey(env, entry));
    if (result == 0) break;
    // A key that Java refused to show ends the search: the next comparison would ask it again, with
    // an exception pending. Only these comparisons call Java.
    if (result < 0 && (format == OBJECT_TYPE_JBYTE_ARRAY || format == OBJECT_TYPE_JSTRING) &&
        env->ExceptionCheck()) {
      return nullptr;
    }
  }
  NB_EXIT(env, "entry=%p", static_cast<void*>(entry));
  return entry;
}

Pinnable* search_deserializer(JNIEnv* env, jobject map, MapHeader* header, jobject searchBuffer,
                              ByteBufferHeader* searchKey, uint32_t hash, BucketSet** set,
                              Bucket** bucket) {
  NB_DEBUG(env, "map=%p, key=%p, hashCode=%d", static_cast<void*>(header),
           static_cast<void*>(searchKey), static_cast<int>(hash));
  Pinnable* entry = getFirstEntryByHashCode(header, hash, set, bucket);
  if (entry == nullptr) {
    NB_DEBUG(env, "hashed to an empty bucket. map=%p, key=%p, hashCode=%d, bucketSet=%p, bucket=%p",
             static_cast<void*>(header), static_cast<void*>(searchKey), static_cast<int>(hash),
             static_cast<void*>(*set), static_cast<void*>(*bucket));
    return nullptr;
  }
  if (header->deserialize == nullptr) {
    NB_DEBUG(env, "no deserializeKey method found");
    throw_exception(env, __func__,
                    "An internal failure occurred when deserializing a key object: deserialize "
                    "method reference not found");
    return nullptr;
  }
  for (; entry != nullptr; entry = header->getNext(env, entry)) {
    const uint32_t entryHash = header->getHash(env, entry);
    NB_DEBUG(env,
             "compare key to bucket entry. map=%p, key=%p, hashCode=%d, tgtEntry=%p, "
             "tgtHashCode=%d",
             static_cast<void*>(header), static_cast<void*>(searchKey), static_cast<int>(hash),
             static_cast<void*>(entry), static_cast<int>(entryHash));
    if (entryHash != hash) continue;
    NB_DEBUG(env, "found entry=%p with matching hashcode: %d==%d", static_cast<void*>(entry),
             static_cast<int>(entryHash), static_cast<int>(hash));
    ByteBufferHeader* stored = header->getKey(env, entry);
    if (stored->deserializedType != DESERIALIZED_TYPE_OTHER) {
      if (keycmp(env, searchKey, stored) != 0) continue;
      NB_DEBUG(env, "found match using bitwise compare");
      return entry;
    }
    NB_DEBUG(env, "match entry's deserialized type is OTHER. Comparing via java equals.");
    const LocalRef<jobject> key(env, header->deserialize(env, map, searchBuffer));
    if (catch_exception(env, __func__, true) || !key) return nullptr;
    NB_DEBUG(env, "fetched deserialized java key. object=%p", static_cast<void*>(key.get()));
    // Deliberate: Java's answer for the first such entry ends the search, also when it is no. The
    // contract with Java says so. Pinned by JavaEquality.FirstOtherEntryDecides.
    if (!equalInJava(env, map, header, key.get(), stored)) return nullptr;
    NB_DEBUG(env, "found match using java equals");
    return entry;
  }
  return nullptr;
}

Pinnable* getMapEntry_bucketPointers(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                     uint8_t format, ByteBufferHeader* keyBuffer, int32_t hash,
                                     BucketSet** set, Bucket** bucket) {
  NB_DEBUG(env, "map=%p, key=%p, hashCode=%d", static_cast<void*>(header),
           static_cast<void*>(keyBuffer), hash);
  const auto hashCode = static_cast<uint32_t>(hash);
  if (keyBuffer == nullptr) {
    if (key == nullptr) {
      NB_DEBUG(env, "NULL key passed into method");
      return nullptr;
    }
    return search_memcmp(env, header, key, format, hashCode, set, bucket);
  }
  if (keyBuffer->deserializedType == DESERIALIZED_TYPE_OTHER && key != nullptr && map != nullptr &&
      format == OBJECT_TYPE_JBYTE_BUFFER) {
    return search_deserializer(env, map, header, valueAt<jobject>(key), keyBuffer, hashCode, set,
                               bucket);
  }
  if (format >= OBJECT_TYPE_JBYTE && format <= OBJECT_TYPE_JDOUBLE) {
    return search_memcmp(env, header, bufferData(keyBuffer), format, hashCode, set, bucket);
  }
  return search_memcmp(env, header, keyBuffer, OBJECT_TYPE_VALUEHEADER, hashCode, set, bucket);
}

Pinnable* _getMapEntry(JNIEnv* env, jobject map, MapHeader* header, const void* key, uint8_t format,
                       ByteBufferHeader* keyBuffer, int32_t hash) {
  BucketSet* set = nullptr;
  Bucket* bucket = nullptr;
  return getMapEntry_bucketPointers(env, map, header, key, format, keyBuffer, hash, &set, &bucket);
}

Pinnable* hashtable_getAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                              uint8_t format, Pinnable* searchEntry, bool lock, uint32_t reason) {
  if (searchEntry == nullptr) {
    constexpr char kNoEntry[] = "Failed to get hashtable entry due to NULL searchEntry";
    NB_ERROR_GENERIC(env, kGenericErrorKey, kNoEntry);
    throw_exception(env, __func__, kNoEntry);
    return nullptr;
  }
  const uint32_t hash = header->getHash(env, searchEntry);
  ByteBufferHeader* keyBuffer = header->getKey(env, searchEntry);
  NB_DEBUG(env,
           "start search. map=%p, vpKey=%p, keyObjFormat=%d, searchEntry=%p "
           "searchEntry->key=%p hashCode=%d",
           static_cast<void*>(header), key, format, static_cast<void*>(searchEntry),
           static_cast<void*>(keyBuffer), static_cast<int>(hash));
  BucketSet* set = nullptr;
  if (lock) {
    set = getBucketSet(header, hash);
    NB_DEBUG(env, "specified the BucketSet. map=%p, key=%p, hashCode=%d, bucket=%p",
             static_cast<void*>(header), static_cast<void*>(keyBuffer), static_cast<int>(hash),
             static_cast<void*>(set));
    if (lockBucketSet(set) != 0) {
      NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kLookupTag);
      char message[128];
      std::snprintf(message, sizeof message, kAcquireLockText, "BucketSet");
      throw_exception(env, __func__, message);
      return nullptr;
    }
  }
  Pinnable* entry =
      _getMapEntry(env, map, header, key, format, keyBuffer, static_cast<int32_t>(hash));
  if (entry != nullptr) {
    pin(env, entry, reason);
    NB_DEBUG(env, "hit. map=%p key=%p hashCode=%d entry=%p entry->value=%p entry->key=%p",
             static_cast<void*>(header), static_cast<void*>(keyBuffer), static_cast<int>(hash),
             static_cast<void*>(entry), static_cast<void*>(header->getValue(env, entry)),
             static_cast<void*>(header->getKey(env, entry)));
  } else {
    NB_DEBUG(env, "no entry in this bucket. map=%p, key=%p, hashCode=%d",
             static_cast<void*>(header), static_cast<void*>(keyBuffer), static_cast<int>(hash));
  }
  if (lock) unlockBucketSet(set);
  return entry;
}

int32_t hashtable_containsKey(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                              uint8_t format, Pinnable* searchEntry) {
  constexpr uint32_t kReason = JAVA_GET_PIN | JNI_CONVERT_FROM_JAVA_PIN;
  Pinnable* entry = hashtable_getAndPin(env, map, header, key, format, searchEntry, true, kReason);
  if (entry == nullptr) return 0;
  header->unpinEntry(env, entry, kReason);
  return 1;
}

}  // namespace nimbra
