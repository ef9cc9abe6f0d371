// The complete trace of insert, update and remove at every level: which records, in which order,
// and with which pins. Java's tooling reads these sequences, so every one is compared as a whole.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

class MapTrace : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    deleteMap(map);
    // One bucket that never grows: chains are as long as the tests make them.
    setLevels(kAllLevels);
    map = makeMap(1, 1000.0F);
    setLevels(0);
    set = getBucketSetByIndex(map->map, 0);
    queue = map->revisionQueue[0];
  }
  void TearDown() override {
    setLevels(0);
    for (ByteBufferHeader* held : held_) drop(held);
    MapTest::TearDown();
  }

  // A buffer that the test holds to the end.
  ByteBufferHeader* hold(std::string_view bytes) {
    held_.push_back(buffer(bytes));
    return held_.back();
  }

  LuOffHeapValue* callInsert(ByteBufferHeader* key, int32_t hash, ByteBufferHeader* value,
                             uint16_t owner, int64_t revision) {
    const jobject javaKey = javaBuffer(key);
    return insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hash, true,
                        value, owner, revision);
  }
  LuOffHeapValue* callUpdate(ByteBufferHeader* key, int32_t hash, ByteBufferHeader* value,
                             uint16_t owner, int64_t revision) {
    const jobject javaKey = javaBuffer(key);
    return updateAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hash, true,
                        value, owner, revision);
  }
  LuOffHeapValue* callRemove(ByteBufferHeader* key, int32_t hash) {
    const jobject javaKey = javaBuffer(key);
    return removeAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hash, true);
  }

  // An entry that only the map holds. Its chain pin is labelled as debug tracing labels it.
  LuOffHeapValue* present(std::string_view key, int32_t hash, int64_t revision,
                          uint16_t owner = 0) {
    setLevels(kDebugLevel);
    LuOffHeapValue* value = callInsert(hold(key), hash, hold("value"), owner, revision);
    setLevels(0);
    EXPECT_NE(value, nullptr);
    unpinValue(value, JNI_INSERTED_PIN);
    return value;
  }

  // ---- Steps of the sequences --------------------------------------------------------------

  void insertBegins(ByteBufferHeader* key, int32_t hash, ByteBufferHeader* value, int owner,
                    int64_t revision) {
    script.entry("insertAndPin",
                 "luMap=%p key=%p hashCode=%d value=%p revisionOwner=%d revisionNumber=%lu "
                 "withHashCode=%s",
                 address(map), address(key), hash, address(value), owner,
                 static_cast<unsigned long>(revision), "true");
  }

  void recordIsMade(const void* record, const ByteBufferHeader* key, int64_t keyPins, int32_t hash,
                    const ByteBufferHeader* value, int64_t valuePins, int owner, int revision) {
    const char* function = "allocateLuOffHeapMapValue";
    script.debug(function,
                 "key=%p, hashCode=%d, isHashCode=%d, value=%p, revisionOwner=%d,"
                 "revisionNumber=%d",
                 address(key), hash, 1, address(value), owner, revision);
    script.allocates("LuOffHeapMapValue");
    script.pins(key, LUOFFHEAPMAPVALUE_KEY_PIN, keyPins);
    if (value != nullptr) script.pins(value, LUOFFHEAPMAPVALUE_VALUE_PIN, valuePins);
    script.pins(record, ALLOCATION_PIN, 1);
    script.debug(function, "luValue=%p luValue->key=%p luValue->value=%p luValue->flags=%d", record,
                 address(key), address(value), value == nullptr ? 3 : 7);
  }

  void insertReachesTheTable(const void* record, ByteBufferHeader* key, int32_t hash,
                             ByteBufferHeader* value, int owner, int revision) {
    script.debug("insertAndPin",
                 "insert the new LuOffHeapMap. key=%p, hashCode=%d, value=%p, newLuValue=%p "
                 "revOwner=%d, revNum=%d",
                 address(key), hash, address(value), record, owner, revision);
    const char* function = "hashtable_insertAndPin";
    script.debug(function, "hashed %d to BucketSet=%p. map=@, keyObj=@", hash, address(set));
    script.debug(function,
                 "start search. map=@ keyObj=@ entry=%p entry->key=%p entry->value=%p "
                 "entry->hash=%p",
                 record, address(key), address(value),
                 reinterpret_cast<void*>(static_cast<uintptr_t>(hash)));
  }

  void tableTakesTheEntry(LuOffHeapValue* record, int32_t hash, int size) {
    const char* function = "hashtable_insertAndPin";
    script.debug(function, "incremented bucketSize entrySize(entry)=%ld",
                 static_cast<long>(sizeofLuOffHeapMapValue(nullptr, record)));
    script.debug(function,
                 "inserted. map=@, key=@, hashCode=%d, bucket=@, bucketSet size=%d, "
                 "entry=%p",
                 hash, size, address(record));
  }

  void queueMoveBegins(ByteBufferHeader* key, int32_t hash, ByteBufferHeader* value,
                       LuOffHeapValue* record, LuOffHeapQueue* target) {
    for (const char* text :
         {"insert the revision queue. key=%p, hashCode=%d, value=%p, "
          "newLuValue=%p",
          "insert the new value. key=%p, hashCode=%d, value=%p, newLuValue=%p"}) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
      script.debug("insertAndPin", text, address(key), hash, address(value), address(record));
#pragma GCC diagnostic pop
    }
    const char* function = "updateRevisionQueue";
    script.debug(function,
                 "update the revision queues. luMap=%p numQueues=%d newLuValue=%p, "
                 "overriddenLuValue=%p",
                 address(map), 1, address(record), address(nullptr));
    script.debug(function,
                 "remove the previous value. oldQueue=%p newQueue=%p newLuValue=%p, "
                 "overriddenLuValue=%p",
                 address(nullptr), address(target), address(record), address(nullptr));
  }

  // What a queue looks like around an entry: its neighbours and their pins before the step.
  struct Neighbour {
    LuOffHeapValue* value = nullptr;
    int64_t pins = 0;
  };

  void appends(LuOffHeapQueue* target, LuOffHeapValue* self, int64_t pins, int revision,
               Neighbour before, Neighbour after, LuOffHeapValue* first, LuOffHeapValue* last) {
    const char* function = "appendToQueue";
    script.entry(function, "queue=%p, new entry=%p of type %s", address(target), address(self),
                 "LuValue");
    script.pins(self, NATIVE_TRANSIENT_GET_PIN, pins + 1);
    script.debug(function,
                 "RevisionNumber search result: my revisionNum=%d. node->next=%p node->prev=%p",
                 revision, address(after.value), address(before.value));
    if (after.value != nullptr) {
      script.debug(function, "  Next metadata: %d", static_cast<int>(after.value->revisionNumber));
    }
    if (before.value != nullptr) {
      script.debug(function, "  Prev metadata: %d", static_cast<int>(before.value->revisionNumber));
      script.pins(self, REVISION_QUEUE_NEXT_PIN, pins + 2);
      script.debug(function, "%p has new prev->%p", address(self), address(before.value));
    } else {
      script.pins(self, REVISION_QUEUE_FIRST_PIN, pins + 2);
      script.debug(function, "%p is now queue->first", address(self));
    }
    if (after.value == nullptr) {
      script.pins(self, REVISION_QUEUE_LAST_PIN, pins + 3);
      script.debug(function, "%p is now queue->last", address(self));
    } else {
      if (before.value == nullptr) {
        script.pins(after.value, REVISION_QUEUE_NEXT_PIN, after.pins + 1);
      }
      script.pins(self, REVISION_QUEUE_PREV_PIN, pins + 3);
      if (before.value == nullptr) {
        script.releasesValue(after.value, REVISION_QUEUE_FIRST_PIN, after.pins);
      }
      script.debug(function, "%p has new next->%p", address(self), address(after.value));
    }
    script.releasesValue(self, NATIVE_TRANSIENT_GET_PIN, pins + 2);
    script.exit(function,
                "queue=%p, new entry=%p, entry->prev=%p, entry->next=%p, queue->first=%p, "
                "queue->last=%p",
                address(target), address(self), address(before.value), address(after.value),
                address(first), address(last));
  }

  // `pins` are those of the entry before the removal, which it has to survive.
  void leaves(LuOffHeapQueue* source, LuOffHeapValue* self, int64_t pins, Neighbour before,
              Neighbour after, LuOffHeapValue* firstBefore, LuOffHeapValue* lastBefore,
              LuOffHeapValue* firstAfter, LuOffHeapValue* lastAfter) {
    const char* function = "removeFromQueue";
    script.entry(function,
                 "Queue=%p, queue->first=%p, queue->last=%p. Entry to Remove: entry=%p, "
                 "entry->next=%p, entry->prev=%p.",
                 address(source), address(firstBefore), address(lastBefore), address(self),
                 address(after.value), address(before.value));
    if (before.value != nullptr) {
      script.debug(function, "Entry had a previous");
      script.releasesValue(self, REVISION_QUEUE_NEXT_PIN, --pins);
      if (after.value == nullptr) {
        script.debug(function,
                     "Entry was the last in the queue. Assigning last pin to previous entry.");
        script.pins(before.value, REVISION_QUEUE_LAST_PIN, before.pins + 1);
        script.releasesValue(self, REVISION_QUEUE_LAST_PIN, --pins);
        script.releasesValue(before.value, REVISION_QUEUE_PREV_PIN, before.pins);
      }
    }
    if (after.value != nullptr) {
      script.debug(function, "Entry had a next");
      script.releasesValue(self, REVISION_QUEUE_PREV_PIN, --pins);
      if (before.value == nullptr) {
        script.debug(function,
                     "Entry was the first in the queue. Assigning first pin to next entry.");
        script.pins(after.value, REVISION_QUEUE_FIRST_PIN, after.pins + 1);
        script.releasesValue(self, REVISION_QUEUE_FIRST_PIN, --pins);
        script.releasesValue(after.value, REVISION_QUEUE_NEXT_PIN, after.pins);
      }
    }
    if (before.value == nullptr && after.value == nullptr) {
      script.debug(function, "Entry was the last in the queue, first and last point to it.");
      script.releasesValue(self, REVISION_QUEUE_FIRST_PIN, --pins);
      script.releasesValue(self, REVISION_QUEUE_LAST_PIN, --pins);
    }
    script.exit(function, "Queue=%p, first=%p, last=%p. Entry=%p, Did remove? %d.", address(source),
                address(firstAfter), address(lastAfter), address(self), 1);
  }

  void updateBegins(ByteBufferHeader* key, int32_t hash, ByteBufferHeader* value, int owner,
                    int64_t revision) {
    script.entry("updateAndPin",
                 "luMap=%p key=%p hashCode=%d value=%p revisionOwner=%d revisionNumber=%lu "
                 "withHashCode=%s",
                 address(map), address(key), hash, address(value), owner,
                 static_cast<unsigned long>(revision), "true");
    script.debug("hashtable_getAndPin",
                 "start search. map=@, vpKey=@, keyObjFormat=%d, searchEntry=@ "
                 "searchEntry->key=%p hashCode=%d",
                 OBJECT_TYPE_JBYTE_BUFFER, address(key), hash);
  }

  void updateFinds(LuOffHeapValue* found, int64_t pinsAfter, ByteBufferHeader* key, int32_t hash) {
    script.pins(found, JNI_UPDATED_PIN, pinsAfter);
    script.debug("hashtable_getAndPin",
                 "hit. map=@ key=%p hashCode=%d entry=%p entry->value=%p entry->key=%p",
                 address(key), hash, address(found), address(found->value), address(found->key));
  }

  void valueIsSwapped(LuOffHeapValue* entry, int64_t entryPins, ByteBufferHeader* oldValue,
                      int64_t oldPins, ByteBufferHeader* newValue, int64_t newPins,
                      ByteBufferHeader* key) {
    script.pins(oldValue, MAPENTRY_VALUE_PIN, oldPins + 1);
    script.entry("hashtable_update", "map=@ updateEntry=%p oldValue=%p", address(entry),
                 address(oldValue));
    script.unpins(oldValue, MAPENTRY_VALUE_PIN, oldPins);
    script.pins(newValue, MAPENTRY_VALUE_PIN, newPins + 1);
    script.exit("hashtable_update", "map=@ updatedEntry=%p newValue=%p", address(entry),
                address(newValue));
    script.releasesValue(entry, JNI_UPDATED_PIN, entryPins - 1);
    script.exit("updateAndPin", "updated LuValue=%p for key=%p", address(entry), address(key));
  }

  void removeBegins(ByteBufferHeader* key, int32_t hash) {
    script.debug("removeAndPin", "entry. LuMap=%p MapHeader=%p key=%p hashCode=%d", address(map),
                 address(map->map), address(key), hash);
    script.debug("removeAndPin",
                 "lock BucketSet. LuMap=%p MapHeader=%p key=%p hashCode=%d bucketSet=%p",
                 address(map), address(map->map), address(key), hash, address(set));
    script.debug("hashtable_removeAndPin",
                 "start search. map=@, vpKey=@ entry=@ entry->key=%p entry->hash=%u", address(key),
                 static_cast<uint32_t>(hash));
    script.debug("hashtable_removeAndPin",
                 "specified the BucketSet. map=@, key=@, hashCode=%d, "
                 "bucket=@",
                 hash);
  }

  void tableLosesTheEntry(LuOffHeapValue* entry, ByteBufferHeader* key, int32_t hash, int size) {
    script.debug("hashtable_removeAndPin",
                 "removed an entry. map=@, key=@, hashCode=%d, bucket=@, bucketSet size=%d, "
                 "entry=%p",
                 hash, size, address(entry));
    script.debug("removeAndPin",
                 "remove from the revision queue. key=%p, hashCode=%d, removedEntry=%p",
                 address(key), hash, address(entry));
  }

  static void* address(const volatile void* pointer) { return const_cast<void*>(pointer); }

  Script script;
  BucketSet* set = nullptr;
  LuOffHeapRevisionOrderQueue* queue = nullptr;

 private:
  std::vector<ByteBufferHeader*> held_;
};

