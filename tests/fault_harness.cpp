// The runs of the fault harness: which faults a native can meet, one trial for each, and the
// comparison with the tables of what has to come of it.

#include "fault_harness.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <utility>

#include "fault_tables.h"
#include "nb_prof.h"

extern "C" {
// Present with the address sanitizer only.
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace nimbra::test::fault {

// ---- The world ---------------------------------------------------------------------------

void World::begin() {
  metadata_ = Books::now().metadata;
  if (overflow_) {
    PagingTest::SetUp();
  } else {
    MapTest::SetUp();
  }
}

void World::undo() {
  while (!undo_.empty()) {
    const std::function<void()> last = std::move(undo_.back());
    undo_.pop_back();
    last();
  }
}

void World::end() {
  undo();
  // Entries share buffers and eviction records: the map lets go first.
  if (map != nullptr) clearMap(map);
  if (overflow_) dropReverseMapPins();
  for (const jlong each : queues_) {
    EXPECT_TRUE(natives::freeEvictionQueue(env, nullptr, each));
  }
  for (const jlong each : records_) {
    EXPECT_EQ(unpinLuOffHeapEvictionData(env, natives::asEvictionData(each), ALLOCATION_PIN), 0U)
        << "an eviction record is pinned by somebody else";
  }
  for (ByteBufferHeader* each : kept_) {
    EXPECT_EQ(unpinToFree(env, each, ALLOCATION_PIN), 0) << "a buffer is pinned by somebody else";
  }
  if (map != nullptr) deleteMap(map);
  map = nullptr;
  if (overflow_) {
    if (_headerNodes != nullptr) {
      EXPECT_TRUE(checkLists().empty());
    }
    forgetOverflow(env, jni);
  }
  if (keepsMemory) expectedMetadataDelta = Books::now().metadata - metadata_;
  if (overflow_) {
    PagingTest::TearDown();
  } else {
    MapTest::TearDown();
  }
}

void World::remakeMap(jint bucketSets, float loadFactor) {
  deleteMap(map);
  map = makeMap(bucketSets, loadFactor);
  ASSERT_NE(map, nullptr);
}

ByteBufferHeader* World::kept(std::string_view bytes) {
  kept_.push_back(buffer(bytes));
  return kept_.back();
}

jlong World::evictionQueue() {
  queues_.push_back(natives::allocateEvictionQueue(env, nullptr));
  return queues_.back();
}

jlong World::evictionRecord(std::string_view key) {
  LuOffHeapEvictionData* made = allocateEvictionData(env, kept(key), false);
  if (made == nullptr) {
    ADD_FAILURE() << "no memory for a test record";
    return 0;
  }
  // Java's own fields come uninitialised.
  made->metadata = 0;
  made->expiration = 0;
  made->timeout = 0;
  records_.push_back(address(made));
  return records_.back();
}

void World::forgetQueue(jlong queue) { std::erase(queues_, queue); }

std::string World::state() {
  std::ostringstream out;
  if (map == nullptr) {
    out << "no map\n";
  } else {
    std::set<std::string> rows;
    for (const LuOffHeapValue* each : entriesOf(map)) {
      std::ostringstream row;
      row << bytesOf(each->key) << "=" << (each->value == nullptr ? "-" : bytesOf(each->value))
          << " owner " << each->revisionOwner << " revision " << each->revisionNumber << " flags "
          << each->flags << " pins " << each->pins << "," << each->key->pins << ","
          << (each->value == nullptr ? 0 : each->value->pins) << " evicts "
          << (each->evictionData != nullptr) << (each->ttlEvictionData != nullptr);
      if (overflow_ && _isDiskOverflowEnabled) {
        const overflow_metadata* node = nodeOf(const_cast<LuOffHeapValue*>(each));
        row << " node " << node->flags << " held "
            << holdCount(const_cast<overflow_metadata*>(node)) << " chunk " << node->chunkPtrOffset
            << "," << node->chunkSize << "," << node->nextChunkPtrOffset;
      }
      rows.insert(row.str());
    }
    for (const std::string& row : rows) out << row << "\n";
    if (heldLockCount() == 0) {  // the table's figures take its bucket sets
      out << hashtable_size(env, map->map) << " entries of " << hashtable_bytesUsed(env, map->map)
          << " bytes; ";
    }
    out << "queues";
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      for (const int64_t revision : revisionsOf(map->revisionQueue[i])) out << " " << revision;
      out << ";";
    }
    out << "\n";
  }
  for (const jlong each : queues_) {
    const LuOffHeapEvictionDataQueue* evicts = natives::asEvictionQueue(each);
    out << "queue of " << evicts->count << ":";
    uint32_t seen = 0;
    for (const LuQueueEntry* at = evicts->first; at != nullptr && seen <= evicts->count;
         at = at->next, ++seen) {
      const auto* data = static_cast<const LuOffHeapEvictionData*>(at);
      out << " " << bytesOf(data->key) << "/" << data->metadata << "/" << data->pins;
    }
    out << "\n";
  }
  for (const jlong each : records_) {
    const LuOffHeapEvictionData* data = natives::asEvictionData(each);
    out << "record " << bytesOf(data->key) << " pins " << data->pins << " " << data->metadata << " "
        << data->expiration << " " << data->timeout << "\n";
  }
  for (const ByteBufferHeader* each : kept_) out << "buffer pins " << each->pins << "\n";
  if (more) out << more() << "\n";
  return out.str();
}

void World::expectAllFree() {
  EXPECT_EQ(heldLockCount(), 0);
  if (map != nullptr) {
    EXPECT_TRUE(isFree(&map->lock)) << "the map's lock";
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      EXPECT_TRUE(isFree(&map->revisionQueue[i]->mutex)) << "revision queue " << i;
    }
    for (uint32_t i = 0; i < map->map->numBucketSets; ++i) {
      EXPECT_TRUE(isFree(&getBucketSetByIndex(map->map, i)->mutex)) << "bucket set " << i;
    }
  }
  for (const jlong each : queues_) {
    EXPECT_TRUE(isFree(&natives::asEvictionQueue(each)->mutex)) << "an eviction queue";
  }
  if (_headerNodes != nullptr) checkLists();
}

