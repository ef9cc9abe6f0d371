// The map face's natives, one call at a time: results, contents, pins, and what each leaves behind.

#include <functional>

#include "face_support.h"
#include "manager_natives.h"

namespace nimbra::test::face {
namespace {

constexpr jint kLongestStackKey = 512;  // longer keys are compared in the Java array

std::string bytes(size_t length, unsigned seed) {
  std::string result(length, '\0');
  for (size_t i = 0; i < length; ++i) result[i] = static_cast<char>(seed + i * 131 + (i >> 8) * 7);
  return result;
}

// Runs `body` once, at the next allocation with this label: what another thread could do just then.
class AtAllocation {
 public:
  AtAllocation(const char* label, std::function<void()> body)
      : label_(label), body_(std::move(body)) {
    EXPECT_EQ(active_, nullptr);
    active_ = this;
    faults::refuseAllocation = &AtAllocation::hook;
  }
  ~AtAllocation() {
    EXPECT_TRUE(ran_) << "no allocation of " << label_;
    faults::refuseAllocation = nullptr;
    active_ = nullptr;
  }
  AtAllocation(const AtAllocation&) = delete;
  AtAllocation& operator=(const AtAllocation&) = delete;

 private:
  static bool hook(uint64_t, const char* label) {
    AtAllocation& guard = *active_;
    if (guard.ran_ || label == nullptr || std::string_view(label) != guard.label_) return false;
    guard.ran_ = true;
    guard.body_();
    return false;
  }
  static inline AtAllocation* active_ = nullptr;

