// A map's revision queues, queries and walks against one multimap per owner. A query that resumes
// at its bookmark has to report exactly what a query over the whole queue would.

#include <map>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "map_natives.h"
#include "targets.h"

namespace nimbra::fuzz {
namespace {

namespace natives = test::natives;

constexpr uint32_t kTransport = JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN;
constexpr int64_t kUntouched = 0x5A5A5A5A5A5A5A5A;
constexpr int kWords = 9;

class RevisionQueueRun : public Run<test::MapTest> {
  // Behind equal revisions, as a multimap inserts.
  using Queue = std::multimap<int64_t, std::string>;

  void play(Input& input) override {
    deleteMap(map);
    static constexpr float kLoadFactors[] = {0.5F, 1, 1000};
    map = makeMap(1 << input.below(3), kLoadFactors[input.below(std::size(kLoadFactors))]);
    ASSERT_NE(map, nullptr);
    while (!input.atEnd()) {
      switch (input.below(10)) {
        case 0:
        case 1:
        case 2: put(input); break;
        case 3:
        case 4: change(input); break;
        case 5: drop(input); break;
        case 6:
        case 7: query(input); break;
        case 8: walk(input); break;
        default:
          if (input.oneIn(8)) {
            clearMap(map);
            rows_.clear();
            queues_.clear();
          }
          check();
          break;
      }
      ASSERT_FALSE(jni.pending().has_value());
    }
    check();
  }

  static std::string key(Input& input) { return "k" + std::to_string(input.below(24)); }
  static uint16_t owner(Input& input) {
    return static_cast<uint16_t>(input.oneIn(32) ? input.below(64) : input.below(4));
  }
  static std::string text(Input& input) {
    const std::vector<uint8_t> bytes = input.bytes(9);
    return {bytes.begin(), bytes.end()};
  }

  void place(const std::string& name, const test::Row& row) {
    rows_[name] = row;
    queues_[row.owner].emplace(row.revision, name);
  }
  void displace(const std::string& name) {
    const test::Row& row = rows_.at(name);
    Queue& queue = queues_[row.owner];
    const auto [first, last] = queue.equal_range(row.revision);
    for (auto at = first; at != last; ++at) {
      if (at->second != name) continue;
      queue.erase(at);
      break;
    }
    rows_.erase(name);
  }

  void put(Input& input) {
    const std::string name = key(input);
    const test::Row row{text(input), owner(input), input.integer()};
    const bool isNew = !rows_.contains(name);
    EXPECT_EQ(insert(name, row.value, row.owner, row.revision) != nullptr, isNew);
    if (isNew) place(name, row);
  }

  void change(Input& input) {
    const std::string name = key(input);
    const test::Row row{text(input), owner(input), input.integer()};
    LuOffHeapValue* snapshot = updatePinned(name, row.value, row.owner, row.revision);
    ASSERT_EQ(snapshot != nullptr, rows_.contains(name));
    if (snapshot == nullptr) return;
    const test::Row& before = rows_.at(name);
    EXPECT_EQ(test::bytesOf(snapshot->key), name);
    EXPECT_EQ(test::bytesOf(snapshot->value), before.value);
    EXPECT_EQ(snapshot->revisionOwner, before.owner);
    EXPECT_EQ(snapshot->revisionNumber, before.revision);
    unpinValue(snapshot);
    displace(name);
    place(name, row);
  }

  void drop(Input& input) {
    const std::string name = key(input);
    LuOffHeapValue* removed = removePinned(name);
    ASSERT_EQ(removed != nullptr, rows_.contains(name));
    if (removed == nullptr) return;
    EXPECT_EQ(test::bytesOf(removed->value), rows_.at(name).value);
    EXPECT_EQ(removed->pins, 1);
    unpinValue(removed, JNI_REMOVED_PIN);
    displace(name);
  }

