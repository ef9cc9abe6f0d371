// Pin tracking: how objects find their chain and record, what an event holds, and which pins and
// unpins are recorded.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "pintrack_support.h"

// Looked for in recorded stacks, so its name has to be one that the dynamic linker knows.
extern "C" __attribute__((visibility("default"), noinline)) int32_t nimbraTestPinsFromHere(
    JNIEnv* env, nimbra::Pinnable* object) {
  const int32_t pins = nimbra::pin(env, object, nimbra::TRANSPORT_PIN);
  // Keeps the frame: a tail call would hide the name.
  asm volatile("" ::: "memory");
  return pins;
}

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kJava = JNI_CONVERT_FROM_JAVA_PIN;

// ---- Hash and table ----------------------------------------------------------------------

// Subtracting a shifted copy is a product; so the mix is written another way here.
uint64_t mixed(uint64_t key) {
  key *= uint64_t{0} - 511;
  key ^= key / (uint64_t{1} << 14);
  key *= uint64_t{0} - 31;
  key ^= key * 16;
  key *= uint64_t{0} - 127;
  key ^= key * 128;
  key ^= key / (uint64_t{1} << 18);
  return key;
}

TEST(PinHash, MixesAllBits) {
  const std::pair<uint64_t, uint64_t> rows[] = {
      {0x0, 0x0},
      {0x1, 0xc43c310ff76ba004},
      {0x2, 0xc43c310eef5b065b},
      {0x10, 0xc43c31007f7ee320},
      {0x7f3a5c0010a0, 0x60ce4786ee43e5a0},
      {0x55556a7b82d0, 0x468dbc62cf84826a},
      {0x0123456789abcdef, 0x727542287b89abd9},
      {0x8000000000000000, 0xe3e238f880000000},
      {0xffffffffffffffff, 0xf6e7e656},
  };
  for (const auto& [key, hash] : rows) {
    EXPECT_EQ(hashFn64(key), hash) << std::hex << key;
    EXPECT_EQ(mixed(key), hash) << std::hex << key;
  }
}

TEST(PinHash, AgreesWithItsProductsForManyKeys) {
  uint64_t key = 0x9e3779b97f4a7c15;
  for (int turn = 0; turn < 10'000; ++turn) {
    ASSERT_EQ(hashFn64(key), mixed(key)) << std::hex << key;
    key = key * 6364136223846793005 + 1442695040888963407;
  }
}

class PinTable : public PinTracking<LibraryTest> {};

TEST_F(PinTable, HasFiveHundredEmptyHeads) {
  PinTracker** const table = _tracker;
  std::set<const PinTracker*> heads;
  for (uint32_t at = 0; at < 500; ++at) {
    PinTracker* head = table[at];
    ASSERT_NE(head, nullptr) << at;
    heads.insert(head);
    EXPECT_EQ(head->object, nullptr);
    EXPECT_EQ(head->events, nullptr);
    EXPECT_EQ(head->eventCount, 0);
    EXPECT_EQ(head->balance, 0);
    EXPECT_EQ(head->next, nullptr);
    EXPECT_EQ(pthread_rwlock_trywrlock(&head->lock), 0) << at;
    EXPECT_EQ(pthread_rwlock_unlock(&head->lock), 0);
  }
  EXPECT_EQ(heads.size(), 500U);
  EXPECT_EQ(kTrackerBuckets, 500U);
}

TEST_F(PinTable, ChoosesTheChainByTheRestOfTheHash) {
  PinTracker** const table = _tracker;
  for (const uint64_t address : {uint64_t{0}, uint64_t{8}, uint64_t{0x10}, uint64_t{0x7f3a5c0010a0},
                                 uint64_t{0x55556a7b82d0}, ~uint64_t{7}}) {
    const auto* object = reinterpret_cast<const Pinnable*>(address);
    EXPECT_EQ(getTracker(object), table[mixed(address) % 500]) << std::hex << address;
  }
  EXPECT_EQ(getTracker(reinterpret_cast<const Pinnable*>(0x10)), table[452]);
  EXPECT_EQ(getTracker(reinterpret_cast<const Pinnable*>(0x7f3a5c0010a0)), table[356]);
}