  const std::string_view label_;
  const std::function<void()> body_;
  bool ran_ = false;
};

const Thrown kSetLockFailure{kIllegalState, "Error acquiring BucketSet lock in Nimbra library."};

// The pending exception without the bracketed function name before its text.
std::optional<Thrown> takeRaised(ScriptedJni& jni) {
  std::optional<Thrown> thrown = jni.takePending();
  if (!thrown.has_value()) return thrown;
  const size_t end = thrown->message.find("] ");
  if (end == std::string::npos || thrown->message.front() != '[') {
    ADD_FAILURE() << "no function name in: " << thrown->message;
    return thrown;
  }
  thrown->message.erase(0, end + 2);
  return thrown;
}

// ---- Every operation, by key length ----------------------------------------------------------

class FaceKeys : public FaceTest, public ::testing::WithParamInterface<size_t> {
 protected:
  // The load factor keeps the set from growing, so that the books balance to the byte.
  void SetUp() override {
    FaceTest::SetUp();
    remakeMap(1, 1000);
  }
  std::string key() const { return bytes(GetParam(), 7); }
  // A key of the same length, where there is one, that differs in its last byte only.
  std::string sibling() const {
    std::string other = key();
    if (other.empty()) return "x";
    other.back() = static_cast<char>(other.back() ^ 0x40);
    return other;
  }
  static constexpr jint kHash = -77;  // shared by both, so that the keys' bytes decide
};

TEST_P(FaceKeys, OneEntryThroughItsWholeLife) {
  const std::string k = key();
  const Books before = Books::now();
  EXPECT_FALSE(calls->containsKey(k, kHash));
  EXPECT_EQ(calls->get(k, kHash), std::nullopt);
  EXPECT_EQ(calls->replace(k, kHash, "r", 1), 0);
  EXPECT_EQ(calls->remove(k, kHash), 0);
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(contentsOf(map), Rows{});

  EXPECT_EQ(calls->put(k, kHash, "first", 10), 1);
  EXPECT_EQ(contentsOf(map), (Rows{{k, {"first", 0, 10}}}));
  EXPECT_TRUE(calls->containsKey(k, kHash));
  EXPECT_EQ(calls->get(k, kHash), "first");
  checkFaceMap();
  EXPECT_EQ(Books::now().blocks, before.blocks + 3) << "record, key, value";

  EXPECT_EQ(calls->put(k, kHash, "second", 11), 0);
  EXPECT_EQ(contentsOf(map), (Rows{{k, {"second", 0, 11}}}));
  EXPECT_EQ(calls->putIfAbsent(k, kHash, "ignored", 12), 0);
  EXPECT_EQ(contentsOf(map), (Rows{{k, {"second", 0, 11}}}));
  EXPECT_EQ(calls->replace(k, kHash, "third", 13), 1);
  EXPECT_EQ(contentsOf(map), (Rows{{k, {"third", 0, 13}}}));
  checkFaceMap();
  EXPECT_EQ(Books::now().blocks, before.blocks + 3) << "old values are gone";

  std::vector<jlong> words;
  const jlong pinned = calls->pin(k, kHash, &words);
  ASSERT_NE(pinned, 0);
  EXPECT_EQ(placeAt(words, 0).text(), "third");
  EXPECT_EQ(words[2], 13);
  calls->unpin(pinned);

  EXPECT_EQ(calls->remove(k, kHash), 1);
  EXPECT_EQ(calls->remove(k, kHash), 0);
  EXPECT_FALSE(calls->containsKey(k, kHash));
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(calls->putIfAbsent(k, kHash, "fourth", 14), 1);
  EXPECT_EQ(contentsOf(map), (Rows{{k, {"fourth", 0, 14}}}));
  checkFaceMap();
  EXPECT_EQ(calls->remove(k, kHash), 1);
  checkFaceMap();
  EXPECT_EQ(Books::now(), before);
}

TEST_P(FaceKeys, ASiblingWithTheSameHashIsAnotherKey) {
  const std::string k = key();
  const std::string other = sibling();
  EXPECT_EQ(calls->put(k, kHash, "mine", 1), 1);
  EXPECT_FALSE(calls->containsKey(other, kHash));
  EXPECT_EQ(calls->replace(other, kHash, "no", 2), 0);
  EXPECT_EQ(calls->remove(other, kHash), 0);
  EXPECT_EQ(calls->put(other, kHash, "theirs", 3), 1);
  // The sibling is the first of the chain now.
  EXPECT_EQ(calls->put(k, kHash, "mine again", 4), 0);
  EXPECT_EQ(calls->get(k, kHash), "mine again");
  EXPECT_EQ(calls->get(other, kHash), "theirs");
  EXPECT_EQ(calls->remove(k, kHash), 1);
  EXPECT_EQ(calls->get(other, kHash), "theirs");
  checkFaceMap();
}

TEST_P(FaceKeys, TheHashIsPartOfTheIdentity) {
  EXPECT_EQ(calls->put(key(), 1, "one", 1), 1);
  EXPECT_EQ(calls->get(key(), 2), std::nullopt);
  EXPECT_EQ(calls->put(key(), 2, "two", 2), 1);
  EXPECT_EQ(calls->get(key(), 1), "one");
  EXPECT_EQ(calls->remove(key(), 1), 1);
  EXPECT_EQ(calls->get(key(), 2), "two");
}

// A short key crosses once, whatever the chain holds; a long one is compared in its array.
TEST_P(FaceKeys, CrossingsOfAGet) {
  calls->put(key(), kHash, "mine", 1);
  calls->put(sibling(), kHash, "theirs", 2);
  const bool isShort = GetParam() <= static_cast<size_t>(kLongestStackKey);
  const int compared = isShort ? 0 : 2;  // the sibling is the first of the chain
  jni.clearCalls();
  EXPECT_EQ(calls->get(key(), kHash), "mine");
  EXPECT_EQ(jni.callCount("GetByteArrayRegion"), isShort ? 1 : 0);
  EXPECT_EQ(jni.callCount("GetPrimitiveArrayCritical"), compared);
  EXPECT_EQ(jni.callCount("NewByteArray"), 1);
  EXPECT_EQ(jni.callCount("SetByteArrayRegion"), 1);
  EXPECT_EQ(jni.callCount("NewDirectByteBuffer"), 0);
}

// Virtual machines may hand out copies of arrays.
TEST_P(FaceKeys, CopiedArraysCompareTheSame) {
  jni.handOutCopies(true);
  EXPECT_EQ(calls->put(key(), kHash, "a", 1), 1);
  EXPECT_EQ(calls->put(key(), kHash, "b", 2), 0);
  EXPECT_EQ(calls->get(key(), kHash), "b");
  EXPECT_EQ(calls->remove(key(), kHash), 1);
  EXPECT_EQ(jni.liveCriticals(), 0U);
}

// With every record written the results and the pins are the same.
TEST_P(FaceKeys, TracingChangesNothing) {
  setLevels(kAllLevels);
  EXPECT_EQ(calls->put(key(), kHash, "a", 1), 1);
  EXPECT_EQ(calls->put(sibling(), kHash, "s", 1), 1);
  EXPECT_EQ(calls->put(key(), kHash, "b", 2), 0);
  EXPECT_EQ(calls->putIfAbsent(key(), kHash, "c", 3), 0);
  EXPECT_EQ(calls->replace(key(), kHash, "d", 4), 1);
  EXPECT_TRUE(calls->containsKey(key(), kHash));
  EXPECT_EQ(calls->get(key(), kHash), "d");
  std::vector<jlong> words;
  calls->unpin(calls->pin(key(), kHash, &words));
  EXPECT_EQ(calls->remove(sibling(), kHash), 1);
  EXPECT_FALSE(jni.records().empty());
  setLevels(0);
  checkFaceMap();
  EXPECT_EQ(contentsOf(map), (Rows{{key(), {"d", 0, 4}}}));
}

INSTANTIATE_TEST_SUITE_P(Lengths, FaceKeys, ::testing::Values(0, 1, 511, 512, 513, 65535),
                         [](const auto& info) { return std::to_string(info.param); });

// ---- Values ------------------------------------------------------------------------------------

class FaceValues : public FaceTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(FaceValues, RoundTripThroughEveryWrite) {
  const std::string first = bytes(GetParam(), 1);
  const std::string second = bytes(GetParam(), 2);
  EXPECT_EQ(put("put", first), 1);
  EXPECT_EQ(get("put"), first);
  EXPECT_EQ(put("put", second), 0);
  EXPECT_EQ(get("put"), second);
  EXPECT_EQ(calls->replace("put", hashOf("put"), first, 3), 1);
  EXPECT_EQ(get("put"), first);
  EXPECT_EQ(calls->putIfAbsent("absent", hashOf("absent"), second, 4), 1);
  EXPECT_EQ(get("absent"), second);
  std::vector<jlong> words;
  const jlong pinned = calls->pin("absent", hashOf("absent"), &words);
  EXPECT_EQ(placeAt(words, 0).text(), second);
  calls->unpin(pinned);
  checkFaceMap();
}

TEST_P(FaceValues, LengthsMayChange) {
  put("k", bytes(GetParam(), 1));
  put("k", "short");
  EXPECT_EQ(get("k"), "short");
  put("k", bytes(GetParam(), 3));
  EXPECT_EQ(get("k"), bytes(GetParam(), 3));
  checkFaceMap();
}

INSTANTIATE_TEST_SUITE_P(Lengths, FaceValues, ::testing::Values(0, 1, 8, 4096, 3 << 20),
                         [](const auto& info) { return std::to_string(info.param); });

TEST_F(FaceTest, RevisionsOrderTheQueueAndMayRepeat) {
  put("a", "1", 30);
  put("b", "2", 10);
  put("c", "3", 20);
  put("d", "4", 20);
  EXPECT_EQ(revisionsOf(map->revisionQueue[0]), (std::vector<int64_t>{10, 20, 20, 30}));
  put("a", "5", INT64_MIN);
  put("b", "6", INT64_MAX);
  EXPECT_EQ(revisionsOf(map->revisionQueue[0]),
            (std::vector<int64_t>{INT64_MIN, 20, 20, INT64_MAX}));
  EXPECT_EQ(map->numQueues, 1U) << "one owner writes everything";
  checkFaceMap();
}

TEST_F(FaceTest, ManyEntriesOverManySets) {
  remakeMap(8);
  const Books empty = Books::now();
  Rows expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string key = "key " + std::to_string(i);
    EXPECT_EQ(put(key, bytes(static_cast<size_t>(i % 100), 5), i), 1);
    expected[key] = Row{bytes(static_cast<size_t>(i % 100), 5), 0, i};
  }
  EXPECT_EQ(contentsOf(map), expected);
  checkFaceMap();
  for (int i = 0; i < 3000; ++i) {
    const std::string key = "key " + std::to_string(i);
    EXPECT_EQ(calls->remove(key, hashOf(key)), 1);
  }
  checkFaceMap();
  EXPECT_EQ(Books::now().blocks, empty.blocks);
}

// ---- A key that comes or goes in the middle of an operation ------------------------------------

TEST_F(FaceTest, PutGoesRoundAgainWhenTheKeyAppears) {
  setLevels(0x400);  // profiling: the road that asks for memory outside the bucket set
  {
    const AtAllocation other("Key Data", [&] { EXPECT_EQ(put("k", "theirs", 1), 1); });
    EXPECT_EQ(put("k", "mine", 2), 0);
  }
  EXPECT_EQ(contentsOf(map), (Rows{{"k", {"mine", 0, 2}}}));
  checkFaceMap();
}

TEST_F(FaceTest, PutOfAKeyThatIsRemovedInBetween) {
  put("k", "theirs", 1);
  {
    const AtAllocation other("Value Data", [&] { EXPECT_EQ(calls->remove("k", hashOf("k")), 1); });
    EXPECT_EQ(put("k", "mine", 2), 1);
  }
  EXPECT_EQ(contentsOf(map), (Rows{{"k", {"mine", 0, 2}}}));
  checkFaceMap();
}

TEST_F(FaceTest, PutIfAbsentLosesToAKeyThatAppears) {
  for (const char* moment : {"Key Data", "Value Data", "LuOffHeapMapValue"}) {
    SCOPED_TRACE(moment);
    const std::string key = moment;
    {
      const AtAllocation other(moment, [&] { EXPECT_EQ(put(key, "theirs", 1), 1); });
      EXPECT_EQ(calls->putIfAbsent(key, hashOf(key), "mine", 2), 0);
    }
    EXPECT_EQ(get(key), "theirs");
  }
  checkFaceMap();
}

TEST_F(FaceTest, ReplaceMissesAKeyThatGoes) {
  put("k", "theirs", 1);
  const AtAllocation other("Value Data", [&] { EXPECT_EQ(calls->remove("k", hashOf("k")), 1); });
  EXPECT_EQ(calls->replace("k", hashOf("k"), "mine", 2), 0);
  EXPECT_EQ(contentsOf(map), Rows{});
}

// No copy of the array to compare with: the search counts as a miss, the insert finds the key by
// its buffer, and the next round succeeds.
TEST_F(FaceTest, ALongKeyThatCannotBeComparedOnce) {
  const std::string key = bytes(600, 3);
  put(key, "old", 1);
  jni.failCall("GetPrimitiveArrayCritical");
  EXPECT_EQ(put(key, "new", 2), 0);
  EXPECT_EQ(get(key), "new");
  checkFaceMap();
}

// ---- Get ---------------------------------------------------------------------------------------

TEST_F(FaceTest, GetWithoutMemoryForTheArrayLeavesNoPin) {
  put("k", "value");
  jni.failCall("NewByteArray", 1, Thrown{kOutOfMemory, "Java heap space"});
  EXPECT_EQ(get("k"), std::nullopt);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "Java heap space"}));
  checkFaceMap();
  jni.failCall("NewByteArray");
  EXPECT_EQ(get("k"), std::nullopt);
  checkFaceMap();
  EXPECT_EQ(get("k"), "value");
}

