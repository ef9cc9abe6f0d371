// A native that is exported as a C++ symbol only. It is declared here without its generated
// header, which would give it C linkage: that this file links is part of the test.

#include <gtest/gtest.h>
#include <jni.h>

JNIEXPORT jint JNICALL Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1Pinnable(JNIEnv*,
                                                                                            jclass);

namespace nimbra::test {
namespace {

TEST(UnboundNatives, PinnableSizeIsReachableAsACppSymbol) {
  EXPECT_EQ(Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1Pinnable(nullptr, nullptr),
            8);
}

}  // namespace
}  // namespace nimbra::test