TEST_F(PinTable, NewRecordIsEmptyAndUnlocked) {
  PinTracker* record = allocatePinTracker();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->object, nullptr);
  EXPECT_EQ(record->events, nullptr);
  EXPECT_EQ(record->eventCount, 0);
  EXPECT_EQ(record->balance, 0);
  EXPECT_EQ(record->next, nullptr);
  EXPECT_EQ(pthread_rwlock_trywrlock(&record->lock), 0);
  EXPECT_EQ(pthread_rwlock_unlock(&record->lock), 0);
  EXPECT_EQ(pthread_rwlock_destroy(&record->lock), 0);
  std::free(record);
}

// ---- Chains ------------------------------------------------------------------------------

class PinChain : public PinTracking<LibraryTest> {
 protected:
  void SetUp() override {
    PinTracking::SetUp();
    const std::vector<Pinnable*> found = objects.ofOneChain(4);
    ASSERT_EQ(found.size(), 4U);
    std::copy(found.begin(), found.end(), one.begin());
    head = getTracker(one[0]);
    setLevels(kPinTrackLevel);
  }
  PinTracker* search(const Pinnable* object) {
    rwlockWrite(&head->lock, LockRank::pinChain);
    PinTracker* found = getCurr(object, head);
    rwlockUnlock(&head->lock, LockRank::pinChain);
    return found;
  }

  CollidingObjects objects;
  std::array<Pinnable*, 4> one{};
  PinTracker* head = nullptr;
};

TEST_F(PinChain, StartsWithTheObjectThatWasTrackedLast) {
  for (Pinnable* object : one) ASSERT_EQ(getTracker(object), head);
  pin(env, one[0], TRANSPORT_PIN);
  EXPECT_THAT(chainOf(head), ElementsAre(one[0]));
  pin(env, one[1], TRANSPORT_PIN);
  EXPECT_THAT(chainOf(head), ElementsAre(one[1], one[0]));
  pin(env, one[2], TRANSPORT_PIN);
  EXPECT_THAT(chainOf(head), ElementsAre(one[2], one[1], one[0]));
}

TEST_F(PinChain, MovesWhatIsFoundToTheFront) {
  for (const int at : {0, 1, 2}) pin(env, one[at], TRANSPORT_PIN);
  PinTracker* const first = recordOf(one[2]);
  EXPECT_EQ(search(one[2]), first) << "the first stays the first";
  EXPECT_THAT(chainOf(head), ElementsAre(one[2], one[1], one[0]));
  PinTracker* const middle = recordOf(one[1]);
  EXPECT_EQ(search(one[1]), middle);
  EXPECT_THAT(chainOf(head), ElementsAre(one[1], one[2], one[0]));
  PinTracker* const last = recordOf(one[0]);
  EXPECT_EQ(search(one[0]), last);
  EXPECT_THAT(chainOf(head), ElementsAre(one[0], one[1], one[2]));
}

TEST_F(PinChain, StaysAsItIsWhenNothingIsFound) {
  EXPECT_EQ(search(one[3]), nullptr) << "an empty chain";
  for (const int at : {0, 1, 2}) pin(env, one[at], TRANSPORT_PIN);
  EXPECT_EQ(search(one[3]), nullptr);
  EXPECT_THAT(chainOf(head), ElementsAre(one[2], one[1], one[0]));
}

TEST_F(PinChain, UnpinAlsoMovesItsObjectToTheFront) {
  for (const int at : {0, 1, 2}) pin(env, one[at], TRANSPORT_PIN);
  unpin(env, one[0], TRANSPORT_PIN);
  EXPECT_THAT(chainOf(head), ElementsAre(one[0], one[2], one[1]));
  pin(env, one[2], TRANSPORT_PIN);
  EXPECT_THAT(chainOf(head), ElementsAre(one[2], one[0], one[1]));
}

