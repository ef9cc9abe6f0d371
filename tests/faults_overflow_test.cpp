// The fault harness's cases of disk overflow: the state and the locks of an entry, page-out and
// page-in, and the sweep.

#include "fault_harness.h"

namespace nimbra::test::fault {
namespace {

using namespace natives;

void entries(World& w) {
  w.nextList(0);
  w.changeFlags(w.insert("first", "f", 0, 1), 0, recently_used);
  w.nextList(1);
  w.entry = w.insert("key", "the value", 0, 2);
  w.changeFlags(w.entry, 0, recently_used);
  w.number = address(w.entry);
}
void paged(World& w) {
  entries(w);
  w.pageOutValue(w.entry);
}
void locked(World& w) {
  entries(w);
  ASSERT_EQ(lockBucketSetAndMetadata(w.env, nullptr, w.number), 0);
  w.atEnd([&w] {
    if (w.holdCount(nodeOf(w.entry)) > 0) {
      EXPECT_EQ(unlockBucketSetAndMetadata(w.env, nullptr, w.number), 0);
    }
  });
}
void sweeping(World& w) {
  entries(w);
  initSweep(w.env, nullptr, 10, 100, JNI_FALSE);
  w.atEnd([&w] { disposeSweep(w.env, nullptr); });
}

void unlockEntry(World& w, jlong) {
  EXPECT_EQ(unlockBucketSetAndMetadata(w.env, nullptr, w.number), 0);
}

Case on(const char* native, const char* variant, Arrange arrange, Call call,
        Release release = nullptr, std::optional<jlong> failure = std::nullopt) {
  return {.native = native,
          .variant = variant,
          .overflow = true,
          .arrange = std::move(arrange),
          .call = std::move(call),
          .release = std::move(release),
          .failure = failure};
}

}  // namespace

std::vector<Case> overflowCases() {
  std::vector<Case> cases;
  for (const bool disk : {false, true}) {
    const char* variant = disk ? "OnDisk" : "";
    const Arrange arrange = disk ? paged : entries;
    cases.push_back(on(
        "NOFStruct.getOverflowState", variant, arrange,
        [](World& w) { return taken(w, getOverflowState(w.env, nullptr, w.number)); }, nullptr, 0));
    cases.push_back(on(
        "NOFStruct.getChunkPtrAndSize", variant, arrange,
        [](World& w) { return taken(w, getChunkPtrAndSize(w.env, nullptr, w.number)); }, nullptr,
        0));
    cases.push_back(on(
        "NOFStruct.lockValidAndGetChunkPtr", variant, arrange,
        [](World& w) { return taken(w, lockValidAndGetChunkPtr(w.env, nullptr, w.number)); },
        unlockEntry, 0));
    cases.push_back(on(
        "Overflow.lockBucketSetAndMetadata", variant, arrange,
        [](World& w) { return lockBucketSetAndMetadata(w.env, nullptr, w.number); }, unlockEntry,
        1));
  }
  Case unlock = on(
      "Overflow.unlockBucketSetAndMetadata", "", locked,
      [](World& w) -> jlong { return unlockBucketSetAndMetadata(w.env, nullptr, w.number); },
      nullptr, 1);
  unlock.again = false;
  cases.push_back(unlock);
  unlock = on(
      "Overflow.unlockMetadata", "",
      [](World& w) {
        entries(w);
        ASSERT_TRUE(overflow_metadata_lock(w.env, "test", nodeOf(w.entry)));
      },
      [](World& w) -> jlong { return unlockMetadata(w.env, nullptr, w.number); }, nullptr, 0);
  unlock.again = false;
  cases.push_back(unlock);

  // ---- Page-out and page-in, under the locks that Java takes
  cases.push_back(on("NOFStruct.evictedToDisk", "", locked, [](World& w) -> jlong {
    return evictedToDisk(w.env, nullptr, w.number, 4096, 77, 8192) == w.number ? 1 : 0;
  }));
  cases.push_back(on(
      "NOFStruct.valueToLuOffHeapValue", "",
      [](World& w) {
        paged(w);
        ASSERT_EQ(lockBucketSetAndMetadata(w.env, nullptr, w.number), 0);
        w.atEnd([&w] { EXPECT_EQ(unlockBucketSetAndMetadata(w.env, nullptr, w.number), 0); });
        ByteBufferHeader* read = w.buffer("the value");
        w.object = w.javaBuffer(read);
        // The entry takes the pin over; without it the buffer is still ours.
        w.atEnd([&w, read] {
          if (w.entry->value != read) w.drop(read);
        });
      },
      [](World& w) -> jlong {
        valueToLuOffHeapValue(w.env, nullptr, w.object, w.number);
        return w.entry->value != nullptr ? 1 : 0;
      },
      nullptr, 0));
  const auto position = [](World& w) { paged(w); };
  cases.push_back(on("NOFStruct.setChunkPtrOffset", "", position, [](World& w) -> jlong {
    return setChunkPtrOffset(w.env, nullptr, w.number, 1234) != 0;
  }));
  cases.push_back(on("NOFStruct.setNextChunkPtrOffset", "", position, [](World& w) -> jlong {
    return setNextChunkPtrOffset(w.env, nullptr, w.number, 1234) != 0;
  }));
  addBoth(cases, {.native = "Utils.printPthreadID",
                  .call = [](World& w) -> jlong {
                    printPthreadID(w.env, nullptr);
                    return 0;
                  },
                  .failure = std::nullopt});

  // ---- The sweep
  for (const jboolean tracked : {JNI_FALSE, JNI_TRUE}) {
    Case init = on(
        "CacheIter.init", tracked == JNI_TRUE ? "Tracked" : "", entries,
        [tracked](World& w) -> jlong {
          initSweep(w.env, nullptr, 10, 100, tracked);
          return w.jni.pending().has_value() ? 0 : 1;
        },
        [](World& w, jlong) { disposeSweep(w.env, nullptr); }, 0);
    cases.push_back(init);
  }
  Case next = on(
      "CacheIter.advanceAndNextEvictable", "", sweeping,
      [](World& w) { return nextOfSweep(w.env, nullptr); },
      [](World& w, jlong answer) { w.unpinValue(asValue(answer), JNI_OVERFLOW_EVICTED_PIN); }, 0);
  cases.push_back(next);
  cases.push_back(on(
      "CacheIter.dispose", "",
      [](World& w) {
        entries(w);
        initSweep(w.env, nullptr, 10, 100, JNI_FALSE);
      },
      [](World& w) -> jlong {
        disposeSweep(w.env, nullptr);
        return 1;
      }));
  cases.push_back(on(
      "CacheIter.getSweepState", "", sweeping,
      [](World& w) { return taken(w, getSweepState(w.env, nullptr)); }, nullptr, 0));
  return cases;
}

}  // namespace nimbra::test::fault
