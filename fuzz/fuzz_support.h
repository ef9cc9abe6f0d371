// What the fuzz targets share: the reader of an input's bytes, and the frame that runs one input
// over a test fixture.
//
// An input is a program: every byte decides something, and a program that has run out of bytes
// reads zeros and ends. Nothing else decides, so an input does the same in every run. The fixtures
// start the library in a known state and check at the end that blocks, bookkeeping, references and
// locks are where they were; each input therefore leaves nothing to the next.

#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "map_support.h"
#include "nb_hashtable.h"
#include "test_support.h"

namespace nimbra::fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

  bool atEnd() const { return at_ == end_; }
  uint8_t byte() { return at_ == end_ ? uint8_t{0} : *at_++; }
  // 0 .. limit - 1; the limit is at most 256.
  uint32_t below(uint32_t limit) { return byte() % limit; }
  bool oneIn(uint32_t chances) { return below(chances) == chances - 1; }
  template <typename Number>
  Number number() {
    uint8_t bytes[sizeof(Number)];
    for (uint8_t& one : bytes) one = byte();
    Number number;
    std::memcpy(&number, bytes, sizeof number);
    return number;
  }
  // A number whose size the input chooses: near ties and the ends of the range are both in reach.
  int64_t integer() {
    switch (below(8)) {
      case 6: return number<int32_t>();
      case 7: return number<int64_t>();
      default: return number<int8_t>();
    }
  }
  // At most `longest` bytes.
  std::vector<uint8_t> bytes(uint32_t longest) {
    std::vector<uint8_t> result(below(longest + 1));
    for (uint8_t& one : result) one = byte();
    return result;
  }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

// Runs one input over a test fixture. The fixture's own checks are gtest's, and so are those of the
// targets: the fuzzers abort at the first failure, the replay reports it like any test's.
template <typename Fixture>
class Run : public Fixture {
 public:
  void operator()(Input& input) {
    // Each start takes a new reference to the map class and keeps the old one.
    if (luMapClassRef.load() != nullptr) this->jni.dropGlobal(luMapClassRef.load());
    luMapClassRef = static_cast<jclass>(nullptr);
    this->SetUp();
    // Traces cost a hundred times what they describe: they end after a while, in the middle of an
    // operation, as they may when Java changes the level.
    if (input.oneIn(16)) this->setLevels(test::kAllLevels);
    this->jni.onRecord([this](const test::LogRecord&) { countRecord(); });
    this->jni.handOutCopies(input.oneIn(2));
    play(input);
    this->TearDown();
  }

 protected:
  virtual void play(Input& input) = 0;
  // For targets that watch the records themselves.
  void countRecord() {
    if (--recordsLeft_ == 0) std::memset(static_cast<void*>(&logInfo), 0, sizeof logInfo);
  }

 private:
  void TestBody() override {}

  int recordsLeft_ = 100;
};

}  // namespace nimbra::fuzz
