// What one thread of the library's stress does to each kind of map: the contract's natives and the
// face's on one map, a cache of the contract's eviction queues, and bounded maps of the face.

#pragma once

#include <array>
#include <memory>
#include <utility>

#include "bounded_support.h"
#include "call_natives.h"
#include "stress_support.h"

namespace nimbra::test::stress {

inline constexpr uint16_t kOwners = 2;
inline constexpr size_t kQueryWords = 9;

struct Totals {
  Count steps;
  Count refused;
  Count inserted;
  Count updated;
  Count removed;
  Count cleared;  // entries that a clear has taken
  Count clears;
  Count found;
  Count queried;
  Count walked;
  Count evicted;
  Count buffers;
};

// What a map's threads share.
struct Shared {
  LuOffHeapMap* map = nullptr;
  Gate gate;
  std::atomic<int64_t> revisions{0};
  Count present;  // inserted less removed and cleared

  jlong handle() const { return natives::handle(map); }
  jlong next() { return 1 + revisions.fetch_add(1, std::memory_order_relaxed); }
  jlong last() const { return revisions.load(std::memory_order_relaxed); }
};

// The contract's way to hold what an operation returned.
class ContractActor {
 public:
  ContractActor(Thread& thread, Shared& shared, Totals& totals, uint32_t index, size_t keys)
      : thread_(thread),
        shared_(shared),
        totals_(totals),
        index_(index),
        rows_(1 + kQueryWords * 8 * keys) {}

 protected:
  // REQUIRES: an ALLOCATION_PIN on an update's snapshot, which goes; the entry's node with
  // overflow.
  void dropSnapshot(LuOffHeapValue* snapshot, uint32_t key) {
    thread_.finishUpdate(snapshot);
    ++totals_.updated;
    checkValue(thread_.read(shared_.map, snapshot), key);
    const jlong record = natives::handle(snapshot);
    if (!thread_.overflow()) lookAt(record);
    natives::markClientDirty(env(), self(), record);  // answers what was: new records are dirty
    EXPECT_TRUE(natives::isClientDirty(env(), self(), record));
    EXPECT_TRUE(natives::unmarkClientDirty(env(), self(), record));
    thread_.unpinRecord(snapshot, ALLOCATION_PIN);
  }
  // What is nobody else's may be read in place.
  void lookAt(jlong record) {
    const jlongArray out = thread_.jni().newLongArray(std::vector<jlong>(3));
    EXPECT_EQ(natives::getValueInfo(env(), self(), record, 0, out), 1);
    EXPECT_EQ(natives::getValueType(env(), self(), record), DESERIALIZED_TYPE_BINARY);
    EXPECT_LT(natives::getRevisionOwner(env(), self(), record), kOwners);
    natives::getRevisionNumber(env(), self(), record);
    EXPECT_EQ(natives::isValueInMemory(env(), self(), record), 1);
    EXPECT_GT(natives::getSize(env(), self(), record), 0);
  }
  void dropRemoved(LuOffHeapValue* removed, uint32_t key) {
    ++totals_.removed;
    shared_.present += -1;
    checkValue(thread_.read(shared_.map, removed), key);
    if (!thread_.overflow()) lookAt(natives::handle(removed));
    thread_.unpinRecord(removed, JNI_REMOVED_PIN);
  }

  // The entries whose revisions lie in a range, as Java takes them: with overflow every node is
  // this thread's, and is let go before anything else.
  template <typename KeyOf>
  void query(KeyOf keyOf) {
    const jlong last = shared_.last();
    const jlong from = thread_.chance(4) ? 0 : seen_;
    const jobject area =
        thread_.jni().newDirectBuffer(rows_.data(), static_cast<jlong>(8 * rows_.size()));
    natives::queryRevisionAndPinWithBounds(
        env(), self(), shared_.handle(), area, thread_.chance(3) ? -1 : static_cast<jint>(index_),
        thread_.jni().newLongArray(std::vector<jlong>(kOwners, from)),
        thread_.jni().newLongArray(std::vector<jlong>(kOwners, last)));
    seen_ = last;
    const auto count = static_cast<size_t>(rows_[0]);
    ASSERT_LE(1 + kQueryWords * count, rows_.size());
    std::vector<std::pair<uint32_t, std::string>> onDisk;
    for (size_t at = 1; at < 1 + kQueryWords * count; at += kQueryWords) {
      if (rows_[at + 3] == 0) {
        onDisk.emplace_back(keyOf(rows_[at + 1], rows_[at + 2]),
                            thread_.payloadAt(thread_.chunkOf(rows_[at])));
      }
      if (thread_.overflow()) {
        EXPECT_EQ(natives::unlockMetadata(env(), nullptr, rows_[at]), JNI_TRUE);
      }
    }
    for (const auto& [key, value] : onDisk) checkValue(value, key);
    for (size_t at = 1; at < 1 + kQueryWords * count; at += kQueryWords) {
      auto* key = headerOfData(reinterpret_cast<void*>(rows_[at + 1]));
      if (rows_[at + 3] != 0) {
        auto* value = headerOfData(reinterpret_cast<void*>(rows_[at + 3]));
        checkValue(textOf(value), keyOf(rows_[at + 1], rows_[at + 2]));
        unpinToFree(env(), value, JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN);
      }
      unpinToFree(env(), key, JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN);
      thread_.unpinRecord(reinterpret_cast<LuOffHeapValue*>(rows_[at]), JNI_QUERYREVISION_PIN);
    }
    totals_.queried += static_cast<int64_t>(count);
  }

