// Random operations on bounded maps: one thread beside a model that knows each victim and its
// turn, and many threads on few keys in two partitions that share one bound, with values that say
// which key and which write they belong to.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <thread>

#include "bounded_support.h"

namespace nimbra::test::bounded {
namespace {

using Random = std::mt19937_64;
using Clock = std::chrono::steady_clock;

uint32_t below(Random& random, uint32_t limit) { return static_cast<uint32_t>(random() % limit); }

// ---- A model -----------------------------------------------------------------------------------

// What the map should hold, as plain lists. Keys wait in `byUse` and `byDeadline` in the order in
// which they go.
class Model {
 public:
  struct Entry {
    std::string value;
    jlong revision;
    jlong deadline;
    int64_t uses;
  };

  // `sizeOf`: the bytes that the bound counts for a buffer of so many bytes.
  Model(const Kind& kind, jlong maximumBytes, jlong maximumEntries, jlong recordBytes,
        std::function<jlong(size_t)> sizeOf)
      : kind_(kind),
        maximumBytes_(maximumBytes),
        maximumEntries_(maximumEntries),
        recordBytes_(recordBytes),
        sizeOf_(std::move(sizeOf)) {}

  jint put(const std::string& key, const std::string& value, jlong revision, jlong now,
           jlong deadline, jint mode) {
    if (isExpired(key, now)) drop(key);
    const bool live = entries.contains(key);
    if (live ? mode == kPutIfAbsent : mode == kReplace) return 0;
    if (live) {
      Entry& entry = entries.at(key);
      const jlong grown = sizeOf_(value.size());
      if (bytes() + grown > maximumBytes_) return kNoRoom;
      entry.value = value;
      entry.revision = revision;
      use(key, deadline);
      return mode == kPut ? 0 : 1;
    }
    const jlong size = sizeOf_(key.size()) + sizeOf_(value.size()) + recordBytes_;
    if (bytes() + size > maximumBytes_ ||
        static_cast<jlong>(entries.size()) + 1 > maximumEntries_) {
      return kNoRoom;
    }
    entries[key] = {value, revision, deadline, 0};
    enter(key);
    return 1;
  }
  std::optional<std::string> get(const std::string& key, jlong now, jlong newDeadline) {
    if (!entries.contains(key) || isExpired(key, now)) return std::nullopt;
    use(key, newDeadline);
    return entries.at(key).value;
  }
  bool containsKey(const std::string& key, jlong now) const {
    return entries.contains(key) && !isExpired(key, now);
  }
  jint remove(const std::string& key, jlong now) {
    if (!entries.contains(key)) return 0;
    const jint result = isExpired(key, now) ? 0 : 1;
    drop(key);
    return result;
  }
  // The victims in their order.
  std::vector<std::pair<std::string, Entry>> evict(size_t count, bool timed, jlong now) {
    std::vector<std::pair<std::string, Entry>> gone;
    const std::list<std::string>& queue = timed ? byDeadline : byUse;
    while (gone.size() < count && !queue.empty()) {
      const std::string key = queue.front();
      if (timed && entries.at(key).deadline > now) break;
      gone.emplace_back(key, entries.at(key));
      drop(key);
    }
    return gone;
  }
  void clear() {
    while (!entries.empty()) drop(entries.begin()->first);
  }
  jlong bytes() const {
    jlong sum = 0;
    for (const auto& [key, entry] : entries) {
      sum += sizeOf_(key.size()) + sizeOf_(entry.value.size()) + recordBytes_;
    }
    return sum;
  }

  std::map<std::string, Entry> entries;
  std::list<std::string> byUse;
  std::list<std::string> byDeadline;

