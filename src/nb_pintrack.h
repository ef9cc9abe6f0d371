// Pin tracking: who holds which pin, and from where it was taken.
//
// While the flag is on, every pin and unpin is recorded with its reason and its native stack, in a
// process-wide table of 500 chains keyed by the object's address. Records live on the C heap, so
// that looking for a leak never runs into the off-heap limits. Lock order: a bucket head's lock,
// then the record's lock.
#pragma once

#include <jni.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "nb.h"

namespace nimbra {

// One event. The line pointers stand behind the record in the same block; the lines are one text
// block that begins with the first line, so freeing the first slot's address frees them all.
struct Pin {
  bool isPin;
  const char* reason;  // static text
  char** backtrace;    // `frameCount` lines; slot 0 exists always and is null without lines
  int32_t frameCount;
  uint64_t thread;  // the pinning thread; 0 for an unpin
};

// One tracked object, and the head of a chain of them.
struct PinTracker {
  pthread_rwlock_t lock;   // a head's lock guards its chain, a record's lock its events
  const Pinnable* object;  // null in a head
  Pin** events;            // in order of arrival; grows by one element an event
  int32_t eventCount;
  int32_t balance;   // recorded pins minus recorded unpins
  PinTracker* next;  // in a head, the first record
};

inline constexpr uint32_t kTrackerBuckets = 500;

// The heads, or null before the first tracked pin; never freed.
extern std::atomic<PinTracker**> _tracker;

// A table of heads, each with its lock; null when the C heap is exhausted.
PinTracker** initTrackerMap();
// The object's head. REQUIRES: a table.
PinTracker* getTracker(const Pinnable* object);
// The object's record, moved to the front of its chain, or null. REQUIRES: the head, for writing.
PinTracker* getCurr(const Pinnable* object, PinTracker* head);
// A record with no object and no events; null when the C heap is exhausted.
PinTracker* allocatePinTracker();
// Appends an event, which the record owns from now on, and moves the balance. Takes the record's
// lock. False, with the event freed, when the C heap is exhausted.
bool addPin(PinTracker* record, Pin* event);

// Steps of pin and unpin. Callers test the flag.
void recordPin(const Pinnable* object, uint32_t reason);
// Records nothing for an object that was pinned before tracking began, and leaves its chain locked.
void recordUnpin(const Pinnable* object, uint32_t reason);

// Writes the report at info level, or discards every event when tracking is off. Holds one chain at
// a time while it writes.
void reportPins(JNIEnv* env);

}  // namespace nimbra