// ---- Insert ------------------------------------------------------------------------------

TEST_F(MapTrace, InsertIntoAnEmptyMap) {
  ByteBufferHeader* key = hold("key");
  ByteBufferHeader* value = hold("value");
  setLevels(kAllLevels);
  LuOffHeapValue* made = callInsert(key, 101, value, 0, 5);
  ASSERT_NE(made, nullptr);

  insertBegins(key, 101, value, 0, 5);
  recordIsMade(made, key, 2, 101, value, 2, 0, 5);
  insertReachesTheTable(made, key, 101, value, 0, 5);
  script.findsEmptyBucket(key, 101);
  script.pins(made, BUCKET_FIRST_PIN, 2);
  tableTakesTheEntry(made, 101, 1);
  script.pins(made, JNI_INSERTED_PIN, 3);
  queueMoveBegins(key, 101, value, made, queue);
  appends(queue, made, 3, 5, {}, {}, made, made);
  script.debug("updateRevisionQueue", "unlocking newQueue=%p", address(queue));
  script.debug("insertAndPin", "return new value. newLuValue=%p", address(made));
  script.releasesValue(made, ALLOCATION_PIN, 4);
  script.expectIn(jni);

  setLevels(0);
  unpinValue(made, JNI_INSERTED_PIN);
  checkMap(env, map);
}

