// The map's entry points, called as Java calls them: every form of key and value, typed gets with
// their pins and touches, and containment.

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
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr jbyte kOpaque = 0;

class MapNatives : public MapTest {
 protected:
  jlong mapHandle() { return handle(map); }

  jbyteArray array(std::string_view bytes) {
    return jni.newByteArray(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
  }
  static jint length(std::string_view text) { return static_cast<jint>(text.size()); }

  // The bytes under which a string key is stored.
  static std::string stored(const std::u16string& units) {
    std::string bytes;
    for (const char16_t unit : units) {
      bytes += static_cast<char>(unit >> 8);
      bytes += static_cast<char>(unit & 0xFF);
    }
    return bytes;
  }

  LuOffHeapValue* insertArray(std::string_view key, jint hash, std::string_view value,
                              jshort owner = 0, jlong revision = 1) {
    return asValue(natives::insertAndGetNewAndPinWithHashCodeAndBA(
        env, caller, mapHandle(), array(key), length(key), kOpaque, hash, array(value),
        length(value), kOpaque, owner, revision));
  }
  LuOffHeapValue* insertString(const std::u16string& key, jint hash, std::string_view value,
                               jshort owner = 0, jlong revision = 1) {
    return asValue(natives::insertAndGetNewAndPinWithHashCodeAndString(
        env, caller, mapHandle(), jni.newString(key), hash, array(value), length(value), kOpaque,
        owner, revision));
  }
  // A number key has no native of its own yet; it is stored as the number natives would store it.
  LuOffHeapValue* insertDouble(double key, int32_t hash, std::string_view value, uint16_t owner = 0,
                               int64_t revision = 1) {
    ByteBufferHeader* keyBuffer =
        buffer(std::string_view(reinterpret_cast<const char*>(&key), sizeof key),
               DESERIALIZED_TYPE_JDOUBLE);
    ByteBufferHeader* valueBuffer = buffer(value);
    LuOffHeapValue* made = insertAndPin(env, caller, map, nullptr, OBJECT_TYPE_JDOUBLE, keyBuffer,
                                        hash, true, valueBuffer, owner, revision);
    drop(keyBuffer);
    drop(valueBuffer);
    return made;
  }

  // Checks a new entry and drops Java's pin on it.
  void expectInserted(LuOffHeapValue* made, std::string_view key, uint8_t keyType, int32_t hash,
                      uint16_t flags, std::string_view value, uint8_t valueType, uint16_t owner,
                      int64_t revision) {
    ASSERT_NE(made, nullptr);
    EXPECT_FALSE(jni.pending().has_value());
    EXPECT_EQ(bytesOf(made->key), key);
    EXPECT_EQ(made->key->deserializedType, keyType);
    EXPECT_EQ(made->key->pins, 1) << "the call keeps no pin";
    EXPECT_EQ(made->hashCode, hash);
    EXPECT_EQ(made->flags, flags);
    EXPECT_EQ(bytesOf(made->value), value);
    EXPECT_EQ(made->value->deserializedType, valueType);
    EXPECT_EQ(made->value->pins, 1);
    EXPECT_EQ(made->revisionOwner, owner);
    EXPECT_EQ(made->revisionNumber, revision);
    checkMap(env, map, {{made, 1}});
    EXPECT_EQ(unpinValue(made, JNI_INSERTED_PIN), 3U);
    checkMap(env, map);
  }

  // Checks what an update handed out and left behind.
  void expectUpdated(LuOffHeapValue* snapshot, std::string_view key, std::string_view before,
                     std::string_view after, uint8_t afterType, uint16_t owner, int64_t revision) {
    ASSERT_NE(snapshot, nullptr);
    EXPECT_FALSE(jni.pending().has_value());
    EXPECT_EQ(bytesOf(snapshot->key), key);
    EXPECT_EQ(bytesOf(snapshot->value), before);
    EXPECT_EQ(snapshot->pins, 1);
    EXPECT_EQ(unpinValue(snapshot), 0U);
    const LuOffHeapValue* entry = find(map, key);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(bytesOf(entry->value), after);
    EXPECT_EQ(entry->value->deserializedType, afterType);
    EXPECT_EQ(entry->value->pins, 1);
    EXPECT_EQ(entry->revisionOwner, owner);
    EXPECT_EQ(entry->revisionNumber, revision);
    checkMap(env, map);
  }

  void expectRemoved(LuOffHeapValue* removed, std::string_view key) {
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(bytesOf(removed->key), key);
    EXPECT_EQ(removed->pins, 1);
    EXPECT_EQ(unpinValue(removed, JNI_REMOVED_PIN), 0U);
    EXPECT_EQ(find(map, key), nullptr);
    checkMap(env, map);
  }
};

// ---- Insert ------------------------------------------------------------------------------

TEST_F(MapNatives, InsertByBuffersHashesTheKeyItself) {
  ByteBufferHeader* key = buffer("key", DESERIALIZED_TYPE_JSTRING);
  ByteBufferHeader* value = buffer("value", DESERIALIZED_TYPE_OTHER);
  LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPin(
      env, caller, mapHandle(), javaBuffer(key), javaBuffer(value), 2, 8));
  EXPECT_EQ(asValue(natives::insertAndGetNewAndPin(env, caller, mapHandle(), javaBuffer(key),
                                                   javaBuffer(value), 2, 8)),
            nullptr);
  drop(key);
  drop(value);
  expectInserted(made, "key", DESERIALIZED_TYPE_JSTRING, hashOf("key"), 5, "value",
                 DESERIALIZED_TYPE_OTHER, 2, 8);
}

