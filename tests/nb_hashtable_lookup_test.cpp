// Lookup: the two searches and the choice between them, Java equality with everything that can go
// wrong in it, and the locked lookups with their pins, records and failures.

#include <gmock/gmock.h>

#include "hashtable_support.h"

namespace nimbra::test::hashtable {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr uint32_t kHash = 5;

class TableLookup : public HashtableTest {
 protected:
  Pinnable* searchRaw(MapHeader* header, const Bytes& key, uint32_t hash) {
    ByteBufferHeader* search = newKey(key);
    const SetLock lock(header, hash);
    BucketSet* set = nullptr;
    Bucket* bucket = nullptr;
    return search_memcmp(env, header, search, OBJECT_TYPE_VALUEHEADER, hash, &set, &bucket);
  }
};

// --- search_memcmp ----------------------------------------------------------------------

TEST_F(TableLookup, EmptyBucketComparesNothing) {
  Table table(env, newTable({1, 2, 1000}));
  names.name(table, "{map}");
  setLevels(kDebugLevel | kEntryLevel);
  EXPECT_EQ(searchRaw(table, {1}, 0xffffffffU), nullptr);
  std::vector<std::string> lines = trace();
  EXPECT_THAT(lines, Not(Contains(::testing::HasSubstr("keycmp"))));
  ASSERT_GE(lines.size(), 2U);
  lines.erase(lines.begin(), lines.end() - 2);  // making the search key
  expectTrace(lines, {
                         "entry search_memcmp:  map={map}, key=*, currentKeyFormat=11,hashCode=-1",
                         "debug search_memcmp: no entries in bucket. map={map}, key=*, hashCode=-1",
                     });
  setLevels(0);
}

TEST_F(TableLookup, OutArgumentsNameSetAndBucket) {
  Table table(env, newTable({64, 4, 1000}));
  DefaultEntry* entry = add(table, {1}, 0xdeadbeefU);
  ByteBufferHeader* present = newKey({1});
  ByteBufferHeader* absent = newKey({2});
  const SetLock lock(table, 0xdeadbeefU);
  for (ByteBufferHeader* key : {present, absent}) {
    BucketSet* set = nullptr;
    Bucket* bucket = nullptr;
    EXPECT_EQ(search_memcmp(env, table, key, OBJECT_TYPE_VALUEHEADER, 0xdeadbeefU, &set, &bucket),
              key == present ? entry : nullptr);
    EXPECT_EQ(set, getBucketSet(table, 0xdeadbeefU));
    EXPECT_EQ(bucket, getBucketInBucketSet(set, 0xdeadbeefU));
    set = nullptr;
    bucket = nullptr;
    EXPECT_EQ(getMapEntry_bucketPointers(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER,
                                         key, static_cast<int32_t>(0xdeadbeefU), &set, &bucket),
              key == present ? entry : nullptr);
    EXPECT_EQ(set, getBucketSet(table, 0xdeadbeefU));
    EXPECT_EQ(bucket, getBucketInBucketSet(set, 0xdeadbeefU));
  }
}

TEST_F(TableLookup, EqualHashesAreToldApartByTheirKeys) {
  Table table(env, newTable());
  DefaultEntry* first = add(table, {1}, kHash);
  DefaultEntry* second = add(table, {2}, kHash);
  EXPECT_EQ(searchRaw(table, {1}, kHash), first);
  EXPECT_EQ(searchRaw(table, {2}, kHash), second);
  EXPECT_EQ(searchRaw(table, {3}, kHash), nullptr);
}

TEST_F(TableLookup, HashesAreTrusted) {
  Table table(env, newTable());
  add(table, {1}, 100);
  EXPECT_EQ(searchRaw(table, {1}, 101), nullptr) << "the same key under another hash";
  DefaultEntry* twin = add(table, {1}, 101);
  EXPECT_EQ(searchRaw(table, {1}, 101), twin);
}

TEST_F(TableLookup, ChainTrace) {
  Table table(env, newTable());
  DefaultEntry* wanted = add(table, {1, 2, 3}, kHash);
  DefaultEntry* sameHash = add(table, {1, 2}, kHash);
  DefaultEntry* otherHash = add(table, {1, 2, 3}, 0xffffffffU);
  ByteBufferHeader* key = newKey({1, 2, 3});
  const SetLock lock(table, kHash);
  BucketSet* set = nullptr;
  Bucket* bucket = nullptr;
  names.name(table, "{map}").name(wanted, "{wanted}").name(sameHash, "{sameHash}");
  names.name(otherHash, "{otherHash}").name(key, "{key}").name(table.set(), "{set}");
  names.name(table.set()->buckets, "{bucket}");
  setLevels(kDebugLevel | kEntryLevel);
  EXPECT_EQ(search_memcmp(env, table, key, OBJECT_TYPE_VALUEHEADER, kHash, &set, &bucket), wanted);
  expectTrace(
      trace(),
      {
          "entry search_memcmp:  map={map}, key={key}, currentKeyFormat=11,hashCode=5",
          "debug search_memcmp: bucketSet={set} bucket={bucket} firstEntry={otherHash}",
          "debug search_memcmp: skipped entry={otherHash}. entry->hashcode=-1 != hashcode=5",
          "debug keycmp: raw. sizes: 3 , 2",
          "debug keycmp: size not same",
          "debug keycmp: raw. sizes: 3 , 3",
          "debug keycmp: memcmp result: 0",
          "exit search_memcmp: entry={wanted}",
      });
  jni.clearRecords();
  EXPECT_EQ(search_memcmp(env, table, key, OBJECT_TYPE_VALUEHEADER, 6, &set, &bucket), nullptr);
  EXPECT_EQ(trace().back(), "exit search_memcmp: entry=(nil)");
  setLevels(0);
}

TEST_F(TableLookup, UnexpectedFormats) {
  Table table(env, newTable());
  add(table, {1}, kHash);
  const uint64_t number = 1;
  const SetLock lock(table, kHash);
  for (const int format : {0, 13, 14, 21, 40, 100, 255}) {
    BucketSet* set = nullptr;
    Bucket* bucket = nullptr;
    setLevels(kDebugLevel);
    EXPECT_EQ(
        search_memcmp(env, table, &number, static_cast<uint8_t>(format), kHash, &set, &bucket),
        nullptr);
    EXPECT_THAT(trace(), ElementsAre("debug search_memcmp: Unexpected key format, " +
                                     std::to_string(format) + ", passed into method"));
  }
  EXPECT_EQ(jni.pending(), std::nullopt);
  setLevels(0);
}

// --- The choice of search ---------------------------------------------------------------

TEST_F(TableLookup, NoKeyAtAll) {
  Table table(env, newTable());
  add(table, {1}, kHash);
  names.name(table, "{map}");
  const SetLock lock(table, kHash);
  setLevels(kDebugLevel);
  EXPECT_EQ(_getMapEntry(env, nullptr, table, nullptr, OBJECT_TYPE_JSTRING, nullptr, kHash),
            nullptr);
  expectTrace(trace(), {
                           "debug getMapEntry_bucketPointers: map={map}, key=(nil), hashCode=5",
                           "debug getMapEntry_bucketPointers: NULL key passed into method",
                       });
  EXPECT_EQ(jni.pending(), std::nullopt);
  setLevels(0);
}

TEST_F(TableLookup, BooleanAndCharBuffersFindNothing) {
  Table table(env, newTable());
  add(table, {1}, kHash, DESERIALIZED_TYPE_JBOOLEAN);
  ByteBufferHeader* key = newKey({1}, DESERIALIZED_TYPE_JBOOLEAN);
  DefaultEntry search = searchEntry(key, kHash);
  for (const uint8_t format : {OBJECT_TYPE_JBOOLEAN, OBJECT_TYPE_JCHAR}) {
    EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, nullptr, format, &search, true, JNI_GET_PIN),
              nullptr);
  }
}