  JNIEnv* env() { return thread_.env; }
  jobject self() { return thread_.self; }
  jshort owner() { return static_cast<jshort>(thread_.below(kOwners)); }

  Thread& thread_;
  Shared& shared_;
  Totals& totals_;
  const uint32_t index_;

 private:
  std::vector<int64_t> rows_;
  jlong seen_ = 0;
};

// ---- One map under the contract's natives and the face's ----------------------------------------

// Two keys of each kind; some hashes are shared, so that kinds meet in one chain.
enum KeyKind : uint32_t {
  kBytes,
  kString,
  kBuffer,
  kByte,
  kShort,
  kInt,
  kLong,
  kFloat,
  kDouble,
  kKeyKinds
};
inline constexpr uint32_t kMixedKeys = 2 * kKeyKinds;

struct MixedMap : Shared {
  std::array<ByteBufferHeader*, kMixedKeys> keyBuffers{};  // of the kind kBuffer

  static std::string nameOf(uint32_t key) { return "key " + std::to_string(key); }
  jint hashOf(uint32_t key) const {
    if (key % kKeyKinds == kBuffer) return hashFn(keyBuffers[key]);
    return static_cast<jint>((key % 5) * 0x9e3779b9U);
  }
};

class MixedActor : public ContractActor {
 public:
  MixedActor(Thread& thread, MixedMap& map, Totals& totals, uint32_t index)
      : ContractActor(thread, map, totals, index, kMixedKeys), map_(map) {}

  void step() {
    const uint32_t key = thread_.below(kMixedKeys);
    if (thread_.chance(400)) return clear();
    const auto inside = map_.gate.enter();
    if (key % kKeyKinds == kBytes && thread_.chance(2)) return faceStep(key);
    switch (thread_.below(14)) {
      case 0:
      case 1:
      case 2: insert(key); break;
      case 3:
      case 4:
      case 5: update(key); break;
      case 6:
      case 7: remove(key); break;
      case 8:
      case 9: get(key, thread_.chance(2)); break;
      case 10: contains(key); break;
      case 11: query([](jlong data, jlong length) { return keyAt(data, length); }); break;
      case 12: walkLocked(); break;
      default: figures(); break;
    }
  }

 private:
  using Method = jlong;
  jlong map() { return map_.handle(); }

  // Which key stands in a key buffer, whatever its kind.
  static uint32_t keyAt(jlong data, jlong /*length*/) {
    const ByteBufferHeader* header = headerOfData(reinterpret_cast<void*>(data));
    return numberIn(header);
  }
  template <typename Number>
  static uint32_t as(const ByteBufferHeader* key) {
    Number number{};
    std::memcpy(&number, bufferData(key), sizeof number);
    return static_cast<uint32_t>(number);
  }
  static uint32_t numberIn(const ByteBufferHeader* key) {
    switch (key->deserializedType) {
      case DESERIALIZED_TYPE_JBYTE: return as<int8_t>(key);
      case DESERIALIZED_TYPE_JSHORT: return as<int16_t>(key);
      case DESERIALIZED_TYPE_JINT: return as<int32_t>(key);
      case DESERIALIZED_TYPE_JLONG: return as<int64_t>(key);
      case DESERIALIZED_TYPE_JFLOAT: return as<float>(key);
      case DESERIALIZED_TYPE_JDOUBLE: return as<double>(key);
      default: break;
    }
    std::string text;
    for (const char unit : textOf(key)) {
      if (unit != 0) text.push_back(unit);
    }
    return static_cast<uint32_t>(std::strtoul(text.c_str() + 4, nullptr, 10));
  }

