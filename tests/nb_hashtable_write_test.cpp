// Insert, update, remove, growth and clear: results, the order of records and pins, accounting, and
// every failure.

#include <gmock/gmock.h>

#include "hashtable_support.h"

namespace nimbra::test::hashtable {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint32_t kHash = 7;
constexpr uint8_t kBufferFormat = OBJECT_TYPE_JBYTE_BUFFER;
constexpr char kKeyPin[] = "MAPENTRY_KEY_PIN or TREEENTRY_ATTRIBUTE_PIN";
constexpr char kValuePin[] = "MAPENTRY_VALUE_PIN or TREEENTRY_INDEX_PIN";

uint64_t wholeSize(JNIEnv*, Pinnable* entry) {
  auto* record = static_cast<DefaultEntry*>(entry);
  return entrySize(record->key, record, record->value);
}

// What the table asked its unpin callback to do, and whether it held the set meanwhile.
std::vector<std::pair<Pinnable*, uint32_t>> unpinCalls;
const void* setThatMustBeHeld = nullptr;
uint32_t recordingUnpin(JNIEnv* env, Pinnable* entry, uint32_t reason) {
  unpinCalls.emplace_back(entry, reason);
  if (setThatMustBeHeld != nullptr) {
    EXPECT_TRUE(holdsLock(setThatMustBeHeld));
  }
  return unpinEntry(env, entry, reason);
}

class TableWrite : public HashtableTest {
 protected:
  void SetUp() override {
    HashtableTest::SetUp();
    unpinCalls.clear();
    setThatMustBeHeld = nullptr;
  }
  void TearDown() override {
    setThatMustBeHeld = nullptr;
    HashtableTest::TearDown();
  }

  DefaultEntry* entryOf(const Bytes& key, uint32_t hash = kHash,
                        uint8_t type = DESERIALIZED_TYPE_BINARY) {
    return newEntry(env, key, hash, type);
  }
  void drop(DefaultEntry* entry, uint32_t reason = ALLOCATION_PIN) {
    unpinEntry(env, entry, reason);
  }
  // The raw call, with the pins left as the operation leaves them.
  Pinnable* insert(MapHeader* header, DefaultEntry* entry, int32_t keyType = kBufferFormat,
                   bool lock = true) {
    inserted = -1;
    return hashtable_insertAndPin(env, nullptr, header, nullptr, keyType, entry, &inserted, lock);
  }
  Pinnable* remove(MapHeader* header, const Bytes& key, uint32_t hash = kHash, bool lock = true) {
    DefaultEntry search = searchEntry(newKey(key), hash);
    return hashtable_removeAndPin(env, nullptr, header, nullptr, kBufferFormat, &search, lock);
  }
  // Gives a table's names to its parts.
  void nameTable(const Table& table) {
    names.name(table, "{map}").name(table.set(), "{set}").name(table.set()->buckets, "{bucket}");
  }
  void nameEntry(DefaultEntry* entry, const std::string& number) {
    names.name(entry, "{e" + number + "}").name(entry->key, "{k" + number + "}");
    names.name(entry->value, "{v" + number + "}");
  }

  int32_t inserted = -1;
};

// --- Insert -----------------------------------------------------------------------------

using TableInsert = TableWrite;

TEST_F(TableInsert, InsertPinsForChainAndCaller) {
  Table table(env, newTable());
  DefaultEntry* entry = entryOf({1});
  nameEntry(entry, "1");
  setLevels(kEventLevel);
  EXPECT_EQ(insert(table, entry), entry);
  EXPECT_EQ(inserted, 1);
  EXPECT_THAT(pins(), ElementsAre("+BUCKET_FIRST_PIN {e1}", "+JNI_INSERTED_PIN {e1}"));
  EXPECT_EQ(entry->pins, 3);
  EXPECT_EQ(entry->key->pins, 1);
  EXPECT_EQ(entry->value->pins, 1);
  EXPECT_EQ(heldLockCount(), 0);
  setLevels(0);
  drop(entry, JNI_INSERTED_PIN);
  drop(entry);
  EXPECT_EQ(checkTable(env, table), 1);
}

TEST_F(TableInsert, SecondInsertIntoABucketTakesTheSamePins) {
  Table table(env, newTable());
  add(table, {1}, kHash);
  DefaultEntry* second = entryOf({2});
  nameEntry(second, "2");
  setLevels(kEventLevel);
  EXPECT_EQ(insert(table, second), second);
  EXPECT_THAT(pins(), ElementsAre("+BUCKET_FIRST_PIN {e2}", "+JNI_INSERTED_PIN {e2}"));
  setLevels(0);
  drop(second, JNI_INSERTED_PIN);
  drop(second);
}

TEST_F(TableInsert, NewEntriesGoToTheHeadOfTheChain) {
  Table table(env, newTable());
  DefaultEntry* first = add(table, {1}, kHash);
  DefaultEntry* second = add(table, {2}, kHash);
  DefaultEntry* third = add(table, {3}, kHash);
  EXPECT_EQ(chainOf(env, table, kHash), (std::vector<Pinnable*>{third, second, first}));
  EXPECT_EQ(table.set()->size, 3U);
  EXPECT_EQ(checkTable(env, table), 3);
}

TEST_F(TableInsert, SecondInsertOfAKeyIsRefused) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1, 2}, kHash);
  const int64_t bytes = hashtable_bytesUsed(env, table);
  DefaultEntry* again = entryOf({1, 2});
  setLevels(kEventLevel);
  EXPECT_EQ(insert(table, again), nullptr);
  EXPECT_EQ(inserted, 0);
  EXPECT_THAT(pins(), IsEmpty());
  setLevels(0);
  EXPECT_EQ(heldLockCount(), 0);
  EXPECT_EQ(again->pins, 1);
  EXPECT_EQ(entry->pins, 1);
  EXPECT_EQ(hashtable_size(env, table), 1);
  EXPECT_EQ(hashtable_bytesUsed(env, table), bytes);
  EXPECT_EQ(chainOf(env, table, kHash), std::vector<Pinnable*>{entry});
  drop(again);
}