TEST_F(PinChain, KeepsTheEventsOfItsObjectsApart) {
  pin(env, one[0], TRANSPORT_PIN);
  pin(env, one[1], ALLOCATION_PIN);
  pin(env, one[1], JNI_GET_PIN);
  unpin(env, one[0], TRANSPORT_PIN);
  EXPECT_EQ(recordOf(one[0])->eventCount, 2);
  EXPECT_EQ(recordOf(one[0])->balance, 0);
  EXPECT_EQ(recordOf(one[1])->eventCount, 2);
  EXPECT_EQ(recordOf(one[1])->balance, 2);
}

// ---- Events of a record ------------------------------------------------------------------

class PinRecord : public PinTracking<LibraryTest> {
 protected:
  static Pin* newEvent(bool isPin) {
    // The record frees what it owns: the block of the event and its lines.
    auto* event = static_cast<Pin*>(std::calloc(1, sizeof(Pin) + sizeof(char*)));
    event->isPin = isPin;
    event->reason = "SOME_PIN";
    event->backtrace = reinterpret_cast<char**>(event + 1);
    return event;
  }
  // A record of the test's own in the object's chain.
  PinTracker* newRecord(const Pinnable* object) {
    PinTracker* record = allocatePinTracker();
    record->object = object;
    PinTracker* head = getTracker(object);
    record->next = head->next;
    head->next = record;
    return record;
  }
  Pinnable object{0};
};

TEST_F(PinRecord, GrowsByOneEventAtATime) {
  PinTracker* record = newRecord(&object);
  std::vector<Pin*> events;
  int balance = 0;
  for (int number = 0; number < 40; ++number) {
    const bool isPin = number % 3 != 2;
    events.push_back(newEvent(isPin));
    ASSERT_TRUE(addPin(record, events.back()));
    balance += isPin ? 1 : -1;
    EXPECT_EQ(record->balance, balance);
    ASSERT_EQ(record->eventCount, static_cast<int>(events.size()));
    EXPECT_EQ(std::vector<Pin*>(record->events, record->events + record->eventCount), events);
    // No capacity to spare, beyond what the C heap rounds a request up by.
    const std::size_t needed = events.size() * sizeof(Pin*);
    EXPECT_GE(malloc_usable_size(record->events), needed);
    EXPECT_LE(malloc_usable_size(record->events), needed + 32);
    EXPECT_EQ(pthread_rwlock_trywrlock(&record->lock), 0) << "left unlocked";
    pthread_rwlock_unlock(&record->lock);
  }
}

TEST_F(PinRecord, BalanceMayFallBelowZero) {
  PinTracker* record = newRecord(&object);
  ASSERT_TRUE(addPin(record, newEvent(false)));
  ASSERT_TRUE(addPin(record, newEvent(false)));
  EXPECT_EQ(record->balance, -2);
  EXPECT_EQ(record->eventCount, 2);
  ASSERT_TRUE(addPin(record, newEvent(true)));
  EXPECT_EQ(record->balance, -1);
  EXPECT_EQ(record->eventCount, 3);
}

// ---- What is recorded --------------------------------------------------------------------

class PinEvents : public PinTracking<LibraryTest> {
 protected:
  static std::vector<std::string> stackOf(const Pin* event) {
    return {event->backtrace, event->backtrace + event->frameCount};
  }
  const Pin* lastEvent() {
    const PinTracker* record = recordOf(&object);
    return record->events[record->eventCount - 1];
  }
  Pinnable object{0};
};

TEST_F(PinEvents, HoldReasonStackAndThreadOfAPin) {
  setLevels(kPinTrackLevel);
  EXPECT_EQ(pin(env, &object, ALLOCATION_PIN), 1);
  const PinTracker* record = recordOf(&object);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->object, &object);
  EXPECT_EQ(record->balance, 1);
  ASSERT_EQ(record->eventCount, 1);
  const Pin* event = record->events[0];
  EXPECT_TRUE(event->isPin);
  EXPECT_EQ(event->reason, getReason(ALLOCATION_PIN)) << "the static text itself";
  EXPECT_NE(event->thread, 0U);
  ASSERT_GT(event->frameCount, 0);
  EXPECT_LE(event->frameCount, 100);
  for (const std::string& line : stackOf(event)) EXPECT_NE(line, "");
}

