// The buffer natives of OffHeapManager: what Java gets, what it may do with it, what it leaves.

#include <gmock/gmock.h>

#include <limits>

#include "manager_natives.h"
#include "nb.h"
#include "nb_alloc.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

constexpr const char* kAllocate =
    "Java_com_velt_rz_corvane_io_offheap_OffHeapManager_allocateDirectFromOffHeap";

class BufferNatives : public LibraryTest {
 protected:
  jobject allocate(jint size, jbyte kind = 0, jbyte unchecked = 0) {
    return jni.adopt(
        manager_natives::allocateDirectFromOffHeap(env, manager, size, unchecked, kind));
  }
  ByteBufferHeader* headerOf(jobject buffer) { return headerOfData(jni.bufferAddress(buffer)); }
  void release(jobject buffer) {
    EXPECT_EQ(manager_natives::unpinToFree(env, manager, buffer, 4), JNI_TRUE);
  }
  // The records of the functions under test, without those of the floors below.
  std::vector<std::string> linesOf(std::initializer_list<std::string> functions) {
    std::vector<std::string> lines;
    for (const std::string& line : jni.lines()) {
      for (const std::string& function : functions) {
        if (line.find("|JNI:" + function + ":") != std::string::npos) lines.push_back(line);
      }
    }
    return lines;
  }
};

// ---- Allocation ------------------------------------------------------------------------

TEST_F(BufferNatives, AllocatedBufferIsPinnedOnceAndSeesItsData) {
  jobject buffer = allocate(100);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(jni.refType(buffer), JNILocalRefType);
  EXPECT_EQ(jni.bufferCapacity(buffer), 100);
  ByteBufferHeader* header = headerOf(buffer);
  EXPECT_EQ(header->pins, 1);
  EXPECT_EQ(header->dataSize, 100U);
  EXPECT_EQ(header->deserializedType, 0);
  release(buffer);
}

TEST_F(BufferNatives, KindsChooseTheLabel) {
  struct Row {
    jbyte kind;
    const char* label;
  };
  const Row rows[] = {
      {0, "type=DirectByteBuffer"},
      {1, "type=Key DirectByteBuffer"},
      {2, "type=Value DirectByteBuffer"},
      {3, "type=QueryRevision Iterator DirectByteBuffer"},
      {4, "type=Value (Paged-in from NOF Eviction) DirectByteBuffer"},
      {7, "type=(null)"},
      {-1, "type=(null)"},
  };
  for (const Row& row : rows) {
    setLevels(kDebugLevel);
    jobject buffer = allocate(100, row.kind);
    ASSERT_NE(buffer, nullptr);
    const std::vector<std::string> lines = linesOf({"malloc_nb"});
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[1], EndsWith(" " + std::string(row.label))) << int{row.kind};
    setLevels(0);
    if (row.kind == 3) {
      EXPECT_EQ(headerOf(buffer)->pins, 0);
      manager_natives::freeDirectInternal(env, manager, buffer);
    } else {
      EXPECT_EQ(headerOf(buffer)->pins, 1);
      release(buffer);
    }
  }
}

TEST_F(BufferNatives, PagedInKindIsAskedForWithItsHeader) {
  setLevels(kDebugLevel);
  jobject buffer = allocate(100, 4);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(jni.bufferCapacity(buffer), 76);
  EXPECT_EQ(headerOf(buffer)->dataSize, 76U);
  EXPECT_THAT(linesOf({"malloc_nb"}).at(1), ::testing::HasSubstr(" requested=100 "));
  EXPECT_EQ(jni.lines().front(),
            "debug|JNI:" + std::string(kAllocate) + ":start sub-allocation. size=100");
  EXPECT_EQ(jni.lines().back(),
            "debug|JNI:" + std::string(kAllocate) +
                ":a new ByteBuffer was allocated. p=" + printed(headerOf(buffer)) + ", size=76");
  setLevels(0);
  release(buffer);
}