TEST_F(TableInsert, InsertUnderAHeldLockLeavesItHeld) {
  Table table(env, newTable());
  DefaultEntry* entry = entryOf({1});
  DefaultEntry* again = entryOf({1});
  {
    const SetLock lock(table, kHash);
    EXPECT_EQ(insert(table, entry, kBufferFormat, false), entry);
    EXPECT_TRUE(holdsLock(&table.set()->mutex));
    EXPECT_EQ(insert(table, again, kBufferFormat, false), nullptr);
    EXPECT_TRUE(holdsLock(&table.set()->mutex));
  }
  drop(entry, JNI_INSERTED_PIN);
  drop(entry);
  drop(again);
}

TEST_F(TableInsert, NumberKeysOfAnyWidthAreDuplicates) {
  Table table(env, newTable());
  insertOwned(env, table, entryOf(numberBytes(int32_t{7}), kHash, DESERIALIZED_TYPE_JINT),
              OBJECT_TYPE_JINT);
  const std::tuple<int32_t, Bytes, int> sevens[] = {
      {OBJECT_TYPE_JBYTE, numberBytes(int8_t{7}), 0},
      {OBJECT_TYPE_JSHORT, numberBytes(int16_t{7}), 0},
      {OBJECT_TYPE_JINT, numberBytes(int32_t{7}), 0},
      {OBJECT_TYPE_JLONG, numberBytes(int64_t{7}), 0},
      {OBJECT_TYPE_JFLOAT, numberBytes(7.0F), 0},
      {OBJECT_TYPE_JDOUBLE, numberBytes(7.0), 0},
      {OBJECT_TYPE_JDOUBLE, numberBytes(7.5), 1},
  };
  for (const auto& [type, bytes, isNew] : sevens) {
    DefaultEntry* entry = entryOf(bytes, kHash, static_cast<uint8_t>(type));
    EXPECT_EQ(insertOwned(env, table, entry, type) != nullptr, isNew == 1) << type;
  }
  EXPECT_EQ(checkTable(env, table), 2);
}

TEST_F(TableInsert, StringKeysInBuffersCompareBitwise) {
  Table table(env, newTable());
  const auto put = [&](std::u16string_view text) {
    return insertOwned(env, table, entryOf(stringBytes(text), kHash, DESERIALIZED_TYPE_JSTRING),
                       OBJECT_TYPE_JSTRING) != nullptr;
  };
  EXPECT_TRUE(put(u"ab"));
  EXPECT_FALSE(put(u"ab"));
  EXPECT_TRUE(put(u"ac"));
  EXPECT_TRUE(put(u""));
  EXPECT_FALSE(put(u""));
}

TEST_F(TableInsert, EmptyAndLongestKeys) {
  Table table(env, newTable());
  EXPECT_NE(add(table, {}, kHash), nullptr);
  EXPECT_NE(add(table, Bytes(65535, 0xab), kHash), nullptr);
  EXPECT_EQ(insertOwned(env, table, entryOf({})), nullptr);
  EXPECT_EQ(insertOwned(env, table, entryOf(Bytes(65535, 0xab))), nullptr);
  Bytes almost(65535, 0xab);
  almost.back() = 0xac;
  EXPECT_NE(add(table, almost, kHash), nullptr);
  EXPECT_EQ(checkTable(env, table), 3);
}

TEST_F(TableInsert, ByteArrayKeysCompareBitwise) {
  Table table(env, newTable());
  jbyteArray key = jni.newByteArray({1, 2});
  for (const bool first : {true, false}) {
    DefaultEntry* entry = entryOf({1, 2});
    Pinnable* result = hashtable_insertAndPin(env, jni.newMapObject(), table, &key,
                                              OBJECT_TYPE_JBYTE_ARRAY, entry, &inserted, true);
    EXPECT_EQ(result, first ? entry : nullptr);
    EXPECT_EQ(inserted, first ? 1 : 0);
    if (first) drop(entry, JNI_INSERTED_PIN);
    drop(entry);
  }
}

