// The fault harness's cases of OffHeapManager: start-up, limits, buffers and their pins.

#include "fault_harness.h"
#include "nb_logging.h"
#include "nb_pintrack.h"
#include "nb_prof.h"

namespace nimbra::test::fault {
namespace {

using namespace manager_natives;

constexpr jint kReason = 4;  // Java's, for pins of buffers

Case reads(const char* native, Call call, Arrange arrange = nullptr) {
  return {.native = native,
          .arrange = std::move(arrange),
          .call = std::move(call),
          .failure = std::nullopt};
}

void oneBuffer(World& world) { world.object = world.keptBuffer("some bytes"); }

// Profiles live as long as the process, so once is enough; with them a report is long enough for
// all that is tried of it, whichever tests ran before.
void makeProfiles() {
  static const bool made = [] {
    for (const char* name : {"faults.a", "faults.b", "faults.c"}) {
      EXPECT_NE(allocateNativeProf(10, 1, name), nullptr);
    }
    return true;
  }();
  EXPECT_TRUE(made);
}

}  // namespace

std::vector<Case> managerCases() {
  std::vector<Case> cases = {
      {.native = "OffHeapManager.initializeOffHeap",
       .call = [](World& w) -> jlong {
         return initializeOffHeap(w.env, w.manager, kAmpleMaximum, 0, 0, JNI_FALSE);
       }},
      {.native = "OffHeapManager.initializeOffHeap",
       .variant = "FirstTrace",
       .arrange =
           [](World& w) {
             w.jni.dropGlobal(offheap_logger_class.load());
             trace_initialized = false;
           },
       .call = [](World& w) -> jlong {
         return initializeOffHeap(w.env, w.manager, kAmpleMaximum, 0, 0, JNI_FALSE);
       }},
      {.native = "OffHeapManager.initializeOffHeap",
       .variant = "WithOverflow",
       .overflow = true,
       .arrange =
           [](World& w) {
             w.clearMap(w.map);
             forgetOverflow(w.env, w.jni);
           },
       .call = [](World& w) -> jlong {
         return initializeOffHeap(w.env, w.manager, kAmpleMaximum, 0, 0, JNI_TRUE);
       },
       .again = false},
      {.native = "OffHeapManager.getLibraryVersion",
       .call = [](World& w) { return taken(w, getLibraryVersion(w.env, w.manager)); }},
      {.native = "OffHeapManager.getJemallocStats",
       .call = [](World& w) { return taken(w, getJemallocStats(w.env, w.manager)); }},
      {.native = "OffHeapManager.allocatePhantom",
       .arrange = oneBuffer,
       .call = [](World& w) -> jlong {
         w.other = allocatePhantom(w.env, w.manager, address(w.jni.bufferAddress(w.object)));
         return w.other != nullptr ? 1 : 0;
       }},
      {.native = "OffHeapManager.pinJavaByteBuffer",
       .arrange = oneBuffer,
       .call = [](World& w) -> jlong {
         return pinJavaByteBuffer(w.env, w.manager, w.object, kReason);
       },
       .release =
           [](World& w, jlong) {
             nimbra::unpinToFree(w.env, headerOfBuffer(w.env, w.object), kReason);
           }},
      {.native = "OffHeapManager.freeAllToOffHeap",
       .arrange =
           [](World& w) {
             for (int i = 0; i < 3; ++i) {
               ByteBufferHeader* pinned = w.kept("bytes");
               pin(w.env, pinned, kReason);
               w.words.push_back(address(w.javaBuffer(pinned)));
               // One that was passed over.
               w.atEnd([&w, pinned] {
                 if (pinned->pins > 1) unpin(w.env, pinned, kReason);
               });
             }
           },
       .call = [](World& w) -> jlong {
         std::vector<jobject> elements;
         for (const int64_t each : w.words) {
           elements.push_back(reinterpret_cast<jobject>(static_cast<intptr_t>(each)));
         }
         return freeAllToOffHeap(w.env, w.manager, w.jni.newObjectArray(elements), kReason);
       },
       .again = false},
  };
  for (const jbyte kind : {0, 1, 2, 3, 4}) {
    for (const jbyte unchecked : {0, 1}) {
      cases.push_back(
          {.native = "OffHeapManager.allocateDirectFromOffHeap",
           .variant = "Kind" + std::to_string(kind) + (unchecked != 0 ? "Unchecked" : ""),
           .call =
               [kind, unchecked](World& w) {
                 return taken(w, allocateDirectFromOffHeap(w.env, w.manager, 100, unchecked, kind));
               },
           .release =
               [kind](World& w, jlong) {
                 if (kind == 3) {
                   manager_natives::freeDirectInternal(w.env, w.manager, w.object);
                 } else {
                   nimbra::unpinToFree(w.env, headerOfBuffer(w.env, w.object), ALLOCATION_PIN);
                 }
               }});
    }
  }
  // Java hears of a buffer without an address.
  cases.push_back({.native = "OffHeapManager.unpinToFree",
                   .arrange =
                       [](World& w) {
                         oneBuffer(w);
                         pin(w.env, headerOfBuffer(w.env, w.object), kReason);
                       },
                   .call = [](World& w) -> jlong {
                     return manager_natives::unpinToFree(w.env, w.manager, w.object, kReason);
                   }});
  cases.push_back({.native = "OffHeapManager.freeDirectInternal",
                   .arrange =
                       [](World& w) {
                         w.object =
                             w.jni.adopt(allocateDirectFromOffHeap(w.env, w.manager, 64, 0, 3));
                       },
                   .call = [](World& w) -> jlong {
                     const int64_t blocks = Books::now().blocks;
                     manager_natives::freeDirectInternal(w.env, w.manager, w.object);
                     return blocks - Books::now().blocks;
                   }});
  cases.push_back({.native = "OffHeapManager.copyByteBufferToByteArray",
                   .arrange =
                       [](World& w) {
                         oneBuffer(w);
                         w.other = w.array("0123456789");
                         w.more = [&w] {
                           const auto bytes = w.jni.bytesOf(w.other);
                           return std::string(bytes.begin(), bytes.end());
                         };
                       },
                   .call = [](World& w) -> jlong {
                     copyByteBufferToByteArray(w.env, w.manager, w.object,
                                               static_cast<jbyteArray>(w.other), 10);
                     return 0;
                   },
                   .failure = std::nullopt});
  cases.push_back({.native = "OffHeapManager.getChars",
                   .arrange =
                       [](World& w) {
                         oneBuffer(w);
                         w.other = w.jni.newCharArray(u"abcde");
                         w.more = [&w] {
                           const auto units = w.jni.charsOf(w.other);
                           return std::to_string(std::hash<std::u16string>()(units));
                         };
                       },
                   .call = [](World& w) -> jlong {
                     manager_natives::getChars(w.env, w.manager, w.object, 0, 0, 0,
                                               static_cast<jcharArray>(w.other), 5);
                     return 0;
                   },
                   .failure = std::nullopt});
  for (const bool counting : {false, true}) {
    cases.push_back({.native = "OffHeapManager.setInternalTracking",
                     .variant = counting ? "On" : "Off",
                     .call = [counting](World& w) -> jlong {
                       setInternalTracking(w.env, w.manager, counting ? JNI_TRUE : JNI_FALSE);
                       return 0;
                     },
                     .failure = std::nullopt});
  }
  cases.push_back({.native = "OffHeapManager.setLogLevel",
                   .arrange =
                       [](World& w) {
                         w.jni.setLevelWord(kErrorLevel);
                         w.more = [] { return std::to_string(logInfo.error); };
                       },
                   .call = [](World& w) -> jlong {
                     setLogLevel(w.env, w.manager);
                     return 0;
                   },
                   .failure = std::nullopt});
  cases.push_back({.native = "OffHeapManager.pinTrack",
                   .arrange =
                       [](World& w) {
                         w.setLevels(kInfoLevel | 0x1800);
                         w.kept("tracked");
                         w.atEnd([&w] {
                           w.setLevels(0);
                           reportPins(w.env);  // discards what was recorded
                         });
                       },
                   .call = [](World& w) -> jlong {
                     Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinTrack(w.env, w.manager);
                     return 0;
                   },
                   .failure = std::nullopt,
                   .isReport = true});
  cases.push_back({.native = "OffHeapManager.printProfileStats",
                   .arrange =
                       [](World& w) {
                         makeProfiles();
                         w.setLevels(kInfoLevel);
                       },
                   .call = [](World& w) -> jlong {
                     Java_com_velt_rz_corvane_io_offheap_OffHeapManager_printProfileStats(
                         w.env, w.manager);
                     return 0;
                   },
                   .failure = std::nullopt,
                   .isReport = true});

  // Nothing of these can fail: they read or write one word.
  const std::vector<Case> plain = {
      reads("OffHeapManager.finalizeOffHeap",
            [](World& w) -> jlong { return finalizeOffHeap(w.env, w.manager); }),
      reads("OffHeapManager.getSystemTotalMemory",
            [](World& w) { return getSystemTotalMemory(w.env, w.manager); }),
      reads("OffHeapManager.getCurrentMaxOffHeapSize",
            [](World& w) { return getCurrentMaxOffHeapSize(w.env, w.manager); }),
      reads("OffHeapManager.setCurrentMaxOffHeapSize",
            [](World& w) { return setCurrentMaxOffHeapSize(w.env, w.manager, kAmpleMaximum); }),
      reads("OffHeapManager.getAllocatingCountInOffHeap",
            [](World& w) { return getAllocatingCountInOffHeap(w.env, w.manager); }),
      reads("OffHeapManager.getAllocatingSizeInOffHeap",
            [](World& w) { return getAllocatingSizeInOffHeap(w.env, w.manager); }),
      reads("OffHeapManager.getAllocatingInternalMetadataSize",
            [](World& w) { return getAllocatingInternalMetadataSize(w.env, w.manager); }),
      reads("OffHeapManager.getSize_ByteBufferHeader",
            [](World& w) -> jlong { return getSize_ByteBufferHeader(w.env, w.manager); }),
      reads("OffHeapManager.getSize_DefaultEntry",
            [](World& w) -> jlong {
              return Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1DefaultEntry(
                  w.env, nullptr);
            }),
      reads("OffHeapManager.getSize_LuValue",
            [](World& w) -> jlong { return natives::getSize_LuValue(w.env, w.manager); }),
      reads("OffHeapManager.getSize_PerEntryMetadata",
            [](World& w) -> jlong { return natives::getSize_PerEntryMetadata(w.env, w.manager); }),
      reads(
          "OffHeapManager.getReferenceCountImpl(long)",
          [](World& w) { return getReferenceCountOfAddress(w.env, w.manager, w.number); },
          [](World& w) { w.number = address(w.kept("bytes")); }),
      reads(
          "OffHeapManager.getReferenceCountImpl(ByteBuffer)",
          [](World& w) { return getReferenceCountOfBuffer(w.env, w.manager, w.object); },
          oneBuffer),
      reads(
          "OffHeapManager.getOffHeapAddressImpl",
          [](World& w) -> jlong {
            return getOffHeapAddressImpl(w.env, w.manager, w.object) != 0 ? 1 : 0;
          },
          oneBuffer),
      reads(
          "OffHeapManager.getOffHeapByteBufferDeserializedType",
          [](World& w) -> jlong { return getDeserializedType(w.env, w.manager, w.object); },
          oneBuffer),
      reads(
          "OffHeapManager.setOffHeapByteBufferDeserializedType",
          [](World& w) -> jlong { return setDeserializedType(w.env, w.manager, w.object, 0); },
          oneBuffer),
      reads(
          "OffHeapManager.pin_native",
          [](World& w) -> jlong {
            const jlong pins = pin_native(w.env, w.manager, w.number, kReason);
            return pins + unpin_native(w.env, w.manager, w.number, kReason);
          },
          [](World& w) { w.number = address(w.kept("bytes")); }),
      reads(
          "OffHeapManager.unpin_native",
          [](World& w) -> jlong { return unpin_native(w.env, w.manager, w.number, kReason); },
          [](World& w) { w.number = address(w.buffer("bytes")); }),
  };
  cases.insert(cases.end(), plain.begin(), plain.end());
  return cases;
}

}  // namespace nimbra::test::fault