TEST_F(MapNatives, InsertByBuffersWithAHash) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPinWithHashCode(
      env, caller, mapHandle(), javaBuffer(key), -77, javaBuffer(value), 0, 8));
  EXPECT_EQ(natives::insertAndGetNewAndPinWithHashCode(env, caller, mapHandle(), javaBuffer(key),
                                                       -77, javaBuffer(value), 0, 9),
            0);
  drop(key);
  drop(value);
  expectInserted(made, "key", 0, -77, 7, "value", 0, 0, 8);
}

TEST_F(MapNatives, InsertByArraysCopiesTheirFirstBytes) {
  LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPinWithHashCodeAndBA(
      env, caller, mapHandle(), array("key and more"), 3, DESERIALIZED_TYPE_JSTRING, 5,
      array("value and more"), 5, DESERIALIZED_TYPE_OTHER, 1, 8));
  expectInserted(made, "key", DESERIALIZED_TYPE_JSTRING, 5, 7, "value", DESERIALIZED_TYPE_OTHER, 1,
                 8);
  EXPECT_EQ(insertArray("key", 5, "again"), nullptr);
  checkMap(env, map);
}

TEST_F(MapNatives, EmptyKeysAndValuesAreEntriesToo) {
  LuOffHeapValue* made = insertArray("", 0, "");
  expectInserted(made, "", 0, 0, 7, "", 0, 0, 1);
  EXPECT_TRUE(natives::containsKeyWithHashCodeBA(env, caller, mapHandle(), array(""), 0));
}

TEST_F(MapNatives, InsertByStringStoresUtf16HighByteFirst) {
  const std::u16string key = u"a\u00e9\u20ac\xd83d\xde00";
  LuOffHeapValue* made = insertString(key, 5, "value", 1, 8);
  expectInserted(made, stored(key), DESERIALIZED_TYPE_JSTRING, 5, 7, "value", 0, 1, 8);
  EXPECT_EQ(insertString(key, 5, "again"), nullptr);
  checkMap(env, map);
}

TEST_F(MapNatives, InsertByStringAndBuffer) {
  ByteBufferHeader* value = buffer("value", DESERIALIZED_TYPE_OTHER);
  LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPinWithHashCodeAndStringBB(
      env, caller, mapHandle(), jni.newString(u"key"), 5, javaBuffer(value), 1, 8));
  EXPECT_EQ(natives::insertAndGetNewAndPinWithHashCodeAndStringBB(
                env, caller, mapHandle(), jni.newString(u"key"), 5, javaBuffer(value), 1, 8),
            0);
  drop(value);
  expectInserted(made, stored(u"key"), DESERIALIZED_TYPE_JSTRING, 5, 7, "value",
                 DESERIALIZED_TYPE_OTHER, 1, 8);
}

