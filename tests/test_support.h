// What the native tests share: a fixture that starts the library in a known state and checks
// that every test gives back what it took, and guards that make the nth allocation or the nth
// lock of an operation fail.
//
// The guards fill the library's fault hooks, which are process-wide: one guard of a kind at a
// time. They count from several threads; install and remove them while no other thread is
// inside the library.

#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "nb.h"
#include "nb_alloc.h"
#include "nb_lock.h"
#include "nb_logging.h"
#include "scripted_jni.h"

namespace nimbra::test {

// Bits of the level word that Java answers.
inline constexpr jint kDebugLevel = 0x1;
inline constexpr jint kEventLevel = 0x2;
inline constexpr jint kEntryLevel = 0x4;
inline constexpr jint kDetailLevel = 0x8;
inline constexpr jint kInfoLevel = 0x20;
inline constexpr jint kWarningLevel = 0x80;
inline constexpr jint kErrorLevel = 0x100;
inline constexpr jint kFatalLevel = 0x200;

inline constexpr int64_t kAmpleMaximum = int64_t{1} << 40;

// The text with every hexadecimal address (and "(nil)") replaced by "@".
std::string withoutAddresses(const std::string& text);
std::vector<std::string> withoutAddresses(const std::vector<std::string>& texts);
// An address as the traces print it.
std::string printed(const void* address);

// Makes the nth allocation from now on fail (the first is 1); with a label, only allocations of
// that type count.
class RefuseAllocation {
 public:
  enum class Way {
    kNothingLeft,  // the allocator underneath answers null: no exception
    kOverMaximum,  // the check before: IllegalStateException
  };
  explicit RefuseAllocation(int nth, Way way = Way::kNothingLeft, const char* label = nullptr);
  ~RefuseAllocation();
  RefuseAllocation(const RefuseAllocation&) = delete;
  RefuseAllocation& operator=(const RefuseAllocation&) = delete;

  bool fired() const { return fired_; }
  int seen() const { return seen_; }  // allocations that counted so far

 private:
  static bool hook(uint64_t size, const char* label);

  const int nth_;
  const Way way_;
  const char* const label_;
  const int64_t maximum_;
  std::atomic<int> seen_{0};
  std::atomic<bool> fired_{false};
};

// Makes the nth allocation from now on pass the check before it and fail the one behind it
// (OutOfMemoryError; its count stays raised), as if other threads had allocated meanwhile. Counts
// bytes and turns the debug level on while it lives: the record between the two checks is where it
// acts.
class RefuseAfterwards {
 public:
  // `inUse`: the size that the second check finds, without the new block.
  explicit RefuseAfterwards(ScriptedJni& jni, int nth = 1, int64_t inUse = kAmpleMaximum);
  ~RefuseAfterwards();
  RefuseAfterwards(const RefuseAfterwards&) = delete;
  RefuseAfterwards& operator=(const RefuseAfterwards&) = delete;

  bool fired() const { return remaining_ <= 0; }

 private:
  ScriptedJni& jni_;
  int remaining_;
  const bool debug_;
  const bool counting_;
  const int64_t countedSize_;
};

// Makes the nth operation of one kind on locks of one rank fail with `code`.
class FailLock {
 public:
  FailLock(LockRank rank, LockOp operation, int nth, int code = EINVAL);
  ~FailLock();
  FailLock(const FailLock&) = delete;
  FailLock& operator=(const FailLock&) = delete;

  bool fired() const { return fired_; }

 private:
  static int hook(LockRank rank, const void* lock, LockOp operation);

  const LockRank rank_;
  const LockOp operation_;
  const int nth_;
  const int code_;
  std::atomic<int> seen_{0};
  std::atomic<bool> fired_{false};
};

// Starts each test with the library initialised: ample limits, overflow off, every level off,
// nothing recorded. Checks at the end that live blocks, bookkeeping bytes, global references and
// held locks are where they were and that the environment is clean.
class LibraryTest : public ::testing::Test {
 protected:
  LibraryTest();
  void SetUp() override;
  void TearDown() override;

  // Sets the level word and lets the library fetch it; forgets the records so far.
  void setLevels(jint word);
  // Initialises the library again with this maximum.
  bool initialize(int64_t maximum = kAmpleMaximum);

  ScriptedJni jni;
  JNIEnv* const env;
  jobject manager;  // the OffHeapManager instance of the calls

  // A test that meets a deliberate imbalance says so here.
  int64_t expectedBlocksDelta = 0;
  int64_t expectedMetadataDelta = 0;
  int64_t expectedGlobalsDelta = 0;

 private:
  int64_t blocks_ = 0;
  int64_t metadata_ = 0;
  std::size_t globals_ = 0;
};

}  // namespace nimbra::test
