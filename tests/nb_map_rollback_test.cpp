// Every operation of the map, internal or an entry point, with its first, second, ... allocation
// refused and its first, second, ... lock operation failing, until it succeeds. After each attempt
// the answer, the exception, the map and the books are what they have to be.
//
// What a failure deliberately leaves behind is listed in the tables of steps below.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using natives::asValue;
using natives::handle;
using ::testing::HasSubstr;

// What an operation whose lock failed has done to the map.
enum class Left {
  unchanged,
  done,          // the failure is of no consequence: its result is not looked at
  leakedRecord,  // unchanged, and the new record stays allocated with its creation pin
  keptPinned,    // the new entry is in place and keeps creation and insertion pins
  unqueued,      // the entry is in its chain and in no queue
  movedOnly,     // the entry has its new place in the queue and still its old value
  queuedOnly,    // the entry is in its queue and in no chain
  pinKept,       // unchanged but for the pin that nobody was told of
};

struct Step {
  const char* site;
  bool answers;           // the operation answers as if nothing had failed
  const char* exception;  // part of its text, or null
  Left left;
};
using Steps = std::vector<Step>;

constexpr char kQueueLockRefused[] = "Error acquiring internal queue lock in Nimbra library.";

const Steps kInsertSteps = {
    // The map lock wrapper has raised; the new record stays as it is.
    {"map writeLock", false, "wrlock failure for luMap", Left::leakedRecord},
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", true, nullptr, Left::done},
    {"queue lock", false, kQueueLockRefused, Left::unchanged},
    {"queue unlock", true, nullptr, Left::done},
    // The entry is complete by then, and Java is told nothing of it.
    {"map unlock", false, "unlock failure for luMap", Left::keptPinned},
};
const Steps kInsertForNewOwnerSteps = {
    {"map writeLock", false, "wrlock failure for luMap", Left::leakedRecord},
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", true, nullptr, Left::done},
    {"queue init", false, kQueueLockRefused, Left::unchanged},
    {"queue init", false, kQueueLockRefused, Left::unchanged},
    {"queue init", false, kQueueLockRefused, Left::unchanged},
    {"queue lock", false, kQueueLockRefused, Left::unchanged},
    {"queue unlock", true, nullptr, Left::done},
    {"map unlock", false, "unlock failure for luMap", Left::keptPinned},
};
const Steps kInsertOfPresentSteps = {
    {"map writeLock", false, "wrlock failure for luMap", Left::leakedRecord},
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", false, nullptr, Left::unchanged},
    {"map unlock", false, "unlock failure for luMap", Left::unchanged},
};
const Steps kUpdateSteps = {
    {"map writeLock", false, "wrlock failure for luMap", Left::unchanged},
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"queue lock", false, kQueueLockRefused, Left::unchanged},
    // The entry has left its old queue and is not put back.
    {"queue unlock", false, "Unlock queue during update's removal from queue failed.",
     Left::unqueued},
    {"queue lock", false, kQueueLockRefused, Left::unqueued},
    {"queue unlock", false, "Unlocking queue during update's appending to queue failed.",
     Left::unqueued},
    {"map unlock", false, "Unlocking map during update's appending to queue failed.",
     Left::unqueued},
    // The swap needs the queue once more; its failure ends the update behind the move.
    {"queue lock", false, nullptr, Left::movedOnly},
    {"queue unlock", true, nullptr, Left::done},
    {"bucketSet unlock", true, nullptr, Left::done},
};
const Steps kUpdateForNewOwnerSteps = [] {
  Steps steps = kUpdateSteps;
  const Step init = {"queue init", false, nullptr, Left::unchanged};
  steps.insert(steps.begin() + 2, {init, init, init});
  return steps;
}();
const Steps kUpdateOfMissingSteps = {
    {"map writeLock", false, "wrlock failure for luMap", Left::unchanged},
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", false, nullptr, Left::unchanged},
    {"map unlock", false, "unlock failure for luMap", Left::unchanged},
};
const Steps kRemoveSteps = {
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", true, nullptr, Left::done},
    // The entry has left the table; the log calls the map inconsistent.
    {"map readLock", false, "rdlock failure for luMap", Left::queuedOnly},
    {"map unlock", false, "unlock failure for luMap", Left::queuedOnly},
    {"queue lock", false, nullptr, Left::queuedOnly},
    {"queue unlock", true, nullptr, Left::done},
};
const Steps kRemoveOfMissingSteps = {
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", false, nullptr, Left::unchanged},
};
const Steps kGetSteps = {
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", true, nullptr, Left::done},
};
const Steps kTouchSteps = {
    {"map writeLock", false, "wrlock failure for luMap", Left::unchanged},
    {"bucketSet lock", false, nullptr, Left::unchanged},
    {"bucketSet unlock", true, nullptr, Left::done},
    // Whether the move succeeded is not looked at: the value comes back, the exception with it.
    {"queue lock", true, kQueueLockRefused, Left::unchanged},
    {"queue unlock", true, nullptr, Left::done},
    {"map unlock", false, "unlock failure for luMap", Left::pinKept},
};
const Steps kContainsSteps = {
    {"bucketSet lock", false, "Error acquiring BucketSet lock in Nimbra library.", Left::unchanged},
    {"bucketSet unlock", true, nullptr, Left::done},
};

