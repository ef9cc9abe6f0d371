// The profiler: profiles and their registry, slots and positions, samples and averages, the report.

#include "nb_prof.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "fresh_process.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr jint kProfilingLevel = 0x400;
constexpr uint64_t kUntouched = 0x5a5a5a5a5a5a5a5a;
constexpr const char* kThreeLabels[] = {"open", "work", "close"};

uint64_t microsecondsNow() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_usec);
}

// A thread that does what it is told, one thing after the other.
class Worker {
 public:
  Worker() : thread_([this] { loop(); }) {}
  ~Worker() {
    run(nullptr);
    thread_.join();
  }
  // Returns when it is done; an empty task ends the thread.
  void run(const std::function<void()>& task) {
    std::unique_lock guard(mutex_);
    task_ = task;
    busy_ = true;
    changed_.notify_all();
    changed_.wait(guard, [this] { return !busy_; });
  }

 private:
  void loop() {
    for (bool more = true; more;) {
      std::unique_lock guard(mutex_);
      changed_.wait(guard, [this] { return busy_; });
      more = task_ != nullptr;
      if (more) task_();
      busy_ = false;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> task_;
  bool busy_ = false;
  std::thread thread_;
};

class ProfileTest : public LibraryTest {
 protected:
  // The native, as Java calls it; answers what it sent.
  std::vector<std::string> report() {
    jni.clearRecords();
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_printProfileStats(env, manager);
    return jni.lines();
  }
  static std::string textOf(native_prof* profile) {
    char* text = toString(profile);
    std::string result = text;
    std::free(text);
    return result;
  }
  static std::string skipped(const char* name, int highest, int positions) {
    return std::string("Profile ") + name +
           " was skipped because it is not yet ready (up to about " + std::to_string(highest) +
           "/" + std::to_string(positions) + " samples)";
  }
  static std::vector<int32_t> positionsOf(const native_prof* profile) {
    return {std::begin(profile->sampleIndex), std::end(profile->sampleIndex)};
  }
  static std::vector<uint64_t> holdersOf(const native_prof* profile) {
    return {std::begin(profile->holders), std::end(profile->holders)};
  }
  static std::vector<uint64_t> samplesOf(const native_prof* profile) {
    return {profile->samples, profile->samples + profile->points * profile->sampleCount};
  }
  static std::vector<uint64_t> averagesOf(const native_prof* profile) {
    return {profile->averages, profile->averages + profile->points};
  }
  static uint64_t sampleAt(const native_prof* profile, int point, int position) {
    return profile->samples[point * profile->sampleCount + position];
  }
  static void fill(native_prof* profile, uint64_t value) {
    for (int at = 0; at < profile->points * profile->sampleCount; ++at)
      profile->samples[at] = value;
  }
  static void expectAllFree(native_prof* profile) {
    EXPECT_THAT(holdersOf(profile), Each(0U));
    for (pthread_rwlock_t& slot : profile->slotLocks) {
      EXPECT_EQ(pthread_rwlock_trywrlock(&slot), 0);
      pthread_rwlock_unlock(&slot);
    }
    EXPECT_EQ(pthread_rwlock_trywrlock(&profile->lock), 0);
    pthread_rwlock_unlock(&profile->lock);
    EXPECT_EQ(heldLockCount(), 0);
  }
};

// ---- Profiles and their registry ---------------------------------------------------------

class Profile : public ProfileTest {};

TEST_F(Profile, StartsEmpty) {
  static const char name[] = "startsEmpty";
  native_prof* profile = allocateNativeProf(20, 3, name);
  ASSERT_NE(profile, nullptr);
  EXPECT_EQ(profile->name, name) << "not copied";
  EXPECT_EQ(profile->sampleCount, 20);
  EXPECT_EQ(profile->points, 3);
  EXPECT_FALSE(profile->ready);
  EXPECT_THAT(samplesOf(profile), Each(0U));
  EXPECT_EQ(samplesOf(profile).size(), 60U);
  EXPECT_THAT(averagesOf(profile), ElementsAre(0, 0, 0));
  EXPECT_THAT(positionsOf(profile), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_STREQ(profile->labels[0], "Point0");
  EXPECT_STREQ(profile->labels[1], "Point1");
  EXPECT_STREQ(profile->labels[2], "Point2");
  EXPECT_EQ(getThreadId(profile), -1);
  expectAllFree(profile);
}

TEST_F(Profile, NewestIsReportedFirst) {
  allocateNativeProf(10, 1, "newestFirst.a");
  allocateNativeProf(20, 1, "newestFirst.b");
  allocateNativeProf(30, 1, "newestFirst.c");
  setLevels(kInfoLevel);
  const std::vector<std::string> lines = report();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0], "info|" + skipped("newestFirst.c", 4, 30));
  EXPECT_EQ(lines[1], "info|" + skipped("newestFirst.b", 4, 20));
  EXPECT_EQ(lines[2], "info|" + skipped("newestFirst.a", 4, 10));
  EXPECT_THAT(lines, Each(StartsWith("info|Profile "))) << "one line a profile, without a prefix";
  EXPECT_EQ(report(), lines);
}

TEST_F(Profile, TakesItsLabels) {
  native_prof* profile = allocateNativeProf(10, 3, "takesItsLabels");
  EXPECT_TRUE(setLabels(profile, kThreeLabels, 3));
  EXPECT_STREQ(profile->labels[0], "open");
  EXPECT_STREQ(profile->labels[1], "work");
  EXPECT_STREQ(profile->labels[2], "close");
  const char* const others[] = {"a", "", "a longer label"};
  EXPECT_TRUE(setLabels(profile, others, 3));
  EXPECT_STREQ(profile->labels[0], "a");
  EXPECT_STREQ(profile->labels[1], "");
  EXPECT_STREQ(profile->labels[2], "a longer label");
  expectAllFree(profile);
}

TEST_F(Profile, RefusesAnotherNumberOfLabels) {
  native_prof* profile = allocateNativeProf(10, 3, "refusesLabels");
  for (const int32_t count : {2, 4, 0, -1}) {
    EXPECT_FALSE(setLabels(profile, kThreeLabels, count)) << count;
    EXPECT_STREQ(profile->labels[0], "Point0");
    EXPECT_STREQ(profile->labels[1], "Point1");
    EXPECT_STREQ(profile->labels[2], "Point2");
  }
  expectAllFree(profile);
}

TEST_F(Profile, CutsALabelAt511Bytes) {
  native_prof* profile = allocateNativeProf(10, 4, "cutsLabels");
  const std::string texts[] = {std::string(510, 'a'), std::string(511, 'b'), std::string(512, 'c'),
                               std::string(2000, 'd')};
  const char* const labels[] = {texts[0].c_str(), texts[1].c_str(), texts[2].c_str(),
                                texts[3].c_str()};
  EXPECT_TRUE(setLabels(profile, labels, 4));
  EXPECT_EQ(profile->labels[0], texts[0]);
  EXPECT_EQ(profile->labels[1], texts[1]);
  EXPECT_EQ(profile->labels[2], std::string(511, 'c'));
  EXPECT_EQ(profile->labels[3], std::string(511, 'd'));
}

// ---- Slots -------------------------------------------------------------------------------

class ProfileSlots : public ProfileTest {};

TEST_F(ProfileSlots, RunHoldsTheFirstFreeOne) {
  native_prof* profile = allocateNativeProf(50, 2, "firstFree");
  std::array<Worker, 3> workers;
  const auto slotOf = [profile](Worker& worker) {
    int32_t slot = -2;
    worker.run([&] { slot = getThreadId(profile); });
    return slot;
  };
  for (Worker& worker : workers) worker.run([&] { start(profile); });
  EXPECT_EQ(slotOf(workers[0]), 0);
  EXPECT_EQ(slotOf(workers[1]), 1);
  EXPECT_EQ(slotOf(workers[2]), 2);
  EXPECT_EQ(getThreadId(profile), -1) << "this thread has none";
  workers[1].run([&] { end(profile); });
  EXPECT_EQ(slotOf(workers[1]), -1);
  EXPECT_EQ(profile->holders[1], 0U);
  start(profile);
  EXPECT_EQ(getThreadId(profile), 1);
  end(profile);
  for (Worker& worker : workers) worker.run([&] { end(profile); });
  expectAllFree(profile);
}

TEST_F(ProfileSlots, LockIsHeldFromStartToEnd) {
  native_prof* profile = allocateNativeProf(50, 2, "slotLock");
  Worker worker;
  worker.run([&] { start(profile); });
  EXPECT_EQ(pthread_rwlock_trywrlock(&profile->slotLocks[0]), EBUSY);
  EXPECT_EQ(pthread_rwlock_tryrdlock(&profile->slotLocks[0]), EBUSY);
  EXPECT_EQ(pthread_rwlock_trywrlock(&profile->slotLocks[1]), 0);
  pthread_rwlock_unlock(&profile->slotLocks[1]);
  EXPECT_EQ(pthread_rwlock_trywrlock(&profile->lock), 0) << "the profile itself is free meanwhile";
  pthread_rwlock_unlock(&profile->lock);
  worker.run([&] {
    end(profile);
    EXPECT_EQ(heldLockCount(), 0);
  });
  expectAllFree(profile);
}

TEST_F(ProfileSlots, SixthThreadIsNotTimed) {
  native_prof* profile = allocateNativeProf(50, 3, "sixThreads");
  constexpr std::size_t kThreads = 6;
  std::array<Worker, kThreads> workers;
  for (std::size_t at = 0; at < 5; ++at) workers[at].run([&] { start(profile); });
  Worker& sixth = workers[5];
  const std::vector<int32_t> positions = positionsOf(profile);
  const std::vector<uint64_t> holders = holdersOf(profile);
  EXPECT_EQ(std::set<uint64_t>(holders.begin(), holders.end()).size(), 5U);
  EXPECT_THAT(holders, Each(::testing::Ne(0U)));
  EXPECT_EQ(std::set<int32_t>(positions.begin(), positions.end()).size(), 5U);
  fill(profile, kUntouched);

  sixth.run([&] {
    start(profile);
    EXPECT_EQ(getThreadId(profile), -1);
    sample(profile, 0);
    sample(profile, 2);
    end(profile);
  });
  EXPECT_THAT(samplesOf(profile), Each(kUntouched));
  EXPECT_EQ(positionsOf(profile), positions);
  EXPECT_EQ(holdersOf(profile), holders);
  EXPECT_THAT(averagesOf(profile), Each(0U)) << "its end computes nothing";

  for (std::size_t at = 0; at < 5; ++at) workers[at].run([&] { sample(profile, 1); });
  int changed = 0;
  for (int position = 0; position < 50; ++position) {
    EXPECT_EQ(sampleAt(profile, 0, position), kUntouched);
    EXPECT_EQ(sampleAt(profile, 2, position), kUntouched);
    if (sampleAt(profile, 1, position) == kUntouched) continue;
    ++changed;
    EXPECT_THAT(positions, Contains(position));
  }
  EXPECT_EQ(changed, 5);

  workers[3].run([&] { end(profile); });
  sixth.run([&] {
    start(profile);
    EXPECT_EQ(getThreadId(profile), 3) << "the slot that became free";
    end(profile);
  });
  for (const std::size_t at : {0, 1, 2, 4}) workers[at].run([&] { end(profile); });
  expectAllFree(profile);
}

TEST_F(ProfileSlots, SixThreadsThatStartAtOnceShareFive) {
  native_prof* profile = allocateNativeProf(50, 1, "sixAtOnce");
  constexpr int kThreads = 6;
  std::latch ready(kThreads);
  std::latch started(kThreads);
  std::array<int32_t, kThreads> slots{};
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      ready.arrive_and_wait();
      start(profile);
      slots[number] = getThreadId(profile);
      started.arrive_and_wait();
      sample(profile, 0);
      end(profile);
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::sort(slots.begin(), slots.end());
  EXPECT_THAT(slots, ElementsAre(-1, 0, 1, 2, 3, 4));
  expectAllFree(profile);
}

TEST_F(ProfileSlots, EndWithoutAStartDoesNothing) {
  native_prof* profile = allocateNativeProf(10, 1, "endAlone");
  profile->samples[0] = 500;
  end(profile);
  EXPECT_THAT(averagesOf(profile), ElementsAre(0));
  sample(profile, 0);
  EXPECT_THAT(samplesOf(profile), ElementsAre(500, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  expectAllFree(profile);
}

// ---- Positions ---------------------------------------------------------------------------

class ProfilePositions : public ProfileTest {
 protected:
  // Positions of so many runs of this thread.
  static std::vector<int32_t> run(native_prof* profile, int times) {
    std::vector<int32_t> positions;
    for (int turn = 0; turn < times; ++turn) {
      start(profile);
      positions.push_back(profile->sampleIndex[getThreadId(profile)]);
      end(profile);
    }
    return positions;
  }
};

TEST_F(ProfilePositions, ProfileIsReadyAfter995RunsOfOneThread) {
  native_prof* profile = allocateNativeProf(1000, 2, "readyAfter995");
  EXPECT_EQ(textOf(profile), skipped("readyAfter995", 4, 1000));
  EXPECT_THAT(run(profile, 1), ElementsAre(5));
  EXPECT_EQ(textOf(profile), skipped("readyAfter995", 5, 1000));
  const std::vector<int32_t> positions = run(profile, 993);
  for (int at = 0; at < 993; ++at) ASSERT_EQ(positions[at], 6 + at);
  EXPECT_FALSE(profile->ready);
  EXPECT_EQ(textOf(profile), skipped("readyAfter995", 998, 1000));
  start(profile);
  sample(profile, 0);
  EXPECT_EQ(profile->sampleIndex[0], 999);
  EXPECT_FALSE(profile->ready) << "not before the end of the run";
  end(profile);
  EXPECT_TRUE(profile->ready);
  EXPECT_THAT(textOf(profile), StartsWith("Profile readyAfter995 Point0:"));
  // The idle slots keep theirs, so the next run but one steps over them.
  EXPECT_THAT(run(profile, 3), ElementsAre(0, 5, 6));
  EXPECT_TRUE(profile->ready) << "once and for all";
}

TEST_F(ProfilePositions, StayApartBetweenSlots) {
  native_prof* profile = allocateNativeProf(20, 1, "apart");
  std::array<Worker, 5> workers;
  for (Worker& worker : workers) worker.run([&] { start(profile); });
  EXPECT_THAT(positionsOf(profile), ElementsAre(5, 6, 7, 8, 9));
  for (Worker& worker : workers) worker.run([&] { end(profile); });
  // Slot 0 goes on behind the others.
  EXPECT_THAT(run(profile, 2), ElementsAre(10, 11));
  EXPECT_THAT(positionsOf(profile), ElementsAre(11, 6, 7, 8, 9));
  workers[0].run([&] { start(profile); });  // 12, in slot 0
  workers[1].run([&] { start(profile); });
  EXPECT_THAT(positionsOf(profile), ElementsAre(12, 10, 7, 8, 9));
  workers[0].run([&] { end(profile); });
  workers[1].run([&] { end(profile); });
}

TEST_F(ProfilePositions, OfAnyOtherSlotMakeAProfileReadyToo) {
  native_prof* profile = allocateNativeProf(20, 1, "otherSlot");
  Worker first;
  first.run([&] { start(profile); });
  EXPECT_EQ(run(profile, 1).front(), 6) << "slot 1";
  while (!profile->ready) {
    const int32_t position = run(profile, 1).front();
    ASSERT_EQ(profile->ready, position == 19) << position;
  }
  EXPECT_EQ(profile->sampleIndex[1], 19);
  EXPECT_EQ(profile->sampleIndex[0], 5);
  first.run([&] { end(profile); });
}

TEST_F(ProfilePositions, StayWhenNoneIsFree) {
  native_prof* profile = allocateNativeProf(5, 1, "noneFree");
  EXPECT_THAT(run(profile, 3), ElementsAre(0, 0, 0));
  EXPECT_FALSE(profile->ready);
  std::array<Worker, 5> workers;
  for (Worker& worker : workers) worker.run([&] { start(profile); });
  EXPECT_THAT(positionsOf(profile), ElementsAre(0, 1, 2, 3, 4));
  for (Worker& worker : workers) worker.run([&] { end(profile); });
  EXPECT_TRUE(profile->ready) << "the fifth slot is at the last position from the start";
}

TEST_F(ProfilePositions, AlternateBetweenTheTwoThatAreFree) {
  native_prof* profile = allocateNativeProf(6, 1, "oneFree");
  EXPECT_THAT(run(profile, 4), ElementsAre(5, 0, 5, 0));
  EXPECT_TRUE(profile->ready);
}

// ---- Samples and averages ----------------------------------------------------------------

class ProfileSamples : public ProfileTest {};

TEST_F(ProfileSamples, AreMicrosecondsSinceTheStartAtThePositionOfTheRun) {
  native_prof* profile = allocateNativeProf(10, 3, "elapsed");
  const uint64_t before = microsecondsNow();
  start(profile);
  EXPECT_GE(profile->startTimes[0], before);
  EXPECT_LE(profile->startTimes[0], microsecondsNow());
  profile->startTimes[0] -= 3'000'000;  // as if it had begun three seconds earlier
  sample(profile, 1);
  const uint64_t most = microsecondsNow() - before + 3'000'000;
  EXPECT_GE(sampleAt(profile, 1, 5), 3'000'000U);
  EXPECT_LE(sampleAt(profile, 1, 5), most);
  std::vector<uint64_t> others = samplesOf(profile);
  others.erase(others.begin() + 15);
  EXPECT_THAT(others, Each(0U));
  sample(profile, 2);
  EXPECT_GE(sampleAt(profile, 2, 5), sampleAt(profile, 1, 5)) << "since the start, not the last";
  end(profile);
  EXPECT_EQ(profile->averages[0], 0U);
  EXPECT_EQ(profile->averages[1], sampleAt(profile, 1, 5) / 10 * 1000);
  EXPECT_EQ(profile->averages[2], sampleAt(profile, 2, 5) / 10 * 1000);
}

TEST_F(ProfileSamples, OfALaterPassReplaceThoseOfAnEarlierOne) {
  native_prof* profile = allocateNativeProf(6, 1, "replaced");
  const auto runOf = [profile](uint64_t seconds) {
    start(profile);
    profile->startTimes[0] -= seconds * 1'000'000;
    sample(profile, 0);
    end(profile);
  };
  runOf(100);
  EXPECT_GE(sampleAt(profile, 0, 5), 100'000'000U);
  runOf(0);
  runOf(10);
  EXPECT_GE(sampleAt(profile, 0, 5), 10'000'000U);
  EXPECT_LT(sampleAt(profile, 0, 5), 90'000'000U);
}

TEST_F(ProfileSamples, OfPointsThatDoNotExistAreNotStored) {
  native_prof* profile = allocateNativeProf(10, 3, "noSuchPoint");
  fill(profile, kUntouched);
  start(profile);
  for (const int32_t point : {3, 4, 30, -1, -2, INT32_MAX, INT32_MIN}) sample(profile, point);
  EXPECT_THAT(samplesOf(profile), Each(kUntouched));
  EXPECT_THAT(averagesOf(profile), Each(0U));
  sample(profile, 2);
  EXPECT_NE(sampleAt(profile, 2, 5), kUntouched);
  end(profile);
}

TEST_F(ProfileSamples, AreDividedBeforeTheyAreMultiplied) {
  native_prof* profile = allocateNativeProf(5, 3, "divideFirst");
  const uint64_t samples[] = {1, 2, 3, 4, 4, 0, 0, 0, 0, 4, 5, 5, 5, 5, 5};
  for (int at = 0; at < 15; ++at) profile->samples[at] = samples[at];
  average(profile);
  EXPECT_THAT(averagesOf(profile), ElementsAre(2000, 0, 5000));
}

TEST_F(ProfileSamples, AreSummedWithoutASign) {
  native_prof* profile = allocateNativeProf(8, 1, "noSign");
  profile->samples[3] = uint64_t{1} << 63;
  profile->samples[4] = 8;
  average(profile);
  EXPECT_EQ(profile->averages[0], ((uint64_t{1} << 60) + 1) * 1000);
  profile->samples[7] = uint64_t{1} << 63;
  average(profile);
  EXPECT_EQ(profile->averages[0], 1000U) << "the sum wraps";
}

TEST_F(ProfileSamples, CountPositionsThatWereNeverReached) {
  native_prof* profile = allocateNativeProf(10, 1, "allPositions");
  start(profile);
  profile->samples[5] = 1000;
  end(profile);
  EXPECT_EQ(profile->averages[0], 100'000U);
}

// ---- Texts -------------------------------------------------------------------------------

class ProfileText : public ProfileTest {};

TEST_F(ProfileText, OfAReadyProfileListsIncrementsAndAverages) {
  native_prof* profile = allocateNativeProf(10, 3, "listsAverages");
  ASSERT_TRUE(setLabels(profile, kThreeLabels, 3));
  profile->averages[0] = 1500;
  profile->averages[1] = 4000;
  profile->averages[2] = 4000;
  EXPECT_EQ(textOf(profile), skipped("listsAverages", 4, 10));
  profile->ready = true;
  EXPECT_EQ(textOf(profile), "Profile listsAverages open:1500(1500) work:2500(4000) close:0(4000)");
  expectAllFree(profile);
}

TEST_F(ProfileText, ShowsAFallingAverageAsAnUnsignedDifference) {
  native_prof* profile = allocateNativeProf(10, 2, "falls");
  profile->averages[0] = 3000;
  profile->averages[1] = 1000;
  profile->ready = true;
  EXPECT_EQ(textOf(profile), "Profile falls Point0:3000(3000) Point1:18446744073709549616(1000)");
}

TEST_F(ProfileText, OfAProfileThatIsNotReadyNamesTheHighestPosition) {
  native_prof* profile = allocateNativeProf(300, 1, "highest");
  profile->sampleIndex[2] = 123;
  EXPECT_EQ(textOf(profile), skipped("highest", 123, 300));
  for (Relaxed<int32_t>& index : profile->sampleIndex) index = -7;
  EXPECT_EQ(textOf(profile), skipped("highest", 0, 300)) << "at least zero";
  for (int at = 0; at < 5; ++at) profile->sampleIndex[at] = at;
}

TEST_F(ProfileText, OfTheThreadsSlot) {
  native_prof* profile = allocateNativeProf(50, 1, "status");
  EXPECT_STREQ(strStatus(profile), "Not currently owner of any userlock");
  EXPECT_EQ(strStatus(profile), strStatus(profile)) << "a static text";
  const auto expected = [profile](int slot) {
    const std::string self = std::to_string(static_cast<long>(profile->holders[slot].load()));
    const std::string at = "[" + std::to_string(slot) + "]=";
    return "HVD: status ThreadIndex=" + std::to_string(slot) + " self=" + self + " sampleIndex" +
           at + std::to_string(profile->sampleIndex[slot]) + " holders" + at + self + " startTime" +
           at + std::to_string(profile->startTimes[slot]);
  };
  const auto status = [profile] {
    const char* text = strStatus(profile);
    std::string result = text;
    std::free(const_cast<char*>(text));
    return result;
  };
  Worker worker;
  worker.run([&] { start(profile); });
  start(profile);
  EXPECT_EQ(getThreadId(profile), 1);
  EXPECT_EQ(status(), expected(1));
  EXPECT_THAT(status(), ::testing::HasSubstr(" sampleIndex[1]=6 "));
  worker.run([&] { EXPECT_EQ(status(), expected(0)); });
  EXPECT_NE(expected(0), expected(1));
  end(profile);
  worker.run([&] { end(profile); });
  EXPECT_STREQ(strStatus(profile), "Not currently owner of any userlock");
}

// ---- Report ------------------------------------------------------------------------------

class ProfileReport : public ProfileTest {};

TEST_F(ProfileReport, NeedsTheInfoLevelAlone) {
  allocateNativeProf(10, 1, "infoLevel");
  for (const jint levels : {0, 0x7fffffff & ~kInfoLevel & ~0x1800}) {
    setLevels(levels);
    jni.clearCalls();
    EXPECT_THAT(report(), IsEmpty()) << levels;
    EXPECT_EQ(jni.callCount("CallStaticVoidMethod"), 0);
  }
  setLevels(kInfoLevel);
  EXPECT_EQ(report().front(), "info|" + skipped("infoLevel", 4, 10));
}

TEST_F(ProfileReport, ShowsReadyAndOtherProfiles) {
  native_prof* ready = allocateNativeProf(10, 2, "report.ready");
  allocateNativeProf(10, 2, "report.other");
  ready->averages[0] = 7000;
  ready->averages[1] = 9000;
  ready->ready = true;
  setLevels(kInfoLevel);
  const std::vector<std::string> lines = report();
  EXPECT_EQ(lines[0], "info|" + skipped("report.other", 4, 10));
  EXPECT_EQ(lines[1], "info|Profile report.ready Point0:7000(7000) Point1:2000(9000)");
}

TEST_F(ProfileReport, HandsAPercentSignOnAsText) {
  allocateNativeProf(10, 1, "100%s %d");
  setLevels(kInfoLevel);
  EXPECT_EQ(report().front(), "info|" + skipped("100%s %d", 4, 10));
}

TEST_F(ProfileReport, DoesNotWaitForARun) {
  native_prof* profile = allocateNativeProf(10, 1, "running");
  Worker worker;
  worker.run([&] { start(profile); });
  setLevels(kInfoLevel);
  EXPECT_EQ(report().front(), "info|" + skipped("running", 5, 10));
  worker.run([&] { end(profile); });
}

// The registry is there for good after the first profile.
TEST(ProfileReportDeathTest, WithoutAnyProfileSaysSo) {
  inFreshProcess([] {
    ScriptedJni jni;
    const jobject manager = jni.newManager();
    const auto report = [&] {
      getLogLevel(jni.env());
      jni.clearRecords();
      Java_com_velt_rz_corvane_io_offheap_OffHeapManager_printProfileStats(jni.env(), manager);
      return jni.lines();
    };
    jni.setLevelWord(kInfoLevel);
    EXPECT_THAT(report(), ElementsAre("info|No profiles are being tracked."));
    jni.setLevelWord(kProfilingLevel);
    EXPECT_THAT(report(), IsEmpty()) << "the info level is off";
    jni.setLevelWord(kInfoLevel | kProfilingLevel);
    EXPECT_THAT(report(), ElementsAre("info|No profiles are being tracked."));
    allocateNativeProf(10, 1, "first");
    EXPECT_THAT(report(), ElementsAre("info|Profile first was skipped because it is not yet ready "
                                      "(up to about 4/10 samples)"));
    allocateNativeProf(20, 1, "second");
    EXPECT_THAT(report(), ElementsAre("info|Profile second was skipped because it is not yet ready "
                                      "(up to about 4/20 samples)",
                                      "info|Profile first was skipped because it is not yet ready "
                                      "(up to about 4/10 samples)"));
    jni.setLevelWord(0);
    EXPECT_THAT(report(), IsEmpty());
  });
}

// ---- Runs of an operation ----------------------------------------------------------------

class ProfiledRuns : public ProfileTest {};

TEST_F(ProfiledRuns, DoNothingWhileTheLevelIsOff) {
  static ProfileSlot slot{nullptr};
  setLevels(0x7fffffff & ~kProfilingLevel & ~0x1800);
  {
    const ProfiledRun run(slot, 10, "levelOff", kThreeLabels);
    run.point(0);
  }
  EXPECT_EQ(slot.load(), nullptr);
  setLevels(kInfoLevel);
  for (const std::string& line : report())
    EXPECT_THAT(line, ::testing::Not(StartsWith("info|Profile levelOff")));
}

TEST_F(ProfiledRuns, MakeTheProfileOnceAndEndWithTheirScope) {
  static ProfileSlot slot{nullptr};
  setLevels(kProfilingLevel | kInfoLevel);
  native_prof* made = nullptr;
  for (int turn = 0; turn < 3; ++turn) {
    const ProfiledRun run(slot, 10, "scope", kThreeLabels);
    if (turn == 0) made = slot.load();
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(slot.load(), made);
    EXPECT_EQ(getThreadId(made), 0);
    EXPECT_EQ(made->sampleIndex[0], 5 + turn);
    made->startTimes[0] -= 1'000'000;
    run.point(1);
    EXPECT_GE(sampleAt(made, 1, 5 + turn), 1'000'000U);
    EXPECT_EQ(sampleAt(made, 0, 5 + turn), 0U);
  }
  expectAllFree(made);
  EXPECT_EQ(made->sampleCount, 10);
  EXPECT_EQ(made->points, 3);
  EXPECT_STREQ(made->labels[2], "close");
  EXPECT_EQ(report().front(), "info|" + skipped("scope", 7, 10));
}

TEST_F(ProfiledRuns, EndThoughTheLevelWentOffMeanwhile) {
  static ProfileSlot slot{nullptr};
  setLevels(kProfilingLevel);
  {
    const ProfiledRun run(slot, 10, "wentOff", kThreeLabels);
    setLevels(0);
    run.point(2);
  }
  expectAllFree(slot.load());
  {
    const ProfiledRun run(slot, 10, "wentOff", kThreeLabels);
    EXPECT_EQ(getThreadId(slot.load()), -1);
  }
  EXPECT_EQ(slot.load()->sampleIndex[0], 5) << "no further run";
}

TEST_F(ProfiledRuns, AreNotTimedBeyondFiveThreads) {
  static ProfileSlot slot{nullptr};
  setLevels(kProfilingLevel);
  { const ProfiledRun first(slot, 50, "manyRuns", kThreeLabels); }
  native_prof* profile = slot.load();
  std::array<Worker, 5> workers;
  for (Worker& worker : workers) worker.run([&] { start(profile); });
  fill(profile, kUntouched);
  {
    const ProfiledRun sixth(slot, 50, "manyRuns", kThreeLabels);
    EXPECT_EQ(getThreadId(profile), -1);
    sixth.point(0);
  }
  EXPECT_THAT(samplesOf(profile), Each(kUntouched));
  EXPECT_THAT(holdersOf(profile), Each(::testing::Ne(0U)));
  for (Worker& worker : workers) worker.run([&] { end(profile); });
  expectAllFree(profile);
}

// ---- Threads -----------------------------------------------------------------------------

class ProfileThreads : public ProfileTest {
 protected:
  static void runThreads(native_prof* profile, int count, int turns) {
    std::latch ready(count);
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) {
      threads.emplace_back([&ready, profile, turns] {
        ready.arrive_and_wait();
        for (int turn = 0; turn < turns; ++turn) {
          start(profile);
          for (int point = 0; point < profile->points; ++point) sample(profile, point);
          end(profile);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  static void expectConsistent(native_prof* profile) {
    expectAllFree(profile);
    EXPECT_TRUE(profile->ready);
    const std::vector<int32_t> positions = positionsOf(profile);
    EXPECT_EQ(std::set<int32_t>(positions.begin(), positions.end()).size(), 5U);
    std::vector<uint64_t> expected;
    for (int point = 0; point < profile->points; ++point) {
      uint64_t sum = 0;
      for (int position = 0; position < profile->sampleCount; ++position) {
        const uint64_t elapsed = sampleAt(profile, point, position);
        EXPECT_LT(elapsed, 600'000'000U) << "no run takes ten minutes";
        if (point > 0) {
          EXPECT_GE(elapsed, sampleAt(profile, point - 1, position)) << "written by one run";
        }
        sum += elapsed;
      }
      expected.push_back(sum / static_cast<uint64_t>(profile->sampleCount) * 1000);
    }
    EXPECT_EQ(averagesOf(profile), expected) << "the last end sees every sample";
  }
};

TEST_F(ProfileThreads, FiveAreTimedAtOnce) {
  native_prof* profile = allocateNativeProf(100, 3, "fiveThreads");
  runThreads(profile, 5, 400);
  expectConsistent(profile);
}

TEST_F(ProfileThreads, MoreThanFiveTakeTurns) {
  native_prof* profile = allocateNativeProf(100, 3, "eightThreads");
  runThreads(profile, 8, 300);
  expectConsistent(profile);
}

TEST_F(ProfileThreads, MayRunWhileTheReportIsWritten) {
  native_prof* profile = allocateNativeProf(50, 3, "reportMeanwhile");
  ASSERT_TRUE(setLabels(profile, kThreeLabels, 3));
  setLevels(kInfoLevel);
  std::atomic<bool> done{false};
  std::thread runner([&] {
    runThreads(profile, 4, 200);
    done = true;
  });
  do {
    EXPECT_THAT(report().front(), StartsWith("info|Profile reportMeanwhile "));
  } while (!done);
  runner.join();
  expectConsistent(profile);
}

TEST_F(ProfileThreads, MayRaceForTheFirstRun) {
  static ProfileSlot slot{nullptr};
  setLevels(kProfilingLevel | kInfoLevel);
  constexpr int kThreads = 5;
  std::latch ready(kThreads);
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&ready] {
      ready.arrive_and_wait();
      for (int turn = 0; turn < 50; ++turn) {
        const ProfiledRun run(slot, 20, "raced", kThreeLabels);
        run.point(turn % 3);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  expectAllFree(slot.load());
  int registered = 0;
  for (const std::string& line : report()) {
    if (line.starts_with("info|Profile raced ")) ++registered;
  }
  EXPECT_GE(registered, 1);
  EXPECT_LE(registered, kThreads) << "at most one for each thread that found none";
}

}  // namespace
}  // namespace nimbra::test