TEST_F(MapNatives, OwnersAreUnsigned) {
  LuOffHeapValue* made = insertArray("key", 5, "value", static_cast<jshort>(0x8001), 8);
  EXPECT_EQ(natives::getRevisionOwner(env, caller, handle(made)), 0x8001);
  EXPECT_EQ(map->numQueues, 0x8002U);
  unpinValue(made, JNI_INSERTED_PIN);
}

TEST_F(MapNatives, AKeyOrValueArrayThatIsTooShortInsertsNothing) {
  const Books before = Books::now();
  EXPECT_EQ(
      natives::insertAndGetNewAndPinWithHashCodeAndBA(env, caller, mapHandle(), array("key"), 4,
                                                      kOpaque, 5, array("value"), 5, kOpaque, 0, 1),
      0);
  EXPECT_TRUE(jni.takePending().has_value());
  EXPECT_EQ(
      natives::insertAndGetNewAndPinWithHashCodeAndBA(env, caller, mapHandle(), array("key"), 3,
                                                      kOpaque, 5, array("value"), 6, kOpaque, 0, 1),
      0);
  EXPECT_TRUE(jni.takePending().has_value());
  EXPECT_EQ(
      natives::insertAndGetNewAndPinWithHashCodeAndString(
          env, caller, mapHandle(), jni.newString(u"key"), 5, array("value"), 6, kOpaque, 0, 1),
      0);
  EXPECT_TRUE(jni.takePending().has_value());
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

TEST_F(MapNatives, AStringWhoseCharactersCannotBeHadInsertsNothing) {
  const Books before = Books::now();
  jni.failCall("GetStringCritical");
  EXPECT_EQ(insertString(u"key", 5, "value"), nullptr);
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

// ---- Update ------------------------------------------------------------------------------

TEST_F(MapNatives, UpdateByBuffersHashesTheKeyItself) {
  insert("key", "old");
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("new", DESERIALIZED_TYPE_OTHER);
  LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPin(
      env, caller, mapHandle(), javaBuffer(key), javaBuffer(value), 1, 8));
  drop(key);
  drop(value);
  expectUpdated(snapshot, "key", "old", "new", DESERIALIZED_TYPE_OTHER, 1, 8);
}

TEST_F(MapNatives, UpdateByBuffersWithAHash) {
  unpinValue(insertArray("key", 5, "old"), JNI_INSERTED_PIN);
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("new");
  EXPECT_EQ(natives::updateAndGetNewAndPinWithHashCode(env, caller, mapHandle(), javaBuffer(key), 6,
                                                       javaBuffer(value), 1, 8),
            0);
  LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPinWithHashCode(
      env, caller, mapHandle(), javaBuffer(key), 5, javaBuffer(value), 1, 8));
  drop(key);
  drop(value);
  expectUpdated(snapshot, "key", "old", "new", 0, 1, 8);
}

TEST_F(MapNatives, UpdateByArray) {
  unpinValue(insertArray("key", 5, "old"), JNI_INSERTED_PIN);
  ByteBufferHeader* value = buffer("new");
  LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPinWithHashCodeBA(
      env, caller, mapHandle(), array("key"), 5, javaBuffer(value), 1, 8));
  EXPECT_EQ(natives::updateAndGetNewAndPinWithHashCodeBA(env, caller, mapHandle(), array("kez"), 5,
                                                         javaBuffer(value), 1, 8),
            0);
  drop(value);
  expectUpdated(snapshot, "key", "old", "new", 0, 1, 8);
}