TEST_F(TableInsert, ByteArrayKeyOfAJavaTypeAsksJava) {
  Table table(env, newTable());
  jobject map = jni.newMapObject();
  jbyteArray key = jni.newByteArray({1, 2});
  DefaultEntry* present = add(table, {9, 9}, kHash, DESERIALIZED_TYPE_OTHER);
  int asked = 0;
  bool equal = true;
  DefaultEntry* entry = entryOf({1, 2}, kHash, DESERIALIZED_TYPE_OTHER);
  jni.onDeserialize([&](jobject buffer) {
    EXPECT_EQ(jni.bufferAddress(buffer), bufferData(entry->key));
    EXPECT_EQ(jni.bufferCapacity(buffer), 2);
    return jni.newObject();
  });
  jni.onCompare([&](jobject, jobject) {
    ++asked;
    return equal;
  });
  EXPECT_EQ(hashtable_insertAndPin(env, map, table, &key, OBJECT_TYPE_JBYTE_ARRAY, entry, &inserted,
                                   true),
            nullptr);
  EXPECT_EQ(inserted, 0);
  EXPECT_EQ(asked, 1);
  equal = false;
  EXPECT_EQ(hashtable_insertAndPin(env, map, table, &key, OBJECT_TYPE_JBYTE_ARRAY, entry, &inserted,
                                   true),
            entry);
  EXPECT_EQ(inserted, 1);
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(jni.liveLocals(), 0U);
  EXPECT_EQ(present->pins, 1);
  drop(entry, JNI_INSERTED_PIN);
  drop(entry);
}

TEST_F(TableInsert, ByteArrayKeyOfAJavaTypeWithoutABufferIsRefused) {
  Table table(env, newTable());
  jbyteArray key = jni.newByteArray({1});
  DefaultEntry* entry = entryOf({1}, kHash, DESERIALIZED_TYPE_OTHER);
  const std::optional<Thrown> outcomes[] = {std::nullopt, Thrown{kOutOfMemory, "no buffer"}};
  for (const std::optional<Thrown>& thrown : outcomes) {
    for (const bool lock : {true, false}) {
      if (!lock) {
        EXPECT_EQ(lockBucketSet(table.set()), 0);
      }
      jni.failCall("NewDirectByteBuffer", 1, thrown);
      inserted = -1;
      EXPECT_EQ(hashtable_insertAndPin(env, jni.newMapObject(), table, &key,
                                       OBJECT_TYPE_JBYTE_ARRAY, entry, &inserted, lock),
                nullptr);
      EXPECT_EQ(inserted, 0);
      EXPECT_EQ(jni.takePending(), thrown);
      EXPECT_EQ(heldLockCount(), lock ? 0 : 1);
      if (!lock) {
        EXPECT_EQ(unlockBucketSet(table.set()), 0);
      }
      EXPECT_EQ(entry->pins, 1);
    }
  }
  EXPECT_EQ(checkTable(env, table), 0);
  drop(entry);
}

TEST_F(TableInsert, KeyTypesWithoutASearchAreNeverDuplicates) {
  Table table(env, newTable());
  for (const int32_t type :
       {OBJECT_TYPE_JBOOLEAN + 0, OBJECT_TYPE_JCHAR + 0, OBJECT_TYPE_VALUEHEADER + 0, 999}) {
    for (int twice = 0; twice < 2; ++twice) {
      DefaultEntry* entry = entryOf({1}, kHash, DESERIALIZED_TYPE_JBOOLEAN);
      setLevels(kDebugLevel);
      EXPECT_EQ(insert(table, entry, type), entry);
      EXPECT_EQ(inserted, 1);
      EXPECT_EQ(trace().at(2), "debug hashtable_insertAndPin: unknown keyType passed into method");
      setLevels(0);
      drop(entry, JNI_INSERTED_PIN);
      drop(entry);
    }
  }
  EXPECT_EQ(checkTable(env, table), 8);
}