// --- Java equality ----------------------------------------------------------------------

class JavaEquality : public TableLookup {
 protected:
  void SetUp() override {
    TableLookup::SetUp();
    map = jni.newMapObject();
    header = newTable();
  }
  void TearDown() override {
    setLevels(0);
    hashtable_destroy(env, header);
    TableLookup::TearDown();
  }

  DefaultEntry* addOther(const Bytes& key, uint32_t hash = kHash) {
    return add(header, key, hash, DESERIALIZED_TYPE_OTHER);
  }
  void useKey(const Bytes& bytes) {
    searchKey = newKey(bytes, DESERIALIZED_TYPE_OTHER);
    searchBuffer = jni.newDirectBuffer(bufferData(searchKey), static_cast<jlong>(bytes.size()));
  }
  // Searches through the same door as every operation of the table.
  Pinnable* search(const Bytes& bytes) {
    useKey(bytes);
    return searchAgain();
  }
  Pinnable* searchAgain() {
    const SetLock lock(header, kHash);
    jni.clearCalls();
    Pinnable* found =
        _getMapEntry(env, map, header, &searchBuffer, OBJECT_TYPE_JBYTE_BUFFER, searchKey, kHash);
    EXPECT_EQ(jni.liveLocals(), 0U);
    EXPECT_EQ(jni.pending(), std::nullopt);
    return found;
  }
  int objectCalls() const { return jni.callCount("CallObjectMethod"); }
  int compareCalls() const { return jni.callCount("CallBooleanMethod"); }