TEST_F(MapNatives, UpdateByArrays) {
  unpinValue(insertArray("key", 5, "old"), JNI_INSERTED_PIN);
  LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPinWithHashCodeBABA(
      env, caller, mapHandle(), array("key"), 5, array("new and more"), 3, DESERIALIZED_TYPE_OTHER,
      1, 8));
  expectUpdated(snapshot, "key", "old", "new", DESERIALIZED_TYPE_OTHER, 1, 8);
  const Books before = Books::now();
  EXPECT_EQ(natives::updateAndGetNewAndPinWithHashCodeBABA(env, caller, mapHandle(), array("key"),
                                                           5, array("new"), 4, kOpaque, 1, 8),
            0);
  EXPECT_TRUE(jni.takePending().has_value());
  EXPECT_EQ(natives::updateAndGetNewAndPinWithHashCodeBABA(
                env, caller, mapHandle(), array("missing"), 5, array("new"), 3, kOpaque, 1, 8),
            0);
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

TEST_F(MapNatives, UpdateByStringAndBuffer) {
  unpinValue(insertString(u"key", 5, "old"), JNI_INSERTED_PIN);
  ByteBufferHeader* value = buffer("new");
  LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPinWithHashCodeStringBB(
      env, caller, mapHandle(), jni.newString(u"key"), 5, javaBuffer(value), 1, 8));
  EXPECT_EQ(natives::updateAndGetNewAndPinWithHashCodeStringBB(
                env, caller, mapHandle(), jni.newString(u"kez"), 5, javaBuffer(value), 1, 8),
            0);
  drop(value);
  expectUpdated(snapshot, stored(u"key"), "old", "new", 0, 1, 8);
}

TEST_F(MapNatives, UpdateByStringAndArray) {
  unpinValue(insertString(u"key", 5, "old"), JNI_INSERTED_PIN);
  LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPinWithHashCodeStringBA(
      env, caller, mapHandle(), jni.newString(u"key"), 5, array("new"), 3, DESERIALIZED_TYPE_OTHER,
      1, 8));
  expectUpdated(snapshot, stored(u"key"), "old", "new", DESERIALIZED_TYPE_OTHER, 1, 8);
  const Books before = Books::now();
  EXPECT_EQ(natives::updateAndGetNewAndPinWithHashCodeStringBA(
                env, caller, mapHandle(), jni.newString(u"key"), 5, array("new"), 4, kOpaque, 1, 8),
            0);
  EXPECT_TRUE(jni.takePending().has_value());
  EXPECT_EQ(natives::updateAndGetNewAndPinWithHashCodeStringBA(
                env, caller, mapHandle(), jni.newString(u"kez"), 5, array("new"), 3, kOpaque, 1, 8),
            0);
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

// ---- Remove ------------------------------------------------------------------------------

TEST_F(MapNatives, RemoveByBuffer) {
  insert("key", "value");
  ByteBufferHeader* key = buffer("key");
  LuOffHeapValue* removed =
      asValue(natives::removeAndGetAndPin(env, caller, mapHandle(), javaBuffer(key)));
  EXPECT_EQ(natives::removeAndGetAndPin(env, caller, mapHandle(), javaBuffer(key)), 0);
  drop(key);
  expectRemoved(removed, "key");
}

TEST_F(MapNatives, RemoveByBufferWithAHash) {
  unpinValue(insertArray("key", 5, "value"), JNI_INSERTED_PIN);
  ByteBufferHeader* key = buffer("key");
  EXPECT_EQ(natives::removeAndGetAndPinWithHashCode(env, caller, mapHandle(), javaBuffer(key), 6),
            0);
  LuOffHeapValue* removed = asValue(
      natives::removeAndGetAndPinWithHashCode(env, caller, mapHandle(), javaBuffer(key), 5));
  drop(key);
  expectRemoved(removed, "key");
}

TEST_F(MapNatives, RemoveByArray) {
  unpinValue(insertArray("key", 5, "value"), JNI_INSERTED_PIN);
  EXPECT_EQ(natives::removeAndGetAndPinWithHashCodeBA(env, caller, mapHandle(), array("ke"), 5), 0);
  expectRemoved(
      asValue(natives::removeAndGetAndPinWithHashCodeBA(env, caller, mapHandle(), array("key"), 5)),
      "key");
}