TEST_F(TableInsert, InsertTrace) {
  Table table(env, newTable());
  nameTable(table);
  DefaultEntry* first = entryOf({1});
  DefaultEntry* second = entryOf({2});
  nameEntry(first, "1");
  nameEntry(second, "2");
  const std::string size = std::to_string(sizeofDefaultEntry(env, first));
  const int callersKey = 0;
  names.name(&callersKey, "{vpKey}");

  setLevels(kDebugLevel | kEventLevel | kEntryLevel);
  EXPECT_EQ(hashtable_insertAndPin(env, nullptr, table, &callersKey, kBufferFormat, first,
                                   &inserted, true),
            first);
  expectTrace(
      trace(),
      {
          "debug hashtable_insertAndPin: hashed 7 to BucketSet={set}. map={map}, keyObj={vpKey}",
          "debug hashtable_insertAndPin: start search. map={map} keyObj={vpKey} entry={e1} "
          "entry->key={k1} entry->value={v1} entry->hash=*",
          "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=7",
          "entry search_memcmp:  map={map}, key={k1}, currentKeyFormat=11,hashCode=7",
          "debug search_memcmp: no entries in bucket. map={map}, key={k1}, hashCode=7",
          "debug pin: enter pin: header={e1}, reason=BUCKET_FIRST_PIN",
          "debug pin: exit pin: header={e1}, pins=2",
          "debug hashtable_insertAndPin: incremented bucketSize entrySize(entry)=" + size,
          "debug hashtable_insertAndPin: inserted. map={map}, key=*, hashCode=7, "
          "bucket={bucket}, bucketSet size=1, entry={e1}",
          "debug pin: enter pin: header={e1}, reason=JNI_INSERTED_PIN",
          "debug pin: exit pin: header={e1}, pins=3",
      });

  // Into a bucket that is not empty: the first entry is labelled anew.
  jni.clearRecords();
  EXPECT_EQ(hashtable_insertAndPin(env, nullptr, table, &callersKey, kBufferFormat, second,
                                   &inserted, true),
            second);
  expectTrace(
      trace(),
      {
          "debug hashtable_insertAndPin: hashed 7 to BucketSet={set}. map={map}, keyObj={vpKey}",
          "debug hashtable_insertAndPin: start search. map={map} keyObj={vpKey} entry={e2} "
          "entry->key={k2} entry->value={v2} entry->hash=*",
          "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=7",
          "entry search_memcmp:  map={map}, key={k2}, currentKeyFormat=11,hashCode=7",
          "debug search_memcmp: bucketSet={set} bucket={bucket} firstEntry={e1}",
          "debug keycmp: raw. sizes: 1 , 1",
          "debug keycmp: memcmp result: *",
          "exit search_memcmp: entry=(nil)",
          "debug pin: enter pin: header={e2}, reason=BUCKET_FIRST_PIN",
          "debug pin: exit pin: header={e2}, pins=2",
          "debug pin: enter pin: header={e1}, reason=BUCKET_NEXT_PIN",
          "debug pin: exit pin: header={e1}, pins=4",
          "debug unpinEntry: >entry",
          "debug unpin: enter unpin: header={e1}, reason=BUCKET_FIRST_PIN",
          "debug unpin: exit unpin: header={e1}, pins=3",
          "event unpinEntry: p={e1} pins=3 reason=BUCKET_FIRST_PIN",
          "debug unpinEntry: <exit currentRefCount=3",
          "debug hashtable_insertAndPin: incremented bucketSize entrySize(entry)=" + size,
          "debug hashtable_insertAndPin: inserted. map={map}, key=*, hashCode=7, "
          "bucket={bucket}, bucketSet size=2, entry={e2}",
          "debug pin: enter pin: header={e2}, reason=JNI_INSERTED_PIN",
          "debug pin: exit pin: header={e2}, pins=3",
      });

  // The same key once more.
  jni.clearRecords();
  EXPECT_EQ(insert(table, second), nullptr);
  EXPECT_EQ(trace().back().substr(0, 79),
            "debug hashtable_insertAndPin: entry already exist in this bucket. map={map}, ke");
  setLevels(0);
  for (DefaultEntry* entry : {first, second}) {
    drop(entry, JNI_INSERTED_PIN);
    drop(entry);
  }
}

TEST_F(TableInsert, RelabelsOnlyUnderDebug) {
  Table table(env, hashtable::newTable(env, {}, recordingUnpin));
  DefaultEntry* first = add(table, {1}, kHash);
  DefaultEntry* second = add(table, {2}, kHash);
  DefaultEntry* third = add(table, {3}, kHash);
  nameEntry(first, "1");
  nameEntry(second, "2");
  nameEntry(third, "3");
  EXPECT_THAT(unpinCalls, IsEmpty());

  setLevels(kDebugLevel);
  setThatMustBeHeld = &table.set()->mutex;
  DefaultEntry* fourth = entryOf({4});
  nameEntry(fourth, "4");
  jni.clearRecords();
  EXPECT_EQ(insert(table, fourth), fourth);
  EXPECT_THAT(pins(), ElementsAre("+BUCKET_FIRST_PIN {e4}", "+BUCKET_NEXT_PIN {e3}",
                                  "-BUCKET_FIRST_PIN {e3}", "+JNI_INSERTED_PIN {e4}"));
  EXPECT_THAT(unpinCalls, ElementsAre(std::pair<Pinnable*, uint32_t>(third, BUCKET_FIRST_PIN)));
  EXPECT_EQ(third->pins, 1);

  unpinCalls.clear();
  jni.clearRecords();
  EXPECT_EQ(remove(table, {4}), fourth);
  std::vector<std::string> moves = pins();
  EXPECT_THAT(moves, ElementsAre("+JNI_REMOVED_PIN {e4}", "-BUCKET_FIRST_PIN {e4}",
                                 "+BUCKET_FIRST_PIN {e3}", "-BUCKET_NEXT_PIN {e3}"));
  EXPECT_THAT(unpinCalls, ElementsAre(std::pair<Pinnable*, uint32_t>(fourth, BUCKET_FIRST_PIN),
                                      std::pair<Pinnable*, uint32_t>(third, BUCKET_NEXT_PIN)));
  EXPECT_EQ(third->pins, 1);
  setThatMustBeHeld = nullptr;
  setLevels(0);
  drop(fourth, JNI_REMOVED_PIN);
  drop(fourth, JNI_INSERTED_PIN);
  drop(fourth);
  EXPECT_EQ(checkTable(env, table), 3);
}

