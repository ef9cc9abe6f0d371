// The whole library at once: eight threads run every operation on maps so small that everything
// collides, while a ninth changes the trace levels and asks for every figure and report. Two
// seconds each, or NIMBRA_STRESS_SECONDS; the thread sanitizer is the judge, the values tell whose
// they are, and every round's end finds maps, lists, pins and disk balanced.

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

#include "library_caches.h"
#include "pintrack_support.h"

namespace nimbra::test::stress {
namespace {

constexpr uint32_t kThreads = 8;
constexpr int64_t kEntriesAtMost = kMixedKeys + kCachedKeys + 3 * kBoundedEntries + kThreads;
constexpr jint kProfilingLevel = 0x400;
// A round's length. Pin tracking keeps every event of a block, so rounds with it are short.
constexpr auto kRound = std::chrono::milliseconds(1000);

// Everything that lives for one round.
struct World {
  disk::Manager* manager = nullptr;  // null without disk overflow
  MixedMap mixed;
  CachedMap cached;
  std::array<BoundedMap, 3> bounded;
  std::array<ByteBufferHeader*, 3> buffers{};          // pinned for the whole round
  std::atomic<ByteBufferHeader*> handedOver{nullptr};  // passes from thread to thread
};

// Blocks that are no entries: shared ones are pinned and let go all the time, and one wanders.
class BufferActor {
 public:
  BufferActor(Thread& thread, World& world, Totals& totals)
      : thread_(thread), world_(world), totals_(totals) {}

  void step() {
    namespace m = manager_natives;
    const uint32_t number = thread_.below(static_cast<uint32_t>(world_.buffers.size()));
    ByteBufferHeader* shared = world_.buffers[number];
    JNIEnv* env = thread_.env;
    const jobject manager = thread_.managerObject;
    const jobject buffer = thread_.javaBuffer(shared);
    switch (thread_.below(4)) {
      case 0:
        EXPECT_TRUE(m::pinJavaByteBuffer(env, manager, buffer, 8));
        EXPECT_EQ(textOf(shared), valueOf(number, 1));
        EXPECT_TRUE(m::unpinToFree(env, manager, buffer, 8));
        break;
      case 1: {
        EXPECT_GT(m::pin_native(env, manager, natives::handle(shared), 64), 0);
        const jbyteArray copy = thread_.jni().newByteArray(std::vector<uint8_t>(16));
        m::copyByteBufferToByteArray(env, manager, buffer, copy, 16);
        EXPECT_GT(m::getReferenceCountOfAddress(env, manager, natives::handle(shared)), 0);
        EXPECT_GT(m::unpin_native(env, manager, natives::handle(shared), 64), 0);
        break;
      }
      case 2: {
        EXPECT_TRUE(m::pinJavaByteBuffer(env, manager, buffer, 8));
        m::getDeserializedType(env, manager, buffer);
        m::freeAllToOffHeap(env, manager, thread_.jni().newObjectArray({buffer}), 8);
        break;
      }
      default: {
        const jobject made = thread_.jni().adopt(m::allocateDirectFromOffHeap(
            env, manager, 1 + static_cast<jint>(thread_.below(200)), 0, 0));
        if (made == nullptr) break;
        ByteBufferHeader* fresh = headerOfBuffer(env, made);
        std::fill_n(bufferData(fresh), fresh->dataSize, uint8_t{0x5a});
        m::setDeserializedType(env, manager, made, DESERIALIZED_TYPE_OTHER);
        ByteBufferHeader* old = world_.handedOver.exchange(fresh, std::memory_order_acq_rel);
        if (old == nullptr) break;
        EXPECT_EQ(bufferData(old)[old->dataSize - 1], 0x5a);
        m::unpinToFree(env, manager, thread_.javaBuffer(old), ALLOCATION_PIN);
        break;
      }
    }
    ++totals_.buffers;
  }

 private:
  Thread& thread_;
  World& world_;
  Totals& totals_;
};

// Changes levels and limits, and asks for everything that can be asked for.
class Operator {
 public:
  Operator(Thread& thread, World& world, jint alwaysOn)
      : thread_(thread), world_(world), alwaysOn_(alwaysOn) {}
  ~Operator() { refresh(alwaysOn_); }