  jobject map = nullptr;
  MapHeader* header = nullptr;
  ByteBufferHeader* searchKey = nullptr;
  jobject searchBuffer = nullptr;
};

TEST_F(JavaEquality, JavaDecides) {
  DefaultEntry* entry = addOther({1, 2});
  EXPECT_EQ(search({1, 2}), entry);
  EXPECT_EQ(search({9, 9}), nullptr);
  // Equal for Java, though no byte agrees.
  jni.onCompare([](jobject, jobject) { return true; });
  EXPECT_EQ(search({9, 9, 9}), entry);
  // Different for Java, though every byte agrees.
  jni.onCompare([](jobject, jobject) { return false; });
  EXPECT_EQ(search({1, 2}), nullptr);
}

TEST_F(JavaEquality, CallsHoldTheSetAndPassTheKeys) {
  DefaultEntry* entry = addOther({1, 2, 3});
  BucketSet* set = getBucketSet(header, kHash);
  jobject object = jni.newObject();
  jobject window = nullptr;
  int calls = 0;
  jni.onDeserialize([&](jobject buffer) {
    ++calls;
    EXPECT_TRUE(holdsLock(&set->mutex));
    EXPECT_TRUE(jni.sameObject(buffer, searchBuffer));
    return object;
  });
  jni.onAllocateDirectFromPhantom([&](jlong address, jint length) {
    ++calls;
    EXPECT_TRUE(holdsLock(&set->mutex));
    EXPECT_EQ(address, reinterpret_cast<jlong>(bufferData(entry->key)));
    EXPECT_EQ(length, 3);
    return window = jni.newDirectBuffer(reinterpret_cast<void*>(address), length);
  });
  jni.onCompare([&](jobject key, jobject buffer) {
    ++calls;
    EXPECT_TRUE(holdsLock(&set->mutex));
    EXPECT_TRUE(jni.sameObject(key, object));
    EXPECT_TRUE(jni.sameObject(buffer, window));
    return true;
  });
  EXPECT_EQ(search({4}), entry);
  EXPECT_EQ(calls, 3);
}

TEST_F(JavaEquality, WithoutAMapObjectBytesDecide) {
  DefaultEntry* entry = addOther({1, 2});
  map = nullptr;
  jni.onCompare([](jobject, jobject) { return false; });
  EXPECT_EQ(search({1, 2}), entry);
  EXPECT_EQ(objectCalls() + compareCalls(), 0);
  EXPECT_EQ(search({1, 3}), nullptr);
}

TEST_F(JavaEquality, WithoutABufferOrWithAnotherFormatBytesDecide) {
  DefaultEntry* entry = addOther({1, 2});
  useKey({1, 2});
  const SetLock lock(header, kHash);
  jni.clearCalls();
  EXPECT_EQ(_getMapEntry(env, map, header, nullptr, OBJECT_TYPE_JBYTE_BUFFER, searchKey, kHash),
            entry);
  EXPECT_EQ(_getMapEntry(env, map, header, &searchBuffer, OBJECT_TYPE_OTHER, searchKey, kHash),
            entry);
  searchKey->deserializedType = DESERIALIZED_TYPE_BINARY;
  EXPECT_EQ(
      _getMapEntry(env, map, header, &searchBuffer, OBJECT_TYPE_JBYTE_BUFFER, searchKey, kHash),
      entry);
  EXPECT_EQ(objectCalls() + compareCalls(), 0);
}

TEST_F(JavaEquality, EmptyBucketCallsNothing) {
  EXPECT_EQ(search({1}), nullptr);
  EXPECT_EQ(objectCalls() + compareCalls(), 0);
}