TEST_F(TableInsert, InsertLockFailureChangesNothing) {
  Table table(env, newTable());
  DefaultEntry* entry = entryOf({1});
  for (const jint level : {kErrorLevel, jint{0}}) {
    setLevels(level);
    const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
    EXPECT_EQ(insert(table, entry), nullptr);
    EXPECT_TRUE(failure.fired());
    EXPECT_EQ(inserted, -1) << "the flag is left alone";
    EXPECT_EQ(trace(), level == 0 ? std::vector<std::string>{}
                                  : std::vector<std::string>{lockErrorLine("om4")});
    EXPECT_EQ(jni.pending(), std::nullopt);
    EXPECT_EQ(entry->pins, 1);
    EXPECT_EQ(heldLockCount(), 0);
  }
  drop(entry);
  EXPECT_EQ(checkTable(env, table), 0);
}

// --- Update -----------------------------------------------------------------------------

using TableUpdate = TableWrite;

TEST_F(TableUpdate, OldValueIsNotFreed) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* old = entry->value;
  ByteBufferHeader* next = newBuffer({4, 5, 6});
  nameEntry(entry, "1");
  names.name(next, "{next}");
  setLevels(kEventLevel);
  EXPECT_EQ(hashtable_update(env, nullptr, table, entry, next, true), entry);
  EXPECT_THAT(pins(), ElementsAre(std::string("-") + kValuePin + " {v1}",
                                  std::string("+") + kValuePin + " {next}"));
  setLevels(0);
  EXPECT_EQ(entry->value, next);
  EXPECT_EQ(entry->pins, 1) << "no pin for the caller";
  EXPECT_EQ(next->pins, 1);
  EXPECT_EQ(old->pins, 0) << "the old value is not freed, even with its last pin gone";
  EXPECT_EQ(heldLockCount(), 0);
  freeByteBufferData(env, old);
  EXPECT_EQ(checkTable(env, table), 1);
}

TEST_F(TableUpdate, UpdateOfAnEntryWithoutAValue) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  freeByteBufferData(env, entry->value);
  entry->value = nullptr;
  ByteBufferHeader* next = newBuffer({4});
  EXPECT_EQ(hashtable_update(env, nullptr, table, entry, next, true), entry);
  EXPECT_EQ(entry->value, next);
  EXPECT_EQ(next->pins, 1);
}

TEST_F(TableUpdate, UpdateAccountsTheDifferenceOfSizes) {
  Table table(env, hashtable::newTable(env, {}, nullptr, wholeSize));
  DefaultEntry* entry = add(table, {1}, kHash);
  const int64_t before = hashtable_bytesUsed(env, table);
  EXPECT_EQ(before, static_cast<int64_t>(wholeSize(env, entry)));
  ByteBufferHeader* old = entry->value;
  ByteBufferHeader* large = newBuffer(Bytes(5000));
  const int64_t growth =
      static_cast<int64_t>(getUsableSize(large)) - static_cast<int64_t>(getUsableSize(old));
  EXPECT_GT(growth, 0);
  hashtable_update(env, nullptr, table, entry, large, true);
  EXPECT_EQ(hashtable_bytesUsed(env, table), before + growth);
  DefaultEntry update = searchEntry(newKey({1}), kHash, old);
  ByteBufferHeader* previous = nullptr;
  EXPECT_EQ(
      hashtable_updateAndPin(env, nullptr, table, nullptr, kBufferFormat, &update, &previous, true),
      entry);
  EXPECT_EQ(hashtable_bytesUsed(env, table), before);
  EXPECT_EQ(previous, large);
  EXPECT_EQ(unpinToFree(env, previous, MAPENTRY_VALUE_PIN), 0);
  unpin(env, entry, JNI_UPDATED_PIN);
}

TEST_F(TableUpdate, UpdateOfNullEntry) {
  Table table(env, newTable());
  ByteBufferHeader* value = newKey({1});
  for (const jint levels : {jint{0}, kDebugLevel, kEntryLevel, kDebugLevel | kEntryLevel}) {
    setLevels(levels);
    EXPECT_EQ(hashtable_update(env, nullptr, table, nullptr, value, true), nullptr);
    if (levels == (kDebugLevel | kEntryLevel)) {
      EXPECT_THAT(trace(), ElementsAre("exit hashtable_update: requested update for NULL entry"));
    } else {
      EXPECT_THAT(trace(), IsEmpty());
    }
  }
  EXPECT_EQ(value->pins, 0);
  EXPECT_EQ(jni.pending(), std::nullopt);
  setLevels(0);
}

