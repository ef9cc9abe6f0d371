// The fault harness's cases of the map: the map object, keys that are buffers, arrays and strings,
// revision queries, walks and the map-wide lock.

#include "fault_harness.h"
#include "nb_map_private.h"

namespace nimbra::test::fault {
namespace {

using namespace natives;

constexpr std::string_view kHere = "here";
constexpr std::string_view kNew = "new";
constexpr jbyte kBinary = DESERIALIZED_TYPE_BINARY;
constexpr jlong kRevision = 7;

// Three entries; the middle one is what the operations meet.
void filled(World& w) {
  w.nextList(0);
  w.insert("first", "f", 0, 1);
  w.nextList(1);
  w.entry = w.insert(kHere, "old value", 0, 2);
  w.nextList(2);
  w.insert("last", "l", 0, 3);
  w.nextList(3);
}
// The same in one bucket, so that every search compares.
void crowded(World& w) {
  w.remakeMap(1, 1000.0F);
  filled(w);
}

void releaseInserted(World& w, jlong answer) { w.unpinValue(asValue(answer), JNI_INSERTED_PIN); }
// The snapshot; with overflow the entry's node stays locked for Java.
void releaseUpdated(World& w, jlong answer) {
  LuOffHeapValue* snapshot = asValue(answer);
  if (w.overflow()) {
    EXPECT_EQ(natives::unlockMetadata(w.env, nullptr, address(snapshot->hashNext)), JNI_TRUE);
  }
  w.unpinValue(snapshot);
}
void releaseRemoved(World& w, jlong answer) { w.unpinValue(asValue(answer), JNI_REMOVED_PIN); }
void releaseGot(World& w, jlong answer) { w.unpinValue(asValue(answer), JNI_GET_PIN); }

jint hash(std::string_view key) { return World::hashOf(key); }

// A text as the library stores strings: UTF-16, high byte first.
std::string stored(std::string_view text) {
  std::string bytes;
  for (const char unit : text) bytes.append({'\0', unit});
  return bytes;
}

// Inserts a key as a string would be.
void withString(World& w) {
  filled(w);
  const jlong made = insertAndGetNewAndPinWithHashCodeAndString(
      w.env, w.caller, w.handle(), w.text("string"), 99, w.array("old value"), 9, kBinary, 0, 4);
  ASSERT_NE(made, 0);
  releaseInserted(w, made);
}

void keyAndValue(World& w, std::string_view key) {
  w.object = w.keptBuffer(key);
  w.other = w.keptBuffer("new value");
}

Arrange withBuffers(std::string_view key) {
  return [key](World& w) {
    crowded(w);
    keyAndValue(w, key);
  };
}

// ---- The map object ----------------------------------------------------------------------

void addMapObject(std::vector<Case>& cases) {
  addBoth(
      cases,
      {.native = "LuOffHeapMapImpl.allocateLuOffHeapMap",
       .call = [](World& w) { return allocateLuOffHeapMap(w.env, w.caller, 0, 3, 0.75F, 1, 2); },
       .release = [](World& w,
                     jlong answer) { EXPECT_TRUE(deleteLuOffHeapMap(w.env, w.caller, answer)); }});
  addBoth(cases, {.native = "LuOffHeapMapImpl.deleteLuOffHeapMap", .call = [](World& w) -> jlong {
                    const jboolean done = deleteLuOffHeapMap(w.env, w.caller, w.handle());
                    if (done == JNI_TRUE) w.map = nullptr;
                    return done;
                  }});
  addBoth(cases, {.native = "LuOffHeapMapImpl.clear",
                  .arrange = filled,
                  .call = [](World& w) -> jlong { return clear(w.env, w.caller, w.handle()); }});
  const auto read = [&cases](const char* native, Call call) {
    addBoth(
        cases,
        {.native = native, .arrange = filled, .call = std::move(call), .failure = std::nullopt});
  };
  read("LuOffHeapMapImpl.maxSize", [](World& w) { return maxSize(w.env, w.caller, w.handle()); });
  read("LuOffHeapMapImpl.size", [](World& w) { return size(w.env, w.caller, w.handle()); });
  read("LuOffHeapMapImpl.getCurrentBytesUsed",
       [](World& w) { return getCurrentBytesUsed(w.env, w.caller, w.handle()); });
  addBoth(cases,
          {.native = "LuOffHeapMapImpl.lockMapAndQueues",
           .arrange = filled,
           .call = [](World& w) -> jlong { return lockMapAndQueues(w.env, w.caller, w.handle()); },
           .release = [](World& w,
                         jlong) { EXPECT_EQ(unlockMapAndQueues(w.env, w.caller, w.handle()), 0); },
           .failure = 1});
  addBoth(cases, {.native = "LuOffHeapMapImpl.unlockMapAndQueues",
                  .arrange =
                      [](World& w) {
                        filled(w);
                        ASSERT_EQ(lockMapAndQueues(w.env, w.caller, w.handle()), 0);
                      },
                  .call = [](World& w) -> jlong {
                    return unlockMapAndQueues(w.env, w.caller, w.handle());
                  },
                  .failure = 1,
                  .again = false});
}

// ---- Insert ------------------------------------------------------------------------------

void addInserts(std::vector<Case>& cases) {
  const auto insertCase = [&cases](const char* native, const char* variant, Arrange arrange,
                                   Call call) {
    addBoth(cases, {.native = native,
                    .variant = variant,
                    .arrange = std::move(arrange),
                    .call = std::move(call),
                    .release = releaseInserted});
  };
  insertCase("LuOffHeapMapImpl.insertAndGetNewAndPin", "", withBuffers(kNew), [](World& w) {
    return insertAndGetNewAndPin(w.env, w.caller, w.handle(), w.object, w.other, 0, kRevision);
  });
  // Behind a table that wants to grow, and for an owner whose queue is new.
  insertCase(
      "LuOffHeapMapImpl.insertAndGetNewAndPin", "Grows",
      [](World& w) {
        filled(w);
        keyAndValue(w, kNew);
      },
      [](World& w) {
        return insertAndGetNewAndPin(w.env, w.caller, w.handle(), w.object, w.other, 3, kRevision);
      });
  insertCase("LuOffHeapMapImpl.insertAndGetNewAndPinWithHashCode", "", withBuffers(kNew),
             [](World& w) {
               return insertAndGetNewAndPinWithHashCode(w.env, w.caller, w.handle(), w.object,
                                                        hash(kNew), w.other, 0, kRevision);
             });
  insertCase("LuOffHeapMapImpl.insertAndGetNewAndPinWithHashCodeAndBA", "", crowded, [](World& w) {
    return insertAndGetNewAndPinWithHashCodeAndBA(w.env, w.caller, w.handle(), w.array(kNew), 3,
                                                  kBinary, hash(kHere), w.array("new value"), 9,
                                                  kBinary, 0, kRevision);
  });
  insertCase("LuOffHeapMapImpl.insertAndGetNewAndPinWithHashCodeAndString", "", withString,
             [](World& w) {
               return insertAndGetNewAndPinWithHashCodeAndString(
                   w.env, w.caller, w.handle(), w.text("strung"), 99, w.array("new value"), 9,
                   kBinary, 0, kRevision);
             });
  insertCase(
      "LuOffHeapMapImpl.insertAndGetNewAndPinWithHashCodeAndStringBB", "",
      [](World& w) {
        withString(w);
        w.other = w.keptBuffer("new value");
      },
      [](World& w) {
        return insertAndGetNewAndPinWithHashCodeAndStringBB(
            w.env, w.caller, w.handle(), w.text("strung"), 99, w.other, 0, kRevision);
      });
  // A key that Java has to compare.
  insertCase(
      "LuOffHeapMapImpl.insertAndGetNewAndPinWithHashCodeAndBA", "ComparedByJava",
      [](World& w) {
        w.remakeMap(1, 1000.0F);
        const jlong made = insertAndGetNewAndPinWithHashCodeAndBA(
            w.env, w.caller, w.handle(), w.array("other"), 5,
            static_cast<jbyte>(DESERIALIZED_TYPE_OTHER), 5, w.array("v"), 1, kBinary, 0, 1);
        ASSERT_NE(made, 0);
        releaseInserted(w, made);
      },
      [](World& w) {
        return insertAndGetNewAndPinWithHashCodeAndBA(w.env, w.caller, w.handle(), w.array("mixed"),
                                                      5,
                                                      static_cast<jbyte>(DESERIALIZED_TYPE_OTHER),
                                                      5, w.array("new"), 3, kBinary, 0, kRevision);
      });

  // A key that is there: the insert answers null whatever fails, and nothing changes.
  const auto present = [&cases](const char* native, Arrange arrange, Call call) {
    addBoth(cases, {.native = native,
                    .variant = "Present",
                    .arrange = std::move(arrange),
                    .call = std::move(call),
                    .failure = std::nullopt});
  };
  present("LuOffHeapMapImpl.insertAndGetNewAndPin", withBuffers(kHere), [](World& w) {
    return insertAndGetNewAndPin(w.env, w.caller, w.handle(), w.object, w.other, 0, kRevision);
  });
  present("LuOffHeapMapImpl.insertAndGetNewAndPinWithHashCodeAndBA", crowded, [](World& w) {
    return insertAndGetNewAndPinWithHashCodeAndBA(w.env, w.caller, w.handle(), w.array(kHere), 4,
                                                  kBinary, hash(kHere), w.array("new value"), 9,
                                                  kBinary, 0, kRevision);
  });
  present("LuOffHeapMapImpl.insertAndGetNewAndPinWithHashCodeAndString", withString, [](World& w) {
    return insertAndGetNewAndPinWithHashCodeAndString(w.env, w.caller, w.handle(), w.text("string"),
                                                      99, w.array("new value"), 9, kBinary, 0,
                                                      kRevision);
  });
}

// ---- Update ------------------------------------------------------------------------------

void addUpdates(std::vector<Case>& cases) {
  const auto update = [&cases](const char* native, const char* variant, Arrange arrange,
                               Call call) {
    addBoth(cases, {.native = native,
                    .variant = variant,
                    .arrange = std::move(arrange),
                    .call = std::move(call),
                    .release = releaseUpdated});
  };
  const auto valueBuffer = [](Arrange arrange) {
    return [arrange](World& w) {
      arrange(w);
      w.other = w.keptBuffer("new value");
    };
  };
  update("LuOffHeapMapImpl.updateAndGetNewAndPin", "", withBuffers(kHere), [](World& w) {
    return updateAndGetNewAndPin(w.env, w.caller, w.handle(), w.object, w.other, 0, kRevision);
  });
  // For an owner whose queue is new.
  update("LuOffHeapMapImpl.updateAndGetNewAndPin", "NewOwner", withBuffers(kHere), [](World& w) {
    return updateAndGetNewAndPin(w.env, w.caller, w.handle(), w.object, w.other, 3, kRevision);
  });
  update("LuOffHeapMapImpl.updateAndGetNewAndPinWithHashCode", "", withBuffers(kHere),
         [](World& w) {
           return updateAndGetNewAndPinWithHashCode(w.env, w.caller, w.handle(), w.object,
                                                    hash(kHere), w.other, 0, kRevision);
         });
  update("LuOffHeapMapImpl.updateAndGetNewAndPinWithHashCodeBA", "", valueBuffer(crowded),
         [](World& w) {
           return updateAndGetNewAndPinWithHashCodeBA(w.env, w.caller, w.handle(), w.array(kHere),
                                                      hash(kHere), w.other, 0, kRevision);
         });
  update("LuOffHeapMapImpl.updateAndGetNewAndPinWithHashCodeBABA", "", crowded, [](World& w) {
    return updateAndGetNewAndPinWithHashCodeBABA(w.env, w.caller, w.handle(), w.array(kHere),
                                                 hash(kHere), w.array("new value"), 9, kBinary, 0,
                                                 kRevision);
  });
  update("LuOffHeapMapImpl.updateAndGetNewAndPinWithHashCodeStringBB", "", valueBuffer(withString),
         [](World& w) {
           return updateAndGetNewAndPinWithHashCodeStringBB(
               w.env, w.caller, w.handle(), w.text("string"), 99, w.other, 0, kRevision);
         });
  update(
      "LuOffHeapMapImpl.updateAndGetNewAndPinWithHashCodeStringBA", "", withString, [](World& w) {
        return updateAndGetNewAndPinWithHashCodeStringBA(w.env, w.caller, w.handle(),
                                                         w.text("string"), 99, w.array("new value"),
                                                         9, kBinary, 0, kRevision);
      });
  cases.push_back({.native = "LuOffHeapMapImpl.updateAndGetNewAndPin",
                   .variant = "OnDisk",
                   .overflow = true,
                   .arrange =
                       [](World& w) {
                         withBuffers(kHere)(w);
                         w.pageOutValue(w.entry);
                       },
                   .call =
                       [](World& w) {
                         return updateAndGetNewAndPin(w.env, w.caller, w.handle(), w.object,
                                                      w.other, 0, kRevision);
                       },
                   .release = releaseUpdated});
}

// ---- Remove, get, containment ------------------------------------------------------------

void addRemovals(std::vector<Case>& cases) {
  const auto removal = [&cases](const char* native, Arrange arrange, Call call) {
    addBoth(cases, {.native = native,
                    .arrange = std::move(arrange),
                    .call = std::move(call),
                    .release = releaseRemoved});
  };
  removal("LuOffHeapMapImpl.removeAndGetAndPin", withBuffers(kHere),
          [](World& w) { return removeAndGetAndPin(w.env, w.caller, w.handle(), w.object); });
  removal("LuOffHeapMapImpl.removeAndGetAndPinWithHashCode", withBuffers(kHere), [](World& w) {
    return removeAndGetAndPinWithHashCode(w.env, w.caller, w.handle(), w.object, hash(kHere));
  });
  removal("LuOffHeapMapImpl.removeAndGetAndPinWithHashCodeBA", crowded, [](World& w) {
    return removeAndGetAndPinWithHashCodeBA(w.env, w.caller, w.handle(), w.array(kHere),
                                            hash(kHere));
  });
  removal("LuOffHeapMapImpl.removeAndGetAndPinWithHashCodeString", withString, [](World& w) {
    return removeAndGetAndPinWithHashCodeString(w.env, w.caller, w.handle(), w.text("string"), 99);
  });
}

void addGets(std::vector<Case>& cases) {
  const auto get = [&cases](const char* native, const char* variant, Arrange arrange, Call call) {
    addBoth(cases, {.native = native,
                    .variant = variant,
                    .arrange = std::move(arrange),
                    .call = std::move(call),
                    .release = releaseGot});
  };
  for (const jboolean touch : {JNI_FALSE, JNI_TRUE}) {
    const char* variant = touch == JNI_TRUE ? "Touch" : "";
    get("LuOffHeapMapImpl.getLuValue_ByteArray", variant, crowded, [touch](World& w) {
      return getLuValue_ByteArray(w.env, w.caller, w.handle(), w.longs(4), w.array(kHere),
                                  hash(kHere), 0, touch, kRevision);
    });
    get("LuOffHeapMapImpl.getLuValue_String", variant, withString, [touch](World& w) {
      return getLuValue_String(w.env, w.caller, w.handle(), w.longs(4), w.text("string"), 0, 99, 0,
                               touch, kRevision);
    });
    get("LuOffHeapMapImpl.getLuValue_ByteBuffer", variant, withBuffers(kHere), [touch](World& w) {
      return getLuValue_ByteBuffer(w.env, w.caller, w.handle(), w.object, -1, 0, touch, kRevision);
    });
  }
  const auto contains = [&cases](const char* native, Arrange arrange, Call call) {
    addBoth(cases, {.native = native, .arrange = std::move(arrange), .call = std::move(call)});
  };
  contains("LuOffHeapMapImpl.containsKey", withBuffers(kHere),
           [](World& w) -> jlong { return containsKey(w.env, w.caller, w.handle(), w.object); });
  contains("LuOffHeapMapImpl.containsKeyWithHashCode", withBuffers(kHere), [](World& w) -> jlong {
    return containsKeyWithHashCode(w.env, w.caller, w.handle(), w.object, hash(kHere));
  });
  contains("LuOffHeapMapImpl.containsKeyWithHashCodeBA", crowded, [](World& w) -> jlong {
    return containsKeyWithHashCodeBA(w.env, w.caller, w.handle(), w.array(kHere), hash(kHere));
  });
  contains("LuOffHeapMapImpl.containsKeyWithHashCodeString", withString, [](World& w) -> jlong {
    return containsKeyWithHashCodeString(w.env, w.caller, w.handle(), w.text("string"), 99);
  });
}

// ---- Queries and walks -------------------------------------------------------------------

void addQueries(std::vector<Case>& cases) {
  for (const jint bookmark : {-1, 2}) {
    addBoth(cases,
            {.native = "LuOffHeapMapImpl.queryRevisionAndPinWithBounds",
             .variant = bookmark < 0 ? "" : "Bookmark",
             .arrange =
                 [](World& w) {
                   filled(w);
                   w.words.assign(64, -1);
                   w.object = w.jni.newDirectBuffer(w.words.data(), 64 * 8);
                   if (w.overflow()) w.pageOutValue(w.entry);
                 },
             .call = [bookmark](World& w) -> jlong {
               EXPECT_EQ(queryRevisionAndPinWithBounds(w.env, w.caller, w.handle(), w.object,
                                                       bookmark, w.longs(1, 0), w.longs(1, 9)),
                         0);
               return w.words[0];
             },
             .release =
                 [](World& w, jlong answer) {
                   for (jlong i = 0; i < answer; ++i) {
                     const int64_t* at = &w.words[static_cast<size_t>(1 + i * 9)];
                     constexpr uint32_t kTransport = JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN;
                     nimbra::unpinToFree(w.env, asValue(at[0])->key, kTransport);
                     if (at[3] != 0) {
                       nimbra::unpinToFree(w.env, asValue(at[0])->value, kTransport);
                     }
                     if (w.overflow()) {
                       EXPECT_EQ(natives::unlockMetadata(w.env, nullptr, at[0]), JNI_TRUE);
                     }
                     w.unpinValue(asValue(at[0]), JNI_QUERYREVISION_PIN);
                   }
                 }});
  }
  addBoth(cases, {.native = "LuOffHeapMapImpl.getAndPinFirstInQueue",
                  .arrange = filled,
                  .call =
                      [](World& w) {
                        return getAndPinFirstInQueue(w.env, w.caller, w.handle(), 1, JNI_TRUE);
                      },
                  .release = releaseGot});
  addBoth(cases, {.native = "LuOffHeapMapImpl.getAndPinNextInQueue",
                  .arrange =
                      [](World& w) {
                        filled(w);
                        w.number = getAndPinFirstInQueue(w.env, w.caller, w.handle(), 1, JNI_TRUE);
                        w.atEnd([&w] {
                          if (w.number != 0) w.unpinValue(asValue(w.number), JNI_GET_PIN);
                        });
                      },
                  .call =
                      [](World& w) {
                        return getAndPinNextInQueue(w.env, w.caller, w.handle(), w.number, 1,
                                                    JNI_TRUE);
                      },
                  .release = releaseGot});
  addBoth(cases, {.native = "LuOffHeapMapImpl.getAndPinNextKeyWithAttributes",
                  .arrange =
                      [](World& w) {
                        filled(w);
                        w.number = getAndPinFirstInQueue(w.env, w.caller, w.handle(), 1, JNI_TRUE);
                        w.atEnd([&w] { w.unpinValue(asValue(w.number), JNI_GET_PIN); });
                      },
                  .call =
                      [](World& w) {
                        return getAndPinNextKeyWithAttributes(w.env, w.caller, w.handle(), w.number,
                                                              w.longs(6), 1);
                      },
                  .release =
                      [](World& w, jlong answer) {
                        nimbra::unpinToFree(w.env, asValue(answer)->key, JNI_GET_PIN);
                        releaseGot(w, answer);
                      }});
}

void addCharacters(std::vector<Case>& cases) {
  cases.push_back({.native = "LuOffHeapMapImpl.getChars",
                   .arrange =
                       [](World& w) {
                         w.object = w.keptBuffer(stored("abcde"));
                         w.other = w.jni.newCharArray(u"12345");
                         w.more = [&w] {
                           const std::u16string units = w.jni.charsOf(w.other);
                           return std::string(units.begin(), units.end());
                         };
                       },
                   .call = [](World& w) -> jlong {
                     natives::getChars(w.env, w.caller, w.object, 0, 0, 0,
                                       static_cast<jcharArray>(w.other), 5);
                     return 0;
                   },
                   .failure = std::nullopt});
  cases.push_back({.native = "LuOffHeapMapImpl.getFullCharBytesFromString",
                   .arrange =
                       [](World& w) {
                         w.other = w.array("0123456789");
                         w.more = [&w] {
                           const auto bytes = w.jni.bytesOf(w.other);
                           return std::string(bytes.begin(), bytes.end());
                         };
                       },
                   .call = [](World& w) -> jlong {
                     getFullCharBytesFromString(w.env, w.caller, w.text("abcde"), 5,
                                                static_cast<jbyteArray>(w.other), 0);
                     return 0;
                   },
                   .failure = std::nullopt});
}

}  // namespace

std::vector<Case> mapCases() {
  std::vector<Case> cases;
  addMapObject(cases);
  addInserts(cases);
  addUpdates(cases);
  addRemovals(cases);
  addGets(cases);
  addQueries(cases);
  addCharacters(cases);
  return cases;
}

}  // namespace nimbra::test::fault
