// Whether addresses stay readable on jemalloc, which decides whether Java may read without a lock.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "call_natives.h"
#include "fresh_process.h"
#include "nb_alloc_backend.h"
#include "nb_stamp.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

// The kernel's policy: 0 and 1 promise more memory than there is, 2 does not.
bool overcommits() {
  int policy = -1;
  std::ifstream("/proc/sys/vm/overcommit_memory") >> policy;
  return policy == 0 || policy == 1;
}

// jemalloc reads its options before main, so only a process of its own gets others.
class JemallocOptions {
 public:
  explicit JemallocOptions(const char* options) { setenv("JEMALLOC_CONF", options, 1); }
  ~JemallocOptions() { unsetenv("JEMALLOC_CONF"); }
  JemallocOptions(const JemallocOptions&) = delete;
  JemallocOptions& operator=(const JemallocOptions&) = delete;
};

class JemallocAddresses : public LibraryTest {};
class JemallocAddressesDeathTest : public JemallocAddresses {};

TEST_F(JemallocAddresses, AreKeptWhereTheKernelOvercommits) {
  EXPECT_EQ(backend::keepsAddresses(), overcommits());
}

TEST_F(JemallocAddressesDeathTest, AreNotKeptWithoutRetention) {
  const JemallocOptions options("retain:false");
  inFreshProcess([] { EXPECT_FALSE(backend::keepsAddresses()); });
}

#if defined(__x86_64__)
TEST_F(JemallocAddresses, LetJavaHaveTheStamps) {
  EXPECT_EQ(area::stamps(env, nullptr), overcommits() ? natives::handle(setStamps) : 0);
}

TEST_F(JemallocAddressesDeathTest, KeepTheStampsFromJavaWithoutRetention) {
  const JemallocOptions options("retain:false");
  inFreshProcess([] {
    ScriptedJni jni;
    EXPECT_EQ(area::stamps(jni.env(), nullptr), 0);
  });
}
#endif

}  // namespace
}  // namespace nimbra::test