TEST_F(TableUpdate, UpdateTraceNeedsDebugAndEntryLevel) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* old = entry->value;
  ByteBufferHeader* next = newBuffer({4});
  nameTable(table);
  nameEntry(entry, "1");
  names.name(next, "{next}");
  pin(env, old, TRANSPORT_PIN);
  setLevels(kDebugLevel | kEntryLevel);
  hashtable_update(env, nullptr, table, entry, next, true);
  expectTrace(trace(),
              {
                  "entry hashtable_update: map={map} updateEntry={e1} oldValue={v1}",
                  std::string("debug unpin: enter unpin: header={v1}, reason=") + kValuePin,
                  "debug unpin: exit unpin: header={v1}, pins=1",
                  std::string("debug pin: enter pin: header={next}, reason=") + kValuePin,
                  "debug pin: exit pin: header={next}, pins=1",
                  "exit hashtable_update: map={map} updatedEntry={e1} newValue={next}",
              });
  setLevels(kEntryLevel);
  hashtable_update(env, nullptr, table, entry, old, true);
  EXPECT_THAT(trace(), IsEmpty());
  setLevels(0);
  unpin(env, old, TRANSPORT_PIN);
  freeByteBufferData(env, next);
}

TEST_F(TableUpdate, UpdateLockFailureIsAnException) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* old = entry->value;
  ByteBufferHeader* next = newKey({4});
  DefaultEntry update = searchEntry(newKey({1}), kHash, next);
  for (const jint level : {kErrorLevel, jint{0}}) {
    for (const bool andPin : {false, true}) {
      setLevels(level);
      const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
      ByteBufferHeader* previous = nullptr;
      if (andPin) {
        EXPECT_EQ(hashtable_updateAndPin(env, nullptr, table, nullptr, kBufferFormat, &update,
                                         &previous, true),
                  nullptr);
      } else {
        EXPECT_EQ(hashtable_update(env, nullptr, table, entry, next, true), nullptr);
      }
      EXPECT_TRUE(failure.fired());
      EXPECT_EQ(trace(), level == 0 ? std::vector<std::string>{}
                                    : std::vector<std::string>{lockErrorLine("om3")});
      const std::string function = andPin ? "hashtable_updateAndPin" : "hashtable_update";
      EXPECT_EQ(jni.takePending(),
                (Thrown{kIllegalState,
                        "[" + function + "] Error acquiring BucketSet lock in Nimbra library."}));
      EXPECT_EQ(previous, nullptr);
      EXPECT_EQ(entry->value, old);
      EXPECT_EQ(old->pins, 1);
      EXPECT_EQ(next->pins, 0);
      EXPECT_EQ(entry->pins, 1);
      EXPECT_EQ(heldLockCount(), 0);
    }
  }
}

TEST_F(TableUpdate, UpdateAndPinPassesTheOldValuesPin) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* old = entry->value;
  ByteBufferHeader* next = newBuffer({4});
  nameEntry(entry, "1");
  names.name(next, "{next}");
  DefaultEntry update = searchEntry(newKey({1}), kHash, next);
  ByteBufferHeader* previous = nullptr;
  setLevels(kEventLevel);
  EXPECT_EQ(
      hashtable_updateAndPin(env, nullptr, table, nullptr, kBufferFormat, &update, &previous, true),
      entry);
  EXPECT_THAT(pins(),
              ElementsAre("+JNI_UPDATED_PIN {e1}", std::string("+") + kValuePin + " {next}"));
  setLevels(0);
  EXPECT_EQ(previous, old);
  EXPECT_EQ(old->pins, 1);
  EXPECT_EQ(next->pins, 1);
  EXPECT_EQ(entry->pins, 2);
  EXPECT_EQ(heldLockCount(), 0);
  EXPECT_EQ(unpinToFree(env, old, MAPENTRY_VALUE_PIN), 0);
  unpin(env, entry, JNI_UPDATED_PIN);
  EXPECT_EQ(checkTable(env, table), 1);
}

TEST_F(TableUpdate, UpdateAndPinWithoutAnOutArgumentDropsTheOldValuesPin) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* old = entry->value;
  pin(env, old, TRANSPORT_PIN);
  ByteBufferHeader* next = newBuffer({4});
  nameEntry(entry, "1");
  names.name(next, "{next}");
  DefaultEntry update = searchEntry(newKey({1}), kHash, next);
  setLevels(kEventLevel);
  {
    const SetLock lock(table, kHash);
    EXPECT_EQ(hashtable_updateAndPin(env, nullptr, table, nullptr, kBufferFormat, &update, nullptr,
                                     false),
              entry);
    EXPECT_TRUE(holdsLock(&table.set()->mutex));
  }
  EXPECT_THAT(pins(), ElementsAre("+JNI_UPDATED_PIN {e1}", std::string("-") + kValuePin + " {v1}",
                                  std::string("+") + kValuePin + " {next}"));
  setLevels(0);
  EXPECT_EQ(old->pins, 1);
  EXPECT_EQ(unpinToFree(env, old, TRANSPORT_PIN), 0);
  unpin(env, entry, JNI_UPDATED_PIN);
}