  jbyteArray bytes(uint32_t key) { return thread_.array(MixedMap::nameOf(key)); }
  jstring string(uint32_t key) {
    const std::string name = MixedMap::nameOf(key);
    return thread_.jni().newString({name.begin(), name.end()});
  }
  jobject keyBuffer(uint32_t key) { return thread_.javaBuffer(map_.keyBuffers[key]); }

  // Runs a write with its value as an array or as a buffer; both answer a record.
  template <typename ByArray, typename ByBuffer>
  LuOffHeapValue* write(uint32_t key, ByArray byArray, ByBuffer byBuffer) {
    const jlong revision = map_.next();
    const std::string text = valueOf(key, static_cast<uint64_t>(revision));
    if (thread_.chance(2)) {
      return natives::asValue(
          byArray(thread_.array(text), static_cast<jint>(text.size()), owner(), revision));
    }
    ByteBufferHeader* value = thread_.buffer(text);
    if (value == nullptr) return nullptr;
    LuOffHeapValue* record =
        natives::asValue(byBuffer(thread_.javaBuffer(value), owner(), revision));
    unpinToFree(env(), value, ALLOCATION_PIN);
    return record;
  }
  template <typename Number, typename ByArray, typename ByBuffer>
  LuOffHeapValue* writeNumber(uint32_t key, ByArray& byArray, ByBuffer& byBuffer) {
    const jint hash = map_.hashOf(key);
    const auto number = static_cast<Number>(key);
    return write(
        key,
        [&](jbyteArray value, jint length, jshort owner, jlong revision) {
          return byArray(env(), self(), map(), number, hash, value, length,
                         DESERIALIZED_TYPE_BINARY, owner, revision);
        },
        [&](jobject value, jshort owner, jlong revision) {
          return byBuffer(env(), self(), map(), number, hash, value, owner, revision);
        });
  }
  // A key in a ByteBuffer comes with a value in one, with its hash or without.
  template <typename WithHash, typename Without>
  LuOffHeapValue* writeBuffer(uint32_t key, WithHash& withHash, Without& without) {
    const jlong revision = map_.next();
    ByteBufferHeader* value = thread_.buffer(valueOf(key, static_cast<uint64_t>(revision)));
    if (value == nullptr) return nullptr;
    const jobject javaValue = thread_.javaBuffer(value);
    const jlong record =
        thread_.chance(2)
            ? withHash(env(), self(), map(), keyBuffer(key), map_.hashOf(key), javaValue, owner(),
                       revision)
            : without(env(), self(), map(), keyBuffer(key), javaValue, owner(), revision);
    unpinToFree(env(), value, ALLOCATION_PIN);
    return natives::asValue(record);
  }

