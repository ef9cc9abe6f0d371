// Timing of the phases of long operations.
//
// A profile belongs to one operation. Up to five threads are timed in it at once; a sixth is not
// timed rather than made to wait. A run stores, for each point, the microseconds since its start at
// the position that its slot owns, so stores need no lock. Profiles are made on first use while the
// profiling flag is on, and live as long as the process.
#pragma once

#include <jni.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "nb_atomic.h"
#include "nb_logging.h"

namespace nimbra {

inline constexpr int32_t kProfSlots = 5;
inline constexpr size_t kProfLabelSize = 512;  // bytes, terminator included

struct native_prof {
  pthread_rwlock_t lock;                   // guards holders and sampleIndex
  pthread_rwlock_t slotLocks[kProfSlots];  // held for writing from start to end
  Relaxed<uint64_t> holders[kProfSlots];   // thread identities; 0: free
  uint64_t startTimes[kProfSlots];         // microseconds since the epoch; the holder's alone
  Relaxed<uint64_t>* samples;              // [point * sampleCount + position], microseconds
  Relaxed<uint64_t>* averages;             // [point], mean of all positions times 1000
  const char* name;                        // the caller's static text
  char (*labels)[kProfLabelSize];          // [point]
  Relaxed<int32_t> sampleIndex[kProfSlots];
  int32_t sampleCount;  // positions per point
  int32_t points;
  Relaxed<bool> ready;  // some slot has ended a run in the last position
};

// Makes a profile and registers it; null when the C heap is exhausted.
native_prof* allocateNativeProf(int32_t positions, int32_t points, const char* name);
// Copies the point names, each cut at 511 bytes. False, with nothing changed, when `count` is not
// the number of points.
bool setLabels(native_prof* profile, const char* const* texts, int32_t count);

// One run of the calling thread. Without a free slot it is not timed; the other two then do
// nothing.
void start(native_prof* profile);
void sample(native_prof* profile, int32_t point);
void end(native_prof* profile);

// The calling thread's slot, or -1.
int32_t getThreadId(native_prof* profile);
void average(native_prof* profile);
// One line on the profile, freed with free(); null when the C heap is exhausted.
char* toString(native_prof* profile);
// One line on the calling thread's slot, freed with free(), or a static text when it has none.
const char* strStatus(native_prof* profile);
// Sends a line for each profile, newest first, at info level.
void printAllProf(JNIEnv* env);

// The profile of one operation: null until its first run under the flag. Two threads may make one
// each; both are registered, and later runs use the one that was stored last.
using ProfileSlot = std::atomic<native_prof*>;

// The operation's profile, made and labelled when there is none; null when the C heap is exhausted.
native_prof* profileIn(ProfileSlot& slot, int32_t positions, const char* name,
                       const char* const* labels, int32_t points);
// Starts a run in it and returns it, or null.
native_prof* startRun(ProfileSlot& slot, int32_t positions, const char* name,
                      const char* const* labels, int32_t points);

// A run of one operation, ended on every path. Costs one byte test while profiling is off.
class ProfiledRun {
 public:
  template <size_t N>
  ProfiledRun(ProfileSlot& slot, int32_t positions, const char* name,
              const char* const (&labels)[N])
      : profile_(logInfo.profiling
                     ? startRun(slot, positions, name, labels, static_cast<int32_t>(N))
                     : nullptr) {}
  ~ProfiledRun() {
    if (profile_ != nullptr) end(profile_);
  }
  ProfiledRun(const ProfiledRun&) = delete;
  ProfiledRun& operator=(const ProfiledRun&) = delete;
  void point(int32_t number) const {
    if (profile_ != nullptr) sample(profile_, number);
  }

 private:
  native_prof* profile_;
};

}  // namespace nimbra
