// An eviction queue against standard containers: a list for the order of use, a multimap for the
// queues that are sorted by accesses or by time.

#include <list>
#include <map>
#include <vector>

#include "evictqueue_support.h"
#include "fuzz_support.h"
#include "targets.h"

namespace nimbra::fuzz {
namespace {

namespace natives = test::natives;
using Record = LuOffHeapEvictionData;

class EvictionQueueRun : public Run<test::EvictionQueueTest> {
  enum class Kind { kLru, kLfu, kTtl };

  void play(Input& input) override {
    kind_ = static_cast<Kind>(input.below(3));
    while (!input.atEnd()) {
      switch (input.below(12)) {
        case 0:
        case 1:
        case 2: add(input); break;
        case 3:
        case 4:
        case 5: touch(input); break;
        case 6: take(input); break;
        case 7: removeAbsent(input); break;
        case 8: touchAbsent(input); break;
        case 9: listFirst(input); break;
        case 10: listDue(input); break;
        default:
          if (input.oneIn(8)) clear();
          check();
          break;
      }
      ASSERT_FALSE(jni.pending().has_value());
    }
    check();
    clear();
    check();
  }

  // ---- The model -------------------------------------------------------------------------------

  std::vector<Record*> expected() const {
    if (kind_ == Kind::kLru) return {used_.begin(), used_.end()};
    std::vector<Record*> records;
    for (const auto& [key, record] : sorted_) records.push_back(record);
    return records;
  }
  size_t size() const { return kind_ == Kind::kLru ? used_.size() : sorted_.size(); }
  void enter(Record* record, int64_t key) {
    if (kind_ == Kind::kLru) {
      used_.push_back(record);
    } else {
      sorted_.emplace(key, record);
    }
  }
  void leave(Record* record) {
    used_.remove(record);
    std::erase_if(sorted_, [record](const auto& entry) { return entry.second == record; });
  }
  // A record in the queue, or null.
  Record* pick(Input& input) {
    const std::vector<Record*> records = expected();
    return records.empty() ? nullptr : records[input.byte() % records.size()];
  }
  // A record that is in no queue and has no links of an earlier one.
  Record* idle(Input& input) {
    if (idle_.empty() || input.oneIn(2)) {
      if (made.size() >= 64) return nullptr;
      return allocate(0, input.integer());
    }
    Record* record = idle_.back();
    idle_.pop_back();
    // A removal from the middle leaves the record its links; who queues it again clears them.
    record->prev = nullptr;
    record->next = nullptr;
    return record;
  }

  // ---- The operations --------------------------------------------------------------------------

  void add(Input& input) {
    Record* record = idle(input);
    if (record == nullptr) return;
    const int64_t time = input.integer();
    jint count = 0;
    switch (kind_) {
      case Kind::kLru: count = insertLRU(record); break;
      case Kind::kLfu: count = insertLFU(record); break;
      case Kind::kTtl: count = insertTTL(record, time); break;
    }
    enter(record, kind_ == Kind::kTtl ? time : 0);
    EXPECT_EQ(count, static_cast<jint>(size()));
  }

  // Moves a record to where its last use puts it.
  bool move(Record* record, int64_t time) {
    switch (kind_) {
      case Kind::kLru: return updateLRU(record);
      case Kind::kLfu: return updateLFU(record);
      default: return updateTTL(record, time);
    }
  }
  int64_t keyAfterMove(const Record* record, int64_t time) const {
    return kind_ == Kind::kTtl ? time : record->metadata + 1;
  }

  void touch(Input& input) {
    Record* record = pick(input);
    if (record == nullptr) return;
    const int64_t time = input.integer();
    const int64_t sortKey = keyAfterMove(record, time);
    EXPECT_TRUE(move(record, time));
    leave(record);
    enter(record, sortKey);
  }