TEST_F(BufferNatives, IteratorKindIsBookkeepingAndUnpinned) {
  const jlong before = manager_natives::getAllocatingInternalMetadataSize(env, manager);
  jobject buffer = allocate(1'000, 3);
  ASSERT_NE(buffer, nullptr);
  ByteBufferHeader* header = headerOf(buffer);
  const auto usable = static_cast<jlong>(sizeofByteBufferHeader(header));
  EXPECT_EQ(header->pins, 0);
  EXPECT_EQ(manager_natives::getAllocatingInternalMetadataSize(env, manager), before + usable);
  manager_natives::freeDirectInternal(env, manager, buffer);
  EXPECT_EQ(manager_natives::getAllocatingInternalMetadataSize(env, manager), before);
}

TEST_F(BufferNatives, EmptyBufferIsABuffer) {
  jobject buffer = allocate(0);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(jni.bufferCapacity(buffer), 0);
  release(buffer);
}

TEST_F(BufferNatives, SizeIsSignExtended) {
  static uint64_t requested;
  faults::refuseAllocation = [](uint64_t size, const char*) {
    requested = size;
    return true;
  };
  EXPECT_EQ(allocate(-100), nullptr);
  faults::refuseAllocation = nullptr;
  EXPECT_EQ(requested, std::numeric_limits<uint64_t>::max() - 75);
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(BufferNatives, RefusedAllocationIsNullWithTheAllocatorsException) {
  setLevels(kDebugLevel);
  maxOffHeapSize = 0;
  EXPECT_EQ(allocate(100), nullptr);
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[malloc_nb] Allocation by the Nimbra library failed. All available memory "
                    "is used."}));
}

TEST_F(BufferNatives, AllocationThatFindsNothingLeftIsNullWithoutAnException) {
  setLevels(kDebugLevel);
  const RefuseAllocation nothingLeft(1);
  EXPECT_EQ(allocate(100, 4), nullptr);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_EQ(jni.lines().back(),
            "debug|JNI:" + std::string(kAllocate) + ":memory allocation failed. size=76");
}

TEST_F(BufferNatives, UncheckedFlagSkipsTheLimits) {
  maxOffHeapSize = 0;
  jobject buffer = allocate(100, 0, 1);
  ASSERT_NE(buffer, nullptr);
  release(buffer);
}

TEST_F(BufferNatives, BufferThatJavaCannotMakeIsFreed) {
  setLevels(kDebugLevel);
  for (const jbyte kind : {jbyte{0}, jbyte{3}}) {
    const int64_t blocks = allocatingOffHeapBlocks;
    jni.clearRecords();
    jni.failCall("NewDirectByteBuffer");
    EXPECT_EQ(allocate(100, kind), nullptr);
    EXPECT_EQ(allocatingOffHeapBlocks, blocks);
    EXPECT_EQ(jni.pending(), std::nullopt);
    EXPECT_THAT(
        withoutAddresses(linesOf({kAllocate, "newByteBuffer"})),
        ElementsAre("debug|JNI:" + std::string(kAllocate) + ":start sub-allocation. size=100",
                    "debug|JNI:newByteBuffer:requesting new Java_DBB, backingOffheapBB=@ size=100",
                    "debug|JNI:newByteBuffer:ByteBuffer generation was failed. p=@, size=100, "
                    "data=@",
                    "debug|JNI:" + std::string(kAllocate) +
                        ":An attempt to allocate a Java object backed by an Nimbra ByteBuffer "
                        "has failed."));
  }
}

TEST_F(BufferNatives, ExceptionOfTheDirectBufferStays) {
  const int64_t blocks = allocatingOffHeapBlocks;
  jni.failCall("NewDirectByteBuffer", 1, Thrown{kOutOfMemory, "heap"});
  EXPECT_EQ(allocate(100), nullptr);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "heap"}));
}

TEST_F(BufferNatives, AllocationIsTraced) {
  setLevels(kDebugLevel);
  jobject buffer = allocate(100);
  ByteBufferHeader* header = headerOf(buffer);
  EXPECT_THAT(
      linesOf({kAllocate, "newByteBuffer"}),
      ElementsAre("debug|JNI:" + std::string(kAllocate) + ":start sub-allocation. size=100",
                  "debug|JNI:newByteBuffer:requesting new Java_DBB, backingOffheapBB=" +
                      printed(header) + " size=100",
                  "debug|JNI:newByteBuffer:successfully generated JavaDBB=" + printed(buffer) +
                      " refType=1 backingOffheapBB=" + printed(header) +
                      " size=100 data=" + printed(bufferData(header)),
                  "debug|JNI:" + std::string(kAllocate) +
                      ":a new ByteBuffer was allocated. p=" + printed(header) + ", size=100"));
  setLevels(0);
  release(buffer);
}