// ---- Cases -------------------------------------------------------------------------------

std::string Case::name() const {
  std::string result = native;
  if (!variant.empty()) result += "_" + variant;
  if (overflow) result += "_Overflow";
  for (char& unit : result) {
    if (std::isalnum(static_cast<unsigned char>(unit)) == 0) unit = '_';
  }
  return result;
}

std::ostream& operator<<(std::ostream& out, const Case& each) { return out << each.name(); }

void addBoth(std::vector<Case>& cases, Case each) {
  each.overflow = false;
  cases.push_back(each);
  each.overflow = true;
  cases.push_back(std::move(each));
}

namespace {

// ---- Faults ------------------------------------------------------------------------------

constexpr const char* kInjected = "injected by the fault harness";

// So many of the calls that write one record each, where there are many.
constexpr std::size_t kTriedOfMany = 3;

struct Fault {
  enum Kind { kNone, kMemory, kLimit, kAfterwards, kNull, kThrows } kind = kNone;
  int nth = 0;
  std::string site;     // the allocation's label or the slot
  bool traced = false;  // every trace level is on

  std::string label() const {
    static constexpr const char* kNames[] = {"none",       "memory", "limit",
                                             "afterwards", "null",   "throws"};
    return std::string(traced ? "traced " : "") + kNames[kind] + ":" + site;
  }
};

// What a run asks for, in order.
struct Demands {
  std::vector<std::string> allocations;
  std::vector<std::string> calls;
};

class RecordAllocations {
 public:
  explicit RecordAllocations(std::vector<std::string>& into) {
    into_ = &into;
    faults::refuseAllocation = [](uint64_t, const char* label) {
      into_->push_back(label == nullptr ? "unnamed" : label);
      return false;
    };
  }
  ~RecordAllocations() { faults::refuseAllocation = nullptr; }
  RecordAllocations(const RecordAllocations&) = delete;
  RecordAllocations& operator=(const RecordAllocations&) = delete;

