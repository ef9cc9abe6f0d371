// A guard that writes down which locks an operation takes and lets go, in order.

#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "nb_lock.h"

namespace nimbra::test {

// Writes down every lock operation while it lives; fails none.
class RecordLocks {
 public:
  RecordLocks() {
    EXPECT_EQ(faults::failLock, nullptr) << "one guard at a time";
    operations_.clear();
    faults::failLock = &RecordLocks::hook;
  }
  ~RecordLocks() { faults::failLock = nullptr; }
  RecordLocks(const RecordLocks&) = delete;
  RecordLocks& operator=(const RecordLocks&) = delete;

  struct Operation {
    const void* lock;
    LockOp kind;
    bool operator==(const Operation&) const = default;
  };
  const std::vector<Operation>& operations() const { return operations_; }

 private:
  static int hook(LockRank /*rank*/, const void* lock, LockOp operation) {
    operations_.push_back({lock, operation});
    return 0;
  }
  static inline std::vector<Operation> operations_;
};

}  // namespace nimbra::test