  LuOffHeapValue* insertByKind(uint32_t key) {
    using namespace natives;
    const jint hash = map_.hashOf(key);
    switch (key % kKeyKinds) {
      case kBytes: {
        const jlong revision = map_.next();
        const std::string text = valueOf(key, static_cast<uint64_t>(revision));
        return asValue(insertAndGetNewAndPinWithHashCodeAndBA(
            env(), self(), map(), bytes(key), static_cast<jint>(MixedMap::nameOf(key).size()),
            DESERIALIZED_TYPE_BINARY, hash, thread_.array(text), static_cast<jint>(text.size()),
            DESERIALIZED_TYPE_BINARY, owner(), revision));
      }
      case kString:
        return write(
            key,
            [&](jbyteArray value, jint length, jshort owner, jlong revision) {
              return insertAndGetNewAndPinWithHashCodeAndString(
                  env(), self(), map(), string(key), hash, value, length, DESERIALIZED_TYPE_BINARY,
                  owner, revision);
            },
            [&](jobject value, jshort owner, jlong revision) {
              return insertAndGetNewAndPinWithHashCodeAndStringBB(env(), self(), map(), string(key),
                                                                  hash, value, owner, revision);
            });
      case kBuffer:
        return writeBuffer(key, insertAndGetNewAndPinWithHashCode, insertAndGetNewAndPin);
      case kByte:
        return writeNumber<jbyte>(key, insertAndGetNewAndPinWithByte,
                                  insertAndGetNewAndPinWithByteBB);
      case kShort:
        return writeNumber<jshort>(key, insertAndGetNewAndPinWithShort,
                                   insertAndGetNewAndPinWithShortBB);
      case kInt:
        return writeNumber<jint>(key, insertAndGetNewAndPinWithInt, insertAndGetNewAndPinWithIntBB);
      case kLong:
        return writeNumber<jlong>(key, insertAndGetNewAndPinWithLong,
                                  insertAndGetNewAndPinWithLongBB);
      case kFloat:
        return writeNumber<jfloat>(key, insertAndGetNewAndPinWithFloat,
                                   insertAndGetNewAndPinWithFloatBB);
      default:
        return writeNumber<jdouble>(key, insertAndGetNewAndPinWithDouble,
                                    insertAndGetNewAndPinWithDoubleBB);
    }
  }
  LuOffHeapValue* updateByKind(uint32_t key) {
    using namespace natives;
    const jint hash = map_.hashOf(key);
    switch (key % kKeyKinds) {
      case kBytes:
        return write(
            key,
            [&](jbyteArray value, jint length, jshort owner, jlong revision) {
              return updateAndGetNewAndPinWithHashCodeBABA(env(), self(), map(), bytes(key), hash,
                                                           value, length, DESERIALIZED_TYPE_BINARY,
                                                           owner, revision);
            },
            [&](jobject value, jshort owner, jlong revision) {
              return updateAndGetNewAndPinWithHashCodeBA(env(), self(), map(), bytes(key), hash,
                                                         value, owner, revision);
            });
      case kString:
        return write(
            key,
            [&](jbyteArray value, jint length, jshort owner, jlong revision) {
              return updateAndGetNewAndPinWithHashCodeStringBA(
                  env(), self(), map(), string(key), hash, value, length, DESERIALIZED_TYPE_BINARY,
                  owner, revision);
            },
            [&](jobject value, jshort owner, jlong revision) {
              return updateAndGetNewAndPinWithHashCodeStringBB(env(), self(), map(), string(key),
                                                               hash, value, owner, revision);
            });
      case kBuffer:
        return writeBuffer(key, updateAndGetNewAndPinWithHashCode, updateAndGetNewAndPin);
      case kByte:
        return writeNumber<jbyte>(key, updateAndGetNewAndPinWithByte,
                                  updateAndGetNewAndPinWithByteBB);
      case kShort:
        return writeNumber<jshort>(key, updateAndGetNewAndPinWithShort,
                                   updateAndGetNewAndPinWithShortBB);
      case kInt:
        return writeNumber<jint>(key, updateAndGetNewAndPinWithInt, updateAndGetNewAndPinWithIntBB);
      case kLong:
        return writeNumber<jlong>(key, updateAndGetNewAndPinWithLong,
                                  updateAndGetNewAndPinWithLongBB);
      case kFloat:
        return writeNumber<jfloat>(key, updateAndGetNewAndPinWithFloat,
                                   updateAndGetNewAndPinWithFloatBB);
      default:
        return writeNumber<jdouble>(key, updateAndGetNewAndPinWithDouble,
                                    updateAndGetNewAndPinWithDoubleBB);
    }
  }