TEST_F(MapNatives, RemoveByString) {
  unpinValue(insertString(u"key", 5, "value"), JNI_INSERTED_PIN);
  EXPECT_EQ(natives::removeAndGetAndPinWithHashCodeString(env, caller, mapHandle(),
                                                          jni.newString(u"kez"), 5),
            0);
  expectRemoved(asValue(natives::removeAndGetAndPinWithHashCodeString(env, caller, mapHandle(),
                                                                      jni.newString(u"key"), 5)),
                stored(u"key"));
}

TEST_F(MapNatives, RemoveByNumber) {
  LuOffHeapValue* made = insertDouble(7.5, 5, "value");
  const std::string key = bytesOf(made->key);
  unpinValue(made, JNI_INSERTED_PIN);
  EXPECT_EQ(natives::removeAndGetAndPinWithHashCodeNumber(env, caller, mapHandle(), 5, 7.25), 0);
  expectRemoved(
      asValue(natives::removeAndGetAndPinWithHashCodeNumber(env, caller, mapHandle(), 5, 7.5)),
      key);
}

// ---- Typed get ---------------------------------------------------------------------------

// The four getters behind one face: each finds the entry that `prepare` made.
struct Getter {
  const char* name;
  uint32_t reason;
  bool attributes;
  int lockTag;  // 0: its own form of the lock failure
};

class TypedGet : public MapNatives, public ::testing::WithParamInterface<Getter> {
 protected:
  static constexpr jint kHash = 4242;

  void SetUp() override {
    MapNatives::SetUp();
    attributes = jni.newLongArray({-1, -1, -1, -1});
  }
  // An entry that the getter under test finds, not pinned by anybody but the map.
  LuOffHeapValue* prepare(std::string_view value = "value", uint16_t owner = 0,
                          int64_t revision = 1) {
    const std::string name = GetParam().name;
    LuOffHeapValue* made = nullptr;
    if (name == "String") {
      made = insertString(u"key", kHash, value, static_cast<jshort>(owner), revision);
    } else if (name == "Number") {
      made = insertDouble(7.5, kHash, value, owner, revision);
    } else {
      made = insertArray("key", kHash, value, static_cast<jshort>(owner), revision);
    }
    unpinValue(made, JNI_INSERTED_PIN);
    return made;
  }
  LuOffHeapValue* get(bool touch = false, jlong revision = 0, bool present = true) {
    const std::string name = GetParam().name;
    const auto flag = static_cast<jboolean>(touch);
    if (name == "ByteArray") {
      return asValue(natives::getLuValue_ByteArray(env, caller, mapHandle(), attributes,
                                                   array(present ? "key" : "xyz"), kHash, 99, flag,
                                                   revision));
    }
    if (name == "String") {
      return asValue(natives::getLuValue_String(env, caller, mapHandle(), attributes,
                                                jni.newString(present ? u"key" : u"xyz"), 98, kHash,
                                                99, flag, revision));
    }
    if (name == "Number") {
      return asValue(natives::getLuValue_Number(env, caller, mapHandle(), kHash, 98, flag, revision,
                                                present ? 7.5 : 8.5));
    }
    ByteBufferHeader* key = buffer(present ? "key" : "xyz");
    LuOffHeapValue* found = asValue(natives::getLuValue_ByteBuffer(
        env, caller, mapHandle(), javaBuffer(key), kHash, 98, flag, revision));
    drop(key);
    return found;
  }
  BucketSet* set() { return getBucketSet(map->map, static_cast<uint32_t>(kHash)); }

  jlongArray attributes = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Natives, TypedGet,
                         ::testing::Values(Getter{"ByteArray", JNI_GET_PIN, true, 12},
                                           Getter{"String", NATIVE_TRANSIENT_GET_PIN, true, 13},
                                           Getter{"Number", NATIVE_TRANSIENT_GET_PIN, false, 14},
                                           Getter{"ByteBuffer", NATIVE_TRANSIENT_GET_PIN, false,
                                                  0}),
                         [](const auto& info) { return info.param.name; });