TEST_F(BufferNatives, AllocationPinsForTheAllocationAndNotForJava) {
  setLevels(kEventLevel);
  jobject buffer = allocate(100);
  EXPECT_EQ(linesOf({"pin"}).at(0), "event|JNI:pin:enter pin: header=" + printed(headerOf(buffer)) +
                                        ", reason=ALLOCATION_PIN");
  setLevels(0);
  release(buffer);
}

// ---- Pins ------------------------------------------------------------------------------

TEST_F(BufferNatives, PinJavaByteBufferPinsForJava) {
  jobject buffer = allocate(100);
  setLevels(kEventLevel);
  EXPECT_EQ(manager_natives::pinJavaByteBuffer(env, manager, buffer, 4096), JNI_TRUE);
  EXPECT_EQ(linesOf({"pin"}).at(0), "event|JNI:pin:enter pin: header=" + printed(headerOf(buffer)) +
                                        ", reason=JAVA_LUBYTEBUFFERMANAGER_RELEASE");
  setLevels(0);
  EXPECT_EQ(headerOf(buffer)->pins, 2);
  release(buffer);
  release(buffer);
}

TEST_F(BufferNatives, PinJavaByteBufferIsTraced) {
  jobject buffer = allocate(100);
  setLevels(kDebugLevel);
  EXPECT_EQ(manager_natives::pinJavaByteBuffer(env, manager, buffer, 1), JNI_TRUE);
  EXPECT_EQ(jni.lines().front(), "debug|JNI:pin:Start pinning on bytebuffer=" + printed(buffer));
  EXPECT_EQ(jni.lines().back(), "debug|JNI:pin:Pinned bytebuffer=" + printed(buffer));
  setLevels(0);
  release(buffer);
  release(buffer);
}

TEST_F(BufferNatives, PinJavaByteBufferTestsTheHeaderForNullNotTheData) {
  setLevels(kDebugLevel);
  jobject buffer = jni.newDirectBuffer(reinterpret_cast<void*>(uintptr_t{24}), 0);
  EXPECT_EQ(manager_natives::pinJavaByteBuffer(env, manager, buffer, 1), JNI_FALSE);
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:pin:Start pinning on bytebuffer=" + printed(buffer)));
}

TEST_F(BufferNatives, AddressNativesPinAndFree) {
  jobject buffer = allocate(100);
  const auto address = reinterpret_cast<jlong>(headerOf(buffer));
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(manager_natives::pin_native(env, manager, address, 1), 2);
  EXPECT_EQ(manager_natives::unpin_native(env, manager, address, 1), 1);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  setLevels(kEventLevel);
  EXPECT_EQ(manager_natives::unpin_native(env, manager, address, 4), 0);
  EXPECT_EQ(linesOf({"unpinToFree"}).at(0),
            "event|JNI:unpinToFree:p=" + printed(reinterpret_cast<void*>(address)) +
                " pins=0 reason=JAVA_FREE_PIN");
  EXPECT_EQ(allocatingOffHeapBlocks, blocks - 1);
}

TEST_F(BufferNatives, PinNativeTakesAnyPinnedRecord) {
  Pinnable record{7};
  EXPECT_EQ(manager_natives::pin_native(env, manager, reinterpret_cast<jlong>(&record), 1), 8);
  EXPECT_EQ(
      manager_natives::getReferenceCountOfAddress(env, manager, reinterpret_cast<jlong>(&record)),
      8);
}

TEST_F(BufferNatives, UnpinToFreeFreesAFreshBuffer) {
  const int64_t blocks = allocatingOffHeapBlocks;
  jobject buffer = allocate(100);
  EXPECT_EQ(manager_natives::unpinToFree(env, manager, buffer, 4), JNI_TRUE);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
}

TEST_F(BufferNatives, UnpinToFreeKeepsAPinnedBuffer) {
  jobject buffer = allocate(100);
  manager_natives::pinJavaByteBuffer(env, manager, buffer, 1);
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(manager_natives::unpinToFree(env, manager, buffer, 1), JNI_TRUE);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_EQ(headerOf(buffer)->pins, 1);
  release(buffer);
}

