// What the tests of the face's quick road share: a map's whole state as text, the order in which an
// operation takes its locks, and one operation on several maps along different roads.

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "call_natives.h"
#include "face_support.h"
#include "nb_face_quick.h"
#include "overflow.h"

namespace nimbra::test::quick {

// ---- State -------------------------------------------------------------------------------

inline std::string nameOf(const LuOffHeapValue* entry) {
  return entry == nullptr ? "none" : bytesOf(entry->key);
}

// Every field of every entry, chain and queue, and every figure, with keys for addresses.
inline std::string wholeState(JNIEnv* env, LuOffHeapMap* map) {
  std::ostringstream out;
  const MapHeader* table = map->map;
  out << "bytes " << table->bytesUsed << "\n";
  for (uint32_t i = 0; i < table->numBucketSets; ++i) {
    BucketSet* set = getBucketSetByIndex(map->map, i);
    out << "set " << set->size << " of " << set->bucketCount << " below " << set->threshold << "\n";
    for (uint32_t bucket = 0; bucket < set->bucketCount; ++bucket) {
      for (auto* at = static_cast<LuOffHeapValue*>(set->buckets[bucket]); at != nullptr;
           at = at->hashNext) {
        out << " " << bucket << ": " << nameOf(at) << "=" << bytesOf(at->value) << " hash "
            << at->hashCode << " revision " << at->revisionNumber << " of " << at->revisionOwner
            << " flags " << at->flags << " length " << at->valueLength << " types "
            << static_cast<int>(at->key->deserializedType) << ","
            << static_cast<int>(at->value == nullptr ? 0 : at->value->deserializedType) << " pins "
            << at->pins << "," << at->key->pins << ","
            << (at->value == nullptr ? 0 : at->value->pins) << " size " << getSize_LuValue(env, at)
            << " eviction " << (at->evictionData != nullptr) << (at->ttlEvictionData != nullptr);
        if (_isDiskOverflowEnabled) {
          const overflow_metadata* node = nodeOf(at);
          out << " node " << node->flags << " " << node->lock_depth << " " << node->chunkPtrOffset
              << " " << node->chunkSize << " " << node->nextChunkPtrOffset << " linked "
              << (node->next != nullptr && node->prev != nullptr) << " in its map "
              << (node->mapHeader == map->map);
        }
        out << "\n";
      }
    }
  }
  for (uint32_t owner = 0; owner < map->numQueues; ++owner) {
    const LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[owner];
    out << "queue " << queue->count << " most " << queue->maxCount << " forward";
    for (const LuQueueEntry* at = queue->first; at != nullptr; at = at->next) {
      out << " " << nameOf(static_cast<const LuOffHeapValue*>(at));
    }
    out << " back";
    for (const LuQueueEntry* at = queue->last; at != nullptr; at = at->prev) {
      out << " " << nameOf(static_cast<const LuOffHeapValue*>(at));
    }
    out << " bookmarks";
    for (uint32_t i = 0; i < queue->numBookmarks; ++i) out << " " << nameOf(queue->bookmarks[i]);
    out << "\n";
  }
  return out.str();
}

// ---- Locks -------------------------------------------------------------------------------

// Writes down which locks are taken, by any thread, and shows each to a function whose non-zero
// answer makes the operation fail. Releases count only for the function.
class LockTrace {
 public:
  using Watch = std::function<int(LockRank rank, const void* lock, LockOp operation)>;
  explicit LockTrace(Watch watch = nullptr) : watch_(std::move(watch)) {
    EXPECT_EQ(faults::failLock, nullptr) << "one guard at a time";
    active_ = this;
    faults::failLock = [](LockRank rank, const void* lock, LockOp operation) {
      return active_->met(rank, lock, operation);
    };
  }
  ~LockTrace() {
    faults::failLock = nullptr;
    active_ = nullptr;
  }
  LockTrace(const LockTrace&) = delete;
  LockTrace& operator=(const LockTrace&) = delete;

  static bool isAcquisition(LockOp operation) {
    return operation == LockOp::lock || operation == LockOp::tryLock ||
           operation == LockOp::readLock || operation == LockOp::writeLock;
  }
  // "map read, set, queue"; a failed one has a "!".
  const std::string& taken() const { return taken_; }

 private:
  int met(LockRank rank, const void* lock, LockOp operation) {
    const int code = watch_ ? watch_(rank, lock, operation) : 0;
    if (!isAcquisition(operation)) return code;
    if (!taken_.empty()) taken_ += ", ";
    switch (rank) {
      case LockRank::map:
        taken_ += operation == LockOp::writeLock ? "map write" : "map read";
        break;
      case LockRank::bucketSet: taken_ += "set"; break;
      case LockRank::queue: taken_ += "queue"; break;
      case LockRank::node: taken_ += operation == LockOp::tryLock ? "node?" : "node"; break;
      default: taken_ += "other"; break;
    }
    if (code != 0) taken_ += "!";
    return code;
  }
  static inline LockTrace* active_ = nullptr;