TEST_P(TypedGet, PinsTheRecordForItsReason) {
  LuOffHeapValue* made = prepare();
  setLevels(kDebugLevel);
  EXPECT_EQ(get(), made);
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:pin:enter pin: header=" + printed(made) +
                                    ", reason=" + getReason(GetParam().reason)));
  setLevels(0);
  checkMap(env, map, {{made, 1}});
  EXPECT_EQ(unpinValue(made, GetParam().reason), 3U);
  checkMap(env, map);
}

TEST_P(TypedGet, FillsTheAttributes) {
  LuOffHeapValue* made = prepare("a value");
  EXPECT_EQ(get(), made);
  if (GetParam().attributes) {
    EXPECT_THAT(jni.longsOf(attributes),
                ElementsAre(handle(bufferData(made->key)), made->key->dataSize,
                            handle(bufferData(made->value)), 7));
  } else {
    EXPECT_THAT(jni.longsOf(attributes), Each(-1));
  }
  unpinValue(made, GetParam().reason);
}

TEST_P(TypedGet, AValueThatIsNotInMemoryHasNoAttributes) {
  LuOffHeapValue* made = prepare();
  ByteBufferHeader* value = made->value;
  made->value = nullptr;
  made->flags &= static_cast<uint16_t>(~HAS_VALUE);
  EXPECT_EQ(get(), made);
  if (GetParam().attributes) {
    EXPECT_THAT(jni.longsOf(attributes),
                ElementsAre(handle(bufferData(made->key)), made->key->dataSize, 0, 0));
  }
  made->value = value;
  made->flags |= HAS_VALUE;
  unpinValue(made, GetParam().reason);
}

TEST_P(TypedGet, OfAMissingKeyLeavesTheAttributesUntouched) {
  prepare();
  const int64_t touchedRevision = 77;
  EXPECT_EQ(get(false, 0, false), nullptr);
  EXPECT_EQ(get(true, touchedRevision, false), nullptr);
  EXPECT_THAT(jni.longsOf(attributes), Each(-1));
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_EQ(revisionsOf(map->revisionQueue[0]), (std::vector<int64_t>{1}));
  checkMap(env, map);
}

TEST_P(TypedGet, TouchMovesTheRevision) {
  LuOffHeapValue* made = prepare("value", 1, 1);
  insert("another", "value", 1, 5);
  EXPECT_EQ(get(true, 9), made);
  EXPECT_EQ(revisionsOf(map->revisionQueue[1]), (std::vector<int64_t>{5, 9}));
  EXPECT_EQ(map->revisionQueue[1]->last, made);
  unpinValue(made, GetParam().reason);
  EXPECT_EQ(get(true, 2), made);
  EXPECT_EQ(revisionsOf(map->revisionQueue[1]), (std::vector<int64_t>{2, 5}));
  unpinValue(made, GetParam().reason);
  EXPECT_EQ(get(false, 20), made);
  EXPECT_EQ(made->revisionNumber, 2) << "without a touch the revision stays";
  unpinValue(made, GetParam().reason);
  EXPECT_EQ(get(true, -1), made);
  EXPECT_EQ(made->revisionNumber, 2) << "-1 keeps the entry's own";
  unpinValue(made, GetParam().reason);
  checkMap(env, map);
}

TEST_P(TypedGet, ThatCannotLockTheBucketSetLogsItsTag) {
  prepare();
  setLevels(kErrorLevel | kDebugLevel);
  for (const bool touch : {false, true}) {
    jni.clearRecords();
    FailThisLock failure(&set()->mutex, LockOp::lock);
    EXPECT_EQ(get(touch, 5), nullptr);
    EXPECT_FALSE(jni.pending().has_value());
    if (GetParam().lockTag != 0) {
      EXPECT_THAT(jni.lines(),
                  Contains(std::string("errorGeneric|") + kLockErrorKey +
                           "|Error acquiring BucketSet lum[" + std::to_string(GetParam().lockTag) +
                           "] lock in Nimbra library."));
    } else {
      std::vector<std::string> debugs;
      std::vector<std::string> errors;
      for (const LogRecord& record : jni.records()) {
        if (record.text.ends_with("Error acquiring BucketSet lock in Nimbra library.")) {
          debugs.push_back(record.level);
        }
        if (record.level != "debug") errors.push_back(record.line());
      }
      EXPECT_THAT(debugs, ElementsAre("debug"));
      EXPECT_THAT(errors, ElementsAre(std::string("error|") + kLockErrorKey));
    }
    EXPECT_EQ(heldLockCount(), 0);
  }
  setLevels(0);
  EXPECT_THAT(jni.longsOf(attributes), Each(-1));
  checkMap(env, map);
}

