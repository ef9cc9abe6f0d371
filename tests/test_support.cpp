// The library fixture and the fault guards of the native tests.

#include "test_support.h"

#include <cstdio>
#include <cstring>
#include <regex>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"

namespace nimbra::test {

namespace {

std::atomic<RefuseAllocation*> activeRefusal{nullptr};
std::atomic<FailLock*> activeLockFailure{nullptr};

}  // namespace

std::string withoutAddresses(const std::string& text) {
  static const std::regex address("0x[0-9a-f]+|\\(nil\\)");
  return std::regex_replace(text, address, "@");
}

std::vector<std::string> withoutAddresses(const std::vector<std::string>& texts) {
  std::vector<std::string> result;
  result.reserve(texts.size());
  for (const std::string& text : texts) result.push_back(withoutAddresses(text));
  return result;
}

std::string printed(const void* address) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", address);
  return text;
}

// --- Refused allocations ----------------------------------------------------------------

RefuseAllocation::RefuseAllocation(int nth, Way way, const char* label)
    : nth_(nth), way_(way), label_(label), maximum_(maxOffHeapSize) {
  EXPECT_EQ(activeRefusal.exchange(this), nullptr) << "one guard at a time";
  faults::refuseAllocation = &RefuseAllocation::hook;
}

RefuseAllocation::~RefuseAllocation() {
  faults::refuseAllocation = nullptr;
  activeRefusal = nullptr;
  maxOffHeapSize = maximum_;
}

bool RefuseAllocation::hook(uint64_t /*size*/, const char* label) {
  RefuseAllocation& guard = *activeRefusal;
  if (guard.fired_) maxOffHeapSize = guard.maximum_;
  const bool counts =
      guard.label_ == nullptr || (label != nullptr && std::strcmp(guard.label_, label) == 0);
  if (!counts || ++guard.seen_ != guard.nth_) return false;
  guard.fired_ = true;
  if (guard.way_ == Way::kNothingLeft) return true;
  maxOffHeapSize = 0;
  return false;
}

RefuseAfterwards::RefuseAfterwards(ScriptedJni& jni, int nth, int64_t inUse)
    : jni_(jni),
      remaining_(nth),
      debug_(logInfo.debug),
      counting_(trackReqSize_Internal),
      countedSize_(allocatingOffHeapSize) {
  logInfo.debug = true;
  trackReqSize_Internal = true;
  allocatingOffHeapSize = 1'000;
  jni_.onRecord([this, inUse](const LogRecord& record) {
    if (!record.text.starts_with("JNI:malloc_nb:allocating size=")) return;
    --remaining_;
    if (remaining_ == 0) allocatingOffHeapSize = inUse;
    if (remaining_ < 0) allocatingOffHeapSize = 1'000;
  });
}

RefuseAfterwards::~RefuseAfterwards() {
  jni_.onRecord(nullptr);
  logInfo.debug = debug_;
  trackReqSize_Internal = counting_;
  allocatingOffHeapSize = countedSize_;
}

// --- Failing locks ----------------------------------------------------------------------

FailLock::FailLock(LockRank rank, LockOp operation, int nth, int code)
    : rank_(rank), operation_(operation), nth_(nth), code_(code) {
  EXPECT_EQ(activeLockFailure.exchange(this), nullptr) << "one guard at a time";
  faults::failLock = &FailLock::hook;
}

FailLock::~FailLock() {
  faults::failLock = nullptr;
  activeLockFailure = nullptr;
}

int FailLock::hook(LockRank rank, const void* /*lock*/, LockOp operation) {
  FailLock& guard = *activeLockFailure;
  if (rank != guard.rank_ || operation != guard.operation_ || ++guard.seen_ != guard.nth_) {
    return 0;
  }
  guard.fired_ = true;
  return guard.code_;
}

// --- Fixture ----------------------------------------------------------------------------

LibraryTest::LibraryTest() : env(jni.env()), manager(jni.newManager()) {}

void LibraryTest::SetUp() {
  std::memset(static_cast<void*>(&logInfo), 0, sizeof logInfo);
  trackReqSize_Internal = false;
  allocatingOffHeapSize = 0;
  ASSERT_TRUE(initialize());
  blocks_ = lockRead(&allocatingOffHeapBlocks);
  metadata_ = lockRead(&allocatingInternalMetadataSize);
  globals_ = ScriptedJni::liveGlobals();
  jni.clearRecords();
  jni.clearCalls();
}

void LibraryTest::TearDown() {
  EXPECT_EQ(faults::refuseAllocation, nullptr);
  EXPECT_EQ(faults::failLock, nullptr);
  EXPECT_EQ(lockRead(&allocatingOffHeapBlocks), blocks_ + expectedBlocksDelta)
      << "live blocks differ from the start of the test";
  EXPECT_EQ(lockRead(&allocatingInternalMetadataSize), metadata_ + expectedMetadataDelta)
      << "bookkeeping bytes differ from the start of the test";
  EXPECT_EQ(static_cast<int64_t>(ScriptedJni::liveGlobals()),
            static_cast<int64_t>(globals_) + expectedGlobalsDelta);
  EXPECT_EQ(heldLockCount(), 0);
  jni.verifyClean();
  std::memset(static_cast<void*>(&logInfo), 0, sizeof logInfo);
  trackReqSize_Internal = false;
}

void LibraryTest::setLevels(jint word) {
  jni.setLevelWord(word);
  std::memset(static_cast<void*>(&logInfo), 0, sizeof logInfo);
  getLogLevel(env);
  jni.clearRecords();
}

bool LibraryTest::initialize(int64_t maximum) {
  return Java_com_velt_rz_corvane_io_offheap_OffHeapManager_initializeOffHeap(
             env, manager, maximum, 0, 0, JNI_FALSE) == JNI_TRUE;
}

}  // namespace nimbra::test