TEST_F(TableUpdate, UpdateAndPinOfAMissingKey) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* next = newKey({4});
  DefaultEntry update = searchEntry(newKey({2}), kHash, next);
  ByteBufferHeader* previous = nullptr;
  names.name(&update, "{update}").name(next, "{next}");
  setLevels(kDebugLevel);
  EXPECT_EQ(
      hashtable_updateAndPin(env, nullptr, table, nullptr, kBufferFormat, &update, &previous, true),
      nullptr);
  EXPECT_THAT(pins(), IsEmpty());
  expectTrace({trace().back()},
              {"debug hashtable_updateAndPin: no entry for the specified key. entry=*, "
               "new_value={next}"});
  setLevels(0);
  EXPECT_EQ(previous, nullptr);
  EXPECT_EQ(next->pins, 0);
  EXPECT_EQ(entry->pins, 1);
  EXPECT_EQ(heldLockCount(), 0);
}

TEST_F(TableUpdate, UpdateAndPinTrace) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  ByteBufferHeader* next = newBuffer({4});
  DefaultEntry update = searchEntry(newKey({1}), kHash, next);
  ByteBufferHeader* previous = nullptr;
  nameTable(table);
  nameEntry(entry, "1");
  names.name(&update, "{update}").name(update.key, "{key}").name(next, "{next}");
  setLevels(kDebugLevel | kEntryLevel);
  hashtable_updateAndPin(env, nullptr, table, nullptr, kBufferFormat, &update, &previous, true);
  expectTrace(
      trace(),
      {
          "debug hashtable_updateAndPin: start update map={map}, vpKey=(nil), "
          "updatedValue={next} searchEntry={update}",
          "debug hashtable_getAndPin: start search. map={map}, vpKey=(nil), keyObjFormat=40, "
          "searchEntry={update} searchEntry->key={key} hashCode=7",
          "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=7",
          "entry search_memcmp:  map={map}, key={key}, currentKeyFormat=11,hashCode=7",
          "debug search_memcmp: bucketSet={set} bucket={bucket} firstEntry={e1}",
          "debug keycmp: raw. sizes: 1 , 1",
          "debug keycmp: memcmp result: 0",
          "exit search_memcmp: entry={e1}",
          "debug pin: enter pin: header={e1}, reason=JNI_UPDATED_PIN",
          "debug pin: exit pin: header={e1}, pins=2",
          "debug hashtable_getAndPin: hit. map={map} key=* hashCode=7 entry={e1} "
          "entry->value={v1} entry->key={k1}",
          std::string("debug pin: enter pin: header={next}, reason=") + kValuePin,
          "debug pin: exit pin: header={next}, pins=1",
          "debug hashtable_updateAndPin: updated entry={e1}, prev_value={v1}, new_value={next}",
      });
  setLevels(0);
  unpinToFree(env, previous, MAPENTRY_VALUE_PIN);
  unpin(env, entry, JNI_UPDATED_PIN);
}

// --- Remove -----------------------------------------------------------------------------

using TableRemove = TableWrite;

TEST_F(TableRemove, RemoveFirstMiddleAndLastOfAChain) {
  for (uint8_t victim = 1; victim <= 3; ++victim) {
    SCOPED_TRACE(int{victim});
    Table table(env, hashtable::newTable(env, {}, recordingUnpin));
    std::vector<Pinnable*> chain = {add(table, {3}, kHash), add(table, {2}, kHash),
                                    add(table, {1}, kHash)};
    std::reverse(chain.begin(), chain.end());
    ASSERT_EQ(chainOf(env, table, kHash), chain);
    auto* entry = static_cast<DefaultEntry*>(chain[victim - 1]);
    DefaultEntry* const itsNext = entry->next;
    nameEntry(entry, "1");
    unpinCalls.clear();
    setThatMustBeHeld = &table.set()->mutex;
    setLevels(kEventLevel);
    EXPECT_EQ(remove(table, {victim}), entry);
    setThatMustBeHeld = nullptr;
    const uint32_t reason = victim == 1 ? BUCKET_FIRST_PIN : BUCKET_NEXT_PIN;
    EXPECT_THAT(pins(), ElementsAre("+JNI_REMOVED_PIN {e1}",
                                    std::string("-") + getReason(reason) + " {e1}"));
    EXPECT_THAT(unpinCalls, ElementsAre(std::pair<Pinnable*, uint32_t>(entry, reason)));
    setLevels(0);
    EXPECT_EQ(entry->pins, 1);
    EXPECT_EQ(entry->next, itsNext) << "its own link stays";
    EXPECT_EQ(heldLockCount(), 0);
    chain.erase(chain.begin() + victim - 1);
    EXPECT_EQ(chainOf(env, table, kHash), chain);
    EXPECT_EQ(checkTable(env, table), 2);
    EXPECT_EQ(remove(table, {victim}), nullptr) << "only once";
    drop(entry, JNI_REMOVED_PIN);
  }
}

