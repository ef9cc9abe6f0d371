// The fault harness's cases of the face's own natives: single operations of plain and of bounded
// maps, walks, queries, and the overflow manager's steps.

#include "bounded_support.h"
#include "call_natives.h"
#include "com_velt_rz_corvane_nimbra_OverflowNatives.h"
#include "fault_harness.h"
#include "nb_alloc_backend.h"
#include "nb_stamp.h"

namespace nimbra::test::fault {
namespace {

constexpr std::string_view kHere = "here";
constexpr std::string_view kNew = "new";
constexpr jlong kRevision = 7;
constexpr jlong kNow = 1000;

jint hash(std::string_view key) { return World::hashOf(key); }
std::string longer(std::string_view key) { return std::string(key) + std::string(600, '-'); }

// ---- Plain maps --------------------------------------------------------------------------

void putEntry(World& w, int list, std::string_view key, std::string_view value, jlong revision) {
  w.nextList(list);
  ASSERT_EQ(
      face::put(w.env, nullptr, w.handle(), w.array(key), hash(kHere), w.array(value), revision),
      1);
}

// All in one bucket.
void filled(World& w) {
  w.remakeMap(1, 1000.0F);
  putEntry(w, 0, "first", "f", 1);
  putEntry(w, 1, kHere, "old value", 2);
  putEntry(w, 2, longer(kHere), "old value", 3);
  putEntry(w, 3, "last", "l", 4);
  w.nextList(4);
  w.entry = find(w.map, kHere);
  w.number = address(w.entry);
}
void paged(World& w) {
  filled(w);
  w.pageOutValue(w.entry);
}

void releaseBuffer(World& w, jlong answer) { face::unpin(w.env, nullptr, answer); }

void addPlain(std::vector<Case>& cases) {
  using Write = jint (*)(JNIEnv*, jclass, jlong, jbyteArray, jint, jbyteArray, jlong);
  const auto write = [&cases](const char* native, const char* variant, Write operation,
                              const std::string& key) {
    addBoth(cases, {.native = native,
                    .variant = variant,
                    .arrange = filled,
                    .call = [operation, key](World& w) -> jlong {
                      return operation(w.env, nullptr, w.handle(), w.array(key), hash(kHere),
                                       w.array("new value"), kRevision);
                    },
                    .failure = -1});
  };
  write("MapNatives.put", "New", &face::put, std::string(kNew));
  write("MapNatives.put", "NewLong", &face::put, longer(kNew));
  write("MapNatives.put", "Present", &face::put, std::string(kHere));
  write("MapNatives.put", "PresentLong", &face::put, longer(kHere));
  write("MapNatives.putIfAbsent", "New", &face::putIfAbsent, std::string(kNew));
  write("MapNatives.putIfAbsent", "NewLong", &face::putIfAbsent, longer(kNew));
  write("MapNatives.putIfAbsent", "Present", &face::putIfAbsent, std::string(kHere));
  write("MapNatives.putIfAbsent", "PresentLong", &face::putIfAbsent, longer(kHere));
  write("MapNatives.replace", "Present", &face::replace, std::string(kHere));
  write("MapNatives.replace", "PresentLong", &face::replace, longer(kHere));
  write("MapNatives.replace", "Absent", &face::replace, std::string(kNew));
  for (const bool isLong : {false, true}) {
    const std::string key = isLong ? longer(kHere) : std::string(kHere);
    const char* variant = isLong ? "Long" : "";
    addBoth(cases, {.native = "MapNatives.get",
                    .variant = variant,
                    .arrange = filled,
                    .call = [key](World& w) {
                      return taken(w, face::get(w.env, nullptr, w.handle(), w.array(key),
                                                hash(kHere), w.longs(1)));
                    }});
    addBoth(cases, {.native = "MapNatives.remove",
                    .variant = variant,
                    .arrange = filled,
                    .call = [key](World& w) -> jlong {
                      return face::remove(w.env, nullptr, w.handle(), w.array(key), hash(kHere));
                    },
                    .failure = -1});
    addBoth(cases, {.native = "MapNatives.containsKey",
                    .variant = variant,
                    .arrange = filled,
                    .call = [key](World& w) -> jlong {
                      return face::containsKey(w.env, nullptr, w.handle(), w.array(key),
                                               hash(kHere));
                    }});
    addBoth(cases, {.native = "MapNatives.pin",
                    .variant = variant,
                    .arrange = filled,
                    .call =
                        [key](World& w) {
                          return face::pin(w.env, nullptr, w.handle(), w.array(key), hash(kHere),
                                           w.longs(3));
                        },
                    .release = releaseBuffer});
  }
  cases.push_back(
      {.native = "MapNatives.get",
       .variant = "OnDisk",
       .overflow = true,
       .arrange = paged,
       .call = [](World& w) -> jlong {
         const jlongArray out = w.longs(1);
         EXPECT_EQ(face::get(w.env, nullptr, w.handle(), w.array(kHere), hash(kHere), out),
                   nullptr);
         return w.jni.longsOf(out)[0];
       },
       .release = [](World& w,
                     jlong answer) { w.unpinValue(natives::asValue(answer), JNI_GET_PIN); }});
  addBoth(cases, {.native = "MapNatives.unpin",
                  .arrange =
                      [](World& w) {
                        filled(w);
                        pin(w.env, w.entry->value, JNI_GET_PIN);
                      },
                  .call = [](World& w) -> jlong {
                    face::unpin(w.env, nullptr, address(w.entry->value));
                    return 0;
                  },
                  .failure = std::nullopt,
                  .again = false});
  const Call scan = [](World& w) -> jlong {
    const jlongArray cursor = w.longs(2);
    w.other = w.longs(5 * 8);
    return face::scan(w.env, nullptr, w.handle(), cursor, static_cast<jlongArray>(w.other));
  };
  addBoth(cases, {.native = "MapNatives.scan",
                  .arrange = filled,
                  .call = scan,
                  .release = [](World& w, jlong answer) {
                    face::unpinAll(w.env, nullptr, static_cast<jlongArray>(w.other), 0,
                                   static_cast<jint>(answer));
                  }});
  addBoth(cases, {.native = "MapNatives.unpinAll",
                  .arrange =
                      [scan](World& w) {
                        filled(w);
                        w.number = scan(w);
                      },
                  .call = [](World& w) -> jlong {
                    face::unpinAll(w.env, nullptr, static_cast<jlongArray>(w.other), 0,
                                   static_cast<jint>(w.number));
                    return 0;
                  },
                  .failure = std::nullopt,
                  .again = false});
  cases.push_back({.native = "MapNatives.hardCapLimit",
                   .call = [](World& w) { return face::hardCapLimit(w.env, nullptr); }});
}

// ---- Plain maps, through memory of the thread ----------------------------------------------

void addCalls(std::vector<Case>& cases) {
  static thread_local area::Area memory;
  cases.push_back({.native = "CallNatives.address",
                   .arrange =
                       [](World& w) {
                         w.words.assign(4, 0);
                         w.object = w.jni.newDirectBuffer(w.words.data(), 32);
                       },
                   .call = [](World& w) -> jlong {
                     const jlong found = area::address(w.env, nullptr, w.object);
                     EXPECT_EQ(found, address(w.words.data()));
                     return found;
                   }});
  cases.push_back({.native = "CallNatives.stamps",
                   .call = [](World& w) -> jlong {
                     const jlong found = area::stamps(w.env, nullptr);
                     EXPECT_EQ(found, backend::keepsAddresses() ? address(setStamps) : 0);
                     return found;
                   },
                   .failure = std::nullopt});
  cases.push_back({.native = "CallNatives.traceLevels", .call = [](World& w) -> jlong {
                     const jlong found = area::traceLevels(w.env, nullptr);
                     EXPECT_EQ(found, address(&logInfo));
                     return found;
                   }});
  addBoth(cases,
          {.native = "CallNatives.bucketSets", .arrange = filled, .call = [](World& w) -> jlong {
             const jlong found = area::bucketSets(w.env, nullptr, w.handle());
             EXPECT_EQ(found, address(getBucketSetByIndex(w.map->map, 0)));
             return found;
           }});
  using Write = jint (*)(JNIEnv*, jclass, jlong, jlong, jint, jint, jint, jlong);
  const auto write = [&cases](const char* native, const char* variant, Write operation,
                              std::string_view key) {
    addBoth(cases, {.native = native,
                    .variant = variant,
                    .arrange = filled,
                    .call = [operation, key](World& w) -> jlong {
                      return operation(w.env, nullptr, w.handle(), memory.with(key, "new value"),
                                       area::lengthOf(key), hash(kHere), 9, kRevision);
                    },
                    .failure = -1});
  };
  write("CallNatives.put", "New", &area::put, kNew);
  write("CallNatives.put", "Present", &area::put, kHere);
  write("CallNatives.putIfAbsent", "New", &area::putIfAbsent, kNew);
  write("CallNatives.putIfAbsent", "Present", &area::putIfAbsent, kHere);
  write("CallNatives.replace", "Present", &area::replace, kHere);
  write("CallNatives.replace", "Absent", &area::replace, kNew);
  cases.push_back({.native = "CallNatives.replace",
                   .variant = "OnDisk",
                   .overflow = true,
                   .arrange = paged,
                   .call = [](World& w) -> jlong {
                     return area::replace(w.env, nullptr, w.handle(),
                                          memory.with(kHere, "new value"), area::lengthOf(kHere),
                                          hash(kHere), 9, kRevision);
                   },
                   .failure = -1});
  const auto read = [&cases](const char* native, auto operation, Release release,
                             std::optional<jlong> failure) {
    addBoth(cases, {.native = native,
                    .arrange = filled,
                    .call = [operation](World& w) -> jlong {
                      return operation(w.env, nullptr, w.handle(), memory.with(kHere),
                                       area::lengthOf(kHere), hash(kHere));
                    },
                    .release = std::move(release),
                    .failure = failure});
  };
  read("CallNatives.get", &area::get, nullptr, area::kAbsent);
  read("CallNatives.pin", &area::pin, releaseBuffer, 0);
  read("CallNatives.containsKey", &area::containsKey, nullptr, 0);
  read("CallNatives.remove", &area::remove, nullptr, -1);
}

// ---- Bounded maps ------------------------------------------------------------------------

// A partition of its own world: its bound in `record`, eviction by use in `queue`, by deadline in
// `number`.
void bound(World& w) {
  w.remakeMap(1, 1000.0F);
  w.record = bounded::allocateBound(w.env, nullptr, 0, 0);
  ASSERT_NE(w.record, 0);
  w.queue = w.evictionQueue();
  w.number = w.evictionQueue();
  w.more = [&w] {
    return std::to_string(bounded::bytes(w.env, nullptr, w.record)) + " bytes and " +
           std::to_string(bounded::entries(w.env, nullptr, w.record)) + " entries of the bound";
  };
  w.atEnd([&w] {
    EXPECT_TRUE(bounded::clear(w.env, nullptr, w.handle(), w.record, w.queue, w.number));
    EXPECT_EQ(bounded::bytes(w.env, nullptr, w.record), 0);
    EXPECT_EQ(bounded::entries(w.env, nullptr, w.record), 0);
    bounded::freeBound(w.env, nullptr, w.record);
  });
}
jlong putBounded(World& w, std::string_view key, std::string_view value, jlong deadline,
                 jint mode = bounded::kPut, jlong revision = kRevision) {
  return bounded::put(w.env, nullptr, w.handle(), w.record, w.queue, bounded::kLru, w.number,
                      w.array(key), hash(kHere), w.array(value), revision, kNow, deadline, mode);
}
void boundFilled(World& w) {
  bound(w);
  w.nextList(0);
  ASSERT_EQ(putBounded(w, "first", "f", 3000, bounded::kPut, 1), 1);
  ASSERT_EQ(putBounded(w, kHere, "old value", 4000, bounded::kPut, 2), 1);
  ASSERT_EQ(putBounded(w, longer(kHere), "old value", 5000, bounded::kPut, 3), 1);
  w.nextList(4);
}
// The middle entry is past its deadline.
void boundExpired(World& w) {
  bound(w);
  ASSERT_EQ(putBounded(w, "first", "f", 3000, bounded::kPut, 1), 1);
  ASSERT_EQ(putBounded(w, kHere, "old value", 1000 - 1, bounded::kPut, 2), 1);
}

void addBounded(std::vector<Case>& cases) {
  cases.push_back(
      {.native = "BoundedNatives.allocateBound",
       .call = [](World& w) { return bounded::allocateBound(w.env, nullptr, 100, 9); },
       .release = [](World& w, jlong answer) { bounded::freeBound(w.env, nullptr, answer); }});
  cases.push_back(
      {.native = "BoundedNatives.freeBound",
       .arrange = [](World& w) { w.record = bounded::allocateBound(w.env, nullptr, 100, 9); },
       .call = [](World& w) -> jlong {
         bounded::freeBound(w.env, nullptr, w.record);
         return 1;
       },
       .failure = std::nullopt});
  const auto read = [&cases](const char* native, Call call) {
    addBoth(cases, {.native = native,
                    .arrange = boundFilled,
                    .call = std::move(call),
                    .failure = std::nullopt});
  };
  read("BoundedNatives.bytes", [](World& w) { return bounded::bytes(w.env, nullptr, w.record); });
  read("BoundedNatives.entries",
       [](World& w) { return bounded::entries(w.env, nullptr, w.record); });
  const auto put = [&cases](const char* variant, Arrange arrange, const std::string& key,
                            jint mode) {
    addBoth(cases,
            {.native = "BoundedNatives.put",
             .variant = variant,
             .arrange = std::move(arrange),
             .call = [key, mode](World& w) { return putBounded(w, key, "new value", 6000, mode); },
             .failure = -1});
  };
  put("New", boundFilled, std::string(kNew), bounded::kPut);
  put("NewLong", boundFilled, longer(kNew), bounded::kPut);
  put("Present", boundFilled, std::string(kHere), bounded::kPut);
  put("PresentLong", boundFilled, longer(kHere), bounded::kPut);
  put("IfAbsentNew", boundFilled, std::string(kNew), bounded::kPutIfAbsent);
  put("IfAbsentPresent", boundFilled, std::string(kHere), bounded::kPutIfAbsent);
  put("ReplacePresent", boundFilled, std::string(kHere), bounded::kReplace);
  put("Expired", boundExpired, std::string(kHere), bounded::kPut);
  for (const bool isLong : {false, true}) {
    const std::string key = isLong ? longer(kHere) : std::string(kHere);
    const char* variant = isLong ? "Long" : "";
    addBoth(cases, {.native = "BoundedNatives.get",
                    .variant = variant,
                    .arrange = boundFilled,
                    .call = [key](World& w) {
                      return taken(w, bounded::get(w.env, nullptr, w.handle(), w.queue,
                                                   bounded::kLru, w.number, w.array(key),
                                                   hash(kHere), kNow, 7000, w.longs(1)));
                    }});
    addBoth(cases, {.native = "BoundedNatives.pin",
                    .variant = variant,
                    .arrange = boundFilled,
                    .call =
                        [key](World& w) {
                          return bounded::pin(w.env, nullptr, w.handle(), w.queue, bounded::kLru,
                                              w.number, w.array(key), hash(kHere), kNow, 7000,
                                              w.longs(3));
                        },
                    .release = releaseBuffer});
    addBoth(cases, {.native = "BoundedNatives.containsKey",
                    .variant = variant,
                    .arrange = boundFilled,
                    .call = [key](World& w) -> jlong {
                      return bounded::containsKey(w.env, nullptr, w.handle(), w.array(key),
                                                  hash(kHere), kNow);
                    }});
    addBoth(cases, {.native = "BoundedNatives.remove",
                    .variant = variant,
                    .arrange = boundFilled,
                    .call = [key](World& w) -> jlong {
                      return bounded::remove(w.env, nullptr, w.handle(), w.record, w.queue,
                                             w.number, w.array(key), hash(kHere), kNow);
                    },
                    .failure = -1});
  }
  for (const jboolean timed : {JNI_FALSE, JNI_TRUE}) {
    addBoth(cases, {.native = "BoundedNatives.evict",
                    .variant = timed == JNI_TRUE ? "ByDeadline" : "",
                    .arrange = boundFilled,
                    .call = [timed](World& w) -> jlong {
                      w.other = w.longs(5 * 4);
                      return bounded::evict(w.env, nullptr, w.handle(), w.record, w.queue, w.number,
                                            2, timed, 9000, static_cast<jlongArray>(w.other));
                    },
                    .release =
                        [](World& w, jlong answer) {
                          face::unpinAll(w.env, nullptr, static_cast<jlongArray>(w.other), 0,
                                         static_cast<jint>(answer));
                        }});
  }
  addBoth(cases,
          {.native = "BoundedNatives.clear", .arrange = boundFilled, .call = [](World& w) -> jlong {
             return bounded::clear(w.env, nullptr, w.handle(), w.record, w.queue, w.number);
           }});
  const Call query = [](World& w) -> jlong {
    bounded::query(w.env, nullptr, w.handle(), w.object, 1, 0, 9);
    return w.words[0];
  };
  const Arrange queried = [](World& w) {
    filled(w);
    w.words.assign(1 + 9 * 10, -1);
    w.object = w.jni.newDirectBuffer(w.words.data(), static_cast<jlong>(w.words.size() * 8));
  };
  const auto releaseFrom = [](World& w, jlong first, jlong count) {
    for (jlong i = first; i < count; ++i) {
      const int64_t* at = &w.words[static_cast<size_t>(1 + i * 9)];
      bounded::releaseQueried(w.env, nullptr, at[0], at[1], at[3]);
    }
  };
  addBoth(cases, {.native = "BoundedNatives.query",
                  .arrange = queried,
                  .call = query,
                  .release = [releaseFrom](World& w, jlong answer) { releaseFrom(w, 0, answer); }});
  addBoth(cases, {.native = "BoundedNatives.releaseQueried",
                  .arrange =
                      [queried, query](World& w) {
                        queried(w);
                        w.number = query(w);
                        ASSERT_GT(w.number, 0);
                      },
                  .call = [releaseFrom](World& w) -> jlong {
                    releaseFrom(w, 0, w.number);
                    return 0;
                  },
                  .failure = std::nullopt,
                  .again = false});
}

// ---- The overflow manager ----------------------------------------------------------------

constexpr auto& nextEvictable = Java_com_velt_rz_corvane_nimbra_OverflowNatives_nextEvictable;
constexpr auto& evicted = Java_com_velt_rz_corvane_nimbra_OverflowNatives_evicted;
constexpr auto& keep = Java_com_velt_rz_corvane_nimbra_OverflowNatives_keep;
constexpr auto& beginRead = Java_com_velt_rz_corvane_nimbra_OverflowNatives_beginRead;
constexpr auto& pageIn = Java_com_velt_rz_corvane_nimbra_OverflowNatives_pageIn;
constexpr auto& unpinRecord = Java_com_velt_rz_corvane_nimbra_OverflowNatives_unpinRecord;

void sweeping(World& w) {
  filled(w);
  for (LuOffHeapValue* each : entriesOf(w.map)) w.changeFlags(each, 0, recently_used);
  natives::initSweep(w.env, nullptr, 10, 100, JNI_FALSE);
  w.atEnd([&w] { natives::disposeSweep(w.env, nullptr); });
}
void offered(World& w) {
  sweeping(w);
  w.number = nextEvictable(w.env, nullptr, w.longs(7));
  ASSERT_NE(w.number, 0);
}
void recordPinned(World& w) {
  pin(w.env, static_cast<Pinnable*>(w.entry), JNI_GET_PIN);
  w.atEnd([&w] { unpinRecord(w.env, nullptr, w.number); });
}

void addManager(std::vector<Case>& cases) {
  const auto on = [&cases](const char* native, const char* variant, Arrange arrange, Call call,
                           Release release, std::optional<jlong> failure) {
    cases.push_back({.native = native,
                     .variant = variant,
                     .overflow = true,
                     .arrange = std::move(arrange),
                     .call = std::move(call),
                     .release = std::move(release),
                     .failure = failure});
  };
  on(
      "OverflowNatives.nextEvictable", "", sweeping,
      [](World& w) { return nextEvictable(w.env, nullptr, w.longs(7)); },
      [](World& w, jlong answer) { keep(w.env, nullptr, answer); }, 0);
  on(
      "OverflowNatives.evicted", "", offered,
      [](World& w) -> jlong {
        evicted(w.env, nullptr, w.number, 4096, 77, 8192);
        return 0;
      },
      nullptr, std::nullopt);
  on(
      "OverflowNatives.keep", "", offered,
      [](World& w) -> jlong {
        keep(w.env, nullptr, w.number);
        return 0;
      },
      nullptr, std::nullopt);
  on(
      "OverflowNatives.unpinRecord", "",
      [](World& w) {
        filled(w);
        pin(w.env, static_cast<Pinnable*>(w.entry), JNI_GET_PIN);
      },
      [](World& w) -> jlong {
        unpinRecord(w.env, nullptr, w.number);
        return 0;
      },
      nullptr, std::nullopt);
  for (const bool disk : {false, true}) {
    on(
        "OverflowNatives.beginRead", disk ? "OnDisk" : "",
        [disk](World& w) {
          (disk ? paged : filled)(w);
          recordPinned(w);
        },
        [](World& w) -> jlong {
          w.other = w.longs(4);
          return beginRead(w.env, nullptr, w.number, static_cast<jlongArray>(w.other));
        },
        [](World& w, jlong answer) {
          if (answer == 1) {
            face::unpin(w.env, nullptr, w.jni.longsOf(w.other)[0]);
          } else {
            EXPECT_EQ(natives::unlockMetadata(w.env, nullptr, w.number), JNI_TRUE);
          }
        },
        -1);
    on(
        "OverflowNatives.pageIn", disk ? "ForAView" : "",
        [](World& w) {
          paged(w);
          recordPinned(w);
        },
        [disk](World& w) {
          return pageIn(w.env, nullptr, w.number, w.array(std::string(8, '\0') + "the value"), 4096,
                        w.entry->revisionNumber, disk ? w.longs(2) : nullptr);
        },
        [disk](World& w, jlong answer) {
          if (disk) face::unpin(w.env, nullptr, answer);
        },
        0);
  }
}

}  // namespace

std::vector<Case> faceCases() {
  std::vector<Case> cases;
  addPlain(cases);
  addCalls(cases);
  addBounded(cases);
  addManager(cases);
  return cases;
}

}  // namespace nimbra::test::fault