TEST_F(JavaEquality, OtherStoredTypesCompareBitwise) {
  DefaultEntry* binary = add(header, {1, 2}, kHash);
  EXPECT_EQ(search({1, 2}), binary);
  EXPECT_EQ(objectCalls() + compareCalls(), 0);
  EXPECT_EQ(search({1, 3}), nullptr);
  EXPECT_EQ(objectCalls() + compareCalls(), 0);
}

// The first entry with this hash whose key only Java understands decides, even against a later one
// that is equal.
TEST_F(JavaEquality, FirstOtherEntryDecides) {
  DefaultEntry* equal = addOther({1, 2});
  EXPECT_EQ(search({1, 2}), equal);
  DefaultEntry* different = newEntry(env, {3, 4}, kHash, DESERIALIZED_TYPE_OTHER);
  ASSERT_EQ(insertOwned(env, header, different), different);
  ASSERT_EQ(chainOf(env, header, kHash), (std::vector<Pinnable*>{different, equal}));
  EXPECT_EQ(search({1, 2}), nullptr);
  EXPECT_EQ(compareCalls(), 1);
  EXPECT_EQ(search({3, 4}), different);
}

TEST_F(JavaEquality, OtherHashesAndOtherTypesDoNotDecide) {
  DefaultEntry* equal = addOther({1, 2});
  addOther({3, 4}, kHash + 1);  // another hash in the same bucket
  add(header, {5, 6}, kHash);   // this hash, compared bitwise
  EXPECT_EQ(search({1, 2}), equal);
  EXPECT_EQ(objectCalls(), 2) << "deserialized once, wrapped once";
  EXPECT_EQ(compareCalls(), 1);
}

TEST_F(JavaEquality, NullObjectIsNoMatch) {
  addOther({1, 2});
  jni.onDeserialize([](jobject) -> jobject { return nullptr; });
  EXPECT_EQ(search({1, 2}), nullptr);
  EXPECT_EQ(objectCalls(), 1);
  EXPECT_EQ(compareCalls(), 0);
}

TEST_F(JavaEquality, NullWindowIsNoMatch) {
  DefaultEntry* entry = addOther({1, 2});
  names.name(entry->key, "{key}");
  jni.onAllocateDirectFromPhantom([](jlong, jint) -> jobject { return nullptr; });
  useKey({1, 2});
  setLevels(kDebugLevel);
  EXPECT_EQ(searchAgain(), nullptr);
  EXPECT_EQ(compareCalls(), 0);
  expectTrace({trace().back()},
              {"debug search_deserializer: phantomBB allocation error. backingByteBuffer={key}"});
}

TEST_F(JavaEquality, ThrowingCallsAreLoggedClearedAndNoMatch) {
  addOther({1, 2});
  int described = jni.described();
  const auto expectNoMatch = [&](const char* what) {
    EXPECT_EQ(search({1, 2}), nullptr) << what;
    EXPECT_EQ(jni.described(), ++described) << what;
  };
  setLevels(kErrorLevel);
  jni.onCompare([this](jobject, jobject) {
    jni.throwNew("java/lang/RuntimeException", "compare");
    return true;
  });
  expectNoMatch("compare");
  jni.onAllocateDirectFromPhantom([this](jlong, jint) -> jobject {
    jni.throwNew("java/lang/RuntimeException", "window");
    return nullptr;
  });
  expectNoMatch("allocateDirectFromPhantom");
  EXPECT_EQ(compareCalls(), 0);
  jni.onDeserialize([this](jobject) -> jobject {
    jni.throwNew("java/lang/RuntimeException", "deserialize");
    return nullptr;
  });
  expectNoMatch("deserialize");
  EXPECT_EQ(objectCalls(), 1);
}

TEST_F(JavaEquality, ThrowingCompareEndsTheSearch) {
  addOther({1, 2});
  DefaultEntry* front = newEntry(env, {3}, kHash, DESERIALIZED_TYPE_OTHER);
  ASSERT_NE(insertOwned(env, header, front), nullptr);
  jni.onCompare([this](jobject, jobject) {
    jni.throwNew("java/lang/RuntimeException", "compare");
    return false;
  });
  EXPECT_EQ(search({1, 2}), nullptr);
  EXPECT_EQ(compareCalls(), 1);
}

TEST_F(JavaEquality, NullMethodsAreNoMatch) {
  addOther({1, 2});
  for (Relaxed<jmethodID>* method :
       {&compareMethod, &deserializeMethod, &allocateDirectFromPhantomMethod}) {
    const jmethodID saved = *method;
    ASSERT_NE(saved, nullptr);
    *method = nullptr;
    EXPECT_EQ(search({1, 2}), nullptr);
    *method = saved;
  }
  EXPECT_NE(search({1, 2}), nullptr);
}