class MapRollback;

struct Operation {
  const char* name;
  const Steps* steps;
  uint32_t reason;     // of the pin on what it answers; 0: it answers no record
  std::string target;  // the stored bytes of the key
  bool answers;        // what it answers when nothing fails
  std::function<jlong(MapRollback&)> run;
};
std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << operation.name;
}

class MapRollback : public MapTest {
 public:
  static constexpr jint kStringHash = 42;
  static constexpr jint kNumberHash = 43;
  static constexpr double kNumber = 7.5;

  using MapTest::caller;
  using MapTest::env;
  using MapTest::jni;
  using MapTest::map;

  jlong mapHandle() { return handle(map); }
  jbyteArray array(std::string_view bytes) {
    return jni.newByteArray(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
  }
  jobject java(ByteBufferHeader* held) { return javaBuffer(held); }

  // Made before the faults are armed.
  ByteBufferHeader* newKey = nullptr;
  ByteBufferHeader* presentKey = nullptr;
  ByteBufferHeader* value = nullptr;
  jlongArray attributes = nullptr;

 protected:
  void SetUp() override {
    MapTest::SetUp();
    deleteMap(map);
    map = nullptr;
    newKey = buffer("new");
    presentKey = buffer("two");
    value = buffer("new value");
    attributes = jni.newLongArray({0, 0, 0, 0});
  }
  void TearDown() override {
    for (ByteBufferHeader* held : {newKey, presentKey, value}) drop(held);
    MapTest::TearDown();
  }

  // Five entries of two owners; a sixth grows the bucket set.
  void build() {
    map = makeMap();
    insert("one", "1", 0, 1);
    insert("two", "2", 0, 2);
    insert("three", "3", 1, 3);
    unpinValue(
        asValue(natives::insertAndGetNewAndPinWithHashCodeAndString(
            env, caller, mapHandle(), jni.newString(u"txt"), kStringHash, array("4"), 1, 0, 0, 4)),
        JNI_INSERTED_PIN);
    ByteBufferHeader* number =
        buffer(std::string_view(reinterpret_cast<const char*>(&kNumber), sizeof kNumber),
               DESERIALIZED_TYPE_JDOUBLE);
    ByteBufferHeader* five = buffer("5");
    unpinValue(insertAndPin(env, caller, map, nullptr, OBJECT_TYPE_JDOUBLE, number, kNumberHash,
                            true, five, 1, 5),
               JNI_INSERTED_PIN);
    drop(number);
    drop(five);
    rows = contentsOf(map);
    books = entryBooks();
    checkMap(env, map);
  }
  void tearDownMap() {
    deleteMap(map);
    map = nullptr;
  }

  // The books without what a failed attempt may have grown for good: queue list and buckets.
  Books entryBooks() {
    Books books = Books::now();
    books.metadata -= static_cast<int64_t>(getUsableSize(map->revisionQueue));
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      --books.blocks;
      books.metadata -= static_cast<int64_t>(getUsableSize(map->revisionQueue[i]));
    }
    books.metadata -=
        static_cast<int64_t>(getUsableSize(getBucketSetByIndex(map->map, 0)->buckets));
    return books;
  }