 private:
  static inline std::vector<std::string>* into_ = nullptr;
};

bool among(const std::string& slot, std::initializer_list<const char*> patterns) {
  return std::any_of(patterns.begin(), patterns.end(), [&slot](const char* pattern) {
    return fnmatch(pattern, slot.c_str(), 0) == 0;
  });
}

// These have no way to fail when their arguments are valid.
bool neverFails(const std::string& slot) {
  return among(slot, {"Exception*", "Delete*", "Release*", "GetVersion", "IsSameObject",
                      "GetArrayLength", "GetStringLength", "GetObjectRefType"});
}
// These answer nothing: without an exception nothing would have failed.
bool failsByExceptionOnly(const std::string& slot) {
  return among(slot, {"*Region", "Call*VoidMethod"});
}
// These never raise.
bool failsByNullOnly(const std::string& slot) { return among(slot, {"GetDirectBuffer*"}); }

Thrown injectedAt(const std::string& slot) {
  return {slot.starts_with("Call") ? "java/lang/RuntimeException" : kOutOfMemory, kInjected};
}

// ---- One trial ---------------------------------------------------------------------------

struct Seen {
  jlong answer = 0;
  std::string before;
  std::string after;
};

enum class Raised { kNothing, kOwn, kOther };

class Trial {
 public:
  Trial(const Case& each, const Fault& fault) : case_(each), fault_(fault), world_(each.overflow) {
    world_.begin();
    if (each.arrange) each.arrange(world_);
    if (fault.traced) world_.setLevels(kAllLevels);
    world_.jni.clearCalls();
    seen.before = world_.state();
    world_.jni.clearCalls();
    const int64_t blocks = Books::now().blocks;
    run();
    blocks_ = Books::now().blocks - blocks;
    thrown = world_.jni.takePending();
    demands.calls = world_.jni.calls();
    if (fault.traced) world_.setLevels(0);
    seen.after = world_.state();
  }

  // REQUIRES: the answer means success.
  void release() {
    if (case_.release) case_.release(world_, seen.answer);
    if (const std::optional<Thrown> late = world_.jni.takePending()) {
      ADD_FAILURE() << "giving the answer back raised " << *late;
    }
  }
  // The call without a fault, in the world that the fault has left.
  Seen again() {
    Seen second;
    second.before = world_.state();
    second.answer = case_.call(world_);
    if (const std::optional<Thrown> late = world_.jni.takePending()) {
      ADD_FAILURE() << "the second call raised " << *late;
    }
    second.after = world_.state();
    if (case_.release) case_.release(world_, second.answer);
    return second;
  }
  void finish() {
    world_.undo();
    world_.expectAllFree();
    world_.end();
  }
  World& world() { return world_; }

  Raised raised() const {
    if (!thrown.has_value()) return Raised::kNothing;
    switch (fault_.kind) {
      case Fault::kNull:
      case Fault::kThrows: return thrown->message == kInjected ? Raised::kOwn : Raised::kOther;
      case Fault::kLimit:
        return thrown->className == (case_.overflow ? kNotEnoughResources : kIllegalState)
                   ? Raised::kOwn
                   : Raised::kOther;
      case Fault::kAfterwards:
        return thrown->className == kOutOfMemory ? Raised::kOwn : Raised::kOther;
      default: return Raised::kOther;
    }
  }

  Seen seen;
  Demands demands;
  std::optional<Thrown> thrown;
  bool fired = false;

 private:
  void run() {
    switch (fault_.kind) {
      case Fault::kNone: {
        const RecordAllocations recording(demands.allocations);
        seen.answer = case_.call(world_);
        break;
      }
      case Fault::kMemory:
      case Fault::kLimit: {
        const RefuseAllocation guard(fault_.nth, fault_.kind == Fault::kMemory
                                                     ? RefuseAllocation::Way::kNothingLeft
                                                     : RefuseAllocation::Way::kOverMaximum);
        seen.answer = case_.call(world_);
        fired = guard.fired();
        break;
      }
      case Fault::kAfterwards: {
        const RefuseAfterwards guard(world_.jni, fault_.nth);
        seen.answer = case_.call(world_);
        fired = guard.fired();
        break;
      }
      case Fault::kNull:
      case Fault::kThrows:
        world_.jni.failCall(fault_.site, fault_.nth,
                            fault_.kind == Fault::kThrows
                                ? std::optional<Thrown>(injectedAt(fault_.site))
                                : std::nullopt);
        seen.answer = case_.call(world_);
        fired = world_.jni.callCount(fault_.site) >= fault_.nth;
        world_.jni.clearFailures();
        break;
    }
  }