  void insert(uint32_t key) {
    LuOffHeapValue* made = insertByKind(key);
    if (made == nullptr) return;
    ++totals_.inserted;
    ++map_.present;
    thread_.unpinRecord(made, JNI_INSERTED_PIN);
  }
  void update(uint32_t key) {
    if (LuOffHeapValue* snapshot = updateByKind(key)) dropSnapshot(snapshot, key);
  }
  void remove(uint32_t key) {
    using namespace natives;
    const jint hash = map_.hashOf(key);
    jlong removed = 0;
    switch (key % kKeyKinds) {
      case kBytes:
        removed = removeAndGetAndPinWithHashCodeBA(env(), self(), map(), bytes(key), hash);
        break;
      case kString:
        removed = removeAndGetAndPinWithHashCodeString(env(), self(), map(), string(key), hash);
        break;
      case kBuffer:
        removed = thread_.chance(2)
                      ? removeAndGetAndPin(env(), self(), map(), keyBuffer(key))
                      : removeAndGetAndPinWithHashCode(env(), self(), map(), keyBuffer(key), hash);
        break;
      default:
        removed = removeAndGetAndPinWithHashCodeNumber(env(), self(), map(), hash, key);
        break;
    }
    if (removed != 0) dropRemoved(asValue(removed), key);
  }
  void get(uint32_t key, bool touch) {
    using namespace natives;
    const jint hash = map_.hashOf(key);
    const jlong revision = touch ? map_.next() : 0;
    const auto touched = static_cast<jboolean>(touch);
    const jlongArray attributes = thread_.jni().newLongArray(std::vector<jlong>(4));
    jlong found = 0;
    uint32_t reason = NATIVE_TRANSIENT_GET_PIN;
    switch (key % kKeyKinds) {
      case kBytes:
        found = getLuValue_ByteArray(env(), self(), map(), attributes, bytes(key), hash, 0, touched,
                                     revision);
        reason = JNI_GET_PIN;
        break;
      case kString:
        found = getLuValue_String(env(), self(), map(), attributes, string(key), 0, hash, 0,
                                  touched, revision);
        break;
      case kBuffer:
        found = getLuValue_ByteBuffer(env(), self(), map(), keyBuffer(key),
                                      thread_.chance(2) ? hash : -1, 0, touched, revision);
        break;
      default:
        found = getLuValue_Number(env(), self(), map(), hash, 0, touched, revision, key);
        break;
    }
    if (found == 0) return;
    ++totals_.found;
    LuOffHeapValue* record = asValue(found);
    EXPECT_EQ(getKeyHashCode(env(), self(), found), hash);
    EXPECT_EQ(numberIn(record->key), key);
    EXPECT_GT(getReferenceCount(env(), self(), found), 0);
    checkValue(thread_.read(map_.map, record), key);
    thread_.unpinRecord(record, reason);
  }
  void contains(uint32_t key) {
    using namespace natives;
    const jint hash = map_.hashOf(key);
    switch (key % kKeyKinds) {
      case kBytes: containsKeyWithHashCodeBA(env(), self(), map(), bytes(key), hash); break;
      case kString: containsKeyWithHashCodeString(env(), self(), map(), string(key), hash); break;
      case kBuffer:
        containsKey(env(), self(), map(), keyBuffer(key));
        containsKeyWithHashCode(env(), self(), map(), keyBuffer(key), hash);
        break;
      default: containsKeyWithHashCodeNumber(env(), self(), map(), hash, key); break;
    }
  }

