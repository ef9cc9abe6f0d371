// The face's natives under constant sweeps, from eight threads. What Java does about memory is done
// here: whoever is asked for room sweeps, one at a time, and writes values to a store; deletions
// are noted and freed later; lookups read values back. Every value says which key and which write
// it belongs to, and every key is written by one thread, which knows what it must find.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <shared_mutex>

#include "com_velt_rz_corvane_nimbra_BoundedNatives.h"
#include "com_velt_rz_corvane_nimbra_OverflowNatives.h"
#include "disk_support.h"
#include "face_support.h"
#include "nb_alloc.h"
#include "overflow_support.h"

namespace nimbra::test::face {
namespace {

using disk::kPayloadHeader;
using disk::Manager;

inline constexpr auto& beginRead = Java_com_velt_rz_corvane_nimbra_OverflowNatives_beginRead;
inline constexpr auto& pageInOf = Java_com_velt_rz_corvane_nimbra_OverflowNatives_pageIn;
inline constexpr auto& unpinRecord = Java_com_velt_rz_corvane_nimbra_OverflowNatives_unpinRecord;

constexpr jlong kRoom = 80 << 10;  // bytes in use that the test's own entries may take
constexpr uint32_t kThreads = 8;
constexpr uint32_t kKeysEach = 12;

std::string keyOf(uint32_t number) { return "key " + std::to_string(number); }
jint hashOf(uint32_t number) { return static_cast<jint>((number % 5) * 0x9e3779b9U); }

// key | write | bytes that follow from both
std::string valueOf(uint32_t key, uint64_t write) {
  std::string value(16 + (key * 131 + write * 977) % 3000, static_cast<char>(key * 31 + write));
  const uint64_t head[2] = {key, write};
  std::memcpy(value.data(), head, sizeof head);
  return value;
}

// The write that a value comes from; 0 for one that is not this key's.
uint64_t checkValue(std::string_view value, uint32_t key) {
  uint64_t head[2] = {};
  if (value.size() >= sizeof head) std::memcpy(head, value.data(), sizeof head);
  EXPECT_EQ(head[0], key) << "the value of another key";
  EXPECT_TRUE(value == valueOf(key, head[1])) << "a torn, freed or foreign value of key " << key;
  return head[1];
}

// One thread: its environment, and its keys with the writes that it last made (0: absent).
class Worker {
 public:
  Worker(Manager& manager, LuOffHeapMap* map, uint32_t number)
      : manager_(manager), map_(map), number_(number) {
    renew();
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // An environment keeps every array that was made in it.
  void renew() {
    calls_.reset();
    thread_ = std::make_unique<OverflowThread>();
    thread_->calls.onMoreMemory = [this](ScriptedJni& jni) {
      manager_.makeRoom(jni, thread_->calls.moreMemory.back()[1]);
    };
    thread_->calls.onDeleting = [this](ScriptedJni&) {
      manager_.note(thread_->calls.deleting.back());
    };
    calls_.emplace(thread_->jni, map_);
  }

  void step(std::mt19937_64& random) {
    const auto own = static_cast<uint32_t>(random() % kKeysEach);
    const uint32_t key = number_ + kThreads * own;
    switch (random() % 12) {
      case 0:
      case 1:
      case 2: written(own, calls_->put(keyOf(key), hashOf(key), next(key), revision())); break;
      case 3:
        if (writes_[own] == 0) {
          written(own, calls_->putIfAbsent(keyOf(key), hashOf(key), next(key), revision()));
        }
        break;
      case 4:
        if (writes_[own] != 0) {
          const jint result = calls_->replace(keyOf(key), hashOf(key), next(key), revision());
          EXPECT_TRUE(result == 1 || refused(result));
          if (result == 1) writes_[own] = write_;
        }
        break;
      case 5:
        EXPECT_EQ(calls_->remove(keyOf(key), hashOf(key)), writes_[own] != 0 ? 1 : 0);
        writes_[own] = 0;
        break;
      case 6: EXPECT_EQ(calls_->containsKey(keyOf(key), hashOf(key)), writes_[own] != 0); break;
      case 7: pinAndCheck(key, writes_[own]); break;
      case 8: query(); break;
      case 9: {  // somebody else's
        const auto other = static_cast<uint32_t>(random() % (kThreads * kKeysEach));
        if (const auto value = get(other)) checkValue(*value, other);
        break;
      }
      default: checkOwn(own); break;
    }
    manager_.drain(thread_->jni);
  }

  void checkAll() {
    for (uint32_t own = 0; own < kKeysEach; ++own) checkOwn(own);
  }
  void forget() { writes_.fill(0); }
  ScriptedJni& jni() { return thread_->jni; }

 private:
  std::string next(uint32_t key) { return valueOf(key, ++write_); }
  jlong revision() { return static_cast<jlong>(revisions_++); }

  bool refused(jint result) {
    if (result != -1) return false;
    EXPECT_TRUE(thread_->jni.takePending().has_value());
    return true;
  }
  void written(uint32_t own, jint result) {
    EXPECT_TRUE(result == (writes_[own] == 0 ? 1 : 0) || refused(result));
    if (result >= 0) writes_[own] = write_;
  }

  std::optional<std::string> get(uint32_t key) {
    ScriptedJni& jni = thread_->jni;
    const jlongArray onDisk = jni.newLongArray({0});
    const jbyteArray value = face::get(jni.env(), nullptr, calls_->handle(),
                                       calls_->array(keyOf(key)), hashOf(key), onDisk);
    if (value != nullptr) {
      const std::vector<uint8_t> bytes = jni.bytesOf(jni.adopt(value));
      return std::string(bytes.begin(), bytes.end());
    }
    const jlong record = jni.longsOf(onDisk)[0];
    if (record == 0) return std::nullopt;
    return load(record, false);
  }

  // Reads a record's value, puts it back into memory, and drops the record.
  std::string load(jlong record, bool pinned) {
    ScriptedJni& jni = thread_->jni;
    const jlongArray out = jni.newLongArray(std::vector<jlong>(4));
    const jint where = beginRead(jni.env(), nullptr, record, out);
    const std::vector<jlong> words = jni.longsOf(out);
    std::string value;
    if (where == 1) {
      value.assign(reinterpret_cast<const char*>(static_cast<uintptr_t>(words[1])),
                   static_cast<size_t>(words[2]));
      calls_->unpin(words[0]);
    } else {
      const std::vector<uint8_t> payload = manager_.disk.read(words[0]);
      EXPECT_EQ(payload.size(), static_cast<size_t>(words[1]));
      EXPECT_TRUE(overflow_metadata_unlock(jni.env(), "test",
                                           nodeOf(reinterpret_cast<LuOffHeapValue*>(record))));
      const jlongArray view = pinned ? jni.newLongArray({0, 0, 0}) : nullptr;
      const jlong result =
          pageInOf(jni.env(), nullptr, record, jni.newByteArray(payload), words[0], words[3], view);
      value.assign(payload.begin() + kPayloadHeader, payload.end());
      if (pinned && result != 0) {
        const std::vector<jlong> place = jni.longsOf(view);
        EXPECT_EQ(placeAt(place, 0).text(), value);
        calls_->unpin(result);
      } else if (pinned) {
        EXPECT_TRUE(jni.takePending().has_value());
      } else if (result == 1) {
        manager_.pageIns++;
      }
    }
    unpinRecord(jni.env(), nullptr, record);
    return value;
  }

  void checkOwn(uint32_t own) {
    const uint32_t key = number_ + kThreads * own;
    const std::optional<std::string> value = get(key);
    EXPECT_EQ(value.has_value(), writes_[own] != 0) << "key " << key;
    if (!value.has_value()) return;
    EXPECT_EQ(checkValue(*value, key), writes_[own]) << "a stale value";
  }

  void pinAndCheck(uint32_t key, uint64_t write) {
    std::vector<jlong> words;
    const jlong handle = calls_->pin(keyOf(key), hashOf(key), &words);
    EXPECT_EQ(handle != 0, write != 0);
    if (handle > 0) {
      EXPECT_EQ(checkValue(placeAt(words, 0).text(), key), write);
      calls_->unpin(handle);
    } else if (handle < 0) {
      EXPECT_EQ(checkValue(load(-handle, true), key), write);
    }
  }

  // All entries by revision: none may stay locked or pinned afterwards.
  void query() {
    ScriptedJni& jni = thread_->jni;
    std::vector<jlong> result(1 + 9 * kThreads * kKeysEach);
    const jobject buffer =
        jni.newDirectBuffer(result.data(), static_cast<jlong>(result.size() * 8));
    Java_com_velt_rz_corvane_nimbra_BoundedNatives_query(jni.env(), nullptr, calls_->handle(),
                                                         buffer, -1, 0, INT64_MAX);
    for (size_t at = 1; at < 1 + 9 * static_cast<size_t>(result[0]); at += 9) {
      Java_com_velt_rz_corvane_nimbra_BoundedNatives_releaseQueried(jni.env(), nullptr, result[at],
                                                                    result[at + 1], result[at + 3]);
    }
  }

  static inline std::atomic<uint64_t> revisions_{1};

  Manager& manager_;
  LuOffHeapMap* const map_;
  const uint32_t number_;
  std::unique_ptr<OverflowThread> thread_;
  std::optional<Caller> calls_;
  std::array<uint64_t, kKeysEach> writes_{};
  uint64_t write_ = 0;
};

class SweepStress : public OverflowTest {
 protected:
  void SetUp() override {
    OverflowTest::SetUp();
    // The bytes of live blocks; those that are alive already were not counted.
    allocatingOffHeapSize = 1 << 20;
    trackReqSize_Internal = true;
    chunk_ = jemallocChunkSize.load();
    jemallocChunkSize = uint64_t{4096};
    maximum_ = maxOffHeapSize;
    // The maximum lies far above: a refusal behind an allocation would leave the counts raised.
    const int64_t used = getCurrentSize(env);
    maxOffHeapSize = used + 8 * kRoom;
    _hardCapLimit = static_cast<uint64_t>(used + kRoom);
  }
  void TearDown() override {
    maxOffHeapSize = maximum_;
    _hardCapLimit = hardCapOf(maximum_);
    jemallocChunkSize = chunk_;
    OverflowTest::TearDown();
  }