TEST_F(FaceTest, GetReturnsAnArrayOfItsOwn) {
  put("k", "value");
  const jbyteArray first =
      jni.adopt(face::get(env, nullptr, calls->handle(), calls->array("k"), hashOf("k"), nullptr));
  put("k", "other");
  EXPECT_EQ(calls->remove("k", hashOf("k")), 1);
  const std::vector<uint8_t> copy = jni.bytesOf(first);
  EXPECT_EQ(std::string(copy.begin(), copy.end()), "value");
}

// ---- Pins --------------------------------------------------------------------------------------

TEST_F(FaceTest, PinWritesThePlaceOfTheValue) {
  put("k", "value", 42);
  const LuOffHeapValue* entry = find(map, "k");
  std::vector<jlong> words;
  const jlong pinned = calls->pin("k", hashOf("k"), &words, 5);
  EXPECT_EQ(pinned, natives::handle(entry->value));
  EXPECT_EQ(words, (std::vector<jlong>{natives::handle(bufferData(entry->value)), 5, 42, 0, 0}));
  checkFaceMap({{entry->value, 1}});
  calls->unpin(pinned);
  checkFaceMap();
}

TEST_F(FaceTest, PinOfAnAbsentKeyWritesNothing) {
  put("k", "value");
  std::vector<jlong> words;
  EXPECT_EQ(calls->pin("absent", hashOf("absent"), &words), 0);
  EXPECT_EQ(words, (std::vector<jlong>{0, 0, 0}));
  checkFaceMap();
}