TEST_F(TableRemove, RemovedEntryIsFreedByItsCaller) {
  Table table(env, newTable());
  add(table, {1}, kHash);
  const int64_t blocks = lockRead(&allocatingOffHeapBlocks);
  DefaultEntry search = searchEntry(newKey({1}), kHash);
  Pinnable* entry =
      hashtable_removeAndPin(env, nullptr, table, nullptr, kBufferFormat, &search, true);
  EXPECT_EQ(lockRead(&allocatingOffHeapBlocks), blocks + 1) << "the search key";
  EXPECT_EQ(unpinEntry(env, entry, JNI_REMOVED_PIN), 0U);
  EXPECT_EQ(lockRead(&allocatingOffHeapBlocks), blocks - 2);
  EXPECT_EQ(checkTable(env, table), 0);
}

TEST_F(TableRemove, RemoveUnderAHeldLockLeavesItHeld) {
  Table table(env, newTable());
  add(table, {1}, kHash);
  Pinnable* entry = nullptr;
  {
    const SetLock lock(table, kHash);
    entry = remove(table, {1}, kHash, false);
    EXPECT_TRUE(holdsLock(&table.set()->mutex));
    EXPECT_EQ(remove(table, {1}, kHash, false), nullptr);
    EXPECT_TRUE(holdsLock(&table.set()->mutex));
  }
  unpinEntry(env, entry, JNI_REMOVED_PIN);
}

TEST_F(TableRemove, RemoveTrace) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, 0x80000007U);
  DefaultEntry search = searchEntry(newKey({1}), 0x80000007U);
  nameTable(table);
  nameEntry(entry, "1");
  names.name(&search, "{search}").name(search.key, "{key}");
  setLevels(kDebugLevel | kEventLevel | kEntryLevel);
  for (const bool present : {true, false}) {
    jni.clearRecords();
    EXPECT_EQ(hashtable_removeAndPin(env, nullptr, table, nullptr, kBufferFormat, &search, true),
              present ? entry : nullptr);
    std::vector<std::string> expected = {
        "debug hashtable_removeAndPin: start search. map={map}, vpKey=(nil) entry={search} "
        "entry->key={key} entry->hash=2147483655",
        "debug hashtable_removeAndPin: specified the BucketSet. map={map}, key=*, "
        "hashCode=-2147483641, bucket=*",
        "debug getMapEntry_bucketPointers: map={map}, key=*, hashCode=-2147483641",
        "entry search_memcmp:  map={map}, key={key}, currentKeyFormat=11,hashCode=-2147483641",
    };
    const std::vector<std::string> hit = {
        "debug search_memcmp: bucketSet={set} bucket={bucket} firstEntry={e1}",
        "debug keycmp: raw. sizes: 1 , 1",
        "debug keycmp: memcmp result: 0",
        "exit search_memcmp: entry={e1}",
        "debug pin: enter pin: header={e1}, reason=JNI_REMOVED_PIN",
        "debug pin: exit pin: header={e1}, pins=2",
        "debug unpinEntry: >entry",
        "debug unpin: enter unpin: header={e1}, reason=BUCKET_FIRST_PIN",
        "debug unpin: exit unpin: header={e1}, pins=1",
        "event unpinEntry: p={e1} pins=1 reason=BUCKET_FIRST_PIN",
        "debug unpinEntry: <exit currentRefCount=1",
        "debug hashtable_removeAndPin: removed an entry. map={map}, key=*, "
        "hashCode=-2147483641, bucket={bucket}, bucketSet size=0, entry={e1}",
    };
    const std::vector<std::string> miss = {
        "debug search_memcmp: no entries in bucket. map={map}, key={key}, hashCode=-2147483641",
        "debug hashtable_removeAndPin: no entry in this bucket. map={map}, key=*, "
        "hashCode=-2147483641",
    };
    expected.insert(expected.end(), present ? hit.begin() : miss.begin(),
                    present ? hit.end() : miss.end());
    expectTrace(trace(), expected);
  }
  setLevels(0);
  drop(entry, JNI_REMOVED_PIN);
}

TEST_F(TableRemove, RemoveLockFailureChangesNothing) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, kHash);
  for (const jint level : {kErrorLevel, jint{0}}) {
    setLevels(level);
    {
      const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
      EXPECT_EQ(remove(table, {1}), nullptr);
      EXPECT_TRUE(failure.fired());
    }
    EXPECT_EQ(trace(), level == 0 ? std::vector<std::string>{}
                                  : std::vector<std::string>{lockErrorLine("om5")});
    EXPECT_EQ(jni.pending(), std::nullopt);
    EXPECT_EQ(entry->pins, 1);
    EXPECT_EQ(checkTable(env, table), 1);
  }
  setLevels(0);
}

}  // namespace
}  // namespace nimbra::test::hashtable