TEST_F(JavaEquality, MissingDeserializerIsAnException) {
  useKey({1, 2});
  const DeserializeFn saved = header->deserialize;
  header->deserialize = nullptr;
  EXPECT_EQ(searchAgain(), nullptr) << "an empty bucket needs no deserializer";
  addOther({1, 2});
  names.name(header, "{map}");
  {
    const SetLock lock(header, kHash);
    BucketSet* set = nullptr;
    Bucket* bucket = nullptr;
    setLevels(kDebugLevel);
    EXPECT_EQ(search_deserializer(env, map, header, searchBuffer, searchKey, kHash, &set, &bucket),
              nullptr);
  }
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[search_deserializer] An internal failure occurred when deserializing a key "
                    "object: deserialize method reference not found"}));
  expectTrace(trace(), {
                           "debug search_deserializer: map={map}, key=*, hashCode=5",
                           "debug search_deserializer: no deserializeKey method found",
                       });
  header->deserialize = saved;
}

TEST_F(JavaEquality, Traces) {
  useKey({1, 2});
  names.name(header, "{map}").name(getBucketSetByIndex(header, 0), "{set}");
  names.name(getBucketSetByIndex(header, 0)->buckets, "{bucket}");
  setLevels(kDebugLevel);
  EXPECT_EQ(searchAgain(), nullptr);
  expectTrace(trace(), {
                           "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=5",
                           "debug search_deserializer: map={map}, key=*, hashCode=5",
                           "debug search_deserializer: hashed to an empty bucket. map={map}, "
                           "key=*, hashCode=5, bucketSet={set}, bucket={bucket}",
                       });
  setLevels(0);
  DefaultEntry* equal = addOther({1, 2});
  DefaultEntry* bitwise = add(header, {7}, kHash);
  DefaultEntry* otherHash = add(header, {8}, 0x80000000U);
  names.name(equal, "{equal}").name(bitwise, "{bitwise}").name(otherHash, "{otherHash}");
  setLevels(kDebugLevel);
  EXPECT_EQ(searchAgain(), equal);
  expectTrace(
      trace(),
      {
          "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=5",
          "debug search_deserializer: map={map}, key=*, hashCode=5",
          "debug search_deserializer: compare key to bucket entry. map={map}, key=*, hashCode=5, "
          "tgtEntry={otherHash}, tgtHashCode=-2147483648",
          "debug search_deserializer: compare key to bucket entry. map={map}, key=*, hashCode=5, "
          "tgtEntry={bitwise}, tgtHashCode=5",
          "debug search_deserializer: found entry={bitwise} with matching hashcode: 5==5",
          "debug keycmp: raw. sizes: 2 , 1",
          "debug keycmp: size not same",
          "debug search_deserializer: compare key to bucket entry. map={map}, key=*, hashCode=5, "
          "tgtEntry={equal}, tgtHashCode=5",
          "debug search_deserializer: found entry={equal} with matching hashcode: 5==5",
          "debug search_deserializer: match entry's deserialized type is OTHER. Comparing via "
          "java equals.",
          "debug search_deserializer: fetched deserialized java key. object=*",
          "debug search_deserializer: found match using java equals",
      });
  setLevels(0);
  add(header, {1, 2, 3}, kHash);
  useKey({1, 2, 3});
  setLevels(kDebugLevel);
  searchAgain();
  EXPECT_EQ(trace().back(), "debug search_deserializer: found match using bitwise compare");
}

// --- hashtable_getAndPin ----------------------------------------------------------------

TEST_F(TableLookup, HitIsPinnedWithTheCallersReason) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  DefaultEntry search = searchEntry(newKey({1}), kHash);
  names.name(entry, "{entry}");
  for (const bool lock : {true, false}) {
    setLevels(kEventLevel);
    if (!lock) {
      EXPECT_EQ(lockBucketSet(table.set()), 0);
    }
    EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, &search,
                                  lock, PHANTOM_JAVA_PIN),
              entry);
    EXPECT_EQ(heldLockCount(), lock ? 0 : 1) << "lock false leaves the set held";
    if (!lock) {
      EXPECT_EQ(unlockBucketSet(table.set()), 0);
    }
    EXPECT_EQ(entry->pins, 2);
    EXPECT_THAT(pins(), ElementsAre("+PHANTOM_JAVA_PIN {entry}"));
    unpin(env, entry, PHANTOM_JAVA_PIN);
  }
  setLevels(0);
}