TEST_F(BufferNatives, UnpinToFreeIsTraced) {
  jobject buffer = allocate(100);
  const std::string header = printed(headerOf(buffer));
  setLevels(kDebugLevel | kEventLevel);
  EXPECT_EQ(manager_natives::unpinToFree(env, manager, buffer, 4), JNI_TRUE);
  EXPECT_THAT(
      linesOf(
          {"Java_unpinToFree", "Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree"}),
      ElementsAre(
          "debug|JNI:Java_unpinToFree:JavaBB=" + printed(buffer) + " RefType=1",
          "event|JNI:Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree:p=" + header +
              " pins=0 reason=JAVA_FREE_PIN",
          "debug|JNI:Java_unpinToFree:completed. JavaBB=" + printed(buffer) + " BB=" + header));
  EXPECT_THAT(linesOf({"unpinToFree"}), IsEmpty()) << "the native frees by itself";
}

TEST_F(BufferNatives, UnpinToFreeOfABufferWithoutAddressIsFalse) {
  setLevels(kDebugLevel);
  jobject buffer = jni.newHeapBuffer();
  EXPECT_EQ(manager_natives::unpinToFree(env, manager, buffer, 4), JNI_FALSE);
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:Java_unpinToFree:JavaBB=" + printed(buffer) + " RefType=1",
                          "debug|JNI:Java_unpinToFree:Failed to obtain valid address for JavaDBB=" +
                              printed(buffer)));
}

TEST_F(BufferNatives, FreeAllUnpinsEveryElementInOrder) {
  std::vector<jobject> buffers;
  std::vector<std::string> expected;
  for (int number = 0; number < 3; ++number) buffers.push_back(allocate(100 + number));
  for (jobject buffer : buffers) {
    expected.push_back(
        "event|JNI:Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree:p=" +
        printed(headerOf(buffer)) + " pins=0 reason=JAVA_FREE_PIN");
  }
  buffers.insert(buffers.begin() + 1, jni.newHeapBuffer());
  setLevels(kEventLevel);
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(manager_natives::freeAllToOffHeap(env, manager, jni.newObjectArray(buffers), 4),
            JNI_TRUE)
      << "an element without an address does not stop it";
  EXPECT_EQ(allocatingOffHeapBlocks, blocks - 3);
  EXPECT_EQ(linesOf({"Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree"}), expected);
}

TEST_F(BufferNatives, FreeAllAnnouncesItself) {
  setLevels(kDebugLevel);
  EXPECT_EQ(manager_natives::freeAllToOffHeap(env, manager, jni.newObjectArray({}), 4), JNI_TRUE);
  ASSERT_EQ(jni.records().size(), 1U);
  EXPECT_THAT(jni.lines()[0], ::testing::StartsWith("debug|JNI:"));
  EXPECT_THAT(jni.lines()[0], EndsWith(":start freeing a sub-allocated byte buffer."));
}

TEST_F(BufferNatives, FreeAllHoldsFewLocalReferences) {
  std::vector<jobject> buffers;
  for (int number = 0; number < 200; ++number) buffers.push_back(allocate(16));
  EXPECT_EQ(manager_natives::freeAllToOffHeap(env, manager, jni.newObjectArray(buffers), 4),
            JNI_TRUE);
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(BufferNatives, FreeDirectInternalIgnoresTheCount) {
  jobject buffer = allocate(100, 3);
  pin(env, headerOf(buffer), TRANSPORT_PIN);
  const int64_t blocks = allocatingOffHeapBlocks;
  manager_natives::freeDirectInternal(env, manager, buffer);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks - 1);
}

TEST_F(BufferNatives, FreeDirectInternalIsTraced) {
  jobject buffer = allocate(100, 3);
  const std::string header = printed(headerOf(buffer));
  // The number behind RefType is the data address, cut to the width of its conversion.
  const std::string data =
      std::to_string(static_cast<int32_t>(reinterpret_cast<uintptr_t>(jni.bufferAddress(buffer))));
  setLevels(kDebugLevel);
  manager_natives::freeDirectInternal(env, manager, buffer);
  EXPECT_THAT(
      linesOf({"Java_freeDirectInternal"}),
      ElementsAre("debug|JNI:Java_freeDirectInternal:JavaBB=" + printed(buffer) + " RefType=1",
                  "debug|JNI:Java_freeDirectInternal:completed. JavaBB=" + printed(buffer) +
                      " RefType=" + data + " BB=" + header));
}