  void step() {
    namespace m = manager_natives;
    JNIEnv* env = thread_.env;
    const jobject manager = thread_.managerObject;
    switch (thread_.below(12)) {
      case 0: {
        // Debug records carry native stacks, so they come in bursts; the others stay on for longer.
        const auto word = static_cast<jint>(thread_.below(0x400));
        refresh(alwaysOn_ | word);
        if ((word & kDebugLevel) != 0) refresh(alwaysOn_ | (word & ~kDebugLevel));
        break;
      }
      case 1: refresh(alwaysOn_ | kProfilingLevel); break;
      case 2: refresh(alwaysOn_ | kProfilingLevel | kInfoLevel | kEventLevel); break;
      case 3: refresh(alwaysOn_); break;
      case 4:
        Java_com_velt_rz_corvane_io_offheap_OffHeapManager_printProfileStats(env, manager);
        break;
      case 5:
        if (alwaysOn_ != 0 && thread_.chance(20)) {
          Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinTrack(env, manager);
        }
        break;
      case 6:
        EXPECT_GT(m::getAllocatingCountInOffHeap(env, manager), 0);
        m::getAllocatingSizeInOffHeap(env, manager);
        m::getAllocatingInternalMetadataSize(env, manager);
        break;
      case 7:
        // A new maximum sets the hard cap anew, which with overflow is the test's own.
        if (!thread_.overflow()) {
          m::setCurrentMaxOffHeapSize(env, manager, m::getCurrentMaxOffHeapSize(env, manager));
        }
        face::hardCapLimit(env, nullptr);
        break;
      case 8: {
        const auto alone = world_.mixed.gate.enter();
        EXPECT_EQ(natives::lockMapAndQueues(env, thread_.self, world_.mixed.handle()), 0);
        EXPECT_EQ(natives::unlockMapAndQueues(env, thread_.self, world_.mixed.handle()), 0);
        break;
      }
      case 9:
        if (thread_.overflow()) {
          thread_.jni().adopt(natives::getSweepState(env, nullptr));
        } else {
          // With a maximum that no count reaches; with overflow the sweeps rely on the count.
          m::setInternalTracking(env, manager, static_cast<jboolean>(thread_.chance(2)));
        }
        break;
      case 10: natives::printPthreadID(env, nullptr); break;
      default: m::getSystemTotalMemory(env, manager); break;
    }
  }

 private:
  void refresh(jint word) {
    thread_.jni().setLevelWord(word);
    manager_natives::setLogLevel(thread_.env, thread_.managerObject);
  }

  Thread& thread_;
  World& world_;
  const jint alwaysOn_;
};

template <typename Base>
class LibraryStress : public PinTracking<Base> {
 protected:
  void stress(bool overflow) {
    const uint64_t seed = testSeed();
    const Clock::time_point end = Clock::now() + testTime();
    Totals totals;
    disk::Manager manager(4 * kEntriesAtMost);
    uint64_t rounds = 0;
    for (; Clock::now() < end && !this->HasFailure(); ++rounds) {
      const bool tracked = rounds % 2 == 1;
      // From before the first pin to behind the last: an unpin without its pin locks its chain.
      this->setLevels(tracked ? kPinTrackLevel : 0);
      World world;
      world.manager = overflow ? &manager : nullptr;
      make(world, rounds);
      run(world, totals, seed + rounds * 1000003, std::min(end, Clock::now() + kRound),
          tracked ? kPinTrackLevel : 0);
      unmake(world);
      if (tracked) {
        EXPECT_EQ(outstanding(), 0U);
        this->discard();
      }
      this->jni.clearRecords();
      this->jni.clearCalls();
    }
    this->setLevels(0);
    report(totals, rounds, manager);
    EXPECT_EQ(manager.disk.live(), 0U);
    EXPECT_GT(totals.inserted.get(), 0);
    EXPECT_GT(totals.updated.get(), 0);
    EXPECT_GT(totals.removed.get(), 0);
    EXPECT_GT(totals.found.get(), 0);
    EXPECT_GT(totals.queried.get(), 0);
    EXPECT_GT(totals.walked.get(), 0);
    EXPECT_GT(totals.evicted.get(), 0);
    EXPECT_GT(totals.clears.get(), 0);
    EXPECT_EQ(manager.pageOuts > 0, overflow);
    EXPECT_EQ(manager.pageIns > 0, overflow);
  }