 private:
  uint64_t chunk_ = 0;
  int64_t maximum_ = 0;
};

TEST_F(SweepStress, EveryOperationUnderConstantSweeps) {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::printf("NIMBRA_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  const char* seconds = std::getenv("NIMBRA_STRESS_SECONDS");
  const auto time = std::chrono::milliseconds(
      seconds != nullptr ? std::strtol(seconds, nullptr, 10) * 1000 : 3000);
  const auto end = std::chrono::steady_clock::now() + time;
  Manager manager(4 * kThreads * kKeysEach);
  std::shared_mutex clearing;  // what the face's gates do
  std::atomic<bool> clearWanted{false};
  std::atomic<uint32_t> clears{0};
  std::atomic<int64_t> steps{0};
  std::vector<std::thread> threads;
  for (uint32_t number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      std::mt19937_64 random(seed + number);
      Worker worker(manager, map, number);
      uint32_t seen = 0;
      for (int64_t step = 1; std::chrono::steady_clock::now() < end && !HasFailure(); ++step) {
        if (step % 500 == 0) worker.renew();
        if (number == 0 && step % 300 == 0) {
          clearWanted = true;
          const std::unique_lock<std::shared_mutex> alone(clearing);
          clearWanted = false;
          EXPECT_TRUE(Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_clear(
              worker.jni().env(), nullptr, natives::handle(map)));
          clears++;
        }
        while (clearWanted) std::this_thread::yield();
        const std::shared_lock<std::shared_mutex> inside(clearing);
        if (seen != clears) {
          seen = clears;
          worker.forget();
        }
        worker.step(random);
        steps++;
      }
      const std::shared_lock<std::shared_mutex> inside(clearing);
      if (seen != clears) worker.forget();
      if (!HasFailure()) worker.checkAll();
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::printf("%lld steps, %lld sweeps, %lld values out, %lld back, %u clears\n",
              static_cast<long long>(steps), static_cast<long long>(manager.sweeps),
              static_cast<long long>(manager.pageOuts), static_cast<long long>(manager.pageIns),
              clears.load());
  EXPECT_GT(manager.pageOuts, 0);
  EXPECT_GT(manager.pageIns, 0);
  EXPECT_GT(clears, 0U);
  checkLists();
  calls.onDeleting = [&](ScriptedJni&) { manager.note(calls.deleting.back()); };
  EXPECT_TRUE(Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_clear(
      env, nullptr, natives::handle(map)));
  manager.drain(jni);
  EXPECT_EQ(manager.disk.live(), 0U);
}

}  // namespace
}  // namespace nimbra::test::face