TEST_F(BufferNatives, FreeDirectInternalOfABufferWithoutAddressDoesNothing) {
  setLevels(kDebugLevel);
  jobject buffer = jni.newHeapBuffer();
  manager_natives::freeDirectInternal(env, manager, buffer);
  EXPECT_THAT(
      jni.lines(),
      ElementsAre("debug|JNI:Java_freeDirectInternal:JavaBB=" + printed(buffer) + " RefType=1",
                  "debug|JNI:Java_freeDirectInternal:Failed to obtain valid address for JavaDBB=" +
                      printed(buffer)));
}

// ---- Header fields ---------------------------------------------------------------------

TEST_F(BufferNatives, TypeTagIsOneByte) {
  jobject buffer = allocate(100);
  EXPECT_EQ(manager_natives::getDeserializedType(env, manager, buffer), 0);
  EXPECT_EQ(manager_natives::setDeserializedType(env, manager, buffer, 100), 0);
  EXPECT_EQ(manager_natives::getDeserializedType(env, manager, buffer), 100);
  EXPECT_EQ(manager_natives::setDeserializedType(env, manager, buffer, 0x1ff), 100);
  EXPECT_EQ(manager_natives::getDeserializedType(env, manager, buffer), 255);
  EXPECT_EQ(manager_natives::setDeserializedType(env, manager, buffer, 0), 255);
  EXPECT_EQ(headerOf(buffer)->dataSize, 100U) << "the neighbours keep their values";
  release(buffer);
}

TEST_F(BufferNatives, TypeTagReadIsTraced) {
  jobject buffer = allocate(100);
  setLevels(kDebugLevel | kEntryLevel);
  manager_natives::getDeserializedType(env, manager, buffer);
  ASSERT_EQ(jni.records().size(), 2U);
  EXPECT_EQ(jni.records()[0].level, "entry");
  EXPECT_THAT(jni.records()[0].text, EndsWith(":enter: dbb=" + printed(buffer)));
  EXPECT_EQ(jni.records()[1].level, "debug");
  EXPECT_THAT(jni.records()[1].text,
              EndsWith(":checking bb type.  p=" + printed(jni.bufferAddress(buffer)) +
                       " v=" + printed(headerOf(buffer))));
  jni.clearRecords();
  manager_natives::setDeserializedType(env, manager, buffer, 3);
  EXPECT_THAT(jni.records(), IsEmpty());
  setLevels(0);
  release(buffer);
}

TEST_F(BufferNatives, ReferenceCountIsRead) {
  jobject buffer = allocate(100);
  headerOf(buffer)->pins = 0x123456789;
  EXPECT_EQ(manager_natives::getReferenceCountOfBuffer(env, manager, buffer), 0x123456789);
  EXPECT_EQ(manager_natives::getReferenceCountOfAddress(env, manager,
                                                        reinterpret_cast<jlong>(headerOf(buffer))),
            0x123456789);
  headerOf(buffer)->pins = 1;
  release(buffer);
}

TEST_F(BufferNatives, AddressIsThatOfTheData) {
  jobject buffer = allocate(100);
  setLevels(kDebugLevel);
  EXPECT_EQ(manager_natives::getOffHeapAddressImpl(env, manager, buffer),
            reinterpret_cast<jlong>(jni.bufferAddress(buffer)));
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:getOffHeapAddressImpl:hex representation=" +
                                       printed(jni.bufferAddress(buffer)) +
                                       " bbh=" + printed(headerOf(buffer))));
  setLevels(0);
  release(buffer);
}

TEST_F(BufferNatives, ReportedHeaderSize) {
  EXPECT_EQ(manager_natives::getSize_ByteBufferHeader(env, manager), 32);
}

// ---- Copies ----------------------------------------------------------------------------

TEST_F(BufferNatives, BytesAreCopiedFromTheStart) {
  jobject buffer = allocate(8);
  auto* data = static_cast<uint8_t*>(jni.bufferAddress(buffer));
  for (uint8_t at = 0; at < 8; ++at) data[at] = static_cast<uint8_t>(0xf0 + at);
  for (const bool copies : {false, true}) {
    jni.handOutCopies(copies);
    jbyteArray target = jni.newByteArray({1, 2, 3, 4, 5, 6});
    manager_natives::copyByteBufferToByteArray(env, manager, buffer, target, 4);
    EXPECT_EQ(jni.bytesOf(target), (std::vector<uint8_t>{0xf0, 0xf1, 0xf2, 0xf3, 5, 6}));
    EXPECT_EQ(jni.liveCriticals(), 0U);
  }
  EXPECT_EQ(jni.callCount("GetPrimitiveArrayCritical"), 2);
  EXPECT_THAT(jni.records(), IsEmpty());
  release(buffer);
}