TEST_F(FaceTest, PinIntoAShortArrayLeavesNoPin) {
  put("k", "value");
  for (const jint length : {0, 1, 2}) {
    std::vector<jlong> words;
    EXPECT_EQ(calls->pin("k", hashOf("k"), &words, length), 0);
    const std::optional<Thrown> thrown = jni.takePending();
    ASSERT_TRUE(thrown.has_value()) << "length " << length;
    EXPECT_EQ(thrown->className, "java/lang/ArrayIndexOutOfBoundsException");
    EXPECT_EQ(words, std::vector<jlong>(static_cast<size_t>(length)));
    checkFaceMap();
  }
  // Absent keys write nothing, so the array does not matter.
  std::vector<jlong> words;
  EXPECT_EQ(calls->pin("absent", 0, &words, 0), 0);
}

TEST_F(FaceTest, PinsOfOneValueAreCountedOneByOne) {
  put("k", "value");
  const ByteBufferHeader* value = find(map, "k")->value;
  std::vector<jlong> words;
  const jlong first = calls->pin("k", hashOf("k"), &words);
  const jlong second = calls->pin("k", hashOf("k"), &words);
  EXPECT_EQ(first, second);
  checkFaceMap({{value, 2}});
  EXPECT_EQ(calls->remove("k", hashOf("k")), 1);
  const int64_t blocks = Books::now().blocks;
  calls->unpin(first);
  EXPECT_EQ(Books::now().blocks, blocks);
  EXPECT_EQ(placeAt(words, 0).text(), "value");
  calls->unpin(second);
  EXPECT_EQ(Books::now().blocks, blocks - 1) << "the last pin frees the value";
}

