// The fault harness's cases of value records: what Java reads and marks in place.

#include "fault_harness.h"

namespace nimbra::test::fault {
namespace {

using namespace natives;

void oneEntry(World& w) {
  w.nextList(1);
  w.entry = w.insert("key", "the value", 0, 42);
  w.number = address(w.entry);
}

// What the words of an array say, without the addresses.
void showWords(World& w, std::size_t count, std::size_t firstPlain) {
  w.other = w.longs(count, -1);
  w.more = [&w, firstPlain] {
    std::string shown;
    const std::vector<jlong> words = w.jni.longsOf(w.other);
    for (std::size_t i = 0; i < words.size(); ++i) {
      shown +=
          i < firstPlain ? (words[i] == -1 ? "- " : "address ") : std::to_string(words[i]) + " ";
    }
    return shown;
  };
}

}  // namespace

std::vector<Case> valueCases() {
  std::vector<Case> cases;
  const auto read = [&cases](const char* native, Call call, Arrange arrange = oneEntry) {
    addBoth(cases, {.native = native,
                    .arrange = std::move(arrange),
                    .call = std::move(call),
                    .failure = std::nullopt});
  };
  read("LuOffHeapMapValueImpl.getKeyHashCode",
       [](World& w) -> jlong { return getKeyHashCode(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.isValueInMemory",
       [](World& w) -> jlong { return isValueInMemory(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.getRevisionOwner",
       [](World& w) -> jlong { return getRevisionOwner(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.getRevisionNumber",
       [](World& w) { return getRevisionNumber(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.getReferenceCount",
       [](World& w) { return getReferenceCount(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.getKeyType",
       [](World& w) -> jlong { return getKeyType(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.getValueType",
       [](World& w) -> jlong { return getValueType(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.isClientDirty",
       [](World& w) -> jlong { return isClientDirty(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.markClientDirty",
       [](World& w) -> jlong { return markClientDirty(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.unmarkClientDirty",
       [](World& w) -> jlong { return unmarkClientDirty(w.env, nullptr, w.number); });
  read("LuOffHeapMapValueImpl.getSize",
       [](World& w) { return natives::getSize(w.env, nullptr, w.number); });
  read(
      "LuOffHeapMapValueImpl.getKeyInfo",
      [](World& w) -> jlong {
        return getKeyInfo(w.env, nullptr, w.number, static_cast<jlongArray>(w.other));
      },
      [](World& w) {
        oneEntry(w);
        showWords(w, 3, 1);
      });
  read(
      "LuOffHeapMapValueImpl.getValueInfo",
      [](World& w) -> jlong {
        return getValueInfo(w.env, nullptr, w.number, 0, static_cast<jlongArray>(w.other));
      },
      [](World& w) {
        oneEntry(w);
        showWords(w, 2, 1);
      });
  read(
      "LuOffHeapMapValueImpl.staticGetValueInfo",
      [](World& w) -> jlong {
        return staticGetValueInfo(w.env, nullptr, w.number, static_cast<jlongArray>(w.other));
      },
      [](World& w) {
        oneEntry(w);
        showWords(w, 2, 1);
      });
  read("OffHeapManager.getOriginalLuValue",
       [](World& w) -> jlong { return getOriginalLuValue(w.env, w.manager, w.number) != 0; });
  // The last pin of a record that is out of the map: with overflow, Java is told.
  addBoth(cases, {.native = "OffHeapManager.unpinLuOffHeapValue_native",
                  .arrange =
                      [](World& w) {
                        oneEntry(w);
                        w.number = address(w.removePinned("key"));
                        w.more = [&w] { return std::to_string(w.calls.deleting.size()); };
                      },
                  .call = [](World& w) -> jlong {
                    return unpinLuOffHeapValue_native(w.env, w.manager, w.number, 1);
                  },
                  .failure = std::nullopt,
                  .again = false});
  return cases;
}

}  // namespace nimbra::test::fault