TEST_F(MapTrace, InsertThatGrowsTheBucketSet) {
  deleteMap(map);
  map = makeMap(1, 0.75F);
  set = getBucketSetByIndex(map->map, 0);
  queue = map->revisionQueue[0];
  const void* oldBuckets = set->buckets;
  ByteBufferHeader* key = hold("key");
  ByteBufferHeader* value = hold("value");
  setLevels(kAllLevels);
  LuOffHeapValue* made = callInsert(key, 101, value, 0, 5);
  ASSERT_NE(made, nullptr);

  insertBegins(key, 101, value, 0, 5);
  recordIsMade(made, key, 2, 101, value, 2, 0, 5);
  insertReachesTheTable(made, key, 101, value, 0, 5);
  script.findsEmptyBucket(key, 101);
  script.pins(made, BUCKET_FIRST_PIN, 2);
  const char* grow = "rehashMapEntriesIfNecessary";
  script.debug(grow, "start rehash. bucketSet=%p, threshold=%d", address(set), 1);
  script.allocates("Bucket[]");
  script.frees(oldBuckets);
  script.debug(grow,
               "finish rehash. bucketSet=%p, bucketCount=%d, oldThreshold=%d, "
               "newThreshold=%d",
               address(set), 2, 1, 1);
  tableTakesTheEntry(made, 101, 1);
  script.pins(made, JNI_INSERTED_PIN, 3);
  queueMoveBegins(key, 101, value, made, queue);
  appends(queue, made, 3, 5, {}, {}, made, made);
  script.debug("updateRevisionQueue", "unlocking newQueue=%p", address(queue));
  script.debug("insertAndPin", "return new value. newLuValue=%p", address(made));
  script.releasesValue(made, ALLOCATION_PIN, 4);
  script.expectIn(jni);

  setLevels(0);
  unpinValue(made, JNI_INSERTED_PIN);
  checkMap(env, map);
}