TEST_P(TypedGet, ATouchThatCannotLockTheMapIsNull) {
  prepare();
  {
    FailThisLock failure(&map->lock, LockOp::writeLock);
    EXPECT_EQ(get(true, 5), nullptr);
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("wrlock failure for luMap"));
  EXPECT_THAT(jni.longsOf(attributes), Each(-1));
  checkMap(env, map);
}

TEST_P(TypedGet, FailedMapUnlockKeepsThePin) {
  LuOffHeapValue* made = prepare();
  {
    FailThisLock failure(&map->lock, LockOp::unlock);
    EXPECT_EQ(get(true, 5), nullptr);
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("unlock failure for luMap"));
  EXPECT_EQ(unlock(env, map), 0);
  EXPECT_EQ(made->revisionNumber, 5);
  checkMap(env, map, {{made, 1}});
  unpinValue(made, GetParam().reason);
}

using MapGet = MapNatives;

TEST_F(MapGet, AnAttributeArrayThatIsTooShortLeavesNoPin) {
  LuOffHeapValue* made = insertArray("key", 5, "value");
  unpinValue(made, JNI_INSERTED_PIN);
  EXPECT_EQ(natives::getLuValue_ByteArray(env, caller, mapHandle(), jni.newLongArray({-1, -1, -1}),
                                          array("key"), 5, 0, JNI_FALSE, 0),
            0);
  EXPECT_TRUE(jni.takePending().has_value());
  checkMap(env, map);
}

TEST_F(MapGet, AHashOfMinusOneIsComputedFromTheKeyBuffer) {
  LuOffHeapValue* made = insert("key", "value");
  ByteBufferHeader* key = buffer("key");
  EXPECT_EQ(asValue(natives::getLuValue_ByteBuffer(env, caller, mapHandle(), javaBuffer(key), -1, 0,
                                                   JNI_FALSE, 0)),
            made);
  unpinValue(made, NATIVE_TRANSIENT_GET_PIN);
  EXPECT_EQ(asValue(natives::getLuValue_ByteBuffer(env, caller, mapHandle(), javaBuffer(key),
                                                   hashOf("key"), 0, JNI_FALSE, 0)),
            made);
  unpinValue(made, NATIVE_TRANSIENT_GET_PIN);
  drop(key);
  checkMap(env, map);
}

TEST_F(MapGet, MinusOneIsAnOrdinaryHashForTheOtherForms) {
  LuOffHeapValue* made = insertArray("key", -1, "value");
  unpinValue(made, JNI_INSERTED_PIN);
  const jlongArray attributes = jni.newLongArray({0, 0, 0, 0});
  EXPECT_EQ(asValue(natives::getLuValue_ByteArray(env, caller, mapHandle(), attributes,
                                                  array("key"), -1, 0, JNI_FALSE, 0)),
            made);
  unpinValue(made, JNI_GET_PIN);
  checkMap(env, map);
}

TEST_F(MapGet, NumbersMatchWithinTheTolerance) {
  LuOffHeapValue* made = insertDouble(1e20, 5, "value");
  unpinValue(made, JNI_INSERTED_PIN);
  EXPECT_EQ(
      asValue(natives::getLuValue_Number(env, caller, mapHandle(), 5, 0, JNI_FALSE, 0, 1e20 + 1e5)),
      made);
  unpinValue(made, NATIVE_TRANSIENT_GET_PIN);
  EXPECT_EQ(
      natives::getLuValue_Number(env, caller, mapHandle(), 5, 0, JNI_FALSE, 0, 1e20 * (1 + 1e-13)),
      0);
  checkMap(env, map);
}