  const Case& case_;
  const Fault fault_;
  World world_;
  int64_t blocks_ = 0;
};

// ---- Counting ----------------------------------------------------------------------------

struct Counts {
  std::set<std::string> natives;
  int cases = 0;
  int allocations = 0;
  int nulls = 0;
  int exceptions = 0;
};
Counts counts;

class Summary : public ::testing::Environment {
 public:
  void TearDown() override {
    if (counts.cases == 0) return;
    std::printf(
        "faults tried: %zu natives in %d cases, %d allocations refused, %d JNI calls failed (%d "
        "without and %d with an exception)\n",
        counts.natives.size(), counts.cases, counts.allocations, counts.nulls + counts.exceptions,
        counts.nulls, counts.exceptions);
  }
};
[[maybe_unused]] const ::testing::Environment* const kSummary =
    ::testing::AddGlobalTestEnvironment(new Summary);

void count(const Fault& fault) {
  switch (fault.kind) {
    case Fault::kNone: break;
    case Fault::kMemory:
    case Fault::kLimit:
    case Fault::kAfterwards: ++counts.allocations; break;
    case Fault::kNull: ++counts.nulls; break;
    case Fault::kThrows: ++counts.exceptions; break;
  }
}

// ---- Outcomes ----------------------------------------------------------------------------

bool fits(const char* pattern, const std::string& text) {
  return fnmatch(pattern, text.c_str(), 0) == 0;
}

// A fault is named with or without the number of the call or allocation.
template <typename Row>
bool fitsRow(const Row& row, const Case& each, const Fault& fault) {
  const std::string label = fault.label();
  return fits(row.native, each.name()) &&
         (fits(row.fault, label) || fits(row.fault, label + "#" + std::to_string(fault.nth)));
}

template <typename Table>
auto rowFor(const Table& table, const Case& each, const Fault& fault)
    -> const std::remove_reference_t<decltype(*std::begin(table))>* {
  for (const auto& row : table) {
    if (fitsRow(row, each, fault)) return &row;
  }
  return nullptr;
}

// What rows say that stays behind.
void expectKept(World& world, const Case& each, const Fault& fault) {
  for (const Kept& row : kKept) {
    if (!fitsRow(row, each, fault)) continue;
    world.expectedBlocksDelta += row.blocks;
    world.expectedGlobalsDelta += row.globals;
    world.keepsMemory = world.keepsMemory || row.memory;
  }
}

// Memory that a trial leaves behind on purpose is no leak to the sanitizer.
class LeaksOnPurpose {
 public:
  LeaksOnPurpose(const Case& each, const Fault& fault) {
    for (const Kept& row : kKept) active_ = active_ || (row.memory && fitsRow(row, each, fault));
    if (active_ && __lsan_disable != nullptr) __lsan_disable();
  }
  ~LeaksOnPurpose() {
    if (active_ && __lsan_enable != nullptr) __lsan_enable();
  }
  LeaksOnPurpose(const LeaksOnPurpose&) = delete;
  LeaksOnPurpose& operator=(const LeaksOnPurpose&) = delete;