  void query(Input& input) {
    const jint bookmark = static_cast<jint>(input.below(4)) - 1;
    const std::size_t owners = input.below(6);
    std::vector<jlong> starts;
    std::vector<jlong> ends;
    for (std::size_t i = 0; i < owners; ++i) {
      starts.push_back(input.integer());
      ends.push_back(input.oneIn(2) ? input.integer() : INT64_MAX);
    }
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < owners; ++i) {
      if (starts[i] >= ends[i] || ends[i] < 1) continue;
      for (const auto& [revision, name] : queues_[static_cast<uint16_t>(i)]) {
        if (revision > starts[i] && revision <= ends[i]) expected.push_back(name);
      }
    }
    std::vector<jlong> words(2 + kWords * (rows_.size() + 1), kUntouched);
    EXPECT_EQ(natives::queryRevisionAndPinWithBounds(
                  env, caller, natives::handle(map),
                  jni.newDirectBuffer(words.data(), static_cast<jlong>(8 * words.size())), bookmark,
                  jni.newLongArray(starts), jni.newLongArray(ends)),
              0);
    ASSERT_EQ(words[0], static_cast<jlong>(expected.size()));
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const jlong* at = &words[1 + kWords * i];
      LuOffHeapValue* entry = natives::asValue(at[0]);
      const test::Row& row = rows_.at(expected[i]);
      EXPECT_EQ(test::bytesOf(entry->key), expected[i]);
      EXPECT_EQ(at[1], natives::handle(bufferData(entry->key)));
      EXPECT_EQ(at[2], static_cast<jlong>(expected[i].size()));
      EXPECT_EQ(test::bytesOf(entry->value), row.value);
      EXPECT_EQ(at[3], natives::handle(bufferData(entry->value)));
      EXPECT_EQ(at[4], static_cast<jlong>(row.value.size()));
      EXPECT_EQ(at[5], row.owner);
      EXPECT_EQ(at[6], row.revision);
      EXPECT_EQ(at[7], DESERIALIZED_TYPE_BINARY);
      EXPECT_EQ(at[8], DESERIALIZED_TYPE_BINARY);
      unpinToFree(env, entry->value, kTransport);
      unpinToFree(env, entry->key, kTransport);
      unpinValue(entry, JNI_QUERYREVISION_PIN);
    }
    EXPECT_EQ(words[1 + kWords * expected.size()], kUntouched);
  }

  // Owner by owner, each in order.
  void walk(Input& input) {
    const bool lock = input.oneIn(2);
    std::vector<std::string> expected;
    for (const auto& [owner, queue] : queues_) {
      for (const auto& [revision, name] : queue) expected.push_back(name);
    }
    std::vector<std::string> walked;
    LuOffHeapValue* at = getAndPinFirstInRevisionQueue(env, map, JNI_GET_PIN, lock);
    while (at != nullptr && walked.size() <= expected.size()) {
      walked.push_back(test::bytesOf(at->key));
      LuOffHeapValue* next = getAndPinNextInRevisionQueue(env, map, at, JNI_GET_PIN, lock);
      unpinValue(at, JNI_GET_PIN);
      at = next;
    }
    EXPECT_EQ(walked, expected);
  }

  void check() {
    test::checkMap(env, map);
    EXPECT_EQ(test::contentsOf(map), test::Rows(rows_.begin(), rows_.end()));
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      const LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[i];
      std::vector<std::string> names;
      for (const LuOffHeapValue* value : test::valuesOf(queue)) {
        names.push_back(test::bytesOf(value->key));
      }
      std::vector<std::string> expected;
      for (const auto& [revision, name] : queues_[static_cast<uint16_t>(i)]) {
        expected.push_back(name);
      }
      EXPECT_EQ(names, expected) << "queue " << i;
    }
    for (const auto& [owner, queue] : queues_) {
      EXPECT_TRUE(queue.empty() || owner < map->numQueues) << "owner " << owner;
    }
  }

  std::map<std::string, test::Row> rows_;
  std::map<uint16_t, Queue> queues_;
};

}  // namespace

void fuzzRevisionQueue(Input& input) {
  RevisionQueueRun run;
  run(input);
}

}  // namespace nimbra::fuzz