TEST_F(MapTrace, InsertOfASecondKey) {
  LuOffHeapValue* first = present("one", 101, 5);
  ByteBufferHeader* key = hold("two");
  ByteBufferHeader* value = hold("value");
  setLevels(kAllLevels);
  LuOffHeapValue* made = callInsert(key, 102, value, 0, 4);
  ASSERT_NE(made, nullptr);

  insertBegins(key, 102, value, 0, 4);
  recordIsMade(made, key, 2, 102, value, 2, 0, 4);
  insertReachesTheTable(made, key, 102, value, 0, 4);
  script.walksChain(set, key, 102, 3, {{first, 101, 3}}, nullptr);
  script.pins(made, BUCKET_FIRST_PIN, 2);
  script.pins(first, BUCKET_NEXT_PIN, 4);
  script.releasesValue(first, BUCKET_FIRST_PIN, 3);
  tableTakesTheEntry(made, 102, 2);
  script.pins(made, JNI_INSERTED_PIN, 3);
  queueMoveBegins(key, 102, value, made, queue);
  appends(queue, made, 3, 4, {}, {first, 3}, made, first);
  script.debug("updateRevisionQueue", "unlocking newQueue=%p", address(queue));
  script.debug("insertAndPin", "return new value. newLuValue=%p", address(made));
  script.releasesValue(made, ALLOCATION_PIN, 4);
  script.expectIn(jni);

  setLevels(0);
  unpinValue(made, JNI_INSERTED_PIN);
  checkMap(env, map);
}