// ---- Containment -------------------------------------------------------------------------

TEST_F(MapNatives, ContainmentByEveryFormLeavesEveryPin) {
  insert("buffer", "1");
  unpinValue(insertArray("array", 5, "2"), JNI_INSERTED_PIN);
  unpinValue(insertString(u"string", 6, "3"), JNI_INSERTED_PIN);
  unpinValue(insertDouble(2.5, 7, "4"), JNI_INSERTED_PIN);
  ByteBufferHeader* key = buffer("buffer");
  ByteBufferHeader* other = buffer("other");
  const jlong m = mapHandle();
  EXPECT_TRUE(natives::containsKey(env, caller, m, javaBuffer(key)));
  EXPECT_FALSE(natives::containsKey(env, caller, m, javaBuffer(other)));
  EXPECT_TRUE(natives::containsKeyWithHashCode(env, caller, m, javaBuffer(key), hashOf("buffer")));
  EXPECT_FALSE(natives::containsKeyWithHashCode(env, caller, m, javaBuffer(key), 1));
  EXPECT_TRUE(natives::containsKeyWithHashCodeBA(env, caller, m, array("array"), 5));
  EXPECT_FALSE(natives::containsKeyWithHashCodeBA(env, caller, m, array("array"), 6));
  EXPECT_FALSE(natives::containsKeyWithHashCodeBA(env, caller, m, array("arraz"), 5));
  EXPECT_TRUE(natives::containsKeyWithHashCodeString(env, caller, m, jni.newString(u"string"), 6));
  EXPECT_FALSE(natives::containsKeyWithHashCodeString(env, caller, m, jni.newString(u"strinh"), 6));
  EXPECT_TRUE(natives::containsKeyWithHashCodeNumber(env, caller, m, 7, 2.5));
  EXPECT_FALSE(natives::containsKeyWithHashCodeNumber(env, caller, m, 7, 2.25));
  drop(key);
  drop(other);
  checkMap(env, map);
}

TEST_F(MapNatives, ContainmentThatCannotLockRaises) {
  unpinValue(insertArray("array", 5, "2"), JNI_INSERTED_PIN);
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&getBucketSet(map->map, 5)->mutex, LockOp::lock);
    EXPECT_FALSE(natives::containsKeyWithHashCodeBA(env, caller, mapHandle(), array("array"), 5));
  }
  EXPECT_THAT(jni.lines(), ElementsAre(std::string("errorGeneric|") + kLockErrorKey +
                                       "|Error acquiring BucketSet [om2] lock in Nimbra "
                                       "library."));
  EXPECT_THAT(jni.takePending()->message,
              HasSubstr("Error acquiring BucketSet lock in Nimbra library."));
  setLevels(0);
  checkMap(env, map);
}

// ---- Figures -----------------------------------------------------------------------------

TEST_F(MapNatives, SizeAndBytesFollowTheEntries) {
  LuOffHeapValue* one = insertArray("one", 1, "some value");
  LuOffHeapValue* two = insertArray("two", 2, "another value, which is longer than the first");
  const auto sizes =
      static_cast<jlong>(nimbra::getSize_LuValue(env, one) + nimbra::getSize_LuValue(env, two));
  EXPECT_EQ(natives::size(env, caller, mapHandle()), 2);
  EXPECT_EQ(natives::getCurrentBytesUsed(env, caller, mapHandle()), sizes);
  unpinValue(one, JNI_INSERTED_PIN);
  unpinValue(two, JNI_INSERTED_PIN);
  {
    FailThisLock failure(&getBucketSetByIndex(map->map, 0)->mutex, LockOp::lock);
    EXPECT_EQ(natives::size(env, caller, mapHandle()), -1);
  }
  EXPECT_TRUE(natives::clear(env, caller, mapHandle()));
  EXPECT_EQ(natives::size(env, caller, mapHandle()), 0);
  EXPECT_EQ(natives::getCurrentBytesUsed(env, caller, mapHandle()), 0);
}

}  // namespace
}  // namespace nimbra::test