 private:
  bool isExpired(const std::string& key, jlong now) const {
    const auto found = entries.find(key);
    return kind_.timed && found != entries.end() && found->second.deadline <= now;
  }
  void drop(std::string key) {
    byUse.remove(key);
    byDeadline.remove(key);
    entries.erase(key);
  }
  // Behind everything that is not greater.
  template <typename Sort>
  void insertSorted(std::list<std::string>& queue, const std::string& key, Sort sort) {
    const auto place = std::find_if(queue.begin(), queue.end(), [&](const std::string& other) {
      return sort(other) > sort(key);
    });
    queue.insert(place, key);
  }
  void enterByUse(const std::string& key) {
    if (kind_.policy == kLru) byUse.push_back(key);
    if (kind_.policy == kLfu) {
      insertSorted(byUse, key, [this](const std::string& k) { return entries.at(k).uses; });
    }
  }
  void enterByDeadline(const std::string& key) {
    if (!kind_.timed) return;
    insertSorted(byDeadline, key, [this](const std::string& k) { return entries.at(k).deadline; });
  }
  void enter(const std::string& key) {
    enterByUse(key);
    enterByDeadline(key);
  }
  void use(const std::string& key, jlong newDeadline) {
    Entry& entry = entries.at(key);
    byUse.remove(key);
    entry.uses++;
    enterByUse(key);
    if (newDeadline == kKeep) return;
    byDeadline.remove(key);
    entry.deadline = newDeadline;
    enterByDeadline(key);
  }

  const Kind kind_;
  const jlong maximumBytes_;
  const jlong maximumEntries_;
  const jlong recordBytes_;
  const std::function<jlong(size_t)> sizeOf_;
};

class BoundedModel : public BoundedTest, public ::testing::WithParamInterface<Kind> {
 protected:
  // As the bound counts it.
  jlong sizeOf(size_t length) {
    const auto [at, isNew] = sizes_.try_emplace(length, 0);
    if (isNew) {
      ByteBufferHeader* measured = buffer(std::string(length, 'x'));
      at->second = static_cast<jlong>(sizeofByteBufferHeader(measured));
      drop(measured);
    }
    return at->second;
  }
  jlong recordBytes() {
    LuOffHeapValue* measured = record(nullptr, nullptr);
    const auto bytes = static_cast<jlong>(alignSize(static_cast<const void*>(measured)));
    unpinValue(measured);
    return bytes;
  }
  void compare(const Model& model) {
    ASSERT_EQ(boundBytes(), model.bytes());
    ASSERT_EQ(boundEntries(), static_cast<jlong>(model.entries.size()));
    ASSERT_EQ(order(), Keys(model.byUse.begin(), model.byUse.end()));
    ASSERT_EQ(timeOrder(), Keys(model.byDeadline.begin(), model.byDeadline.end()));
  }
  void compareContents(const Model& model) {
    Rows rows;
    for (const auto& [key, entry] : model.entries) rows[key] = {entry.value, 0, entry.revision};
    EXPECT_EQ(contentsOf(map), rows);
    check();
  }
  // One random operation on both.
  void step(Random& random, Model& model, Caller& map) {
    const std::string key = "key " + std::to_string(below(random, 14));
    const jint hash = hashOf(key) % 5;
    now += below(random, 3);
    const jlong deadline = now + 1 + below(random, 40);
    const jlong newDeadline = below(random, 2) == 0 ? kKeep : deadline;
    switch (below(random, 16)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4:
      case 5: {
        constexpr Mode kModes[] = {kPut, kPut, kPutIfAbsent, kReplace};
        const Mode mode = kModes[below(random, 4)];
        const std::string value(below(random, 4) * 150, static_cast<char>('a' + below(random, 26)));
        ++revision;
        ASSERT_EQ(map.put(key, hash, value, revision, now, deadline, mode),
                  model.put(key, value, revision, now, deadline, mode))
            << "mode " << mode;
        break;
      }
      case 6:
      case 7:
      case 8:
        ASSERT_EQ(map.get(key, hash, now, newDeadline), model.get(key, now, newDeadline));
        break;
      case 9: {
        std::vector<jlong> words;
        const jlong pinned = map.pin(key, hash, now, newDeadline, &words);
        const std::optional<std::string> expected = model.get(key, now, newDeadline);
        ASSERT_EQ(pinned != 0, expected.has_value());
        if (pinned == 0) break;
        EXPECT_EQ(face::placeAt(words, 0).text(), *expected);
        EXPECT_EQ(words[2], model.entries.at(key).revision);
        map.unpin(pinned);
        break;
      }
      case 10: ASSERT_EQ(map.containsKey(key, hash, now), model.containsKey(key, now)); break;
      case 11: ASSERT_EQ(map.remove(key, hash, now), model.remove(key, now)); break;
      case 12:
      case 13:
      case 14: {
        const bool timed = below(random, 2) == 0;
        const jint count = static_cast<jint>(below(random, 4));
        const jint capacity = static_cast<jint>(below(random, 5));
        const auto evicted = map.evict(count, timed, now, capacity);
        const auto expected =
            model.evict(static_cast<size_t>(std::min(count, capacity)), timed, now);
        ASSERT_EQ(evicted->list.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
          EXPECT_EQ(evicted->list[i].key.text(), expected[i].first);
          EXPECT_EQ(evicted->list[i].value.text(), expected[i].second.value);
          EXPECT_EQ(evicted->list[i].revision, expected[i].second.revision);
        }
        break;
      }
      default:
        if (below(random, 40) == 0) {
          ASSERT_TRUE(map.clear());
          model.clear();
        }
        break;
    }
    compare(model);
  }