TEST_F(PinEvents, HoldNoThreadOfAnUnpin) {
  setLevels(kPinTrackLevel);
  pin(env, &object, kJava | JAVA_GET_PIN);
  EXPECT_EQ(unpin(env, &object, kJava | JAVA_FREE_PIN), 0);
  const PinTracker* record = recordOf(&object);
  EXPECT_EQ(record->balance, 0);
  ASSERT_EQ(record->eventCount, 2);
  EXPECT_STREQ(record->events[0]->reason, "JAVA_GET_PIN");
  EXPECT_FALSE(record->events[1]->isPin);
  EXPECT_STREQ(record->events[1]->reason, "JAVA_FREE_PIN");
  EXPECT_EQ(record->events[1]->thread, 0U);
  EXPECT_GT(record->events[1]->frameCount, 0);
}

TEST_F(PinEvents, TellThreadsApart) {
  setLevels(kPinTrackLevel);
  pin(env, &object, TRANSPORT_PIN);
  pin(env, &object, TRANSPORT_PIN);
  std::thread([this] {
    ScriptedJni mine;
    pin(mine.env(), &object, TRANSPORT_PIN);
  }).join();
  Pin** const events = recordOf(&object)->events;
  EXPECT_EQ(events[0]->thread, events[1]->thread);
  EXPECT_NE(events[2]->thread, 0U);
  EXPECT_NE(events[2]->thread, events[0]->thread);
}

TEST_F(PinEvents, StackNamesTheCaller) {
  setLevels(kPinTrackLevel);
  nimbraTestPinsFromHere(env, &object);
  EXPECT_THAT(stackOf(lastEvent()), Contains(HasSubstr("nimbraTestPinsFromHere")));
  pin(env, &object, TRANSPORT_PIN);
  EXPECT_THAT(stackOf(lastEvent()), ::testing::Not(Contains(HasSubstr("nimbraTestPinsFromHere"))));
}

// The release of an event's lines is the release of its first one.
TEST_F(PinEvents, LinesStandInOneBlockBehindTheFirst) {
  setLevels(kPinTrackLevel);
  pin(env, &object, TRANSPORT_PIN);
  const Pin* event = lastEvent();
  for (int at = 1; at < event->frameCount; ++at) {
    const char* before = event->backtrace[at - 1];
    EXPECT_EQ(event->backtrace[at], before + std::strlen(before) + 1) << at;
  }
}

__attribute__((noinline)) int32_t pinFromDepth(JNIEnv* env, Pinnable* object, int depth) {
  const int32_t pins =
      depth == 0 ? pin(env, object, TRANSPORT_PIN) : pinFromDepth(env, object, depth - 1);
  asm volatile("" ::: "memory");
  return pins;
}

TEST_F(PinEvents, StackIsCutAtAHundredFrames) {
  setLevels(kPinTrackLevel);
  pinFromDepth(env, &object, 150);
  EXPECT_EQ(lastEvent()->frameCount, 100);
}

TEST_F(PinEvents, StartWithTheFirstTrackedPinOfTheProcess) {
  _tracker = nullptr;
  pin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(_tracker.load(), nullptr) << "tracking is off";
  setLevels(kPinTrackLevel);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(_tracker.load(), nullptr) << "an unpin makes no table";
  pin(env, &object, TRANSPORT_PIN);
  ASSERT_NE(_tracker.load(), nullptr);
  // Never freed, as any table.
  static PinTracker** const made = _tracker.load();
  EXPECT_EQ(made, _tracker.load());
  EXPECT_EQ(recordOf(&object)->balance, 1);
  EXPECT_EQ(recordCount(), 1U);
}