// By the ways in which a value can leave its entry, or the entry its map, under a pin.
class FacePinnedValue : public FaceTest, public ::testing::WithParamInterface<int> {
 protected:
  void depart() {
    const jint hash = hashOf("k");
    switch (GetParam()) {
      case 0: EXPECT_EQ(calls->put("k", hash, "replacement", 2), 0); break;
      case 1: EXPECT_EQ(calls->replace("k", hash, "replacement", 2), 1); break;
      case 2: EXPECT_EQ(calls->remove("k", hash), 1); break;
      case 3: EXPECT_EQ(natives::clear(env, caller, calls->handle()), JNI_TRUE); break;
      case 4:
        EXPECT_EQ(calls->remove("k", hash), 1);
        EXPECT_EQ(calls->put("k", hash, "reborn", 3), 1);
        break;
      default:
        deleteMap(map);
        map = nullptr;
        break;
    }
  }
};

TEST_P(FacePinnedValue, StaysAsItWas) {
  const std::string value = bytes(5000, 9);
  put("k", value, 17);
  put("neighbour", "x", 18);
  std::vector<jlong> words;
  const jlong pinned = calls->pin("k", hashOf("k"), &words);
  ASSERT_NE(pinned, 0);
  depart();
  EXPECT_EQ(placeAt(words, 0).text(), value);
  EXPECT_EQ(words[1], 5000);
  EXPECT_EQ(words[2], 17);
  // Memory that was given back would be used again by these.
  std::vector<ByteBufferHeader*> others;
  for (int i = 0; i < 50; ++i) others.push_back(buffer(std::string(5000, 'z')));
  EXPECT_EQ(placeAt(words, 0).text(), value);
  for (ByteBufferHeader* other : others) drop(other);
  const int64_t blocks = Books::now().blocks;
  calls->unpin(pinned);
  EXPECT_EQ(Books::now().blocks, blocks - 1);
  if (map != nullptr) checkFaceMap();
}