  void release(const Operation& operation, jlong answer) {
    if (operation.reason != 0) unpinValue(asValue(answer), operation.reason);
  }

  LuOffHeapValue* target(const Operation& operation) { return find(map, operation.target); }

  void expectUnchanged() {
    EXPECT_EQ(contentsOf(map), rows);
    EXPECT_EQ(entryBooks(), books);
    checkMap(env, map);
  }

  void expectLeft(const Operation& operation, Left left) {
    switch (left) {
      case Left::unchanged: expectUnchanged(); return;
      case Left::done: checkMap(env, map); return;
      case Left::leakedRecord: {
        LuOffHeapValue* record = lastRecord();
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->pins, 1);
        EXPECT_EQ(record->hashNext, nullptr);
        unpinValue(record);
        expectUnchanged();
        return;
      }
      case Left::keptPinned: {
        LuOffHeapValue* entry = target(operation);
        ASSERT_NE(entry, nullptr);
        checkMap(env, map, {{entry, 2}});
        unpinValue(entry, JNI_INSERTED_PIN);
        unpinValue(entry);
        return;
      }
      case Left::unqueued: {
        LuOffHeapValue* entry = target(operation);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->pins, 1);
        EXPECT_EQ(bytesOf(entry->value), rows[bytesOf(entry->key)].value);
        EXPECT_EQ(entryBooks(), books);
        // A removal from the middle leaves the links: who queues the entry again clears them.
        entry->prev = nullptr;
        entry->next = nullptr;
        ASSERT_EQ(wrlock(env, map), 0);
        EXPECT_TRUE(updateRevisionQueue(env, map, nullptr, entry));
        ASSERT_EQ(unlock(env, map), 0);
        checkMap(env, map);
        return;
      }
      case Left::movedOnly: {
        const LuOffHeapValue* entry = target(operation);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(bytesOf(entry->value), rows[bytesOf(entry->key)].value);
        EXPECT_EQ(entry->revisionNumber, 9);
        EXPECT_EQ(entryBooks(), books);
        checkMap(env, map);
        return;
      }
      case Left::queuedOnly: {
        EXPECT_EQ(target(operation), nullptr);
        EXPECT_EQ(hashtable_size(env, map->map), 4);
        for (uint32_t i = 0; i < map->numQueues; ++i) {
          for (LuOffHeapValue* queued : valuesOf(map->revisionQueue[i])) {
            if (queued->pins != 2) continue;
            EXPECT_TRUE(removeFromRevisionQueue(env, map, queued));
            checkMap(env, map);
            return;
          }
        }
        ADD_FAILURE() << "no queue holds the entry";
        return;
      }
      case Left::pinKept: {
        LuOffHeapValue* entry = target(operation);
        ASSERT_NE(entry, nullptr);
        checkMap(env, map, {{entry, 1}});
        unpinValue(entry, operation.reason);
        EXPECT_EQ(entryBooks(), books);
        return;
      }
    }
  }

  // The last record that the allocator handed out, from its event-level records.
  LuOffHeapValue* lastRecord() {
    void* record = nullptr;
    for (const LogRecord& line : jni.records()) {
      if (!line.text.ends_with("type=LuOffHeapMapValue")) continue;
      const std::size_t at = line.text.find("malloc=");
      EXPECT_EQ(std::sscanf(line.text.c_str() + at, "malloc=%p", &record), 1);
    }
    return static_cast<LuOffHeapValue*>(record);
  }

  Rows rows;
  Books books{};
};