TEST_F(MapTrace, InsertOfAKeyThatExists) {
  LuOffHeapValue* present1 = present("key", 101, 5);
  ByteBufferHeader* key = hold("key");
  ByteBufferHeader* value = hold("other");
  setLevels(kAllLevels);
  EXPECT_EQ(callInsert(key, 101, value, 0, 6), nullptr);
  // The refused record is gone; its address is in the trace.
  const std::string start = "newLuValue=";
  void* refused = nullptr;
  for (const std::string& line : jni.lines()) {
    const std::size_t at = line.find(start);
    if (at != std::string::npos) {
      ASSERT_EQ(std::sscanf(line.c_str() + at + start.size(), "%p", &refused), 1);
      break;
    }
  }
  ASSERT_NE(refused, nullptr);

  insertBegins(key, 101, value, 0, 6);
  recordIsMade(refused, key, 2, 101, value, 2, 0, 6);
  insertReachesTheTable(refused, key, 101, value, 0, 6);
  script.walksChain(set, key, 101, 3, {{present1, 101, 3}}, present1);
  script.debug("hashtable_insertAndPin",
               "entry already exist in this bucket. map=@, key=@, hashCode=%d", 101);
  const char* release = "unpinLuOffHeapMapValue";
  script.entry(release, "luValue=%p", refused);
  script.unpins(refused, JNI_ROLLBACK_PIN, 0);
  script.debug(release, "luValue=%p pins <= 0, freeing constituent members", refused);
  script.event(release, "luValue=%p pins <= 0, freeing constituent members", refused);
  script.debug(release, "Unpinning luValue->key=%p", address(key));
  script.releasesBuffer(key, LUOFFHEAPMAPVALUE_KEY_PIN, 1);
  script.debug(release, "unpinned value->key=%p, refCount=%d", address(key), 1);
  script.debug(release, "Unpinning luValue->value=%p", address(value));
  script.releasesBuffer(value, LUOFFHEAPMAPVALUE_VALUE_PIN, 1);
  script.debug(release, "Unpinned value->value=%p, refCount=%d", address(value), 1);
  script.frees(refused);
  script.exit(release, "completed and freed LuValue=%p", refused);
  script.debug("insertAndPin",
               "fail inserting LuOffHeapMap. Start free the allocated LuOffHeapMapValue. key=%p, "
               "hashCode=%d, value=%p, LuOffHeapMapValue=%p",
               address(key), 101, address(value), refused);
  script.expectIn(jni);

  setLevels(0);
  checkMap(env, map);
}

