// The map face's natives from many threads at once. Every value says which key and which write it
// belongs to and carries a checksum, so that a torn, foreign or freed value shows.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <thread>

#include "face_support.h"

namespace nimbra::test::face {
namespace {

using Random = std::mt19937_64;
using Clock = std::chrono::steady_clock;

uint64_t testSeed() {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::printf("NIMBRA_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  return seed;
}

uint32_t below(Random& random, uint32_t limit) { return static_cast<uint32_t>(random() % limit); }

// Every third key is too long for the native stack.
std::string keyOf(uint32_t number) {
  return "key " + std::to_string(number) + std::string(number % 3 == 0 ? 700 : 0, '.');
}

// Few hashes: keys share chains, and the bytes decide.
jint hashOf(uint32_t number) { return static_cast<jint>((number % 7) * 0x9e3779b9U); }

uint64_t mix(uint64_t state) {
  state ^= state >> 33;
  state *= 0xff51afd7ed558ccdULL;
  return state ^ (state >> 29);
}

// key | write | words that follow from both | checksum
struct ValueHead {
  uint64_t key;
  uint64_t write;
};

std::string valueOf(uint64_t key, uint64_t write) {
  std::vector<uint64_t> words = {key, write};
  for (uint64_t i = 0; i < mix(write) % 40; ++i) words.push_back(mix(key * 1000003 + write + i));
  uint64_t checksum = 0;
  for (const uint64_t word : words) checksum = mix(checksum ^ word);
  words.push_back(checksum);
  return {reinterpret_cast<const char*>(words.data()), words.size() * sizeof(uint64_t)};
}

// The write that a value comes from; reports a value that is none of this key's.
uint64_t checkValue(std::string_view value, uint64_t key) {
  ValueHead head{};
  if (value.size() < sizeof head) {
    ADD_FAILURE() << "a value of " << value.size() << " bytes";
    return 0;
  }
  std::memcpy(&head, value.data(), sizeof head);
  EXPECT_EQ(head.key, key) << "the value of another key";
  EXPECT_TRUE(value == valueOf(head.key, head.write))
      << "a torn or freed value of key " << head.key;
  return head.write;
}

uint64_t keyNumber(std::string_view key) {
  const uint64_t number = std::strtoull(std::string(key.substr(4, 10)).c_str(), nullptr, 10);
  EXPECT_TRUE(key == keyOf(static_cast<uint32_t>(number))) << "a torn or freed key";
  return number;
}

// What one thread does to the shared map. Its environment is renewed now and then, since it keeps
// every array that was ever made in it.
class Actor {
 public:
  Actor(LuOffHeapMap* map, uint32_t thread) : map_(map), writes_(uint64_t{thread} << 40) {
    renew();
  }
  ~Actor() {
    while (!pins_.empty()) dropPin();
  }
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  void renew() {
    calls_.reset();
    jni_ = std::make_unique<ScriptedJni>();
    calls_.emplace(*jni_, map_);
  }

  jint put(uint32_t key) {
    const jint result = write(key, &Caller::put);
    EXPECT_TRUE(result == 0 || result == 1);
    return result;
  }
  jint putIfAbsent(uint32_t key) {
    const jint result = write(key, &Caller::putIfAbsent);
    EXPECT_TRUE(result == 0 || result == 1);
    return result;
  }
  void replace(uint32_t key) {
    const jint result = write(key, &Caller::replace);
    EXPECT_TRUE(result == 0 || result == 1);
  }
  jint remove(uint32_t key) {
    const jint result = calls_->remove(keyOf(key), hashOf(key));
    EXPECT_TRUE(result == 0 || result == 1);
    return result;
  }
  void containsKey(uint32_t key) { calls_->containsKey(keyOf(key), hashOf(key)); }
  bool get(uint32_t key) {
    const std::optional<std::string> value = calls_->get(keyOf(key), hashOf(key));
    if (value.has_value()) checkValue(*value, key);
    return value.has_value();
  }

  // Pins are held over several operations and looked at again before they are dropped.
  void pin(uint32_t key) {
    std::vector<jlong> words;
    const jlong handle = calls_->pin(keyOf(key), hashOf(key), &words);
    if (handle == 0) return;
    const Place place = placeAt(words, 0);
    const uint64_t write = checkValue(place.text(), key);
    EXPECT_EQ(static_cast<uint64_t>(words[2]), write) << "a revision of another value";
    pins_.push_back({handle, place, key, write});
    if (pins_.size() > 8) dropPin();
  }

  // A whole walk in steps of a random size; `between` runs while a step is pinned.
  Seen walk(Random& random, const std::function<void()>& between) {
    Seen seen;
    Walk walk(*calls_, 1 + static_cast<jint>(below(random, 12)));
    while (!walk.ended()) {
      const jint count = walk.step();
      if (count < 0) {
        walk.setCapacity(-count);
        continue;
      }
      const std::vector<Walk::Entry> entries = walk.entries();
      for (int look = 0; look < 2; ++look) {
        for (const Walk::Entry& entry : entries) {
          const uint64_t key = keyNumber(entry.key.text());
          EXPECT_EQ(checkValue(entry.value.text(), key), static_cast<uint64_t>(entry.revision));
          if (look == 0) ++seen[std::string(entry.key.text())];
        }
        if (look == 0) between();
      }
      walk.release();
    }
    return seen;
  }

 private:
  struct Pin {
    jlong handle;
    Place place;
    uint32_t key;
    uint64_t write;
  };

  // The write's number is its revision.
  jint write(uint32_t key,
             jint (Caller::*operation)(std::string_view, jint, std::string_view, jlong)) {
    const uint64_t number = ++writes_;
    return ((*calls_).*operation)(keyOf(key), hashOf(key), valueOf(key, number),
                                  static_cast<jlong>(number));
  }
  void dropPin() {
    const Pin& oldest = pins_.front();
    EXPECT_EQ(checkValue(oldest.place.text(), oldest.key), oldest.write)
        << "a pinned value changed";
    calls_->unpin(oldest.handle);
    pins_.pop_front();
  }

  LuOffHeapMap* const map_;
  uint64_t writes_;
  std::unique_ptr<ScriptedJni> jni_;
  std::optional<Caller> calls_;
  std::deque<Pin> pins_;
};

void onThreads(uint32_t threads, std::chrono::milliseconds time,
               const std::function<void(uint32_t, const std::function<bool()>&)>& body) {
  const Clock::time_point end = Clock::now() + time;
  std::vector<std::thread> running;
  for (uint32_t index = 0; index < threads; ++index) {
    running.emplace_back(body, index, [end] { return Clock::now() < end; });
  }
  for (std::thread& thread : running) thread.join();
}

class FaceStress : public FaceTest {};

TEST_F(FaceStress, EveryOperationOnTheSameFewKeys) {
  const uint64_t seed = testSeed();
  constexpr uint32_t kKeys = 20;
  remakeMap(2);
  std::atomic<int64_t> inserted{0};
  std::atomic<int64_t> removed{0};
  std::atomic<int64_t> hits{0};
  onThreads(4, std::chrono::milliseconds(1500), [&](uint32_t thread, const auto& more) {
    Random random(seed + thread);
    Actor actor(map, thread + 1);
    for (uint32_t step = 1; more() && !HasFailure(); ++step) {
      if (step % 2000 == 0) actor.renew();
      const uint32_t key = below(random, kKeys);
      switch (below(random, 12)) {
        case 0:
        case 1:
        case 2: inserted += actor.put(key); break;
        case 3: inserted += actor.putIfAbsent(key); break;
        case 4: actor.replace(key); break;
        case 5:
        case 6: removed += actor.remove(key); break;
        case 7: actor.containsKey(key); break;
        case 8:
        case 9: hits += actor.get(key) ? 1 : 0; break;
        case 10: actor.pin(key); break;
        default:
          if (below(random, 8) == 0) {
            actor.walk(random, [&] { inserted += actor.put(below(random, kKeys)); });
          }
          break;
      }
    }
  });
  EXPECT_GT(removed, 0);
  EXPECT_GT(hits, 0);
  // Every insert and every removal was answered to exactly one caller.
  EXPECT_EQ(static_cast<int64_t>(contentsOf(map).size()), inserted - removed);
  for (const auto& [key, row] : contentsOf(map)) {
    EXPECT_EQ(checkValue(row.value, keyNumber(key)), static_cast<uint64_t>(row.revision));
  }
  checkFaceMap();
}

// Walks see what stays exactly once while other threads make the sets grow.
TEST_F(FaceStress, WalksOverAGrowingTable) {
  const uint64_t seed = testSeed();
  constexpr uint32_t kStaying = 60;
  std::atomic<int64_t> walks{0};
  for (int round = 0; round < 4 && !HasFailure(); ++round) {
    remakeMap(2, 0.75F);
    {
      Actor actor(map, 9);
      for (uint32_t key = 0; key < kStaying; ++key) EXPECT_EQ(actor.put(key), 1);
    }
    onThreads(3, std::chrono::milliseconds(250), [&](uint32_t thread, const auto& more) {
      Random random(seed + thread);
      Actor actor(map, thread + 1);
      for (uint32_t step = 1; more() && !HasFailure(); ++step) {
        if (step % 500 == 0) actor.renew();
        if (thread == 0) {
          Seen seen = actor.walk(random, [] {});
          for (uint32_t key = 0; key < kStaying; ++key) EXPECT_EQ(seen[keyOf(key)], 1);
          ++walks;
        } else {
          // Newcomers of this thread's own, and other values for those that stay.
          actor.put(kStaying + step * 2 + thread);
          actor.put(below(random, kStaying));
        }
      }
    });
    checkFaceMap();
  }
  EXPECT_GT(walks, 0);
}

}  // namespace
}  // namespace nimbra::test::face