const std::string kNewString("\0\xe9", 2);
const std::string kPresentString("\0t\0x\0t", 6);
std::string numberKey() {
  return {reinterpret_cast<const char*>(&MapRollback::kNumber), sizeof MapRollback::kNumber};
}

jlong answerOf(const LuOffHeapValue* value) { return handle(value); }

std::vector<Operation> operations() {
  using natives::containsKey;
  using Map = MapRollback;
  const auto insertInternally = [](Map& t, ByteBufferHeader* key, uint16_t owner) {
    const jobject javaKey = t.java(key);
    return answerOf(insertAndPin(t.env, t.caller, t.map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key,
                                 hashFn(key), false, t.value, owner, 9));
  };
  const auto updateInternally = [](Map& t, ByteBufferHeader* key, uint16_t owner) {
    const jobject javaKey = t.java(key);
    return answerOf(updateAndPin(t.env, t.caller, t.map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key,
                                 hashFn(key), false, t.value, owner, 9));
  };
  const auto removeInternally = [](Map& t, ByteBufferHeader* key) {
    const jobject javaKey = t.java(key);
    return answerOf(removeAndPin(t.env, t.caller, t.map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key,
                                 hashFn(key), false));
  };
  const auto newHash = [](Map& t) { return hashFn(t.newKey); };
  const auto hash = [](Map& t) { return hashFn(t.presentKey); };
  constexpr uint32_t kSnapshot = ALLOCATION_PIN;
  constexpr uint32_t kTransient = NATIVE_TRANSIENT_GET_PIN;
  return {
      {"insertAndPin", &kInsertSteps, JNI_INSERTED_PIN, "new", true,
       [=](Map& t) { return insertInternally(t, t.newKey, 0); }},
      {"insertAndPinForANewOwner", &kInsertForNewOwnerSteps, JNI_INSERTED_PIN, "new", true,
       [=](Map& t) { return insertInternally(t, t.newKey, 4); }},
      {"insertAndPinOfAPresentKey", &kInsertOfPresentSteps, JNI_INSERTED_PIN, "two", false,
       [=](Map& t) { return insertInternally(t, t.presentKey, 0); }},
      {"updateAndPin", &kUpdateSteps, kSnapshot, "two", true,
       [=](Map& t) { return updateInternally(t, t.presentKey, 0); }},
      {"updateAndPinForAnotherOwner", &kUpdateSteps, kSnapshot, "two", true,
       [=](Map& t) { return updateInternally(t, t.presentKey, 1); }},
      {"updateAndPinForANewOwner", &kUpdateForNewOwnerSteps, kSnapshot, "two", true,
       [=](Map& t) { return updateInternally(t, t.presentKey, 4); }},
      {"updateAndPinOfAMissingKey", &kUpdateOfMissingSteps, kSnapshot, "new", false,
       [=](Map& t) { return updateInternally(t, t.newKey, 0); }},
      {"removeAndPin", &kRemoveSteps, JNI_REMOVED_PIN, "two", true,
       [=](Map& t) { return removeInternally(t, t.presentKey); }},
      {"removeAndPinOfAMissingKey", &kRemoveOfMissingSteps, JNI_REMOVED_PIN, "new", false,
       [=](Map& t) { return removeInternally(t, t.newKey); }},

      {"insertAndGetNewAndPin", &kInsertSteps, JNI_INSERTED_PIN, "new", true,
       [](Map& t) {
         return natives::insertAndGetNewAndPin(t.env, t.caller, t.mapHandle(), t.java(t.newKey),
                                               t.java(t.value), 0, 9);
       }},
      {"insertAndGetNewAndPinWithHashCode", &kInsertSteps, JNI_INSERTED_PIN, "new", true,
       [=](Map& t) {
         return natives::insertAndGetNewAndPinWithHashCode(
             t.env, t.caller, t.mapHandle(), t.java(t.newKey), newHash(t), t.java(t.value), 0, 9);
       }},
      {"insertAndGetNewAndPinWithHashCodeAndBA", &kInsertSteps, JNI_INSERTED_PIN, "new", true,
       [=](Map& t) {
         return natives::insertAndGetNewAndPinWithHashCodeAndBA(t.env, t.caller, t.mapHandle(),
                                                                t.array("new"), 3, 0, newHash(t),
                                                                t.array("value"), 5, 0, 0, 9);
       }},
      {"insertAndGetNewAndPinWithHashCodeAndString", &kInsertSteps, JNI_INSERTED_PIN, kNewString,
       true,
       [](Map& t) {
         return natives::insertAndGetNewAndPinWithHashCodeAndString(t.env, t.caller, t.mapHandle(),
                                                                    t.jni.newString(u"\xe9"), 1,
                                                                    t.array("value"), 5, 0, 0, 9);
       }},
      {"insertAndGetNewAndPinWithHashCodeAndStringBB", &kInsertSteps, JNI_INSERTED_PIN, kNewString,
       true,
       [](Map& t) {
         return natives::insertAndGetNewAndPinWithHashCodeAndStringBB(
             t.env, t.caller, t.mapHandle(), t.jni.newString(u"\xe9"), 1, t.java(t.value), 0, 9);
       }},
      {"updateAndGetNewAndPin", &kUpdateSteps, kSnapshot, "two", true,
       [](Map& t) {
         return natives::updateAndGetNewAndPin(t.env, t.caller, t.mapHandle(), t.java(t.presentKey),
                                               t.java(t.value), 0, 9);
       }},
      {"updateAndGetNewAndPinWithHashCode", &kUpdateSteps, kSnapshot, "two", true,
       [=](Map& t) {
         return natives::updateAndGetNewAndPinWithHashCode(
             t.env, t.caller, t.mapHandle(), t.java(t.presentKey), hash(t), t.java(t.value), 0, 9);
       }},
      {"updateAndGetNewAndPinWithHashCodeBA", &kUpdateSteps, kSnapshot, "two", true,
       [=](Map& t) {
         return natives::updateAndGetNewAndPinWithHashCodeBA(
             t.env, t.caller, t.mapHandle(), t.array("two"), hash(t), t.java(t.value), 0, 9);
       }},
      {"updateAndGetNewAndPinWithHashCodeBABA", &kUpdateSteps, kSnapshot, "two", true,
       [=](Map& t) {
         return natives::updateAndGetNewAndPinWithHashCodeBABA(
             t.env, t.caller, t.mapHandle(), t.array("two"), hash(t), t.array("value"), 5, 0, 0, 9);
       }},
      {"updateAndGetNewAndPinWithHashCodeStringBB", &kUpdateSteps, kSnapshot, kPresentString, true,
       [](Map& t) {
         return natives::updateAndGetNewAndPinWithHashCodeStringBB(
             t.env, t.caller, t.mapHandle(), t.jni.newString(u"txt"), Map::kStringHash,
             t.java(t.value), 0, 9);
       }},
      {"updateAndGetNewAndPinWithHashCodeStringBA", &kUpdateSteps, kSnapshot, kPresentString, true,
       [](Map& t) {
         return natives::updateAndGetNewAndPinWithHashCodeStringBA(
             t.env, t.caller, t.mapHandle(), t.jni.newString(u"txt"), Map::kStringHash,
             t.array("value"), 5, 0, 0, 9);
       }},
      {"removeAndGetAndPin", &kRemoveSteps, JNI_REMOVED_PIN, "two", true,
       [](Map& t) {
         return natives::removeAndGetAndPin(t.env, t.caller, t.mapHandle(), t.java(t.presentKey));
       }},
      {"removeAndGetAndPinWithHashCode", &kRemoveSteps, JNI_REMOVED_PIN, "two", true,
       [=](Map& t) {
         return natives::removeAndGetAndPinWithHashCode(t.env, t.caller, t.mapHandle(),
                                                        t.java(t.presentKey), hash(t));
       }},
      {"removeAndGetAndPinWithHashCodeBA", &kRemoveSteps, JNI_REMOVED_PIN, "two", true,
       [=](Map& t) {
         return natives::removeAndGetAndPinWithHashCodeBA(t.env, t.caller, t.mapHandle(),
                                                          t.array("two"), hash(t));
       }},
      {"removeAndGetAndPinWithHashCodeString", &kRemoveSteps, JNI_REMOVED_PIN, kPresentString, true,
       [](Map& t) {
         return natives::removeAndGetAndPinWithHashCodeString(
             t.env, t.caller, t.mapHandle(), t.jni.newString(u"txt"), Map::kStringHash);
       }},
      {"removeAndGetAndPinWithHashCodeNumber", &kRemoveSteps, JNI_REMOVED_PIN, numberKey(), true,
       [](Map& t) {
         return natives::removeAndGetAndPinWithHashCodeNumber(t.env, t.caller, t.mapHandle(),
                                                              Map::kNumberHash, Map::kNumber);
       }},
      {"getLuValueByteArray", &kGetSteps, JNI_GET_PIN, "two", true,
       [=](Map& t) {
         return natives::getLuValue_ByteArray(t.env, t.caller, t.mapHandle(), t.attributes,
                                              t.array("two"), hash(t), 0, JNI_FALSE, 0);
       }},
      {"getLuValueByteArrayTouching", &kTouchSteps, JNI_GET_PIN, "two", true,
       [=](Map& t) {
         return natives::getLuValue_ByteArray(t.env, t.caller, t.mapHandle(), t.attributes,
                                              t.array("two"), hash(t), 0, JNI_TRUE, 2);
       }},
      {"getLuValueStringTouching", &kTouchSteps, kTransient, kPresentString, true,
       [](Map& t) {
         return natives::getLuValue_String(t.env, t.caller, t.mapHandle(), t.attributes,
                                           t.jni.newString(u"txt"), 0, Map::kStringHash, 0,
                                           JNI_TRUE, 4);
       }},
      {"getLuValueNumber", &kGetSteps, kTransient, numberKey(), true,
       [](Map& t) {
         return natives::getLuValue_Number(t.env, t.caller, t.mapHandle(), Map::kNumberHash, 0,
                                           JNI_FALSE, 0, Map::kNumber);
       }},
      {"getLuValueByteBufferTouching", &kTouchSteps, kTransient, "two", true,
       [](Map& t) {
         return natives::getLuValue_ByteBuffer(t.env, t.caller, t.mapHandle(), t.java(t.presentKey),
                                               -1, 0, JNI_TRUE, 2);
       }},
      {"containsKey", &kContainsSteps, 0, "two", true,
       [](Map& t) -> jlong {
         return containsKey(t.env, t.caller, t.mapHandle(), t.java(t.presentKey));
       }},
      {"containsKeyWithHashCodeString", &kContainsSteps, 0, kPresentString, true,
       [](Map& t) -> jlong {
         return natives::containsKeyWithHashCodeString(t.env, t.caller, t.mapHandle(),
                                                       t.jni.newString(u"txt"), Map::kStringHash);
       }},
  };
}