 private:
  void make(World& world, uint64_t round) {
    world.mixed.map = this->makeMap(2, 0.75F);
    for (uint32_t key = kBuffer; key < kMixedKeys; key += kKeyKinds) {
      world.mixed.keyBuffers[key] = this->buffer(MixedMap::nameOf(key));
    }
    world.cached.map = this->makeMap(2, 0.75F);
    world.cached.byFrequency = round % 4 < 2;
    world.cached.used =
        natives::asEvictionQueue(natives::allocateEvictionQueue(this->env, this->caller));
    world.cached.timed =
        natives::asEvictionQueue(natives::allocateEvictionQueue(this->env, this->caller));
    constexpr bounded::Kind kKinds[] = {bounded::kKinds[1], bounded::kKinds[4], bounded::kKinds[5]};
    for (size_t i = 0; i < world.bounded.size(); ++i) {
      const jlong bound =
          bounded::allocateBound(this->env, nullptr, kBoundedBytes, kBoundedEntries);
      for (uint32_t part = 0; part < kPartitions; ++part) {
        bounded::Partition made;
        made.map = this->makeMap(1, 0.75F);
        made.bound = bound;
        made.policy = kKinds[i].policy;
        made.queue = natives::allocateEvictionQueue(this->env, this->caller);
        if (kKinds[i].timed) made.ttl = natives::allocateEvictionQueue(this->env, this->caller);
        world.bounded[i].partitions.push_back(made);
      }
    }
    for (uint32_t i = 0; i < world.buffers.size(); ++i) {
      world.buffers[i] = this->buffer(valueOf(i, 1));
    }
  }

  void run(World& world, Totals& totals, uint64_t seed, Clock::time_point end, jint alwaysOn) {
    std::atomic<bool> failed{false};
    const auto more = [&] { return Clock::now() < end && !failed.load(std::memory_order_relaxed); };
    std::vector<std::thread> threads;
    for (uint32_t index = 0; index < kThreads; ++index) {
      threads.emplace_back([&, index] {
        Thread thread(world.manager, totals.refused, seed + index);
        MixedActor mixed(thread, world.mixed, totals, index);
        CacheActor cached(thread, world.cached, totals, index);
        BufferActor buffers(thread, world, totals);
        std::vector<BoundedActor> bounded;
        for (BoundedMap& map : world.bounded) bounded.emplace_back(thread, map, totals, index);
        for (int64_t step = 1; more(); ++step) {
          if (step % 200 == 0) thread.renew();
          const uint32_t choice = thread.below(16);
          if (choice < 7) {
            mixed.step();
          } else if (choice < 10) {
            cached.step();
          } else if (choice < 15) {
            bounded[thread.below(3)].step();
          } else {
            buffers.step();
          }
          thread.settle();
          EXPECT_EQ(heldLockCount(), 0);
          if (step % 64 == 0 && this->HasFailure()) failed = true;
          ++totals.steps;
        }
      });
    }
    threads.emplace_back([&] {
      Thread thread(world.manager, totals.refused, seed + kThreads);
      Operator operations(thread, world, alwaysOn);
      for (int64_t step = 1; more(); ++step) {
        if (step % 200 == 0) thread.renew();
        operations.step();
        thread.settle();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
      }
    });
    for (std::thread& thread : threads) thread.join();
  }

