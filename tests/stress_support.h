// What the stress of the whole library shares: its length and seed, values that say whose they are,
// the exclusion that Java's gates give, and what one thread needs to call natives.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "disk_support.h"
#include "face_support.h"
#include "manager_natives.h"
#include "overflow_natives.h"

namespace nimbra::test::stress {

using Random = std::mt19937_64;
using Clock = std::chrono::steady_clock;

inline uint64_t testSeed() {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::printf("NIMBRA_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  return seed;
}

// How long one stress takes: NIMBRA_STRESS_SECONDS, or two seconds.
inline std::chrono::milliseconds testTime() {
  const char* seconds = std::getenv("NIMBRA_STRESS_SECONDS");
  return std::chrono::milliseconds(seconds != nullptr ? std::strtol(seconds, nullptr, 10) * 1000
                                                      : 2000);
}

inline uint32_t below(Random& random, uint32_t limit) {
  return static_cast<uint32_t>(random() % limit);
}

// key | write | bytes that follow from both
inline std::string valueOf(uint64_t key, uint64_t write) {
  const size_t length = 16 + (key * 131 + write * 977) % (write % 7 == 0 ? 3000 : 300);
  std::string value(length, static_cast<char>(key * 31 + write));
  const uint64_t head[2] = {key, write};
  std::memcpy(value.data(), head, sizeof head);
  return value;
}

// The write that a value comes from; reports a value that is none of this key's.
inline uint64_t checkValue(std::string_view value, uint64_t key) {
  uint64_t head[2] = {};
  if (value.size() >= sizeof head) std::memcpy(head, value.data(), sizeof head);
  EXPECT_EQ(head[0], key) << "the value of another key";
  EXPECT_TRUE(value == valueOf(key, head[1])) << "a torn, freed or foreign value of key " << key;
  return head[1];
}

inline std::string_view textOf(const ByteBufferHeader* buffer) {
  return {reinterpret_cast<const char*>(bufferData(buffer)), buffer->dataSize};
}

// Callers pass it together; who clears passes it alone, and is not kept waiting for ever.
class Gate {
 public:
  std::shared_lock<std::shared_mutex> enter() {
    while (wanted_.load(std::memory_order_relaxed) > 0) std::this_thread::yield();
    return std::shared_lock<std::shared_mutex>(mutex_);
  }
  std::unique_lock<std::shared_mutex> enterAlone() {
    wanted_.fetch_add(1, std::memory_order_relaxed);
    std::unique_lock<std::shared_mutex> alone(mutex_);
    wanted_.fetch_sub(1, std::memory_order_relaxed);
    return alone;
  }

 private:
  std::shared_mutex mutex_;
  std::atomic<int> wanted_{0};
};

// What happened, over all threads. Counts order nobody.
class Count {
 public:
  void operator+=(int64_t more) { value_.fetch_add(more, std::memory_order_relaxed); }
  void operator++() { *this += 1; }
  int64_t get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<int64_t> value_{0};
};

// One thread's environment and its view of memory and disk. The environment is renewed now and
// then, since it keeps every reference and call that was ever made in it.
class Thread {
 public:
  // `manager`: null without disk overflow.
  Thread(disk::Manager* manager, Count& refused, uint64_t seed)
      : random(seed), manager_(manager), refused_(refused) {
    renew();
  }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  void renew() {
    thread_ = std::make_unique<OverflowThread>();
    thread_->calls.onMoreMemory = [this](ScriptedJni& running) {
      manager_->makeRoom(running, thread_->calls.moreMemory.back()[1]);
    };
    thread_->calls.onDeleting = [this](ScriptedJni&) {
      manager_->note(thread_->calls.deleting.back());
    };
    env = thread_->env;
    self = jni().newMapObject();
    managerObject = jni().newManager();
  }

  ScriptedJni& jni() { return thread_->jni; }
  bool overflow() const { return manager_ != nullptr; }
  uint32_t below(uint32_t limit) { return stress::below(random, limit); }
  bool chance(uint32_t in) { return below(in) == 0; }

  // After every operation: only with disk overflow may memory have been refused.
  bool refused() {
    const std::optional<Thrown> thrown = jni().takePending();
    if (!thrown.has_value()) return false;
    EXPECT_TRUE(overflow() &&
                (thrown->className == kIllegalState || thrown->className == kOutOfMemory ||
                 thrown->className == kNotEnoughResources))
        << *thrown;
    EXPECT_EQ(thrown->message.find("lock"), std::string::npos) << thrown->message;
    ++refused_;
    return true;
  }
  void settle() {
    refused();
    if (overflow()) manager_->drain(jni());
  }

  // A buffer with the text and one ALLOCATION_PIN; null when refused.
  ByteBufferHeader* buffer(std::string_view text) {
    ByteBufferHeader* made = allocateByteBufferData(env, text.size(), "DirectByteBuffer");
    if (made == nullptr) {
      refused();
      return nullptr;
    }
    std::copy(text.begin(), text.end(), bufferData(made));
    pin(env, made, ALLOCATION_PIN);
    return made;
  }
  jobject javaBuffer(ByteBufferHeader* held) {
    return jni().newDirectBuffer(bufferData(held), static_cast<jlong>(held->dataSize));
  }
  jbyteArray array(std::string_view text) { return jni().newByteArray({text.begin(), text.end()}); }
  void unpinRecord(LuOffHeapValue* record, uint32_t reason) {
    natives::unpinLuOffHeapValue_native(env, managerObject, natives::handle(record),
                                        static_cast<jint>(reason));
  }

  // The value of a record that this thread has pinned, wherever it is. Without disk overflow the
  // record itself does not hold its buffer, so it is read inside the bucket set.
  std::string read(LuOffHeapMap* map, LuOffHeapValue* record) {
    if (!overflow()) {
      BucketSet* set = getBucketSet(map->map, static_cast<uint32_t>(record->hashCode));
      EXPECT_EQ(lockBucketSet(set), 0);
      std::string value(textOf(record->value));
      EXPECT_EQ(unlockBucketSet(set), 0);
      return value;
    }
    return chance(2) ? readAsTheFace(record) : readAsTheContract(record);
  }
  // What stands in place of a value on disk, and is read there.
  std::string payloadAt(jlong position) {
    const std::vector<uint8_t> payload = manager_->disk.read(position);
    return {payload.begin() + disk::kPayloadHeader, payload.end()};
  }
  // What an update has returned: the node of its entry is this thread's until it lets it go.
  void finishUpdate(LuOffHeapValue* snapshot) {
    if (!overflow()) return;
    EXPECT_EQ(natives::unlockMetadata(env, nullptr, natives::handle(snapshot->hashNext)), JNI_TRUE);
  }

  Random random;
  JNIEnv* env = nullptr;
  jobject self = nullptr;
  jobject managerObject = nullptr;

 private:
  // A touch moves it without the bucket set.
  static int64_t revisionOf(const LuOffHeapValue* record) {
    return __atomic_load_n(&record->revisionNumber, __ATOMIC_RELAXED);
  }

  std::string readAsTheFace(LuOffHeapValue* record) {
    const jlong handle = natives::handle(record);
    const jlongArray out = jni().newLongArray(std::vector<jlong>(4));
    const jint where =
        Java_com_velt_rz_corvane_nimbra_OverflowNatives_beginRead(env, nullptr, handle, out);
    const std::vector<jlong> words = jni().longsOf(out);
    EXPECT_TRUE(where == 1 || where == 2) << where;
    if (where == 1) {
      std::string value(face::placeAt(words, 1).text());
      face::unpin(env, nullptr, words[0]);
      return value;
    }
    const std::vector<uint8_t> payload = manager_->disk.read(words[0]);
    EXPECT_EQ(payload.size(), static_cast<size_t>(words[1]));
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", nodeOf(record)));
    if (Java_com_velt_rz_corvane_nimbra_OverflowNatives_pageIn(
            env, nullptr, handle, jni().newByteArray(payload), words[0], words[3], nullptr) == 1) {
      manager_->pageIns++;
    }
    return {payload.begin() + disk::kPayloadHeader, payload.end()};
  }

  std::string readAsTheContract(LuOffHeapValue* record) {
    const jlong handle = natives::handle(record);
    EXPECT_NE(natives::lockBucketSetAndMetadata(env, nullptr, handle), 1);
    std::string value;
    const jint inMemory = natives::isValueInMemory(env, self, handle);
    jlong position = 0;
    const int64_t revision = revisionOf(record);
    if (inMemory == 1) {
      value = textOf(record->value);
    } else {
      position = chunkOf(handle);
      value = payloadAt(position);
    }
    EXPECT_EQ(natives::unlockBucketSetAndMetadata(env, nullptr, handle), 0);
    if (inMemory == 1 || chance(2)) return value;
    // Memory is asked for with nothing held; meanwhile the entry may have changed.
    ByteBufferHeader* made = buffer(value);
    if (made == nullptr) return value;
    EXPECT_NE(natives::lockBucketSetAndMetadata(env, nullptr, handle), 1);
    const overflow_metadata* node = nodeOf(record);
    const bool unchanged = isFlagSet(on_disk, node) && !isFlagSet(in_memory, node) &&
                           node->chunkPtrOffset == position && revisionOf(record) == revision;
    if (unchanged) {
      natives::valueToLuOffHeapValue(env, nullptr, javaBuffer(made), handle);
      manager_->pageIns++;
    }
    EXPECT_EQ(natives::unlockBucketSetAndMetadata(env, nullptr, handle), 0);
    if (!unchanged) unpinToFree(env, made, ALLOCATION_PIN);
    return value;
  }

 public:
  // Where the value stands on disk. Takes the record's node.
  jlong chunkOf(jlong record) {
    return jni().longsOf(jni().adopt(natives::getChunkPtrAndSize(env, nullptr, record))).at(0);
  }

 private:
  disk::Manager* const manager_;
  Count& refused_;
  std::unique_ptr<OverflowThread> thread_;
};

}  // namespace nimbra::test::stress