TEST_F(PinEvents, AreRecordedUnderEitherLevel) {
  int expected = 0;
  for (const jint levels : {kPinTrackLevel, kPinTrackAllLevel, kPinTrackLevel | kPinTrackAllLevel,
                            kPinTrackLevel | kDebugLevel | kEventLevel}) {
    setLevels(levels);
    pin(env, &object, TRANSPORT_PIN);
    EXPECT_EQ(recordOf(&object)->eventCount, ++expected) << levels;
  }
}

TEST_F(PinEvents, AreNotRecordedUnderOtherLevels) {
  setLevels(0x7fffffff & ~(kPinTrackLevel | kPinTrackAllLevel));
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(recordCount(), 0U);
  setLevels(0);
  jni.clearCalls();
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(recordCount(), 0U);
  EXPECT_THAT(jni.calls(), IsEmpty());
}

TEST_F(PinEvents, SendNothingThemselves) {
  setLevels(kPinTrackLevel | kPinTrackAllLevel | kInfoLevel);
  jni.clearCalls();
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_THAT(jni.calls(), IsEmpty());
}

TEST_F(PinEvents, StopWithTheLevelAndKeepWhatIsThere) {
  setLevels(kPinTrackLevel);
  pin(env, &object, TRANSPORT_PIN);
  setLevels(0);
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(recordOf(&object)->eventCount, 1);
  setLevels(kPinTrackLevel);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(recordOf(&object)->eventCount, 2);
  EXPECT_EQ(recordOf(&object)->balance, 0);
}

TEST_F(PinEvents, OfABufferStayWhenItIsFreed) {
  setLevels(kPinTrackLevel);
  ByteBufferHeader* header = allocateByteBufferData(env, 16, "Key Data");
  ASSERT_NE(header, nullptr);
  pin(env, header, ALLOCATION_PIN);
  const PinTracker* record = recordOf(header);
  ASSERT_NE(record, nullptr) << "the header's address is the object's";
  EXPECT_EQ(unpinToFree(env, header, ALLOCATION_PIN), 0);
  EXPECT_EQ(record->eventCount, 2);
  EXPECT_EQ(record->balance, 0);
}

TEST_F(PinEvents, CountPinsThatFollowUnpinsBelowZero) {
  setLevels(kPinTrackLevel);
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(unpin(env, &object, TRANSPORT_PIN), -1);
  EXPECT_EQ(recordOf(&object)->balance, -1);
}