// ---- Update ------------------------------------------------------------------------------

TEST_F(MapTrace, UpdateForTheSameOwner) {
  LuOffHeapValue* first = present("one", 101, 5);
  LuOffHeapValue* entry = present("two", 102, 6);
  ByteBufferHeader* key = hold("two");
  ByteBufferHeader* value = hold("new value");
  ByteBufferHeader* oldValue = entry->value;
  setLevels(kAllLevels);
  LuOffHeapValue* snapshot = callUpdate(key, 102, value, 0, 4);
  ASSERT_NE(snapshot, nullptr);

  updateBegins(key, 102, value, 0, 4);
  script.walksChain(set, key, 102, 3, {{entry, 102, 3}}, entry);
  const LuOffHeapValue after = *entry;
  entry->value = oldValue;  // as it was at the time of these records
  updateFinds(entry, 4, key, 102);
  entry->value = after.value;
  // The entry's key: the test's pin, the entry's, and now the snapshot's.
  recordIsMade(snapshot, entry->key, 3, 102, nullptr, 0, 0, 6);
  leaves(queue, entry, 4, {first, 3}, {}, first, entry, first, first);
  appends(queue, entry, 2, 4, {}, {first, 3}, entry, first);
  valueIsSwapped(entry, 4, oldValue, 2, value, 1, key);
  script.expectIn(jni);

  setLevels(0);
  unpinValue(snapshot);
  checkMap(env, map);
}

