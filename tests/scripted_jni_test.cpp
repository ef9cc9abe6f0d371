// The scripted JNI environment must be strict: each misuse that it promises to report is
// committed here once, and the report expected.

#include "scripted_jni.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include <optional>
#include <thread>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;

class ScriptedJniTest : public ::testing::Test {
 protected:
  static ScriptedJni& shared() {
    static ScriptedJni* jni = new ScriptedJni;
    return *jni;
  }
  void SetUp() override {
    jni_ = &shared();
    env_ = jni_->env();
  }
  static ScriptedJni* jni_;  // static: EXPECT_NONFATAL_FAILURE runs its statement elsewhere
  static JNIEnv* env_;
};

ScriptedJni* ScriptedJniTest::jni_ = nullptr;
JNIEnv* ScriptedJniTest::env_ = nullptr;

TEST_F(ScriptedJniTest, UnscriptedSlotIsNamed) {
  EXPECT_NONFATAL_FAILURE(env_->MonitorEnter(nullptr), "unexpected JNI call: MonitorEnter");
  EXPECT_NONFATAL_FAILURE(env_->GetModule(nullptr), "unexpected JNI call: GetModule");
}

TEST_F(ScriptedJniTest, CallWithAnExceptionPendingIsReported) {
  jni_->throwNew("java/lang/RuntimeException", "first");
  EXPECT_NONFATAL_FAILURE(env_->FindClass("no/such/Class"),
                          "FindClass: called while an exception is pending");
  EXPECT_EQ(env_->ExceptionCheck(), JNI_TRUE);
  env_->ExceptionClear();
  EXPECT_EQ(env_->ExceptionCheck(), JNI_FALSE);
}

TEST_F(ScriptedJniTest, DescribingClearsTheException) {
  jni_->throwNew("java/lang/RuntimeException", "first");
  env_->ExceptionDescribe();
  EXPECT_EQ(jni_->pending(), std::nullopt);
}

TEST_F(ScriptedJniTest, UncheckedJavaCallIsReported) {
  auto* logger = jni_->adopt(env_->FindClass(kLoggerClass));
  jmethodID level = env_->GetStaticMethodID(logger, "getLogLevel", "()I");
  jni_->setLevelWord(0x123);
  EXPECT_EQ(env_->CallStaticIntMethod(logger, level), 0x123);
  EXPECT_NONFATAL_FAILURE(jni_->adopt(env_->FindClass(kLoggerClass)),
                          "FindClass: called without a look at the exception of "
                          "CallStaticIntMethod");
  env_->CallStaticIntMethod(logger, level);
  EXPECT_EQ(env_->ExceptionCheck(), JNI_FALSE);
  jni_->adopt(env_->FindClass(kLoggerClass));
}

TEST_F(ScriptedJniTest, CallInsideACriticalSectionIsReported) {
  jbyteArray array = jni_->newByteArray({1, 2, 3});
  void* address = env_->GetPrimitiveArrayCritical(array, nullptr);
  EXPECT_NONFATAL_FAILURE(env_->GetArrayLength(array), "called inside a critical section");
  jstring text = jni_->newString(u"nested");
  const jchar* units = env_->GetStringCritical(text, nullptr);
  env_->ReleaseStringCritical(text, units);
  env_->ReleasePrimitiveArrayCritical(array, address, 0);
  EXPECT_EQ(env_->GetArrayLength(array), 3);
}

TEST_F(ScriptedJniTest, CommittedCopyIsWrittenBack) {
  jni_->handOutCopies(true);
  jni_->clearReleases();
  jbyteArray array = jni_->newByteArray({1, 2, 3});
  jboolean copied = JNI_FALSE;
  auto* bytes = static_cast<jbyte*>(env_->GetPrimitiveArrayCritical(array, &copied));
  EXPECT_EQ(copied, JNI_TRUE);
  bytes[1] = 9;
  EXPECT_THAT(jni_->bytesOf(array), ElementsAre(1, 2, 3));
  env_->ReleasePrimitiveArrayCritical(array, bytes, copied);
  EXPECT_THAT(jni_->bytesOf(array), ElementsAre(1, 9, 3));
  ASSERT_EQ(jni_->releases().size(), 1U);
  EXPECT_EQ(jni_->releases()[0].mode, JNI_COMMIT);
  bytes = env_->GetByteArrayElements(array, nullptr);
  bytes[0] = 8;
  env_->ReleaseByteArrayElements(array, bytes, JNI_ABORT);
  EXPECT_THAT(jni_->bytesOf(array), ElementsAre(1, 9, 3));
  jni_->handOutCopies(false);
}

TEST_F(ScriptedJniTest, LeaksAreReported) {
  EXPECT_NONFATAL_FAILURE(
      {
        ScriptedJni leaking;
        leaking.env()->NewByteArray(1);
      },
      "leaked local reference");
  EXPECT_NONFATAL_FAILURE(
      {
        ScriptedJni leaking;
        leaking.env()->GetByteArrayElements(leaking.newByteArray({1}), nullptr);
      },
      "array elements were not released");
  EXPECT_NONFATAL_FAILURE(
      {
        ScriptedJni leaking;
        leaking.env()->GetPrimitiveArrayCritical(leaking.newByteArray({1}), nullptr);
      },
      "critical section was not released");
  EXPECT_NONFATAL_FAILURE(
      {
        ScriptedJni throwing;
        throwing.throwNew("java/lang/RuntimeException", "first");
      },
      "exception left pending");
}

