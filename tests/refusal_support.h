// What the tests of refused memory and refused locks share: the guards that refuse, and what shows
// of a refusal.

#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "map_support.h"

namespace nimbra::test {

// Makes the nth acquisition of any lock fail; releases do not count.
class FailAcquisition {
 public:
  explicit FailAcquisition(int nth) : nth_(nth) {
    EXPECT_EQ(faults::failLock, nullptr) << "one guard at a time";
    active_ = this;
    faults::failLock = &FailAcquisition::hook;
  }
  ~FailAcquisition() {
    faults::failLock = nullptr;
    active_ = nullptr;
  }
  FailAcquisition(const FailAcquisition&) = delete;
  FailAcquisition& operator=(const FailAcquisition&) = delete;

  bool fired() const { return seen_ >= nth_; }
  // What was refused; while it has not fired, nothing sensible.
  LockRank rank() const { return rank_; }
  const void* lock() const { return lock_; }
  bool isMapWrite() const { return rank_ == LockRank::map && operation_ == LockOp::writeLock; }

 private:
  static int hook(LockRank rank, const void* lock, LockOp operation) {
    FailAcquisition& guard = *active_;
    if (operation == LockOp::unlock || operation == LockOp::init || ++guard.seen_ != guard.nth_) {
      return 0;
    }
    guard.rank_ = rank;
    guard.operation_ = operation;
    guard.lock_ = lock;
    return EINVAL;
  }
  static inline FailAcquisition* active_ = nullptr;

  const int nth_;
  int seen_ = 0;
  LockRank rank_ = LockRank::map;
  LockOp operation_ = LockOp::init;
  const void* lock_ = nullptr;
};

// The class of what an operation left pending; empty for nothing.
inline std::string raised(ScriptedJni& jni) {
  const std::optional<Thrown> thrown = jni.takePending();
  return thrown.has_value() ? thrown->className : "";
}

inline constexpr const char* kSilent = "";

// The ways in which memory is refused, and what shows of it.
struct Refusal {
  enum Way { kNothingLeft, kOverMaximum, kOverMaximumAfterwards } way;
  const char* exceptionClass;
  int64_t blocks;  // by which the count of live blocks stays raised
};
inline constexpr Refusal kRefusals[] = {
    {Refusal::kNothingLeft, kSilent, 0},
    {Refusal::kOverMaximum, kIllegalState, 0},
    {Refusal::kOverMaximumAfterwards, kOutOfMemory, 1},
};

// Refuses the nth allocation in one of these ways.
class Refuse {
 public:
  Refuse(ScriptedJni& jni, int nth, const Refusal& refusal) {
    if (refusal.way == Refusal::kOverMaximumAfterwards) {
      after_.emplace(jni, nth);
    } else {
      before_.emplace(nth, refusal.way == Refusal::kOverMaximum
                               ? RefuseAllocation::Way::kOverMaximum
                               : RefuseAllocation::Way::kNothingLeft);
    }
  }
  bool fired() const { return before_.has_value() ? before_->fired() : after_->fired(); }

 private:
  std::optional<RefuseAllocation> before_;
  std::optional<RefuseAfterwards> after_;
};

// Records the allocations while it lives, so that a record that nobody knows any more is found.
class WatchRecords {
 public:
  explicit WatchRecords(ScriptedJni& jni) : jni_(jni), debug_(logInfo.debug) {
    logInfo.debug = true;
  }
  ~WatchRecords() {
    logInfo.debug = debug_;
    jni_.clearRecords();
  }
  WatchRecords(const WatchRecords&) = delete;
  WatchRecords& operator=(const WatchRecords&) = delete;

  // The value record that was allocated last.
  LuOffHeapValue* last() const {
    constexpr std::string_view kBefore = "JNI:malloc_nb:jemalloc=";
    for (auto record = jni_.records().rbegin(); record != jni_.records().rend(); ++record) {
      if (!record->text.starts_with(kBefore) || !record->text.ends_with("type=LuOffHeapMapValue")) {
        continue;
      }
      const char* address = record->text.c_str() + kBefore.size();
      return reinterpret_cast<LuOffHeapValue*>(std::strtoull(address, nullptr, 16));
    }
    ADD_FAILURE() << "no value record was allocated";
    return nullptr;
  }

 private:
  ScriptedJni& jni_;
  const bool debug_;
};

}  // namespace nimbra::test