 private:
  bool active_ = false;
};

const HeldRow* heldBy(const Case& each) {
  for (const HeldRow& row : kHeld) {
    if (fits(row.native, each.name())) return &row;
  }
  return nullptr;
}

std::string describe(const Case& each, const Seen& seen, const Trial& trial, const Seen& good) {
  std::ostringstream out;
  out << "answer " << seen.answer << (each.failure == seen.answer ? " (failed)" : "") << ", state "
      << (seen.after == seen.before  ? "unchanged"
          : seen.after == good.after ? "as after success"
                                     : "another")
      << ", ";
  if (trial.thrown.has_value()) {
    out << "raised " << *trial.thrown;
  } else {
    out << "nothing raised";
  }
  if (seen.after != seen.before && seen.after != good.after) {
    out << "\nbefore:\n" << seen.before << "now:\n" << seen.after << "success:\n" << good.after;
  }
  return out.str();
}

// One fault in a world of its own.
void tryFault(const Case& each, const Fault& fault, const Seen& good) {
  SCOPED_TRACE(each.name() + ", " + fault.label() + " " + std::to_string(fault.nth));
  if (std::getenv("NIMBRA_FAULTS_VERBOSE") != nullptr) {
    std::fprintf(stderr, "%s, %s %d\n", each.name().c_str(), fault.label().c_str(), fault.nth);
  }
  if (rowFor(kUnchecked, each, fault) != nullptr) return;
  count(fault);
  const LeaksOnPurpose leaks(each, fault);
  Trial trial(each, fault);
  EXPECT_TRUE(trial.fired);
  const OutcomeRow* row = rowFor(kOutcomes, each, fault);
  const Outcome expected = row == nullptr ? Outcome::kFails : row->outcome;
  const bool own = fault.kind != Fault::kMemory && fault.kind != Fault::kNull;
  Raised raised = Raised::kNothing;
  bool mayHaveMoved = false;
  bool succeeds = false;
  switch (expected) {
    case Outcome::kFails: raised = own ? Raised::kOwn : Raised::kNothing; break;
    case Outcome::kFailsPartly:
      raised = own ? Raised::kOwn : Raised::kNothing;
      mayHaveMoved = true;
      break;
    case Outcome::kReports: raised = Raised::kOther; break;
    case Outcome::kReportsPartly:
      raised = own ? Raised::kOwn : Raised::kOther;
      mayHaveMoved = true;
      break;
    case Outcome::kSucceeds: succeeds = true; break;
    case Outcome::kSucceedsAndReports:
      succeeds = true;
      raised = Raised::kOther;
      break;
    case Outcome::kSucceedsPartly:
      succeeds = true;
      mayHaveMoved = true;
      break;
    case Outcome::kFailsQuietly:
    case Outcome::kFindsNothing: break;
  }
  const Seen& seen = trial.seen;
  // With an exception pending Java never sees the answer.
  const bool answerFits = trial.thrown.has_value() || !each.failure.has_value() ||
                          expected == Outcome::kFindsNothing ||
                          (seen.answer == *each.failure) == !succeeds;
  const bool stateFits = mayHaveMoved || seen.after == (succeeds ? good.after : seen.before);
  EXPECT_TRUE(answerFits && stateFits && trial.raised() == raised)
      << (row == nullptr ? "expected: fails with the fault's own exception" : row->reason) << "\n"
      << describe(each, seen, trial, good);
  expectKept(trial.world(), each, fault);
  const bool succeeded =
      expected == Outcome::kSucceedsAndReports || (succeeds && !trial.thrown.has_value());
  if (succeeded) {
    trial.release();
  } else {
    const HeldRow* held = heldBy(each);
    if (held == nullptr || !held->byArrangement) trial.world().expectAllFree();
    if (each.again) {
      const Seen second = trial.again();
      EXPECT_TRUE(!each.failure.has_value() || second.answer != *each.failure)
          << "the second call fails, too";
      if (!mayHaveMoved) {
        EXPECT_EQ(second.after, good.after) << "the second call";
      }
    }
  }
  if (succeeded || each.again) expectKept(trial.world(), each, Fault{});
  trial.finish();
}

// The case without a fault, in a world of its own: what it answers and what it asks for.
void runWithoutFault(const Case& each, bool traced, Seen& good, Demands& demands) {
  SCOPED_TRACE(each.name() + (traced ? ", traced, no fault" : ", no fault"));
  if (std::getenv("NIMBRA_FAULTS_VERBOSE") != nullptr) {
    std::fprintf(stderr, "%s\n", each.name().c_str());
  }
  const LeaksOnPurpose leaks(each, Fault{});
  Fault none;
  none.traced = traced;
  Trial trial(each, none);
  good = trial.seen;
  demands = trial.demands;
  EXPECT_FALSE(trial.thrown.has_value()) << *trial.thrown;
  if (each.failure.has_value()) {
    ASSERT_NE(good.answer, *each.failure) << "without a fault the case has to succeed";
  }
  if (heldBy(each) == nullptr) {
    trial.world().expectAllFree();
  }
  trial.release();
  expectKept(trial.world(), each, Fault{});
  trial.finish();
}

// Of the calls of one function, those that are tried: all, or a few from the first to the last.
std::vector<int> spread(const std::vector<int>& calls) {
  const std::size_t count = calls.size();
  if (count <= kTriedOfMany) return calls;
  std::vector<int> result;
  for (std::size_t i = 0; i < kTriedOfMany; ++i) {
    result.push_back(calls[i * (count - 1) / (kTriedOfMany - 1)]);
  }
  return result;
}

// The faults that a run with these demands can meet.
std::vector<Fault> faultsOf(const Case& each, const Demands& demands) {
  std::vector<Fault> faults;
  for (std::size_t i = 0; i < demands.allocations.size(); ++i) {
    for (const Fault::Kind kind : {Fault::kMemory, Fault::kLimit, Fault::kAfterwards}) {
      if (kind == Fault::kAfterwards && each.overflow) continue;  // the limit acts afterwards there
      faults.push_back({kind, static_cast<int>(i) + 1, demands.allocations[i]});
    }
  }
  std::map<std::string, std::vector<int>> numbers;
  for (const std::string& slot : demands.calls) {
    std::vector<int>& of = numbers[slot];
    of.push_back(static_cast<int>(of.size()) + 1);
  }
  for (const auto& [slot, all] : numbers) {
    if (neverFails(slot)) continue;
    for (const int nth : each.isReport ? spread(all) : all) {
      if (!failsByExceptionOnly(slot)) faults.push_back({Fault::kNull, nth, slot});
      if (!failsByNullOnly(slot)) faults.push_back({Fault::kThrows, nth, slot});
    }
  }
  return faults;
}

}  // namespace