TEST_F(ScriptedJniTest, StaleAndForeignReferencesAreReported) {
  static jbyteArray array;
  array = env_->NewByteArray(4);
  env_->DeleteLocalRef(array);
  EXPECT_NONFATAL_FAILURE(env_->GetArrayLength(array), "deleted or belongs to another thread");
  EXPECT_NONFATAL_FAILURE(env_->DeleteLocalRef(array), "not a live local reference");
  array = jni_->newByteArray({1});
  EXPECT_NONFATAL_FAILURE(env_->DeleteLocalRef(array), "belongs to the caller of the library");
  EXPECT_NONFATAL_FAILURE(env_->GetArrayLength(nullptr), "null reference");
}

TEST_F(ScriptedJniTest, GlobalReferencesOutliveTheirEnvironment) {
  jobject global = nullptr;
  const std::size_t before = ScriptedJni::liveGlobals();
  {
    ScriptedJni other;
    global = other.env()->NewGlobalRef(other.newLongArray({7, 8}));
  }
  EXPECT_EQ(ScriptedJni::liveGlobals(), before + 1);
  EXPECT_EQ(env_->GetArrayLength(static_cast<jarray>(global)), 2);
  EXPECT_EQ(env_->GetObjectRefType(global), JNIGlobalRefType);
  env_->DeleteGlobalRef(global);
  EXPECT_EQ(ScriptedJni::liveGlobals(), before);
}

TEST_F(ScriptedJniTest, ScriptedFailuresHitTheNthCall) {
  jni_->failCall("NewByteArray", 2, Thrown{"java/lang/OutOfMemoryError", "heap"});
  EXPECT_NE(jni_->adopt(env_->NewByteArray(1)), nullptr);
  EXPECT_EQ(env_->NewByteArray(1), nullptr);
  EXPECT_EQ(jni_->takePending(), (Thrown{"java/lang/OutOfMemoryError", "heap"}));
  EXPECT_NE(jni_->adopt(env_->NewByteArray(1)), nullptr);
}

TEST_F(ScriptedJniTest, RegionsOutsideTheArrayThrow) {
  jlongArray array = jni_->newLongArray({1, 2});
  const jlong values[] = {5, 6};
  env_->SetLongArrayRegion(array, 0, 2, values);
  EXPECT_THAT(jni_->longsOf(array), ElementsAre(5, 6));
  env_->SetLongArrayRegion(array, 1, 2, values);
  EXPECT_EQ(jni_->takePending()->className, "java/lang/ArrayIndexOutOfBoundsException");
  EXPECT_THAT(jni_->longsOf(array), ElementsAre(5, 6));
}

TEST_F(ScriptedJniTest, KeyCallbacksCompareContentsByDefault) {
  jobject map = jni_->newMapObject();
  auto* type = jni_->adopt(env_->FindClass(kMapClass));
  jmethodID deserialize =
      env_->GetMethodID(type, "deserialize", "(Ljava/nio/ByteBuffer;)Ljava/lang/Object;");
  jmethodID compare =
      env_->GetMethodID(type, "compare", "(Ljava/lang/Object;Ljava/nio/ByteBuffer;)Z");
  jmethodID phantom =
      env_->GetMethodID(type, "allocateDirectFromPhantom", "(JI)Ljava/nio/ByteBuffer;");
  const char left[] = "same";
  const char right[] = "same";
  const char other[] = "diff";
  jobject key =
      jni_->adopt(env_->CallObjectMethod(map, deserialize, jni_->newDirectBuffer(left, 4)));
  ASSERT_EQ(env_->ExceptionCheck(), JNI_FALSE);
  jobject window = jni_->adopt(env_->CallObjectMethod(
      map, phantom, reinterpret_cast<jlong>(static_cast<const void*>(right)), jint{4}));
  ASSERT_EQ(env_->ExceptionCheck(), JNI_FALSE);
  EXPECT_EQ(jni_->bufferAddress(window), static_cast<const void*>(right));
  EXPECT_EQ(env_->CallBooleanMethod(map, compare, key, window), JNI_TRUE);
  ASSERT_EQ(env_->ExceptionCheck(), JNI_FALSE);
  EXPECT_EQ(env_->CallBooleanMethod(map, compare, key, jni_->newDirectBuffer(other, 4)), JNI_FALSE);
  ASSERT_EQ(env_->ExceptionCheck(), JNI_FALSE);
}

TEST_F(ScriptedJniTest, MissingClassesAndMethodsThrowAsTheMachineDoes) {
  EXPECT_EQ(env_->FindClass("no/such/Class"), nullptr);
  EXPECT_EQ(jni_->takePending(), (Thrown{"java/lang/NoClassDefFoundError", "no/such/Class"}));
  auto* logger = jni_->adopt(env_->FindClass(kLoggerClass));
  EXPECT_EQ(env_->GetMethodID(logger, "debug", "([C)V"), nullptr) << "it is static";
  EXPECT_EQ(jni_->takePending(), (Thrown{"java/lang/NoSuchMethodError", "debug"}));
}

TEST_F(ScriptedJniTest, StringsAreUtf16) {
  jstring text = jni_->newString(u"a\u20ac\xd83d\xde00");
  EXPECT_EQ(env_->GetStringLength(text), 4);
  jchar units[2] = {};
  env_->GetStringRegion(text, 1, 2, units);
  EXPECT_EQ(units[0], 0x20ac);
  EXPECT_EQ(units[1], 0xd83d);
  const char* bytes = env_->GetStringUTFChars(text, nullptr);
  EXPECT_EQ(jni_->stringOf(jni_->adopt(env_->NewStringUTF(bytes))), u"a\u20ac\xd83d\xde00");
  env_->ReleaseStringUTFChars(text, bytes);
}

TEST_F(ScriptedJniTest, OtherThreadsMayNotUseTheEnvironment) {
  EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(std::thread([] { env_->GetVersion(); }).join(),
                                         "does not own this JNIEnv");
}

}  // namespace
}  // namespace nimbra::test