TEST_F(MapTrace, UpdateForAnotherOwner) {
  LuOffHeapValue* entry = present("one", 101, 5);
  LuOffHeapValue* there = present("two", 102, 9, 1);
  LuOffHeapRevisionOrderQueue* other = map->revisionQueue[1];
  ByteBufferHeader* key = hold("one");
  ByteBufferHeader* value = hold("new value");
  ByteBufferHeader* oldValue = entry->value;
  setLevels(kAllLevels);
  LuOffHeapValue* snapshot = callUpdate(key, 101, value, 1, 12);
  ASSERT_NE(snapshot, nullptr);

  updateBegins(key, 101, value, 1, 12);
  script.walksChain(set, key, 101, 3, {{there, 102, 3}, {entry, 101, 3}}, entry);
  const LuOffHeapValue after = *entry;
  entry->value = oldValue;
  updateFinds(entry, 4, key, 101);
  entry->value = after.value;
  recordIsMade(snapshot, entry->key, 3, 101, nullptr, 0, 0, 5);
  leaves(queue, entry, 4, {}, {}, entry, entry, nullptr, nullptr);
  appends(other, entry, 2, 12, {there, 3}, {}, there, entry);
  valueIsSwapped(entry, 4, oldValue, 2, value, 1, key);
  script.expectIn(jni);

  setLevels(0);
  unpinValue(snapshot);
  checkMap(env, map);
}

TEST_F(MapTrace, UpdateOfAMissingKey) {
  LuOffHeapValue* entry = present("one", 101, 5);
  ByteBufferHeader* key = hold("two");
  ByteBufferHeader* value = hold("new value");
  setLevels(kAllLevels);
  EXPECT_EQ(callUpdate(key, 102, value, 0, 7), nullptr);

  updateBegins(key, 102, value, 0, 7);
  script.walksChain(set, key, 102, 3, {{entry, 101, 3}}, nullptr);
  script.debug("hashtable_getAndPin", "no entry in this bucket. map=@, key=@, hashCode=%d", 102);
  script.debug("updateAndPin",
               "no entry for the specified key. searchEntry->key=%p searchEntry->hashCode=%lu",
               address(key), 102UL);
  script.expectIn(jni);

  setLevels(0);
  checkMap(env, map);
}

// ---- Remove ------------------------------------------------------------------------------

TEST_F(MapTrace, RemovalOfTheOnlyEntry) {
  LuOffHeapValue* entry = present("one", 101, 5);
  ByteBufferHeader* key = hold("one");
  setLevels(kAllLevels);
  ASSERT_EQ(callRemove(key, 101), entry);

  removeBegins(key, 101);
  script.walksChain(set, key, 101, 3, {{entry, 101, 3}}, entry);
  script.pins(entry, JNI_REMOVED_PIN, 4);
  script.releasesValue(entry, BUCKET_FIRST_PIN, 3);
  tableLosesTheEntry(entry, key, 101, 0);
  leaves(queue, entry, 3, {}, {}, entry, entry, nullptr, nullptr);
  script.expectIn(jni);

  setLevels(0);
  EXPECT_EQ(unpinValue(entry, JNI_REMOVED_PIN), 0U);
  checkMap(env, map);
}

class MapTraceOfThree : public MapTrace {
 protected:
  void SetUp() override {
    MapTrace::SetUp();
    // The chain runs three, two, one; the queue the other way.
    one = present("one", 101, 1);
    two = present("two", 102, 2);
    three = present("3rd", 103, 3);
  }
  LuOffHeapValue* one = nullptr;
  LuOffHeapValue* two = nullptr;
  LuOffHeapValue* three = nullptr;
};

TEST_F(MapTraceOfThree, RemovalOfTheQueuesFirst) {
  ByteBufferHeader* key = hold("one");
  setLevels(kAllLevels);
  ASSERT_EQ(callRemove(key, 101), one);

  removeBegins(key, 101);
  script.walksChain(set, key, 101, 3, {{three, 103, 3}, {two, 102, 3}, {one, 101, 3}}, one);
  script.pins(one, JNI_REMOVED_PIN, 4);
  script.releasesValue(one, BUCKET_NEXT_PIN, 3);
  tableLosesTheEntry(one, key, 101, 2);
  leaves(queue, one, 3, {}, {two, 3}, one, three, two, three);
  script.expectIn(jni);

  setLevels(0);
  EXPECT_EQ(unpinValue(one, JNI_REMOVED_PIN), 0U);
  checkMap(env, map);
}

