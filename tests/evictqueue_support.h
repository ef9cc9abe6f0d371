// One eviction queue with its records, each operation in one line, and a check of the queue's
// invariants.

#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {

using Records = std::vector<LuOffHeapEvictionData*>;

class EvictionQueueTest : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    key = buffer("key");
    queue = natives::asEvictionQueue(natives::allocateEvictionQueue(env, caller));
    ASSERT_NE(queue, nullptr);
  }
  // Every record holds its creation pin and two for its place in the queue, unless told otherwise.
  void TearDown() override {
    setLevels(0);
    if (queue != nullptr) {
      EXPECT_TRUE(natives::freeEvictionQueue(env, caller, natives::handle(queue)));
    }
    for (LuOffHeapEvictionData* record : made) {
      EXPECT_EQ(record->pins, 1);
      unpinLuOffHeapEvictionData(env, record, ALLOCATION_PIN);
    }
    drop(key);
    MapTest::TearDown();
  }

  LuOffHeapEvictionData* allocate(int64_t metadata = 0, int64_t expiration = INT64_MAX) {
    made.push_back(allocateEvictionData(env, key, false));
    made.back()->metadata = metadata;
    made.back()->expiration = expiration;
    return made.back();
  }
  // Records in the queue, in LRU order.
  Records lru(int count) {
    Records records;
    for (int i = 0; i < count; ++i) {
      records.push_back(allocate());
      EXPECT_EQ(insertLRU(records.back()), i + 1);
    }
    return records;
  }
  Records ttl(const std::vector<int64_t>& times) {
    Records records;
    for (const int64_t time : times) {
      records.push_back(allocate());
      EXPECT_EQ(insertTTL(records.back(), time), static_cast<jint>(records.size()));
    }
    return records;
  }

  jint insertLRU(LuOffHeapEvictionData* record) {
    return natives::insertLRU(env, caller, natives::handle(queue), natives::handle(record));
  }
  bool updateLRU(LuOffHeapEvictionData* record) {
    return natives::updateLRU(env, caller, natives::handle(queue), natives::handle(record)) ==
           JNI_TRUE;
  }
  jint insertLFU(LuOffHeapEvictionData* record) {
    return natives::insertLFU(env, caller, natives::handle(queue), natives::handle(record));
  }
  bool updateLFU(LuOffHeapEvictionData* record) {
    return natives::updateLFU(env, caller, natives::handle(queue), natives::handle(record)) ==
           JNI_TRUE;
  }
  jint insertTTL(LuOffHeapEvictionData* record, jlong time) {
    return natives::insertTTL(env, caller, natives::handle(queue), natives::handle(record), time);
  }
  bool updateTTL(LuOffHeapEvictionData* record, jlong time) {
    return natives::updateTTL(env, caller, natives::handle(queue), natives::handle(record), time) ==
           JNI_TRUE;
  }
  jint remove(LuOffHeapEvictionData* record) {
    return natives::removeFromEvictionQueue(env, caller, natives::handle(queue),
                                            natives::handle(record));
  }
  void unpinRecord(LuOffHeapEvictionData* record, uint32_t reason) {
    unpinLuOffHeapEvictionData(env, record, reason);
  }
  static void* address(const void* record) { return const_cast<void*>(record); }

  // The records of a Java list; null when there is no list. Every record loses `reason`.
  std::optional<Records> take(jlongArray list, uint32_t reason) {
    if (list == nullptr) return std::nullopt;
    Records records;
    for (const jlong one : jni.longsOf(jni.adopt(list))) {
      records.push_back(natives::asEvictionData(one));
      EXPECT_EQ(records.back()->pins, 4);
      unpinRecord(records.back(), reason);
    }
    return records;
  }

  // The queue from first to last, after every invariant was checked.
  Records order(bool sorted = false) {
    Records result;
    LuQueueEntry* before = nullptr;
    for (LuQueueEntry* at = queue->first; at != nullptr && result.size() <= queue->count;
         at = at->next) {
      EXPECT_EQ(at->prev, before);
      auto* record = static_cast<LuOffHeapEvictionData*>(at);
      if (sorted && !result.empty()) {
        EXPECT_LE(result.back()->metadata, record->metadata);
      }
      EXPECT_EQ(record->pins, 3) << "creation and two places";
      result.push_back(record);
      before = at;
    }
    EXPECT_EQ(queue->last, before);
    EXPECT_EQ(queue->count, result.size());
    EXPECT_EQ(natives::getQueueCount(env, caller, natives::handle(queue)),
              static_cast<jint>(result.size()));
    EXPECT_TRUE(isFree(&queue->mutex));
    for (const LuOffHeapEvictionData* record : made) {
      if (std::find(result.begin(), result.end(), record) == result.end()) {
        EXPECT_EQ(record->pins, 1) << "outside the queue";
      }
    }
    return result;
  }

  // Takes a pending exception and expects that it names the record.
  void expectNotFound(LuOffHeapEvictionData* record) {
    const std::optional<Thrown> thrown = jni.takePending();
    ASSERT_TRUE(thrown.has_value());
    EXPECT_EQ(thrown->className, kIllegalState);
    EXPECT_THAT(thrown->message,
                ::testing::HasSubstr("Node=" + printed(record) + " not found in queue."));
  }

  ByteBufferHeader* key = nullptr;
  LuOffHeapEvictionDataQueue* queue = nullptr;
  Records made;
};

}  // namespace nimbra::test
