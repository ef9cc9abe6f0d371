// The fault harness's cases of eviction: records, the queues of each policy, and their lists.

#include "fault_harness.h"

namespace nimbra::test::fault {
namespace {

using namespace natives;

// A queue of three records in the order of their deadlines, and a fourth in none.
void queued(World& w) {
  w.queue = w.evictionQueue();
  for (const char* key : {"a", "b", "c"}) {
    const jlong made = w.evictionRecord(key);
    asEvictionData(made)->expiration = 10 * (key[0] - 'a' + 1);
    ASSERT_GT(insertTTL(w.env, nullptr, w.queue, made, 10 * (key[0] - 'a' + 1)), 0);
    if (key[0] == 'b') w.number = made;
  }
  w.record = w.evictionRecord("new");
}

void withEntry(World& w) {
  w.nextList(1);
  w.entry = w.insert("key", "the value");
  w.record = w.evictionRecord("key");
}

void dropList(World& w, jobject list) {
  for (const jlong each : w.jni.longsOf(list)) {
    if (each != 0) unpinLuOffHeapEvictionData(w.env, asEvictionData(each), JNI_EVICTLIST_PIN);
  }
}

}  // namespace

std::vector<Case> evictionCases() {
  std::vector<Case> cases;
  const auto read = [&cases](const char* native, Call call, Arrange arrange = queued) {
    cases.push_back({.native = native,
                     .arrange = std::move(arrange),
                     .call = std::move(call),
                     .failure = std::nullopt});
  };

  // ---- Records
  for (const jboolean counted : {JNI_FALSE, JNI_TRUE}) {
    cases.push_back({.native = "LuOffHeapEvictionDataImpl.allocateAndPinEvictionData",
                     .variant = counted == JNI_TRUE ? "Counted" : "",
                     .arrange = [](World& w) { w.object = w.keptBuffer("key"); },
                     .call =
                         [counted](World& w) {
                           return allocateAndPinEvictionData(w.env, nullptr, 0, w.object, counted);
                         },
                     .release =
                         [](World& w, jlong answer) {
                           unpinLuOffHeapEvictionData(w.env, asEvictionData(answer),
                                                      ALLOCATION_PIN);
                         }});
  }
  cases.push_back(
      {.native = "LuOffHeapEvictionDataImpl.getEvictionKey",
       .arrange = queued,
       .call = [](World& w) { return taken(w, getEvictionKey(w.env, nullptr, 0, w.record)); }});
  read("LuOffHeapEvictionDataImpl.setMetadata",
       [](World& w) -> jlong { return setMetadata(w.env, nullptr, 0, w.record, 5); });
  read("LuOffHeapEvictionDataImpl.getMetadata",
       [](World& w) { return getMetadata(w.env, nullptr, 0, w.record); });
  read("LuOffHeapEvictionDataImpl.setExpiration",
       [](World& w) -> jlong { return setExpiration(w.env, nullptr, 0, w.record, 5); });
  read("LuOffHeapEvictionDataImpl.getExpiration",
       [](World& w) { return getExpiration(w.env, nullptr, 0, w.record); });
  read("LuOffHeapEvictionDataImpl.setTimeout",
       [](World& w) -> jlong { return setTimeout(w.env, nullptr, w.record, 5); });
  read("LuOffHeapEvictionDataImpl.getTimeout",
       [](World& w) -> jlong { return getTimeout(w.env, nullptr, w.record); });
  read("LuOffHeapEvictionDataImpl.getReferenceCount",
       [](World& w) { return getEvictionReferenceCount(w.env, nullptr, w.record); });
  for (const jboolean timed : {JNI_FALSE, JNI_TRUE}) {
    const char* variant = timed == JNI_TRUE ? "Timed" : "";
    addBoth(cases, {.native = "OffHeapManager.setEvictionData_native",
                    .variant = variant,
                    .arrange = withEntry,
                    .call = [timed](World& w) -> jlong {
                      return setEvictionData_native(w.env, w.manager, address(w.entry), w.record,
                                                    timed);
                    },
                    .again = false});
    addBoth(cases, {.native = "OffHeapManager.getEvictionData_native",
                    .variant = variant,
                    .arrange =
                        [timed](World& w) {
                          withEntry(w);
                          setEvictionData_native(w.env, w.manager, address(w.entry), w.record,
                                                 timed);
                        },
                    .call =
                        [timed](World& w) {
                          return getEvictionData_native(w.env, w.manager, address(w.entry), timed);
                        },
                    .release =
                        [](World& w, jlong answer) {
                          unpinLuOffHeapEvictionData(w.env, asEvictionData(answer), JNI_GET_PIN);
                        }});
  }
  cases.push_back({.native = "OffHeapManager.pinLuEvictionData_native",
                   .arrange = queued,
                   .call = [](World& w) -> jlong {
                     return pinLuEvictionData_native(w.env, w.manager, w.record, 1);
                   },
                   .release =
                       [](World& w, jlong) {
                         unpinLuOffHeapEvictionData(w.env, asEvictionData(w.record), JNI_GET_PIN);
                       }});
  read(
      "OffHeapManager.unpinLuEvictionData_native",
      [](World& w) -> jlong { return unpinLuEvictionData_native(w.env, w.manager, w.record, 1); },
      [](World& w) {
        queued(w);
        pinLuEvictionData_native(w.env, w.manager, w.record, 1);
      });

  // ---- Queues
  cases.push_back(
      {.native = "LuOffHeapEvictionQueue.allocateQueue",
       .call = [](World& w) { return allocateEvictionQueue(w.env, nullptr); },
       .release = [](World& w,
                     jlong answer) { EXPECT_TRUE(freeEvictionQueue(w.env, nullptr, answer)); }});
  cases.push_back(
      {.native = "LuOffHeapEvictionQueue.clearQueue",
       .arrange = queued,
       .call = [](World& w) -> jlong { return clearEvictionQueue(w.env, nullptr, w.queue); }});
  cases.push_back({.native = "LuOffHeapEvictionQueue.freeQueue",
                   .arrange = queued,
                   .call = [](World& w) -> jlong {
                     const jboolean done = freeEvictionQueue(w.env, nullptr, w.queue);
                     if (done == JNI_TRUE) w.forgetQueue(w.queue);
                     return done;
                   }});
  cases.push_back({.native = "LuOffHeapEvictionQueue.remove",
                   .arrange = queued,
                   .call = [](World& w) -> jlong {
                     return removeFromEvictionQueue(w.env, nullptr, w.queue, w.number);
                   },
                   .failure = -1,
                   .again = false});
  read("LuOffHeapEvictionQueue.getQueueCount",
       [](World& w) -> jlong { return getQueueCount(w.env, nullptr, w.queue); });
  cases.push_back({.native = "LuOffHeapEvictionQueue.getEvictionList",
                   .arrange =
                       [](World& w) {
                         queued(w);
                         w.other = w.longs(2);
                       },
                   .call = [](World& w) -> jlong {
                     return getEvictionList(w.env, nullptr, w.queue,
                                            static_cast<jlongArray>(w.other));
                   },
                   .release = [](World& w, jlong) { dropList(w, w.other); }});
  cases.push_back(
      {.native = "LuOffHeapLRUEvictionQueue.insertLRU",
       .arrange = queued,
       .call = [](World& w) -> jlong { return insertLRU(w.env, nullptr, w.queue, w.record); },
       .failure = -1,
       .again = false});
  cases.push_back(
      {.native = "LuOffHeapLRUEvictionQueue.updateLRU",
       .arrange = queued,
       .call = [](World& w) -> jlong { return updateLRU(w.env, nullptr, w.queue, w.number); }});
  cases.push_back(
      {.native = "LuOffHeapLFUEvictionQueue.insertLFU",
       .arrange = queued,
       .call = [](World& w) -> jlong { return insertLFU(w.env, nullptr, w.queue, w.record); },
       .failure = -1,
       .again = false});
  cases.push_back(
      {.native = "LuOffHeapLFUEvictionQueue.updateLFU",
       .arrange = queued,
       .call = [](World& w) -> jlong { return updateLFU(w.env, nullptr, w.queue, w.number); }});
  cases.push_back(
      {.native = "LuOffHeapTTLEvictionQueue.insertTTL",
       .arrange = queued,
       .call = [](World& w) -> jlong { return insertTTL(w.env, nullptr, w.queue, w.record, 15); },
       .failure = -1,
       .again = false});
  cases.push_back(
      {.native = "LuOffHeapTTLEvictionQueue.updateTTL",
       .arrange = queued,
       .call = [](World& w) -> jlong { return updateTTL(w.env, nullptr, w.queue, w.number, 50); }});
  read("LuOffHeapTTLEvictionQueue.getMinimumTime",
       [](World& w) { return getMinimumTime(w.env, nullptr, w.queue); });
  cases.push_back(
      {.native = "LuOffHeapTTLEvictionQueue.getTTLEvictionList",
       .arrange = queued,
       .call = [](World& w) { return taken(w, getTTLEvictionList(w.env, nullptr, w.queue, 25)); },
       .release = [](World& w, jlong) { dropList(w, w.object); }});
  cases.push_back(
      {.native = "LuOffHeapVoskaEvictionQueue.getEvictionList",
       .arrange = queued,
       .call = [](World& w) { return taken(w, getVoskaEvictionList(w.env, nullptr, w.queue, 25)); },
       .release = [](World& w, jlong) { dropList(w, w.object); }});
  return cases;
}

}  // namespace nimbra::test::fault
