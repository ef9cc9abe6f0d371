// What has to come of a fault, beside the rule: the native fails, nothing has changed, every lock is
// free, and the fault's own exception, if it has one, is pending. The first row that fits decides.
//
// A pattern names cases and faults. A fault is "memory:" (the allocator has nothing left), "limit:"
// (the maximum is reached) or "afterwards:" (reached by others meanwhile) with the allocation's
// label, or "null:" or "throws:" with the JNI function.

#pragma once

#include <cstdint>

namespace nimbra::test::fault {

enum class Outcome {
  kFails,              // the rule
  kFailsQuietly,       // the exception was cleared
  kFailsAndReports,    // the library has raised an exception of its own
  kSucceeds,           // as if nothing had happened, and nothing is pending
  kSucceedsAndRaises,  // all was done, and the exception is pending beside the answer
};

struct OutcomeRow {
  const char* native;
  const char* fault;
  Outcome outcome;
  const char* reason;
};
inline constexpr OutcomeRow kOutcomes[] = {
    {"*", "*:BucketSet", Outcome::kSucceeds, "a set that cannot grow stays slower"},
};

// Locks that a successful call keeps; the release of the case lets them go.
struct HeldRow {
  const char* native;
  const char* reason;
};
inline constexpr HeldRow kHeld[] = {
    {"LuOffHeapMapImpl_lockMapAndQueues*", "Java unlocks the map with unlockMapAndQueues"},
};

// What stays behind on purpose. Without a fault ("none:"): of every successful call.
struct Kept {
  const char* native;
  const char* fault;
  int64_t blocks;
  int64_t metadata;
  int64_t globals;
  const char* reason;
};
inline constexpr Kept kKept[] = {
    {"*", "afterwards:*", 1, 0, 0,
     "the count of blocks stays raised: Java derives the number of refusals from it"},
    {"*_Overflow", "limit:*", 1, 0, 0,
     "the count of blocks stays raised: Java derives the number of refusals from it"},
    {"OffHeapManager_allocatePhantom", "none:", 0, 0, 1,
     "a phantom buffer is a global reference that lives as long as the process"},
};

// Failures that are no failures of the native: it is not made to meet them.
struct Unchecked {
  const char* native;
  const char* fault;
  const char* reason;
};
inline constexpr Unchecked kUnchecked[] = {
    {"*", "null:GetDirectBufferAddress",
     "only a buffer that is not direct has no address; the caller promises a direct one"},
};

}  // namespace nimbra::test::fault
