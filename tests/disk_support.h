// What Java does about memory with disk overflow, for tests with many threads: a disk, and a
// manager that sweeps values to it when an allocation needs room, and frees what was deleted.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cacheiter.h"
#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "com_velt_rz_corvane_nimbra_OverflowNatives.h"
#include "nb_alloc.h"
#include "overflow.h"
#include "scripted_jni.h"

namespace nimbra::test::disk {

inline constexpr auto& nextEvictable =
    Java_com_velt_rz_corvane_nimbra_OverflowNatives_nextEvictable;
inline constexpr auto& evicted = Java_com_velt_rz_corvane_nimbra_OverflowNatives_evicted;
inline constexpr auto& keep = Java_com_velt_rz_corvane_nimbra_OverflowNatives_keep;

inline constexpr jint kReverseMapPin = 32778;
inline constexpr jlong kSlack = 4 << 10;  // moved out beyond what is needed
inline constexpr size_t kPayloadHeader = 8;

// The disk: payloads by position. Positions are used again at once, so that a stale one shows.
class Disk {
 public:
  jlong write(const uint8_t* bytes, size_t length) {
    const std::lock_guard<std::mutex> guard(mutex_);
    jlong position = next_;
    if (!free_.empty()) {
      position = free_.back();
      free_.pop_back();
    } else {
      next_++;
    }
    payloads_[position].assign(bytes, bytes + length);
    return position;
  }
  std::vector<uint8_t> read(jlong position) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = payloads_.find(position);
    if (found == payloads_.end()) {
      ADD_FAILURE() << "a read at position " << position << ", where nothing stands";
      return std::vector<uint8_t>(kPayloadHeader);
    }
    return found->second;
  }
  void free(jlong position) {
    const std::lock_guard<std::mutex> guard(mutex_);
    EXPECT_EQ(payloads_.erase(position), 1U) << "position " << position << " was freed before";
    free_.push_back(position);
  }
  size_t live() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return payloads_.size();
  }

 private:
  std::mutex mutex_;
  std::unordered_map<jlong, std::vector<uint8_t>> payloads_;
  std::vector<jlong> free_;
  jlong next_ = 1;
};

// What Java's overflow manager does, for all threads.
class Manager {
 public:
  // A sweep looks at `entriesPerSweep` entries at most.
  explicit Manager(int64_t entriesPerSweep) : entriesPerSweep_(entriesPerSweep) {}

  // Called inside an allocation, with its locks held.
  void makeRoom(ScriptedJni& jni, jlong size) {
    if (fits(size)) return;
    const std::lock_guard<std::mutex> guard(sweeping_);
    drain(jni);
    if (fits(size)) return;
    JNIEnv* env = jni.env();
    sweeps++;
    cacheiter_init(env, 1, entriesPerSweep_, true);
    const jlongArray out = jni.newLongArray(std::vector<jlong>(7));
    while (getCurrentSize(env) + size + kSlack >= threshold()) {
      const jlong record = nextEvictable(env, nullptr, out);
      if (record == 0) break;
      const std::vector<jlong> words = jni.longsOf(out);
      if (words[5] == 1) {
        evicted(env, nullptr, record, words[2], static_cast<jint>(words[3]), words[4]);
      } else if (++candidates_ % 16 == 0) {
        keep(env, nullptr, record);  // as after a failed write
      } else {
        const auto length = static_cast<size_t>(words[1]);
        const jlong position =
            disk.write(reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(words[0])), length);
        evicted(env, nullptr, record, position, static_cast<jint>(length), 0);
        pageOuts++;
      }
    }
    cacheiter_dispose(env);
  }
  void note(const std::vector<jlong>& deleted) {
    if ((deleted[1] & on_disk) == 0) return;
    const std::lock_guard<std::mutex> guard(noting_);
    deleted_.push_back({deleted[4], deleted[5]});
    noted_.fetch_add(1, std::memory_order_relaxed);
  }
  void drain(ScriptedJni& jni) {
    // Looked at without the mutex, so that it does not order threads that have nothing to do here.
    while (noted_.load(std::memory_order_relaxed) > 0) {
      std::pair<jlong, jlong> next;
      {
        const std::lock_guard<std::mutex> guard(noting_);
        if (deleted_.empty()) return;
        next = deleted_.front();
        deleted_.pop_front();
        noted_.fetch_sub(1, std::memory_order_relaxed);
      }
      disk.free(next.second);
      Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinLuOffHeapValue_1native(
          jni.env(), nullptr, next.first, kReverseMapPin);
    }
  }

  Disk disk;
  std::atomic<int64_t> pageOuts{0};
  std::atomic<int64_t> pageIns{0};
  std::atomic<int64_t> sweeps{0};

 private:
  static jlong threshold() {
    return std::min(static_cast<jlong>(getHardCapLimit()),
                    maxOffHeapSize - static_cast<jlong>(jemallocChunkSize.load()));
  }
  static bool fits(jlong size) { return getCurrentSize(nullptr) + size < threshold(); }

  const int64_t entriesPerSweep_;
  std::mutex sweeping_;
  std::mutex noting_;
  std::deque<std::pair<jlong, jlong>> deleted_;
  std::atomic<int64_t> noted_{0};
  int64_t candidates_ = 0;
};

}  // namespace nimbra::test::disk