TEST_F(BufferNatives, CopyOfNothingChangesNothing) {
  jobject buffer = allocate(8);
  jbyteArray target = jni.newByteArray({1, 2});
  manager_natives::copyByteBufferToByteArray(env, manager, buffer, target, 0);
  EXPECT_EQ(jni.bytesOf(target), (std::vector<uint8_t>{1, 2}));
  release(buffer);
}

TEST_F(BufferNatives, CopyToAnArrayThatCannotBeReachedWritesNothing) {
  jobject buffer = allocate(8);
  jni.failCall("GetPrimitiveArrayCritical", 1, Thrown{kOutOfMemory, "heap"});
  jbyteArray target = jni.newByteArray({1, 2});
  manager_natives::copyByteBufferToByteArray(env, manager, buffer, target, 2);
  EXPECT_EQ(jni.bytesOf(target), (std::vector<uint8_t>{1, 2}));
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "heap"}));
  jni.failCall("GetPrimitiveArrayCritical");
  jcharArray chars = jni.newCharArray(u"ab");
  manager_natives::getChars(env, manager, buffer, 0, 0, 0, chars, 2);
  EXPECT_EQ(jni.charsOf(chars), u"ab");
  release(buffer);
}

TEST_F(BufferNatives, CharsAreDecodedFromTheStartWhateverTheUnusedNumbersSay) {
  jobject buffer = allocate(8);
  const uint8_t bytes[] = {0x00, 0x61, 0x20, 0xac, 0xff, 0xfe, 0x80, 0x00};
  std::copy_n(bytes, 8, static_cast<uint8_t*>(jni.bufferAddress(buffer)));
  for (const bool copies : {false, true}) {
    jni.handOutCopies(copies);
    jcharArray target = jni.newCharArray(u"vwxyz");
    manager_natives::getChars(env, manager, buffer, 3, -1, 99, target, 4);
    EXPECT_EQ(jni.charsOf(target), (std::u16string{0x61, 0x20ac, 0xfffe, 0x8000, u'z'}));
  }
  EXPECT_EQ(jni.callCount("GetPrimitiveArrayCritical"), 2);
  release(buffer);
}

// ---- Phantoms --------------------------------------------------------------------------

TEST_F(BufferNatives, PhantomIsAGlobalWindowOverAnAddress) {
  int64_t word = 0;
  jobject phantom = manager_natives::allocatePhantom(env, manager, reinterpret_cast<jlong>(&word));
  ASSERT_NE(phantom, nullptr);
  EXPECT_EQ(jni.refType(phantom), JNIGlobalRefType);
  EXPECT_EQ(jni.bufferAddress(phantom), &word);
  EXPECT_EQ(jni.bufferCapacity(phantom), 0x7fffffff);
  EXPECT_EQ(jni.liveLocals(), 0U);
  jni.dropGlobal(phantom);
}

// A length below zero once asked for fewer bytes than the header that was then written.
TEST_F(BufferNatives, LengthThatWrapsAroundIsRefused) {
  for (const jint size : {-1, -8, -24}) {
    EXPECT_EQ(allocate(size), nullptr) << size;
    EXPECT_EQ(allocate(size, 0, 1), nullptr) << size;
  }
  EXPECT_EQ(allocate(10, 4), nullptr);  // the header of a stored image is longer than that
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(BufferNatives, PhantomThatCannotBeMadeIsNull) {
  jni.failCall("NewDirectByteBuffer");
  EXPECT_EQ(manager_natives::allocatePhantom(env, manager, 4096), nullptr);
  EXPECT_EQ(jni.pending(), std::nullopt);
  jni.failCall("NewDirectByteBuffer", 1, Thrown{kOutOfMemory, "heap"});
  EXPECT_EQ(manager_natives::allocatePhantom(env, manager, 4096), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "heap"}));
  jni.failCall("NewGlobalRef");
  EXPECT_EQ(manager_natives::allocatePhantom(env, manager, 4096), nullptr);
  EXPECT_EQ(jni.liveLocals(), 0U);
}

}  // namespace
}  // namespace nimbra::test