  // The face's natives, on the entries whose keys are arrays: with arrays, or with memory of the
  // thread.
  void faceStep(uint32_t key) {
    if (thread_.chance(2)) {
      area::Caller calls(thread_.jni(), map_.map, area_);
      faceStepOn(calls, key);
    } else {
      face::Caller calls(thread_.jni(), map_.map);
      faceStepOn(calls, key);
    }
  }
  template <typename Calls>
  void faceStepOn(Calls& calls, uint32_t key) {
    const std::string name = MixedMap::nameOf(key);
    const jint hash = map_.hashOf(key);
    const jlong revision = map_.next();
    const std::string value = valueOf(key, static_cast<uint64_t>(revision));
    switch (thread_.below(9)) {
      case 0:
      case 1: count(calls.put(name, hash, value, revision)); break;
      case 2: count(calls.putIfAbsent(name, hash, value, revision)); break;
      case 3: calls.replace(name, hash, value, revision); break;
      case 4:
        if (calls.remove(name, hash) == 1) {
          ++totals_.removed;
          map_.present += -1;
        }
        break;
      case 5: read(calls, name, hash, key); break;
      case 6: {
        std::vector<jlong> words;
        const jlong pinned = calls.pin(name, hash, &words);
        if (pinned > 0) {
          checkValue(face::placeAt(words, 0).text(), key);
          face::unpin(env(), nullptr, pinned);
        } else if (pinned < 0) {
          readOnDisk(-pinned, key);
        }
        break;
      }
      case 7: calls.containsKey(name, hash); break;
      default: {
        face::Caller walker(thread_.jni(), map_.map);
        scan(walker);
        break;
      }
    }
  }
  void read(face::Caller&, const std::string& name, jint hash, uint32_t key) {
    const jlongArray onDisk = thread_.jni().newLongArray({0});
    const jbyteArray found = face::get(env(), nullptr, map(), thread_.array(name), hash, onDisk);
    if (found != nullptr) {
      const std::vector<uint8_t> bytes = thread_.jni().bytesOf(thread_.jni().adopt(found));
      checkValue({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, key);
    } else if (const jlong record = thread_.jni().longsOf(onDisk)[0]; record != 0) {
      readOnDisk(record, key);
    }
  }
  // What has to be read with arrays, the face reads so.
  void read(area::Caller& calls, const std::string& name, jint hash, uint32_t key) {
    const jint length = calls.find(name, hash);
    if (length >= 0) {
      checkValue(calls.found(length), key);
    } else if (length == area::kOrdinary) {
      face::Caller arrays(thread_.jni(), map_.map);
      read(arrays, name, hash, key);
    }
  }
  void count(jint result) {
    if (result != 1) return;
    ++totals_.inserted;
    ++map_.present;
  }
  void readOnDisk(jlong record, uint32_t key) {
    checkValue(thread_.read(map_.map, natives::asValue(record)), key);
    Java_com_velt_rz_corvane_nimbra_OverflowNatives_unpinRecord(env(), nullptr, record);
  }
  void scan(face::Caller& calls) {
    face::Walk walk(calls, 1 + static_cast<jint>(thread_.below(12)));
    while (!walk.ended()) {
      const jint count = walk.step();
      if (count < 0) {
        walk.setCapacity(-count);
        continue;
      }
      for (const face::Walk::Entry& entry : walk.entries()) {
        const uint32_t key = keyAt(natives::handle(entry.key.bytes), entry.key.length);
        checkValue(entry.value.bytes != nullptr
                       ? std::string(entry.value.text())
                       : thread_.read(map_.map, natives::asValue(entry.value.length)),
                   key);
        ++totals_.walked;
      }
      walk.release();
    }
  }

  // With the whole map locked nobody changes a queue, so it may be followed.
  void walkLocked() {
    constexpr jint kReason = 4;
    std::vector<std::pair<jlong, ByteBufferHeader*>> pinned;
    EXPECT_EQ(natives::lockMapAndQueues(env(), self(), map()), 0);
    const jlongArray attributes = thread_.jni().newLongArray(std::vector<jlong>(6));
    jlong at = 0;
    for (;;) {
      const bool withKey = thread_.chance(2);
      at = withKey   ? natives::getAndPinNextKeyWithAttributes(env(), self(), map(), at, attributes,
                                                               kReason)
           : at == 0 ? natives::getAndPinFirstInQueue(env(), self(), map(), kReason, JNI_FALSE)
                     : natives::getAndPinNextInQueue(env(), self(), map(), at, kReason, JNI_FALSE);
      if (at == 0) break;
      pinned.emplace_back(at, withKey ? natives::asValue(at)->key : nullptr);
    }
    EXPECT_EQ(natives::unlockMapAndQueues(env(), self(), map()), 0);
    for (const auto& [record, key] : pinned) {
      EXPECT_LT(numberIn(natives::asValue(record)->key), kMixedKeys);
      if (key != nullptr) unpinToFree(env(), key, kReason | JNI_CONVERT_FROM_JAVA_PIN);
      thread_.unpinRecord(natives::asValue(record), kReason);
      ++totals_.walked;
    }
  }
  void figures() {
    EXPECT_GE(natives::size(env(), self(), map()), 0);
    EXPECT_GE(natives::getCurrentBytesUsed(env(), self(), map()), 0);
    EXPECT_GE(natives::maxSize(env(), self(), map()), 0);
  }

  // Alone in the map: an entry that nothing but a clear takes out, a walk that takes each lock for
  // itself, and a clear.
  void clear() {
    const auto alone = map_.gate.enterAlone();
    const jlong revision = map_.next();
    const std::string text = valueOf(0, static_cast<uint64_t>(revision));
    LuOffHeapValue* flag = natives::asValue(natives::insertAndGetNewAndPinWithBoolean(
        env(), self(), map(), JNI_TRUE, 1, thread_.array(text), static_cast<jint>(text.size()),
        DESERIALIZED_TYPE_BINARY, owner(), revision));
    if (flag != nullptr) {
      ++totals_.inserted;
      ++map_.present;
      thread_.unpinRecord(flag, JNI_INSERTED_PIN);
    }
    std::vector<jlong> seen;
    for (jlong at = natives::getAndPinFirstInQueue(env(), self(), map(), 4, JNI_TRUE); at != 0;
         at = natives::getAndPinNextInQueue(env(), self(), map(), at, 4, JNI_TRUE)) {
      seen.push_back(at);
    }
    const jlong size = natives::size(env(), self(), map());
    EXPECT_EQ(static_cast<jlong>(seen.size()), size);
    for (const jlong record : seen) thread_.unpinRecord(natives::asValue(record), 4);
    EXPECT_EQ(size, map_.present.get());
    EXPECT_TRUE(natives::clear(env(), self(), map()));
    EXPECT_EQ(natives::size(env(), self(), map()), 0);
    map_.present += -size;
    totals_.cleared += size;
    ++totals_.clears;
  }

  MixedMap& map_;
  area::Area area_;
};

}  // namespace nimbra::test::stress