TEST_F(MapTraceOfThree, RemovalFromTheMiddle) {
  ByteBufferHeader* key = hold("two");
  setLevels(kAllLevels);
  ASSERT_EQ(callRemove(key, 102), two);

  removeBegins(key, 102);
  script.walksChain(set, key, 102, 3, {{three, 103, 3}, {two, 102, 3}}, two);
  script.pins(two, JNI_REMOVED_PIN, 4);
  script.releasesValue(two, BUCKET_NEXT_PIN, 3);
  tableLosesTheEntry(two, key, 102, 2);
  leaves(queue, two, 3, {one, 3}, {three, 3}, one, three, one, three);
  script.expectIn(jni);

  setLevels(0);
  EXPECT_EQ(unpinValue(two, JNI_REMOVED_PIN), 0U);
  checkMap(env, map);
}

TEST_F(MapTraceOfThree, RemovalOfTheQueuesLastWhichIsTheBucketsFirst) {
  ByteBufferHeader* key = hold("3rd");
  setLevels(kAllLevels);
  ASSERT_EQ(callRemove(key, 103), three);

  removeBegins(key, 103);
  script.walksChain(set, key, 103, 3, {{three, 103, 3}}, three);
  script.pins(three, JNI_REMOVED_PIN, 4);
  script.releasesValue(three, BUCKET_FIRST_PIN, 3);
  script.pins(two, BUCKET_FIRST_PIN, 4);
  script.releasesValue(two, BUCKET_NEXT_PIN, 3);
  tableLosesTheEntry(three, key, 103, 2);
  leaves(queue, three, 3, {two, 3}, {}, one, three, one, two);
  script.expectIn(jni);

  setLevels(0);
  EXPECT_EQ(unpinValue(three, JNI_REMOVED_PIN), 0U);
  checkMap(env, map);
}

TEST_F(MapTraceOfThree, RemovalOfAMissingKey) {
  ByteBufferHeader* key = hold("xyz");
  setLevels(kAllLevels);
  EXPECT_EQ(callRemove(key, 104), nullptr);

  removeBegins(key, 104);
  script.walksChain(set, key, 104, 3, {{three, 103, 3}, {two, 102, 3}, {one, 101, 3}}, nullptr);
  script.debug("hashtable_removeAndPin", "no entry in this bucket. map=@, key=@, hashCode=%d", 104);
  script.debug("removeAndPin", "no map entry. map=%p, key=%p, hashCode=%d", address(map),
               address(key), 104);
  script.expectIn(jni);

  setLevels(0);
  checkMap(env, map);
}

// Without debug tracing the same operations send nothing else than their own few records.
TEST_F(MapTrace, EntryLevelAlone) {
  ByteBufferHeader* key = hold("key");
  ByteBufferHeader* value = hold("value");
  setLevels(kEntryLevel);
  LuOffHeapValue* made = callInsert(key, 101, value, 0, 5);
  insertBegins(key, 101, value, 0, 5);
  script.entry("search_memcmp", " map=@, key=@, currentKeyFormat=%d,hashCode=%d",
               OBJECT_TYPE_VALUEHEADER, 101);
  const char* append = "appendToQueue";
  script.entry(append, "queue=%p, new entry=%p of type LuValue", address(queue), address(made));
  script.entry("unpinLuOffHeapMapValue", "luValue=%p", address(made));
  script.exit("unpinLuOffHeapMapValue", "luValue=%p remaining pins=%d", address(made), 5);
  script.exit(append,
              "queue=%p, new entry=%p, entry->prev=%p, entry->next=%p, queue->first=%p, "
              "queue->last=%p",
              address(queue), address(made), address(nullptr), address(nullptr), address(made),
              address(made));
  script.entry("unpinLuOffHeapMapValue", "luValue=%p", address(made));
  script.exit("unpinLuOffHeapMapValue", "luValue=%p remaining pins=%d", address(made), 4);
  script.expectIn(jni);
  setLevels(0);
  unpinValue(made, JNI_INSERTED_PIN);
}

}  // namespace
}  // namespace nimbra::test