TEST_F(TableLookup, MissPinsNothing) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  DefaultEntry search = searchEntry(newKey({2}), kHash);
  setLevels(kEventLevel);
  EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, &search,
                                true, JNI_GET_PIN),
            nullptr);
  EXPECT_THAT(pins(), IsEmpty());
  EXPECT_EQ(entry->pins, 1);
  EXPECT_EQ(heldLockCount(), 0);
  setLevels(0);
}

TEST_F(TableLookup, SearchesByStringArrayAndNumberNeedNoBuffer) {
  Table table(env, newTable({1, 4, 1000}));
  DefaultEntry* string = add(table, stringBytes(u"key"), 1, DESERIALIZED_TYPE_JSTRING);
  DefaultEntry* bytes = add(table, {1, 2}, 2);
  DefaultEntry* number = add(table, numberBytes(int64_t{7}), 3, DESERIALIZED_TYPE_JLONG);
  jstring stringKey = jni.newString(u"key");
  jbyteArray arrayKey = jni.newByteArray({1, 2});
  const double numberKey = 7;
  DefaultEntry search = searchEntry(nullptr, 1);
  EXPECT_EQ(hashtable_containsKey(env, nullptr, table, &stringKey, OBJECT_TYPE_JSTRING, &search),
            1);
  EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, &stringKey, OBJECT_TYPE_JSTRING, &search, true,
                                JNI_GET_PIN),
            string);
  search.hash = 2;
  EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, &arrayKey, OBJECT_TYPE_JBYTE_ARRAY, &search,
                                true, JNI_GET_PIN),
            bytes);
  search.hash = 3;
  EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, &numberKey, OBJECT_TYPE_JDOUBLE, &search, true,
                                JNI_GET_PIN),
            number);
  for (DefaultEntry* entry : {string, bytes, number}) unpin(env, entry, JNI_GET_PIN);
}

TEST_F(TableLookup, HitTrace) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* key = newKey({1});
  DefaultEntry search = searchEntry(key, kHash);
  const int callersKey = 0;
  names.name(table, "{map}").name(table.set(), "{set}").name(table.set()->buckets, "{bucket}");
  names.name(entry, "{entry}").name(entry->key, "{entryKey}").name(entry->value, "{value}");
  names.name(&search, "{search}").name(key, "{key}").name(&callersKey, "{vpKey}");
  setLevels(kDebugLevel | kEntryLevel);
  EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, &callersKey, OBJECT_TYPE_JBYTE_BUFFER, &search,
                                true, JNI_GET_PIN),
            entry);
  expectTrace(
      trace(),
      {
          "debug hashtable_getAndPin: start search. map={map}, vpKey={vpKey}, keyObjFormat=40, "
          "searchEntry={search} searchEntry->key={key} hashCode=5",
          "debug hashtable_getAndPin: specified the BucketSet. map={map}, key=*, hashCode=5, "
          "bucket=*",
          "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=5",
          "entry search_memcmp:  map={map}, key={key}, currentKeyFormat=11,hashCode=5",
          "debug search_memcmp: bucketSet={set} bucket={bucket} firstEntry={entry}",
          "debug keycmp: raw. sizes: 1 , 1",
          "debug keycmp: memcmp result: 0",
          "exit search_memcmp: entry={entry}",
          "debug pin: enter pin: header={entry}, reason=JNI_GET_PIN",
          "debug pin: exit pin: header={entry}, pins=2",
          "debug hashtable_getAndPin: hit. map={map} key=* hashCode=5 entry={entry} "
          "entry->value={value} entry->key={entryKey}",
      });
  setLevels(0);
  unpin(env, entry, JNI_GET_PIN);
}

TEST_F(TableLookup, MissTrace) {
  Table table(env, newTable());
  DefaultEntry search = searchEntry(newKey({1}), 0xffffffffU);
  names.name(table, "{map}").name(&search, "{search}").name(search.key, "{key}");
  setLevels(kDebugLevel);
  {
    const SetLock lock(table, 0xffffffffU);
    EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, &search,
                                  false, JNI_GET_PIN),
              nullptr);
  }
  expectTrace(trace(),
              {
                  "debug hashtable_getAndPin: start search. map={map}, vpKey=(nil), "
                  "keyObjFormat=40, searchEntry={search} searchEntry->key={key} hashCode=-1",
                  "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=-1",
                  "debug search_memcmp: no entries in bucket. map={map}, key=*, hashCode=-1",
                  "debug hashtable_getAndPin: no entry in this bucket. map={map}, key=*, "
                  "hashCode=-1",
              });
  setLevels(0);
}