 private:
  std::map<size_t, jlong> sizes_;
};

TEST_P(BoundedModel, RandomOperations) {
  const uint64_t seed = testSeed();
  for (int round = 0; round < 6 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Random random(seed + static_cast<uint64_t>(round));
    const jlong maximumBytes = round % 3 == 0 ? 0 : 1500 + below(random, 3000);
    const jlong maximumEntries = round % 2 == 0 ? 0 : 3 + below(random, 8);
    open(GetParam(), maximumBytes, maximumEntries);
    Model model(GetParam(), maximumBytes == 0 ? kNever : maximumBytes,
                maximumEntries == 0 ? kNever : maximumEntries, recordBytes(),
                [this](size_t length) { return sizeOf(length); });
    for (int chunk = 0; chunk < 4 && !HasFailure(); ++chunk) {
      ScriptedJni other;  // keeps every array that is made in it: not for too long
      Caller map(other, partition());
      for (int i = 0; i < 200 && !HasFatalFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(chunk * 200 + i));
        step(random, model, map);
      }
      compareContents(model);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, BoundedModel, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Threads -----------------------------------------------------------------------------------

constexpr uint32_t kKeyCount = 24;
constexpr jint kPartitions = 2;

std::string keyOf(uint32_t number) {
  return "key " + std::to_string(number) + std::string(number % 5 == 0 ? 700 : 0, '.');
}
// Few hashes: keys share chains, and the bytes decide.
jint hashOfNumber(uint32_t number) { return static_cast<jint>((number % 7) * 0x9e3779b9U); }

uint64_t mix(uint64_t state) {
  state ^= state >> 33;
  state *= 0xff51afd7ed558ccdULL;
  return state ^ (state >> 29);
}

// key | write | words that follow from both | checksum
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
  uint64_t head[2] = {};
  if (value.size() < sizeof head) {
    ADD_FAILURE() << "a value of " << value.size() << " bytes";
    return 0;
  }
  std::memcpy(head, value.data(), sizeof head);
  EXPECT_EQ(head[0], key) << "the value of another key";
  EXPECT_TRUE(value == valueOf(head[0], head[1])) << "a torn or freed value of key " << head[0];
  return head[1];
}

uint32_t numberOf(std::string_view key) {
  const auto number =
      static_cast<uint32_t>(std::strtoul(std::string(key.substr(4, 8)).c_str(), nullptr, 10));
  EXPECT_TRUE(key == keyOf(number)) << "a torn or freed key";
  return number;
}

struct Totals {
  std::atomic<int64_t> inserted{0};
  std::atomic<int64_t> removed{0};  // answered by a removal or by an eviction
  std::atomic<int64_t> hits{0};
  std::atomic<int64_t> refused{0};
  std::atomic<int64_t> byUse{0};
  std::atomic<int64_t> byDeadline{0};
  std::atomic<int64_t> queried{0};
  std::atomic<jlong> revisions{0};
};

// What one thread does to the shared map. Its environment is renewed now and then, since it keeps
// every array that was ever made in it.
class Actor {
 public:
  Actor(const std::vector<Partition>& partitions, Totals& totals, uint64_t seed, uint32_t index)
      : partitions_(partitions), totals_(totals), random_(seed), index_(index) {
    renew();
  }
  ~Actor() {
    while (!pins_.empty()) dropPin();
  }
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  void renew() {
    kept_.reset();
    callers_.clear();
    jni_ = std::make_unique<ScriptedJni>();
    for (const Partition& partition : partitions_) callers_.emplace_back(*jni_, partition);
  }

  void act() {
    const uint32_t key = below(random_, kKeyCount);
    switch (below(random_, 14)) {
      case 0:
      case 1:
      case 2: put(key, kPut); break;
      case 3: put(key, kPutIfAbsent); break;
      case 4: put(key, kReplace); break;
      case 5:
      case 6:
      case 7: get(key); break;
      case 8: pin(key); break;
      case 9: of(key).containsKey(keyOf(key), hashOfNumber(key), now()); break;
      case 10: remove(key); break;
      case 11: evict(below(random_, kPartitions), 1 + below(random_, 3), false); break;
      case 12: evict(below(random_, kPartitions), 4, true); break;
      default: query(below(random_, kPartitions)); break;
    }
  }

 private:
  struct Pin {
    jlong handle;
    face::Place place;
    uint32_t key;
    uint64_t write;
  };

  static jlong nanoseconds(Clock::duration time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  }
  jlong now() const { return nanoseconds(Clock::now().time_since_epoch()); }
  // Some deadlines come soon, some not within the test.
  jlong deadline() { return now() + (below(random_, 3) == 0 ? 50'000 : 3'600'000'000'000); }
  jlong newDeadline() { return below(random_, 2) == 0 ? kKeep : deadline(); }
  Caller& of(uint32_t key) { return callers_[key % kPartitions]; }

  void put(uint32_t key, Mode mode) {
    const jlong number = ++totals_.revisions;
    const jint result =
        of(key).put(keyOf(key), hashOfNumber(key), valueOf(key, static_cast<uint64_t>(number)),
                    number, now(), deadline(), mode);
    EXPECT_TRUE(result == 0 || result == 1 || result == kNoRoom) << result;
    if (mode != kReplace && result == 1) ++totals_.inserted;
    if (result != kNoRoom) return;
    ++totals_.refused;
    evict(below(random_, kPartitions), 2, false);
  }
  void get(uint32_t key) {
    const auto value = of(key).get(keyOf(key), hashOfNumber(key), now(), newDeadline());
    if (!value.has_value()) return;
    checkValue(*value, key);
    ++totals_.hits;
  }
  // Pins are held over several operations and looked at again before they are dropped.
  void pin(uint32_t key) {
    std::vector<jlong> words;
    const jlong handle = of(key).pin(keyOf(key), hashOfNumber(key), now(), newDeadline(), &words);
    if (handle == 0) return;
    const face::Place place = face::placeAt(words, 0);
    const uint64_t write = checkValue(place.text(), key);
    EXPECT_EQ(static_cast<uint64_t>(words[2]), write) << "a revision of another value";
    pins_.push_back({handle, place, key, write});
    if (pins_.size() > 6) dropPin();
  }
  void dropPin() {
    const Pin& oldest = pins_.front();
    EXPECT_EQ(checkValue(oldest.place.text(), oldest.key), oldest.write);
    callers_[0].unpin(oldest.handle);
    pins_.pop_front();
  }
  void remove(uint32_t key) {
    const jint result = of(key).remove(keyOf(key), hashOfNumber(key), now());
    EXPECT_TRUE(result == 0 || result == 1) << result;
    totals_.removed += result;
  }
  // Of each eviction the entries stay pinned until the next one.
  void evict(uint32_t partition, uint32_t count, bool timed) {
    auto evicted = callers_[partition].evict(static_cast<jint>(count), timed, now(), 4);
    (timed ? totals_.byDeadline : totals_.byUse) += static_cast<int64_t>(evicted->list.size());
    for (const Evicted* look : {evicted.get(), kept_.get()}) {
      if (look == nullptr) continue;
      for (const Evicted::Entry& entry : look->list) {
        EXPECT_EQ(checkValue(entry.value.text(), numberOf(entry.key.text())),
                  static_cast<uint64_t>(entry.revision));
      }
    }
    kept_ = std::move(evicted);
  }
  // What changed lately, by a bookmark of this thread's own or without one. An update shows the
  // new revision before it has swapped the value.
  void query(uint32_t partition) {
    const jlong end = totals_.revisions;
    const jlong start = std::max<jlong>(0, end - 40);
    if (start >= end) return;
    const jint bookmark = below(random_, 2) == 0 ? -1 : static_cast<jint>(index_);
    const Queried changes(*jni_, partitions_[partition], bookmark, start, end);
    for (const Queried::Entry& entry : changes.list) {
      checkValue(entry.value.text(), numberOf(entry.key.text()));
      EXPECT_EQ(numberOf(entry.key.text()) % kPartitions, partition);
    }
    totals_.queried += static_cast<int64_t>(changes.list.size());
  }

  const std::vector<Partition>& partitions_;
  Totals& totals_;
  Random random_;
  const uint32_t index_;
  std::unique_ptr<ScriptedJni> jni_;
  std::deque<Caller> callers_;
  std::unique_ptr<Evicted> kept_;
  std::deque<Pin> pins_;
};

class BoundedStress : public BoundedTest, public ::testing::WithParamInterface<Kind> {};

TEST_P(BoundedStress, SixThreadsAndOneBound) {
  const uint64_t seed = testSeed();
  constexpr jlong kMaximumEntries = 16;
  constexpr jlong kMaximumBytes = 8000;
  open(GetParam().policy, GetParam().timed, kMaximumBytes, kMaximumEntries, kPartitions, 2);
  Totals totals;
  std::atomic<bool> running{true};
  std::atomic<int64_t> samples{0};
  // The figures hold at every moment, not only between calls.
  std::thread sampler([&] {
    ScriptedJni own;
    const jlong bound = partition().bound;
    while (running) {
      const jlong usedBytes = bytes(own.env(), nullptr, bound);
      const jlong usedEntries = entries(own.env(), nullptr, bound);
      EXPECT_GE(usedBytes, 0);
      EXPECT_LE(usedBytes, kMaximumBytes);
      EXPECT_GE(usedEntries, 0);
      EXPECT_LE(usedEntries, kMaximumEntries);
      ++samples;
      std::this_thread::yield();
    }
  });
  const auto allSeen = [&] {
    return totals.hits > 0 && totals.removed > 0 && totals.refused > 0 && totals.byUse > 0 &&
           totals.queried > 0 && (totals.byDeadline > 0 || !GetParam().timed);
  };
  // A second; longer on a busy machine, until everything has happened that is looked for below.
  const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
  const Clock::time_point latest = end + std::chrono::seconds(60);
  const auto goesOn = [&] {
    const Clock::time_point now = Clock::now();
    return !HasFailure() && (now < end || (now < latest && !allSeen()));
  };
  std::vector<std::thread> threads;
  for (uint32_t index = 0; index < 6; ++index) {
    threads.emplace_back([&, index] {
      Actor actor(partitions, totals, seed + index, index);
      for (uint32_t step = 1; goesOn(); ++step) {
        if (step % 1000 == 0) actor.renew();
        actor.act();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  running = false;
  sampler.join();

  EXPECT_GT(samples, 0);
  EXPECT_GT(totals.hits, 0);
  EXPECT_GT(totals.removed, 0);
  EXPECT_GT(totals.refused, 0);
  EXPECT_GT(totals.byUse, 0);
  EXPECT_EQ(totals.byDeadline > 0, GetParam().timed);
  EXPECT_GT(totals.queried, 0);
  // Each entry that came was answered to one caller; what went without an answer had expired.
  const int64_t answered = totals.removed + totals.byUse + totals.byDeadline;
  if (GetParam().timed) {
    EXPECT_LE(answered + boundEntries(), totals.inserted);
  } else {
    EXPECT_EQ(answered + boundEntries(), totals.inserted);
  }
  for (const Partition& each : partitions) {
    for (const auto& [key, row] : contentsOf(each.map)) {
      EXPECT_EQ(checkValue(row.value, numberOf(key)), static_cast<uint64_t>(row.revision));
    }
  }
  check();
  // Everything that is left can be evicted.
  for (const Partition& each : partitions) {
    Caller caller(jni, each);
    while (!caller.evict(8, false, 0, 8)->list.empty()) {
    }
  }
  EXPECT_EQ(boundBytes(), 0);
  EXPECT_EQ(boundEntries(), 0);
  check();
}

INSTANTIATE_TEST_SUITE_P(Kinds, BoundedStress, ::testing::Values(kKinds[1], kKinds[4], kKinds[5]),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace nimbra::test::bounded