// Nothing is recorded of an object that was pinned before tracking began. Its chain stays locked,
// so that the next use of it waits.
TEST_F(PinEvents, UnpinWithoutARecordLeavesItsChainLocked) {
  pin(env, &object, TRANSPORT_PIN);
  setLevels(kPinTrackLevel);
  PinTracker* const head = getTracker(&object);
  EXPECT_EQ(unpin(env, &object, TRANSPORT_PIN), 0) << "the pin itself is given back";
  EXPECT_EQ(recordOf(&object), nullptr);

  std::atomic<bool> recorded{false};
  std::thread waiting([&] {
    EXPECT_EQ(pthread_rwlock_trywrlock(&head->lock), EBUSY);
    EXPECT_EQ(pthread_rwlock_tryrdlock(&head->lock), EBUSY);
    ScriptedJni mine;
    pin(mine.env(), &object, TRANSPORT_PIN);
    recorded = true;
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
  while (std::chrono::steady_clock::now() < deadline && !recorded) std::this_thread::yield();
  EXPECT_FALSE(recorded);
  for (uint32_t at = 0; at < kTrackerBuckets; ++at) {
    PinTracker* other = _tracker.load()[at];
    if (other == head) continue;
    ASSERT_EQ(pthread_rwlock_trywrlock(&other->lock), 0) << "only this chain is";
    pthread_rwlock_unlock(&other->lock);
  }
  // Nobody would; here the other tests want to go on.
  EXPECT_EQ(heldLockCount(), 1);
  rwlockUnlock(&head->lock, LockRank::pinChain);
  waiting.join();
  EXPECT_TRUE(recorded);
  EXPECT_EQ(recordOf(&object)->eventCount, 1);
}

TEST_F(PinEvents, LeaveNoLockBehind) {
  setLevels(kPinTrackLevel);
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(heldLockCount(), 0);
  PinTracker* const head = getTracker(&object);
  ASSERT_EQ(pthread_rwlock_trywrlock(&head->lock), 0);
  pthread_rwlock_unlock(&head->lock);
}

// ---- Threads -----------------------------------------------------------------------------

class PinThreads : public PinTracking<LibraryTest> {};

TEST_F(PinThreads, LoseNoEventOfSharedAndOwnObjects) {
  constexpr int kThreads = 8;
  constexpr int kTurns = 60;
  CollidingObjects objects;
  // One chain for all the shared ones, so that the threads meet.
  const std::vector<Pinnable*> shared = objects.ofOneChain(4);
  ASSERT_EQ(shared.size(), 4U);
  std::vector<Pinnable> own(kThreads);
  setLevels(kPinTrackLevel);
  // All live at once, so that no two have the same identity.
  std::latch started(kThreads);
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      ScriptedJni mine;
      started.arrive_and_wait();
      for (int turn = 0; turn < kTurns; ++turn) {
        Pinnable* common = shared[static_cast<std::size_t>(turn + number) % shared.size()];
        pin(mine.env(), common, TRANSPORT_PIN);
        pin(mine.env(), &own[number], ALLOCATION_PIN);
        if (turn % 4 != 0) unpin(mine.env(), common, TRANSPORT_PIN);
        if (turn % 2 != 0) unpin(mine.env(), &own[number], ALLOCATION_PIN);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  const auto check = [](const Pinnable* object) {
    const PinTracker* record = recordOf(object);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->balance, object->pins) << "recorded and counted pins agree";
    int pins = 0;
    for (int at = 0; at < record->eventCount; ++at) pins += record->events[at]->isPin ? 1 : -1;
    EXPECT_EQ(pins, record->balance);
  };
  int events = 0;
  int64_t outstanding = 0;
  for (const Pinnable* object : shared) {
    check(object);
    events += recordOf(object)->eventCount;
    outstanding += object->pins;
  }
  EXPECT_EQ(events, kThreads * (kTurns + kTurns * 3 / 4));
  EXPECT_EQ(outstanding, kThreads * kTurns / 4);
  std::set<uint64_t> pinners;
  for (const Pinnable& object : own) {
    check(&object);
    EXPECT_EQ(recordOf(&object)->eventCount, kTurns + kTurns / 2);
    EXPECT_EQ(object.pins, kTurns / 2);
    pinners.insert(recordOf(&object)->events[0]->thread);
  }
  EXPECT_EQ(pinners.size(), std::size_t{kThreads});
  EXPECT_EQ(recordCount(), shared.size() + own.size());
}

TEST_F(PinThreads, MayRecordWhileAReportIsWritten) {
  constexpr int kThreads = 4;
  constexpr int kTurns = 40;
  std::vector<Pinnable> objects(16);
  setLevels(kPinTrackLevel | kPinTrackAllLevel | kInfoLevel);
  std::vector<std::thread> threads;
  std::atomic<int> running{kThreads};
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      ScriptedJni mine;
      for (int turn = 0; turn < kTurns; ++turn) {
        Pinnable& object = objects[static_cast<std::size_t>(turn * 3 + number) % objects.size()];
        pin(mine.env(), &object, TRANSPORT_PIN);
        unpin(mine.env(), &object, TRANSPORT_PIN);
      }
      --running;
    });
  }
  do {
    const std::vector<std::string> lines = report();
    ASSERT_FALSE(lines.empty());
    EXPECT_THAT(lines.back(), ::testing::StartsWith("info|Total current pins: "));
  } while (running > 0);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(report().back(), totalLine(0));
  int events = 0;
  for (const Pinnable& object : objects) events += recordOf(&object)->eventCount;
  EXPECT_EQ(events, kThreads * kTurns * 2);
}

}  // namespace
}  // namespace nimbra::test