  Watch watch_;
  std::string taken_;
};

// ---- Roads -------------------------------------------------------------------------------

enum class Road { kQuick, kOrdinary, kAreaQuick, kAreaOrdinary };
inline constexpr Road kRoads[] = {Road::kQuick, Road::kOrdinary, Road::kAreaQuick,
                                  Road::kAreaOrdinary};

inline std::string nameOf(Road road) {
  switch (road) {
    case Road::kQuick: return "arrays, quick";
    case Road::kOrdinary: return "arrays, ordinary";
    case Road::kAreaQuick: return "area, quick";
    default: return "area, ordinary";
  }
}

// One map and the road along which it is used. The ordinary road is the one with the event level
// on.
class RoadMap {
 public:
  RoadMap(ScriptedJni& jni, LuOffHeapMap* map, Road road)
      : jni_(jni), road_(road), map_(map), arrays_(jni, map), area_(jni, map) {}

  enum class Kind { kPut, kPutIfAbsent, kReplace, kRemove, kGet, kContains, kPin };
  static constexpr int kKinds = 7;
  struct Step {
    Kind kind;
    std::string key;
    jint hash;
    std::string value = {};
    jlong revision = 0;
  };

  // The answer as text.
  std::string run(const Step& step) {
    const bool event = logInfo.event;
    logInfo.event = road_ == Road::kOrdinary || road_ == Road::kAreaOrdinary;
    const bool byArea = road_ == Road::kAreaQuick || road_ == Road::kAreaOrdinary;
    std::string answer = byArea ? runOn(area_, step) : runOn(arrays_, step);
    logInfo.event = event;
    jni_.clearRecords();
    if (const std::optional<Thrown> thrown = jni_.takePending()) {
      answer += " raised " + thrown->className;
    }
    return answer;
  }

  Road road() const { return road_; }
  LuOffHeapMap* map() const { return map_; }

 private:
  template <typename Caller>
  std::string runOn(Caller& calls, const Step& step) {
    const auto& [kind, key, hash, value, revision] = step;
    switch (kind) {
      case Kind::kPut: return std::to_string(calls.put(key, hash, value, revision));
      case Kind::kPutIfAbsent: return std::to_string(calls.putIfAbsent(key, hash, value, revision));
      case Kind::kReplace: return std::to_string(calls.replace(key, hash, value, revision));
      case Kind::kRemove: return std::to_string(calls.remove(key, hash));
      case Kind::kContains: return calls.containsKey(key, hash) ? "present" : "absent";
      case Kind::kGet: return calls.get(key, hash).value_or("absent");
      default: break;
    }
    std::vector<jlong> words;
    const jlong pinned = calls.pin(key, hash, &words);
    if (pinned == 0) return "absent";
    auto* held = reinterpret_cast<ByteBufferHeader*>(static_cast<intptr_t>(pinned));
    std::string answer(face::placeAt(words, 0).text());
    answer += " of " + std::to_string(words[2]) + " pinned " + std::to_string(held->pins);
    arrays_.unpin(pinned);
    return answer;
  }

  ScriptedJni& jni_;
  const Road road_;
  LuOffHeapMap* const map_;
  face::Caller arrays_;
  area::Caller area_;
};

// The same steps on four maps, one for each road: the first is what the others are compared with.
class Roads {
 public:
  explicit Roads(ScriptedJni& jni) : jni_(jni) {}

  void add(LuOffHeapMap* map, Road road) {
    ASSERT_NE(map, nullptr);
    maps_.push_back(std::make_unique<RoadMap>(jni_, map, road));
  }
  std::vector<std::unique_ptr<RoadMap>>& maps() { return maps_; }

  // Answers, books and states are the same on all roads. Returns the first answer.
  std::string run(const RoadMap::Step& step) {
    std::string answer;
    std::string state;
    Books change{};
    for (const auto& each : maps_) {
      SCOPED_TRACE(nameOf(each->road()) + ": " + std::to_string(static_cast<int>(step.kind)) +
                   " of " + step.key + " with revision " + std::to_string(step.revision));
      const Books before = Books::now();
      const std::string answered = each->run(step);
      const Books after = Books::now();
      const Books changed{after.blocks - before.blocks, after.metadata - before.metadata};
      const std::string now = wholeState(jni_.env(), each->map());
      if (each == maps_.front()) {
        answer = answered;
        state = now;
        change = changed;
        continue;
      }
      EXPECT_EQ(answered, answer);
      EXPECT_EQ(now, state);
      EXPECT_EQ(changed, change);
    }
    return answer;
  }

 private:
  ScriptedJni& jni_;
  std::vector<std::unique_ptr<RoadMap>> maps_;
};

}  // namespace nimbra::test::quick