TEST_F(TableLookup, NullSearchEntryIsAnException) {
  Table table(env, newTable());
  for (const jint level : {kErrorLevel, jint{0}}) {
    setLevels(level);
    EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, nullptr,
                                  true, JNI_GET_PIN),
              nullptr);
    EXPECT_EQ(trace(), level == 0 ? std::vector<std::string>{}
                                  : std::vector<std::string>{
                                        "errorGeneric OFFHEAP_GENERIC_ERROR_KTZAR7929 Failed "
                                        "to get hashtable entry due to NULL searchEntry"});
    EXPECT_EQ(jni.takePending(),
              (Thrown{kIllegalState,
                      "[hashtable_getAndPin] Failed to get hashtable entry due to NULL "
                      "searchEntry"}));
    EXPECT_EQ(
        hashtable_containsKey(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, nullptr), 0);
    EXPECT_NE(jni.takePending(), std::nullopt);
    EXPECT_EQ(heldLockCount(), 0);
  }
}

TEST_F(TableLookup, LockFailureIsAnException) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  DefaultEntry search = searchEntry(newKey({1}), kHash);
  for (const jint level : {kErrorLevel, jint{0}}) {
    for (const bool contains : {false, true}) {
      setLevels(level);
      const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
      if (contains) {
        EXPECT_EQ(
            hashtable_containsKey(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, &search),
            0);
      } else {
        EXPECT_EQ(hashtable_getAndPin(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER,
                                      &search, true, JNI_GET_PIN),
                  nullptr);
      }
      EXPECT_TRUE(failure.fired());
      EXPECT_EQ(trace(), level == 0 ? std::vector<std::string>{}
                                    : std::vector<std::string>{lockErrorLine("om2")});
      EXPECT_EQ(
          jni.takePending(),
          (Thrown{kIllegalState,
                  "[hashtable_getAndPin] Error acquiring BucketSet lock in Nimbra library."}));
      EXPECT_EQ(heldLockCount(), 0);
      EXPECT_EQ(entry->pins, 1);
    }
  }
}

// --- hashtable_containsKey --------------------------------------------------------------

TEST_F(TableLookup, ContainsKeyLeavesEveryPinAsItWas) {
  Table table(env, newTable());
  DefaultEntry* first = add(table, {1}, kHash);
  DefaultEntry* second = add(table, {2}, kHash);
  DefaultEntry search = searchEntry(newKey({1}), kHash);
  names.name(first, "{first}").name(second, "{second}");
  setLevels(kEventLevel);
  EXPECT_EQ(hashtable_containsKey(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, &search),
            1);
  EXPECT_THAT(pins(), ElementsAre("+JAVA_GET_PIN {first}", "-JAVA_GET_PIN {first}"));
  EXPECT_EQ(first->pins, 1);
  EXPECT_EQ(second->pins, 1);
  EXPECT_EQ(first->key->pins, 1);
  EXPECT_EQ(first->value->pins, 1);
  jni.clearRecords();
  search.hash = kHash + 1;
  EXPECT_EQ(hashtable_containsKey(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, &search),
            0);
  EXPECT_THAT(pins(), IsEmpty());
  setLevels(0);
}

uint32_t containsUnpinReason = 0;
uint32_t recordingUnpin(JNIEnv* env, Pinnable* entry, uint32_t reason) {
  containsUnpinReason = reason;
  return unpinEntry(env, entry, reason);
}

TEST_F(TableLookup, ContainsKeyUnpinsThroughTheTablesCallback) {
  Table table(env, hashtable::newTable(env, {}, recordingUnpin));
  add(table, {1}, kHash);
  DefaultEntry search = searchEntry(newKey({1}), kHash);
  containsUnpinReason = 0;
  EXPECT_EQ(hashtable_containsKey(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, &search),
            1);
  EXPECT_EQ(containsUnpinReason, JAVA_GET_PIN | JNI_CONVERT_FROM_JAVA_PIN);
}

}  // namespace
}  // namespace nimbra::test::hashtable