constexpr const char* kDepartures[] = {"Put", "Replace", "Remove", "Clear", "Reborn", "Deletion"};

INSTANTIATE_TEST_SUITE_P(Departures, FacePinnedValue, ::testing::Range(0, 6),
                         [](const auto& info) { return kDepartures[info.param]; });

TEST_F(FaceTest, PinOfAnEmptyValue) {
  put("k", "");
  std::vector<jlong> words;
  const jlong pinned = calls->pin("k", hashOf("k"), &words);
  EXPECT_NE(pinned, 0);
  EXPECT_NE(words[0], 0);
  EXPECT_EQ(words[1], 0);
  calls->unpin(pinned);
  checkFaceMap();
}

// ---- Locks that cannot be had ------------------------------------------------------------------

TEST_F(FaceTest, ReadsWithoutTheBucketSetRaise) {
  put("k", "value");
  const BucketSet* set = setOf("k");
  {
    const FailThisLock failing(&set->mutex, LockOp::lock);
    EXPECT_FALSE(calls->containsKey("k", hashOf("k")));
    EXPECT_EQ(takeRaised(jni), kSetLockFailure);
    EXPECT_EQ(get("k"), std::nullopt);
    EXPECT_EQ(takeRaised(jni), kSetLockFailure);
    std::vector<jlong> words;
    EXPECT_EQ(calls->pin("k", hashOf("k"), &words), 0);
    EXPECT_EQ(takeRaised(jni), kSetLockFailure);
    EXPECT_EQ(words, (std::vector<jlong>{0, 0, 0}));
    EXPECT_EQ(calls->putIfAbsent("k", hashOf("k"), "other", 2), -1);
    EXPECT_EQ(takeRaised(jni), kSetLockFailure);
    EXPECT_EQ(failing.fired(), 4);
  }
  EXPECT_EQ(contentsOf(map), (Rows{{"k", {"value", 0, 1}}}));
  checkFaceMap();
}

// ---- Limits ------------------------------------------------------------------------------------

TEST_F(FaceTest, HardCapIsDerivedFromTheMaximum) {
  manager_natives::setCurrentMaxOffHeapSize(env, manager, 1000);
  EXPECT_EQ(face::hardCapLimit(env, nullptr), 970);
  manager_natives::setCurrentMaxOffHeapSize(env, manager, int64_t{100} << 30);
  EXPECT_EQ(face::hardCapLimit(env, nullptr), 104152956928);
  manager_natives::setCurrentMaxOffHeapSize(env, manager, kAmpleMaximum);
}

TEST_F(FaceTest, AValueOverTheMaximumIsRefused) {
  put("k", "value");
  const int64_t inUse = getCurrentSize(env);
  maxOffHeapSize = inUse + 100000;
  EXPECT_EQ(put("k", std::string(200000, 'x')), -1);
  EXPECT_EQ(jni.takePending()->className, kIllegalState);
  EXPECT_EQ(put("new", std::string(200000, 'x')), -1);
  EXPECT_EQ(jni.takePending()->className, kIllegalState);
  EXPECT_EQ(put("k", "fits"), 0);
  maxOffHeapSize = kAmpleMaximum;
  EXPECT_EQ(contentsOf(map), (Rows{{"k", {"fits", 0, 1}}}));
  checkFaceMap();
}

}  // namespace
}  // namespace nimbra::test::face