  void take(Input& input) {
    Record* record = pick(input);
    if (record == nullptr) return;
    leave(record);
    EXPECT_EQ(remove(record), static_cast<jint>(size()));
    idle_.push_back(record);
  }

  void removeAbsent(Input& input) {
    Record* record = idle(input);
    if (record == nullptr) return;
    EXPECT_EQ(remove(record), static_cast<jint>(size()));
    expectNotFound(record);
    idle_.push_back(record);
  }

  // All report that the record was missing. The sorted queues then take it in; the order of use
  // leaves it out, with a pin for the evictor.
  void touchAbsent(Input& input) {
    Record* record = idle(input);
    if (record == nullptr) return;
    const int64_t time = input.integer();
    const int64_t sortKey = keyAfterMove(record, time);
    EXPECT_EQ(move(record, time), kind_ != Kind::kLru);
    expectNotFound(record);
    if (kind_ == Kind::kLru) {
      unpinRecord(record, NATIVE_TRANSIENT_GET_PIN);
      idle_.push_back(record);
      return;
    }
    enter(record, sortKey);
  }

  // Java's list of candidates, from the front.
  void listFirst(Input& input) {
    const size_t length = input.below(12);
    const jlongArray list = jni.newLongArray(std::vector<jlong>(length, -1));
    EXPECT_EQ(natives::getEvictionList(env, caller, natives::handle(queue), list), JNI_TRUE);
    const std::vector<Record*> records = expected();
    const std::vector<jlong> words = jni.longsOf(list);
    ASSERT_EQ(words.size(), length);
    for (size_t i = 0; i < length; ++i) {
      EXPECT_EQ(words[i], i < records.size() ? natives::handle(records[i]) : 0);
      if (words[i] != 0) unpinRecord(natives::asEvictionData(words[i]), JNI_EVICTLIST_PIN);
    }
  }

  void listDue(Input& input) {
    const int64_t now = input.integer();
    const bool idleToo = input.oneIn(2);
    std::vector<Record*> due;
    for (Record* record : expected()) {
      if (record->metadata < now || (idleToo && record->expiration < now)) due.push_back(record);
    }
    // Only the plain list relies on the order of the sort keys.
    if (kind_ == Kind::kLru && !idleToo) return;
    const jlongArray list =
        idleToo ? natives::getVoskaEvictionList(env, caller, natives::handle(queue), now)
                : natives::getTTLEvictionList(env, caller, natives::handle(queue), now);
    ASSERT_NE(list, nullptr);
    std::vector<Record*> listed;
    for (const jlong word : jni.longsOf(jni.adopt(list))) {
      listed.push_back(natives::asEvictionData(word));
      unpinRecord(listed.back(), idleToo ? JNI_EVICTLIST_PIN : JNI_GET_PIN);
    }
    EXPECT_EQ(listed, due);
  }

  void clear() {
    EXPECT_EQ(natives::clearEvictionQueue(env, caller, natives::handle(queue)), JNI_TRUE);
    const std::vector<Record*> records = expected();
    idle_.insert(idle_.end(), records.begin(), records.end());
    used_.clear();
    sorted_.clear();
  }

  void check() {
    EXPECT_EQ(order(kind_ != Kind::kLru), expected());
    for (const auto& [key, record] : sorted_) EXPECT_EQ(record->metadata, key);
    const jlong minimum = natives::getMinimumTime(env, caller, natives::handle(queue));
    if (size() == 0) {
      EXPECT_EQ(minimum, INT64_MAX);
    } else if (kind_ != Kind::kLru) {
      EXPECT_EQ(minimum, sorted_.begin()->first);
    }
  }

  Kind kind_ = Kind::kLru;
  std::list<Record*> used_;
  std::multimap<int64_t, Record*> sorted_;
  std::vector<Record*> idle_;
};

}  // namespace

void fuzzEvictionQueue(Input& input) {
  EvictionQueueRun run;
  run(input);
}

}  // namespace nimbra::fuzz