  void unmake(World& world) {
    const bool overflow = world.manager != nullptr;
    Count none;
    Thread thread(world.manager, none, 1);
    thread.jni().setLevelWord(0);
    if (overflow) {
      checkLists();
    } else {
      checkMap(thread.env, world.mixed.map);
      checkMap(thread.env, world.cached.map);
    }
    EXPECT_EQ(natives::size(thread.env, thread.self, world.mixed.handle()),
              world.mixed.present.get());
    EXPECT_EQ(natives::size(thread.env, thread.self, world.cached.handle()),
              world.cached.present.get());
    for (LuOffHeapMap* map : {world.mixed.map, world.cached.map}) destroy(thread, map);
    for (LuOffHeapEvictionDataQueue* queue : {world.cached.used, world.cached.timed}) {
      EXPECT_TRUE(natives::freeEvictionQueue(thread.env, thread.self, natives::handle(queue)));
    }
    for (BoundedMap& map : world.bounded) {
      for (const bounded::Partition& partition : map.partitions) {
        EXPECT_TRUE(bounded::Caller(thread.jni(), partition).clear());
        for (const jlong queue : {partition.queue, partition.ttl}) {
          if (queue != 0) {
            EXPECT_TRUE(natives::freeEvictionQueue(thread.env, thread.self, queue));
          }
        }
        destroy(thread, partition.map);
      }
      EXPECT_EQ(bounded::bytes(thread.env, nullptr, map.partitions[0].bound), 0);
      EXPECT_EQ(bounded::entries(thread.env, nullptr, map.partitions[0].bound), 0);
      bounded::freeBound(thread.env, nullptr, map.partitions[0].bound);
    }
    for (ByteBufferHeader* held : world.mixed.keyBuffers) {
      if (held != nullptr) release(thread, held);
    }
    for (ByteBufferHeader* held : world.buffers) release(thread, held);
    if (ByteBufferHeader* last = world.handedOver.load()) release(thread, last);
    thread.settle();
  }
  static void destroy(Thread& thread, LuOffHeapMap* map) {
    EXPECT_TRUE(natives::clear(thread.env, thread.self, natives::handle(map)));
    thread.settle();
    EXPECT_TRUE(natives::deleteLuOffHeapMap(thread.env, thread.self, natives::handle(map)));
  }
  static void release(Thread& thread, ByteBufferHeader* held) {
    EXPECT_EQ(held->pins, 1);
    unpinToFree(thread.env, held, ALLOCATION_PIN);
  }

  // Objects that are still pinned, as far as pin tracking knows.
  std::size_t outstanding() {
    std::size_t count = 0;
    for (uint32_t at = 0; at < kTrackerBuckets; ++at) {
      for (const PinTracker* record = _tracker.load()[at]->next; record != nullptr;
           record = record->next) {
        count += record->balance != 0 ? 1 : 0;
      }
    }
    return count;
  }

  static void report(const Totals& totals, uint64_t rounds, const disk::Manager& manager) {
    const auto print = [](const char* name, int64_t count) {
      std::printf("  %-10s %lld\n", name, static_cast<long long>(count));
    };
    print("rounds", static_cast<int64_t>(rounds));
    print("steps", totals.steps.get());
    print("inserted", totals.inserted.get());
    print("updated", totals.updated.get());
    print("removed", totals.removed.get());
    print("found", totals.found.get());
    print("queried", totals.queried.get());
    print("walked", totals.walked.get());
    print("evicted", totals.evicted.get());
    print("cleared", totals.cleared.get());
    print("clears", totals.clears.get());
    print("buffers", totals.buffers.get());
    print("refused", totals.refused.get());
    print("sweeps", manager.sweeps);
    print("page-outs", manager.pageOuts);
    print("page-ins", manager.pageIns);
  }
};

class LibraryInMemory : public LibraryStress<MapTest> {};

class LibraryWithOverflow : public LibraryStress<OverflowTest> {
 protected:
  void SetUp() override {
    LibraryStress<OverflowTest>::SetUp();
    // The bytes of live blocks; those that are alive already were not counted.
    allocatingOffHeapSize = 1 << 20;
    trackReqSize_Internal = true;
    chunk_ = jemallocChunkSize.load();
    jemallocChunkSize = uint64_t{4096};
    maximum_ = maxOffHeapSize;
    // The maximum lies far above: a refusal behind an allocation would leave the counts raised.
    const int64_t used = getCurrentSize(env);
    maxOffHeapSize = used + 16 * kRoom;
    _hardCapLimit = static_cast<uint64_t>(used + kRoom);
  }
  void TearDown() override {
    maxOffHeapSize = maximum_;
    _hardCapLimit = hardCapOf(maximum_);
    jemallocChunkSize = chunk_;
    LibraryStress<OverflowTest>::TearDown();
  }

 private:
  static constexpr jlong kRoom = 40 << 10;  // bytes in use that the maps may take

  uint64_t chunk_ = 0;
  int64_t maximum_ = 0;
};

TEST_F(LibraryInMemory, EveryOperationAtOnce) { stress(false); }

TEST_F(LibraryWithOverflow, EveryOperationAtOnce) { stress(true); }

}  // namespace
}  // namespace nimbra::test::stress