TEST_P(EveryFault, EndsAsDocumented) {
  const Case& each = GetParam();
  counts.natives.insert(each.native);
  ++counts.cases;
  Seen good;
  Demands demands;
  ASSERT_NO_FATAL_FAILURE(runWithoutFault(each, false, good, demands));
  for (const Fault& fault : faultsOf(each, demands)) tryFault(each, fault, good);
}

// The logger may fail in the middle of any operation: the record is lost, and nothing else. A
// logger without its method is raised, but only when the operation has done its work. Of the
// records of an operation a few are tried, spread over all of it.
TEST_P(EveryFault, OfTheLoggerLosesARecord) {
  const Case& each = GetParam();
  if (each.isReport ||
      among(each.native, {"OffHeapManager.initializeOffHeap", "OffHeapManager.setLogLevel"})) {
    return;  // they write records themselves, or read the levels: tried above
  }
  Seen good;
  Demands demands;
  ASSERT_NO_FATAL_FAILURE(runWithoutFault(each, true, good, demands));
  const std::vector<std::string>& calls = demands.calls;
  // A record is a look-up, an array, its characters, and the call.
  std::map<std::string, int> met;
  std::map<std::string, std::vector<int>> sites;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    const int nth = ++met[calls[i]];
    const bool logs = calls[i] == "NewCharArray" ||
                      (calls[i] == "CallStaticVoidMethod" && calls[i - 1] == "SetCharArrayRegion");
    const bool looksUp =
        calls[i] == "GetStaticMethodID" && i + 1 < calls.size() && calls[i + 1] == "NewCharArray";
    if (logs || looksUp) sites[calls[i]].push_back(nth);
  }
  for (const auto& [slot, numbers] : sites) {
    const Fault::Kind kind = slot == "GetStaticMethodID" ? Fault::kNull : Fault::kThrows;
    for (const int nth : spread(numbers)) tryFault(each, {kind, nth, slot, true}, good);
  }
}

namespace {

// Calls `body` from a stack that is `more` frames deeper.
[[gnu::noinline]] void deeper(int more, const std::function<void()>& body) {
  if (more == 0) return body();
  deeper(more - 1, body);
  EXPECT_GT(more, 0);  // behind the call, so that it leaves a frame
}

}  // namespace

// The number of faults has to say what the cases are, not which tests ran before in the process:
// the report of all profiles writes a record for each that any test has made, and the one of pins
// one for every frame of the stack.
TEST(FaultHarness, TriesTheSameFaultsWhateverTheProcessHasDone) {
  const auto planOf = [](const Case& each) {
    Seen good;
    Demands demands;
    runWithoutFault(each, false, good, demands);
    std::vector<std::string> plan;
    for (const Fault& fault : faultsOf(each, demands)) {
      // By its function only: of more records, other ones are tried.
      plan.push_back(fault.label());
    }
    return plan;
  };
  const std::vector<Case> cases = managerCases();
  std::vector<std::vector<std::string>> before;
  for (const Case& each : cases) before.push_back(planOf(each));
  for (int i = 0; i < 5; ++i) ASSERT_NE(allocateNativeProf(10, 1, "of another test"), nullptr);
  deeper(5, [&] {
    for (std::size_t i = 0; i < cases.size(); ++i) {
      EXPECT_EQ(planOf(cases[i]), before[i]) << cases[i].name();
    }
  });
}

// ---- Completeness ------------------------------------------------------------------------

namespace {

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> cells;
  std::stringstream in(line);
  for (std::string cell; std::getline(in, cell, '\t');) cells.push_back(cell);
  return cells;
}

