// What the tests of pin tracking share: a fixture with a table of its own, a look into its records,
// and the report taken apart.

#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "nb.h"
#include "nb_hashtable.h"
#include "nb_lock.h"
#include "nb_pintrack.h"
#include "test_support.h"

namespace nimbra::test {

// As the levels are named in Java: the first reports outstanding pins, the second balanced objects
// too.
inline constexpr jint kPinTrackLevel = 0x800;
inline constexpr jint kPinTrackAllLevel = 0x1000;

// Gives every test a table with empty chains, and puts the one before back. What a test records is
// freed at its end, also the records that a discarding report leaves behind.
template <typename Base>
class PinTracking : public Base {
 protected:
  void SetUp() override {
    Base::SetUp();
    before_ = _tracker.load();
    // One for all tests: a table is never freed.
    static PinTracker** const table = initTrackerMap();
    ASSERT_NE(table, nullptr);
    _tracker = table;
  }

  void TearDown() override {
    PinTracker** const used = _tracker.load();
    if (used != nullptr) discardAll(used);
    for (PinTracker* record : discarded_) freeRecord(record);
    _tracker = before_;
    Base::TearDown();
  }

  // The object's record where it stands, or null; unlike getCurr it moves nothing.
  static PinTracker* recordOf(const Pinnable* object) {
    for (PinTracker* at = getTracker(object)->next; at != nullptr; at = at->next) {
      if (at->object == object) return at;
    }
    return nullptr;
  }
  static std::vector<const Pinnable*> chainOf(const PinTracker* head) {
    std::vector<const Pinnable*> objects;
    for (const PinTracker* at = head->next; at != nullptr; at = at->next) {
      objects.push_back(at->object);
    }
    return objects;
  }
  static uint64_t bucketOf(const Pinnable* object) {
    return hashFn64(reinterpret_cast<uintptr_t>(object)) % kTrackerBuckets;
  }
  static std::size_t recordCount() {
    std::size_t count = 0;
    for (uint32_t at = 0; at < kTrackerBuckets; ++at) count += chainOf(_tracker.load()[at]).size();
    return count;
  }

  // The native, as Java calls it; answers what it sent.
  std::vector<std::string> report() {
    this->jni.clearRecords();
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinTrack(this->env, this->manager);
    return this->jni.lines();
  }
  // Turns tracking off and lets a report discard everything.
  std::vector<std::string> discard() {
    this->setLevels(kInfoLevel);
    remember(_tracker.load());
    return report();
  }
  // Writes down which records the next discarding report leaves unreachable.
  void remember(PinTracker** table) {
    for (uint32_t at = 0; at < kTrackerBuckets; ++at) {
      for (PinTracker* record = table[at]->next; record != nullptr; record = record->next) {
        discarded_.push_back(record);
      }
    }
  }

  static bool isStackLine(std::string_view line) { return line.starts_with("info|    "); }
  // Without the lines of the native stacks.
  static std::vector<std::string> withoutStacks(const std::vector<std::string>& lines) {
    std::vector<std::string> result;
    for (const std::string& line : lines) {
      if (!isStackLine(line)) result.push_back(line);
    }
    return result;
  }
  static std::string headerLine(const Pinnable* object, int all, int current) {
    return "info|Address=" + printed(object) + " AllPins=" + std::to_string(all) +
           " CurrentPins=" + std::to_string(current);
  }
  static std::string eventLine(const Pin* event, int sum) {
    return std::string("info|  ") + (event->isPin ? "+" : "-") + event->reason +
           " Thread=" + std::to_string(static_cast<int32_t>(event->thread)) +
           " PinSum=" + std::to_string(sum);
  }
  static std::string totalLine(long total) {
    return "info|Total current pins: " + std::to_string(total);
  }

 private:
  static void freeRecord(PinTracker* record) {
    EXPECT_EQ(pthread_rwlock_destroy(&record->lock), 0);
    std::free(record);
  }
  void discardAll(PinTracker** table) {
    remember(table);
    const LogInfo levels = logInfo;
    logInfo.info = false;
    logInfo.pinTracking = false;
    reportPins(this->env);
    logInfo = levels;
  }

  PinTracker** before_ = nullptr;
  std::vector<PinTracker*> discarded_;
};

// Objects of which some share a chain: there are more of them than chains.
class CollidingObjects {
 public:
  CollidingObjects() : objects_(4 * kTrackerBuckets) {
    for (Pinnable& object : objects_) {
      const uint64_t hash = hashFn64(reinterpret_cast<uintptr_t>(&object));
      byBucket_[hash % kTrackerBuckets].push_back(&object);
    }
  }
  // So many objects of one chain.
  std::vector<Pinnable*> ofOneChain(std::size_t count) {
    for (const auto& [bucket, objects] : byBucket_) {
      if (objects.size() >= count) return {objects.begin(), objects.begin() + count};
    }
    ADD_FAILURE() << "no chain has " << count << " of the objects";
    return {};
  }
  // One object of each chain that has any, in the order of the chains.
  std::vector<Pinnable*> ofEachChain() {
    std::vector<Pinnable*> result;
    for (const auto& [bucket, objects] : byBucket_) result.push_back(objects.front());
    return result;
  }

 private:
  std::vector<Pinnable> objects_;
  std::map<uint64_t, std::vector<Pinnable*>> byBucket_;
};

}  // namespace nimbra::test
