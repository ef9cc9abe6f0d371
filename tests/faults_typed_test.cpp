// The fault harness's cases of number keys: every type, inserted and updated with the value as an
// array and as a buffer, and the operations that search for a number.

#include "fault_harness.h"

namespace nimbra::test::fault {
namespace {

using namespace natives;

constexpr jbyte kBinary = DESERIALIZED_TYPE_BINARY;
constexpr jint kHash = 4711;
constexpr jlong kRevision = 7;

void releaseInserted(World& w, jlong answer) { w.unpinValue(asValue(answer), JNI_INSERTED_PIN); }
void releaseUpdated(World& w, jlong answer) {
  LuOffHeapValue* snapshot = asValue(answer);
  if (w.overflow()) {
    EXPECT_EQ(natives::unlockMetadata(w.env, nullptr, address(snapshot->hashNext)), JNI_TRUE);
  }
  w.unpinValue(snapshot);
}

// Another key of the type in the same bucket, and, when asked, the key itself.
template <typename Number, typename Insert>
Arrange around(Insert insert, Number key, bool present) {
  return [insert, key, present](World& w) {
    w.remakeMap(1, 1000.0F);
    for (const Number each : {static_cast<Number>(0), key}) {
      if (each == key && !present) continue;
      w.nextList(each == key ? 1 : 0);
      const jlong made = insert(w.env, w.caller, w.handle(), each, kHash, w.array("old value"), 9,
                                kBinary, 0, each == key ? 2 : 1);
      ASSERT_NE(made, 0);
      releaseInserted(w, made);
    }
    w.nextList(2);
    w.other = w.keptBuffer("new value");
  };
}

template <typename Number, typename Array, typename Buffer>
void addType(std::vector<Case>& cases, const std::string& type, Number key, Array insertArray,
             Buffer insertBuffer, Array updateArray, Buffer updateBuffer) {
  const std::string prefix = "LuOffHeapMapImpl.";
  const auto withArray = [key](Array operation) -> Call {
    return [operation, key](World& w) {
      return operation(w.env, w.caller, w.handle(), key, kHash, w.array("new value"), 9, kBinary, 0,
                       kRevision);
    };
  };
  const auto withBuffer = [key](Buffer operation) -> Call {
    return [operation, key](World& w) {
      return operation(w.env, w.caller, w.handle(), key, kHash, w.other, 0, kRevision);
    };
  };
  const Arrange absent = around(insertArray, key, false);
  const Arrange present = around(insertArray, key, true);
  addBoth(cases, {.native = prefix + "insertAndGetNewAndPinWith" + type,
                  .arrange = absent,
                  .call = withArray(insertArray),
                  .release = releaseInserted});
  addBoth(cases, {.native = prefix + "insertAndGetNewAndPinWith" + type + "BB",
                  .arrange = absent,
                  .call = withBuffer(insertBuffer),
                  .release = releaseInserted});
  // No search finds a boolean key: such an update finds nothing, whatever else happens.
  const bool found = type != "Boolean";
  const Release release = found ? Release(releaseUpdated) : Release();
  const std::optional<jlong> failure = found ? std::optional<jlong>(0) : std::nullopt;
  addBoth(cases, {.native = prefix + "updateAndGetNewAndPinWith" + type,
                  .arrange = present,
                  .call = withArray(updateArray),
                  .release = release,
                  .failure = failure});
  addBoth(cases, {.native = prefix + "updateAndGetNewAndPinWith" + type + "BB",
                  .arrange = present,
                  .call = withBuffer(updateBuffer),
                  .release = release,
                  .failure = failure});
}

}  // namespace

std::vector<Case> typedCases() {
  std::vector<Case> cases;
  addType(cases, "Byte", jbyte{7}, &insertAndGetNewAndPinWithByte, &insertAndGetNewAndPinWithByteBB,
          &updateAndGetNewAndPinWithByte, &updateAndGetNewAndPinWithByteBB);
  addType(cases, "Short", jshort{7}, &insertAndGetNewAndPinWithShort,
          &insertAndGetNewAndPinWithShortBB, &updateAndGetNewAndPinWithShort,
          &updateAndGetNewAndPinWithShortBB);
  addType(cases, "Int", jint{7}, &insertAndGetNewAndPinWithInt, &insertAndGetNewAndPinWithIntBB,
          &updateAndGetNewAndPinWithInt, &updateAndGetNewAndPinWithIntBB);
  addType(cases, "Long", jlong{7}, &insertAndGetNewAndPinWithLong, &insertAndGetNewAndPinWithLongBB,
          &updateAndGetNewAndPinWithLong, &updateAndGetNewAndPinWithLongBB);
  addType(cases, "Float", jfloat{7}, &insertAndGetNewAndPinWithFloat,
          &insertAndGetNewAndPinWithFloatBB, &updateAndGetNewAndPinWithFloat,
          &updateAndGetNewAndPinWithFloatBB);
  addType(cases, "Double", jdouble{7}, &insertAndGetNewAndPinWithDouble,
          &insertAndGetNewAndPinWithDoubleBB, &updateAndGetNewAndPinWithDouble,
          &updateAndGetNewAndPinWithDoubleBB);
  addType(cases, "Boolean", jboolean{JNI_TRUE}, &insertAndGetNewAndPinWithBoolean,
          &insertAndGetNewAndPinWithBooleanBB, &updateAndGetNewAndPinWithBoolean,
          &updateAndGetNewAndPinWithBooleanBB);

  const Arrange doubles = around(&insertAndGetNewAndPinWithDouble, jdouble{7}, true);
  for (const jboolean touch : {JNI_FALSE, JNI_TRUE}) {
    addBoth(cases, {.native = "LuOffHeapMapImpl.getLuValue_Number",
                    .variant = touch == JNI_TRUE ? "Touch" : "",
                    .arrange = doubles,
                    .call =
                        [touch](World& w) {
                          return getLuValue_Number(w.env, w.caller, w.handle(), kHash, 0, touch,
                                                   kRevision, 7.0);
                        },
                    .release =
                        [](World& w, jlong answer) {
                          w.unpinValue(asValue(answer), NATIVE_TRANSIENT_GET_PIN);
                        }});
  }
  addBoth(cases, {.native = "LuOffHeapMapImpl.containsKeyWithHashCodeNumber",
                  .arrange = doubles,
                  .call = [](World& w) -> jlong {
                    return containsKeyWithHashCodeNumber(w.env, w.caller, w.handle(), kHash, 7.0);
                  }});
  addBoth(
      cases,
      {.native = "LuOffHeapMapImpl.removeAndGetAndPinWithHashCodeNumber",
       .arrange = doubles,
       .call =
           [](World& w) {
             return removeAndGetAndPinWithHashCodeNumber(w.env, w.caller, w.handle(), kHash, 7.0);
           },
       .release = [](World& w, jlong answer) { w.unpinValue(asValue(answer), JNI_REMOVED_PIN); }});
  return cases;
}

}  // namespace nimbra::test::fault