// The natives that Java can bind, as the table lists them.
std::vector<std::string> tableOfNatives() {
  std::ifstream in(NIMBRA_NATIVES_TABLE);
  EXPECT_TRUE(in.good()) << "no table of natives";
  struct Row {
    std::string name;
    std::string parameters;
  };
  std::vector<Row> rows;
  std::map<std::string, int> times;
  for (std::string line; std::getline(in, line);) {
    const std::vector<std::string> cells = split(line);
    if (cells.size() < 6 || (cells[5] != "jni" && cells[5] != "jni-long")) continue;
    const std::string name = cells[0].substr(cells[0].rfind('.') + 1) + "." + cells[2];
    rows.push_back({name, cells[3] == "-" ? "" : cells[3]});
    ++times[name];
  }
  std::vector<std::string> result;
  for (const Row& row : rows) {
    result.push_back(times[row.name] > 1 ? row.name + "(" + row.parameters + ")" : row.name);
  }
  return result;
}

// The natives that the face's own classes declare.
std::vector<std::string> nativesOfTheFace() {
  std::vector<std::string> result;
  const std::regex declaration(R"(\bnative\s+[\w\[\]]+\s+(\w+)\s*\()");
  for (const auto& file : std::filesystem::directory_iterator(NIMBRA_FACE_SOURCES)) {
    if (!file.path().filename().string().ends_with("Natives.java")) continue;
    std::ifstream in(file.path());
    const std::string source{std::istreambuf_iterator<char>(in), {}};
    for (std::sregex_iterator at(source.begin(), source.end(), declaration), end; at != end; ++at) {
      result.push_back(file.path().stem().string() + "." + (*at)[1].str());
    }
  }
  return result;
}

}  // namespace

TEST(FaultHarness, EveryNativeHasACase) {
  std::set<std::string> tried;
  std::set<std::string> names;
  for (const auto& cases : {managerCases(), mapCases(), valueCases(), typedCases(), evictionCases(),
                            overflowCases(), faceCases()}) {
    for (const Case& each : cases) {
      tried.insert(each.native);
      EXPECT_TRUE(names.insert(each.name()).second) << each.name() << " is there twice";
    }
  }
  std::vector<std::string> listed = tableOfNatives();
  EXPECT_GT(listed.size(), 100U);
  const std::vector<std::string> face = nativesOfTheFace();
  EXPECT_GT(face.size(), 20U);
  listed.insert(listed.end(), face.begin(), face.end());
  const std::set<std::string> all(listed.begin(), listed.end());
  for (const std::string& native : all) {
    EXPECT_TRUE(tried.contains(native)) << native << " has no case in the fault harness";
  }
  for (const std::string& native : tried) {
    EXPECT_TRUE(all.contains(native)) << "a case for " << native << ", which is no native";
  }
}

// A row that fits no case any more says something that is not so.
TEST(FaultHarness, EveryRowOfTheTablesNamesACase) {
  std::vector<std::string> names;
  for (const auto& cases : {managerCases(), mapCases(), valueCases(), typedCases(), evictionCases(),
                            overflowCases(), faceCases()}) {
    for (const Case& each : cases) names.push_back(each.name());
  }
  const auto check = [&names](const char* pattern, const char* reason) {
    EXPECT_TRUE(std::any_of(names.begin(), names.end(),
                            [pattern](const std::string& name) { return fits(pattern, name); }))
        << pattern << " fits no case";
    EXPECT_GT(std::string_view(reason).size(), 10U) << pattern << " has no reason";
  };
  for (const auto& row : kOutcomes) check(row.native, row.reason);
  for (const auto& row : kHeld) check(row.native, row.reason);
  for (const auto& row : kKept) check(row.native, row.reason);
  for (const auto& row : kUnchecked) check(row.native, row.reason);
}

INSTANTIATE_TEST_SUITE_P(Manager, EveryFault, ::testing::ValuesIn(managerCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Map, EveryFault, ::testing::ValuesIn(mapCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Value, EveryFault, ::testing::ValuesIn(valueCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Typed, EveryFault, ::testing::ValuesIn(typedCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Eviction, EveryFault, ::testing::ValuesIn(evictionCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Overflow, EveryFault, ::testing::ValuesIn(overflowCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Face, EveryFault, ::testing::ValuesIn(faceCases()), nameOf);

}  // namespace nimbra::test::fault