class EveryOperation : public MapRollback, public ::testing::WithParamInterface<Operation> {};

INSTANTIATE_TEST_SUITE_P(Map, EveryOperation, ::testing::ValuesIn(operations()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(EveryOperation, WithEachAllocationRefused) {
  const Operation& operation = GetParam();
  for (const auto way :
       {RefuseAllocation::Way::kNothingLeft, RefuseAllocation::Way::kOverMaximum}) {
    const bool limit = way == RefuseAllocation::Way::kOverMaximum;
    bool fired = true;
    for (int nth = 1; fired; ++nth) {
      SCOPED_TRACE((limit ? "refused by the limit: allocation " : "nothing left: allocation ") +
                   std::to_string(nth));
      ASSERT_LT(nth, 20);
      build();
      jlong answer = 0;
      {
        RefuseAllocation refusal(nth, way);
        answer = operation.run(*this);
        fired = refusal.fired();
      }
      EXPECT_EQ(heldLockCount(), 0);
      const std::optional<Thrown> thrown = jni.takePending();
      if (answer != 0) {
        EXPECT_FALSE(thrown.has_value()) << *thrown << " beside an answer";
        release(operation, answer);
        checkMap(env, map);
      } else {
        expectUnchanged();
        if (fired && limit) {
          ASSERT_TRUE(thrown.has_value());
          EXPECT_EQ(thrown->className, kIllegalState);
          EXPECT_THAT(thrown->message, HasSubstr("All available memory is used."));
        } else if (thrown.has_value()) {
          // The only failure that raises by itself: the new owner has no queue to lock.
          EXPECT_EQ(operation.steps, &kInsertForNewOwnerSteps);
          EXPECT_THAT(thrown->message, HasSubstr(kQueueLockRefused));
        }
      }
      if (!fired) {
        EXPECT_EQ(answer != 0, operation.answers);
      }
      tearDownMap();
    }
  }
}

TEST_P(EveryOperation, WithEachLockOperationFailing) {
  const Operation& operation = GetParam();
  const Steps& steps = *operation.steps;
  for (std::size_t nth = 1; nth <= steps.size() + 1; ++nth) {
    SCOPED_TRACE("lock operation " + std::to_string(nth));
    build();
    setLevels(kEventLevel);
    jlong answer = 0;
    bool fired = false;
    std::string site;
    {
      FailNthLock failure(static_cast<int>(nth));
      answer = underFailingLock([&] { return operation.run(*this); });
      fired = failure.fired();
      site = failure.site();
      failure.release();
    }
    logInfo.event = false;
    EXPECT_EQ(heldLockCount(), 0);
    const std::optional<Thrown> thrown = jni.takePending();
    ASSERT_EQ(fired, nth <= steps.size());
    if (!fired) {
      EXPECT_EQ(answer != 0, operation.answers);
      EXPECT_FALSE(thrown.has_value());
      if (answer != 0) release(operation, answer);
      checkMap(env, map);
    } else {
      const Step& step = steps[nth - 1];
      EXPECT_EQ(site, step.site);
      EXPECT_EQ(answer != 0, step.answers);
      EXPECT_EQ(thrown.has_value(), step.exception != nullptr);
      if (thrown.has_value() && step.exception != nullptr) {
        EXPECT_THAT(thrown->message, HasSubstr(step.exception));
      }
      if (answer != 0) release(operation, answer);
      expectLeft(operation, step.left);
    }
    tearDownMap();
  }
}

// ---- Map creation and the operations on a whole map --------------------------------------

class WholeMapRollback : public MapRollback {
 protected:
  // The table that a failed creation left, from its debug record; null when none was made.
  MapHeader* tableLeft() {
    const std::string label = "Backing MapHeader=";
    for (const LogRecord& record : jni.records()) {
      const std::size_t at = record.text.find(label);
      if (at == std::string::npos) continue;
      void* table = nullptr;
      if (std::sscanf(record.text.c_str() + at + label.size(), "%p", &table) == 1) {
        return static_cast<MapHeader*>(table);
      }
    }
    return nullptr;
  }
  LuOffHeapMap* create() {
    return natives::asMap(natives::allocateLuOffHeapMap(env, caller, 0, 1, 0.75F, 7, 9));
  }
};

TEST_F(WholeMapRollback, CreationWithEachAllocationRefused) {
  const Books before = Books::now();
  for (const auto way :
       {RefuseAllocation::Way::kNothingLeft, RefuseAllocation::Way::kOverMaximum}) {
    int attempts = 0;
    LuOffHeapMap* made = nullptr;
    while (made == nullptr) {
      ASSERT_LT(++attempts, 10);
      setLevels(kDebugLevel);
      {
        RefuseAllocation refusal(attempts, way);
        made = create();
      }
      const std::optional<Thrown> thrown = jni.takePending();
      MapHeader* table = made == nullptr ? tableLeft() : nullptr;
      setLevels(0);
      if (made != nullptr) {
        EXPECT_FALSE(thrown.has_value());
        break;
      }
      // Header and buckets come first; a later failure leaves both.
      EXPECT_EQ(table != nullptr, attempts > 2);
      if (way == RefuseAllocation::Way::kOverMaximum) {
        ASSERT_TRUE(thrown.has_value());
        EXPECT_THAT(thrown->message, HasSubstr("All available memory is used."));
      } else {
        EXPECT_EQ(thrown.has_value(), attempts <= 2) << "only a missing table is raised";
      }
      if (table != nullptr) hashtable_destroy(env, table);
      EXPECT_EQ(Books::now(), before);
      EXPECT_EQ(heldLockCount(), 0);
    }
    EXPECT_EQ(attempts, 6);
    deleteMap(made);
  }
}

TEST_F(WholeMapRollback, CreationWithEachLockOperationFailing) {
  const Books before = Books::now();
  const std::vector<std::string> sites = {"bucketSet init", "map init", "queue init"};
  for (std::size_t nth = 1; nth <= sites.size(); ++nth) {
    setLevels(kDebugLevel);
    {
      FailNthLock failure(static_cast<int>(nth));
      EXPECT_EQ(create(), nullptr);
      EXPECT_EQ(failure.site(), sites[nth - 1]);
    }
    const std::optional<Thrown> thrown = jni.takePending();
    EXPECT_EQ(thrown.has_value(), nth == 1) << "only a missing table is raised";
    MapHeader* table = tableLeft();
    setLevels(0);
    EXPECT_EQ(table != nullptr, nth > 1);
    if (table != nullptr) hashtable_destroy(env, table);
    EXPECT_EQ(Books::now(), before);
    EXPECT_EQ(heldLockCount(), 0);
  }
}

TEST_F(WholeMapRollback, FiguresWithEachLockOperationFailing) {
  build();
  for (const bool highWater : {false, true}) {
    bool fired = true;
    for (int nth = 1; fired; ++nth) {
      ASSERT_LT(nth, 20);
      FailNthLock failure(nth);
      const jlong figure = underFailingLock([&] {
        return highWater ? natives::maxSize(env, caller, mapHandle())
                         : natives::size(env, caller, mapHandle());
      });
      fired = failure.fired();
      const bool unknown = fired && !highWater && failure.operation() == LockOp::lock;
      EXPECT_EQ(figure, unknown ? -1 : 5) << failure.site();
      failure.release();
      jni.clearPending();
      EXPECT_EQ(heldLockCount(), 0);
    }
  }
  expectUnchanged();
  tearDownMap();
}

TEST_F(WholeMapRollback, ClearWithEachLockOperationFailing) {
  bool fired = true;
  for (int nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LT(nth, 20);
    build();
    const int64_t full = Books::now().blocks;
    {
      FailNthLock failure(nth);
      const bool cleared =
          underFailingLock([&] { return natives::clear(env, caller, mapHandle()) == JNI_TRUE; });
      fired = failure.fired();
      EXPECT_EQ(cleared, !fired || failure.rank() != LockRank::map) << failure.site();
      failure.release();
    }
    jni.clearPending();
    EXPECT_EQ(heldLockCount(), 0);
    if (!fired) {
      EXPECT_EQ(Books::now().blocks, full - 15) << "record, key and value of five entries";
      checkMap(env, map);
    }
    // Whatever a failure left is released by the next clear.
    EXPECT_TRUE(natives::clear(env, caller, mapHandle()));
    EXPECT_EQ(Books::now().blocks, full - 15);
    checkMap(env, map);
    tearDownMap();
  }
}

}  // namespace
}  // namespace nimbra::test
