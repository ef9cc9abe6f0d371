// The profiler: slots, samples, averages, and the registry of all profiles.
//
// State: the registry, made with the first profile and kept for the process's life. Lock order: a
// slot lock (only ever tried), the registry's mutex, a profile's lock.
#include "nb_prof.h"

#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "nb_lock.h"

namespace nimbra {

namespace {

constexpr size_t kReportSize = 1024;  // bytes of one report line
constexpr size_t kStatusSize = 512;
constexpr int64_t kMicrosecondsPerSecond = 1000000;

struct ProfileTable {
  pthread_mutex_t mutex;
  native_prof** profiles;  // newest first
  int32_t count;
};

std::atomic<ProfileTable*> globalTable;

uint64_t selfIdentity() { return static_cast<uint64_t>(pthread_self()); }

uint64_t microsecondsNow() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec * kMicrosecondsPerSecond + now.tv_usec);
}

ProfileTable* registry() {
  ProfileTable* table = globalTable.load(std::memory_order_acquire);
  if (table != nullptr) return table;
  auto* made = static_cast<ProfileTable*>(std::calloc(1, sizeof(ProfileTable)));
  if (made == nullptr) return nullptr;
  mutexInit(&made->mutex, nullptr, LockRank::profileRegistry);
  if (globalTable.compare_exchange_strong(table, made, std::memory_order_acq_rel)) return made;
  std::free(made);
  return table;
}

bool registerProfile(native_prof* profile) {
  ProfileTable* table = registry();
  if (table == nullptr) return false;
  mutexLock(&table->mutex, LockRank::profileRegistry);
  auto** profiles = static_cast<native_prof**>(
      std::malloc((static_cast<size_t>(table->count) + 1) * sizeof(native_prof*)));
  if (profiles != nullptr) {
    profiles[0] = profile;
    std::copy_n(table->profiles, table->count, profiles + 1);
    std::free(static_cast<void*>(table->profiles));
    table->profiles = profiles;
    table->count++;
  }
  mutexUnlock(&table->mutex, LockRank::profileRegistry);
  return profiles != nullptr;
}

void freeProfile(native_prof* profile) {
  delete[] profile->samples;
  delete[] profile->averages;
  delete[] profile->labels;
  delete profile;
}

// REQUIRES: the profile's lock for writing. Moves the slot to the next position that no slot is at.
void advancePosition(native_prof* profile, int32_t slot) {
  const int32_t current = profile->sampleIndex[slot];
  for (int32_t i = 0; i < profile->sampleCount; i++) {
    const int32_t candidate = (current + i) % profile->sampleCount;
    const bool taken = std::any_of(std::begin(profile->sampleIndex), std::end(profile->sampleIndex),
                                   [candidate](int32_t index) { return index == candidate; });
    if (taken) continue;
    profile->sampleIndex[slot] = candidate;
    return;
  }
}

// REQUIRES: the profile's lock.
std::string readyLine(const native_prof* profile) {
  char part[kProfLabelSize + 64];
  std::string line = std::string("Profile ") + profile->name;
  uint64_t previous = 0;
  for (int32_t i = 0; i < profile->points; i++) {
    const uint64_t mean = profile->averages[i];
    std::snprintf(part, sizeof part, " %s:%lu(%lu)", profile->labels[i], mean - previous, mean);
    line += part;
    previous = mean;
  }
  return line;
}

char* cutCopy(const std::string& text, size_t areaSize) {
  return strndup(text.c_str(), areaSize - 1);
}

}  // namespace

native_prof* allocateNativeProf(int32_t positions, int32_t points, const char* name) {
  auto* profile = new (std::nothrow) native_prof{};
  if (profile == nullptr) return nullptr;
  const size_t cells = static_cast<size_t>(positions) * static_cast<size_t>(points);
  profile->samples = new (std::nothrow) Relaxed<uint64_t>[cells];
  profile->averages = new (std::nothrow) Relaxed<uint64_t>[static_cast<size_t>(points)];
  profile->labels = new (std::nothrow) char[static_cast<size_t>(points)][kProfLabelSize];
  profile->name = name;
  profile->sampleCount = positions;
  profile->points = points;
  if (profile->samples == nullptr || profile->averages == nullptr || profile->labels == nullptr) {
    freeProfile(profile);
    return nullptr;
  }
  rwlockInit(&profile->lock, LockRank::profile);
  for (int32_t slot = 0; slot < kProfSlots; slot++) {
    pthread_rwlock_init(&profile->slotLocks[slot], nullptr);
    profile->sampleIndex[slot] = slot;
  }
  for (int32_t i = 0; i < points; i++) {
    std::snprintf(profile->labels[i], kProfLabelSize, "Point%d", i);
  }
  if (!registerProfile(profile)) {
    freeProfile(profile);
    return nullptr;
  }
  return profile;
}

bool setLabels(native_prof* profile, const char* const* texts, int32_t count) {
  rwlockWrite(&profile->lock, LockRank::profile);
  const bool fits = count == profile->points;
  for (int32_t i = 0; fits && i < count; i++) {
    std::snprintf(profile->labels[i], kProfLabelSize, "%s", texts[i]);
  }
  rwlockUnlock(&profile->lock, LockRank::profile);
  return fits;
}

int32_t getThreadId(native_prof* profile) {
  const uint64_t self = selfIdentity();
  rwlockRead(&profile->lock, LockRank::profile);
  const auto* holder = std::find_if(std::begin(profile->holders), std::end(profile->holders),
                                    [self](uint64_t thread) { return thread == self; });
  const auto slot = static_cast<int32_t>(holder - std::begin(profile->holders));
  rwlockUnlock(&profile->lock, LockRank::profile);
  return slot < kProfSlots ? slot : -1;
}

void start(native_prof* profile) {
  int32_t slot = 0;
  while (slot < kProfSlots && pthread_rwlock_trywrlock(&profile->slotLocks[slot]) != 0) slot++;
  if (slot == kProfSlots) return;
  rwlockWrite(&profile->lock, LockRank::profile);
  profile->holders[slot] = selfIdentity();
  advancePosition(profile, slot);
  rwlockUnlock(&profile->lock, LockRank::profile);
  profile->startTimes[slot] = microsecondsNow();
}

void sample(native_prof* profile, int32_t point) {
  const int32_t slot = getThreadId(profile);
  if (slot < 0 || point < 0 || point >= profile->points) return;
  const int32_t position = profile->sampleIndex[slot];
  // With fewer positions than slots, the last slots never get one of their own.
  if (position >= profile->sampleCount) return;
  profile->samples[static_cast<size_t>(point) * static_cast<size_t>(profile->sampleCount) +
                   static_cast<size_t>(position)] = microsecondsNow() - profile->startTimes[slot];
}

void end(native_prof* profile) {
  const int32_t slot = getThreadId(profile);
  if (slot < 0) return;
  average(profile);
  if (profile->sampleIndex[slot] + 1 >= profile->sampleCount) profile->ready = true;
  rwlockWrite(&profile->lock, LockRank::profile);
  average(profile);
  profile->holders[slot] = uint64_t{0};
  pthread_rwlock_unlock(&profile->slotLocks[slot]);
  rwlockUnlock(&profile->lock, LockRank::profile);
}

void average(native_prof* profile) {
  const auto positions = static_cast<size_t>(profile->sampleCount);
  for (size_t point = 0; point < static_cast<size_t>(profile->points); point++) {
    uint64_t sum = 0;
    for (size_t i = 0; i < positions; i++) sum += profile->samples[point * positions + i];
    // Divided first: the mean is cut to whole microseconds.
    profile->averages[point] = sum / positions * 1000;
  }
}

char* toString(native_prof* profile) {
  rwlockRead(&profile->lock, LockRank::profile);
  char* line = nullptr;
  if (profile->ready) {
    line = cutCopy(readyLine(profile), kReportSize);
  } else {
    int32_t highest = 0;
    for (const int32_t index : profile->sampleIndex) highest = std::max(highest, index);
    line = static_cast<char*>(std::malloc(kStatusSize));
    if (line != nullptr) {
      std::snprintf(
          line, kStatusSize,
          "Profile %s was skipped because it is not yet ready (up to about %d/%d samples)",
          profile->name, highest, profile->sampleCount);
    }
  }
  rwlockUnlock(&profile->lock, LockRank::profile);
  return line;
}

const char* strStatus(native_prof* profile) {
  const int32_t slot = getThreadId(profile);
  if (slot < 0) return "Not currently owner of any userlock";
  auto* line = static_cast<char*>(std::malloc(kStatusSize));
  if (line == nullptr) return nullptr;
  std::snprintf(line, kStatusSize,
                "HVD: %s ThreadIndex=%d self=%ld sampleIndex[%d]=%d holders[%d]=%ld "
                "startTime[%d]=%ld",
                profile->name, slot, static_cast<long>(selfIdentity()), slot,
                profile->sampleIndex[slot].load(), slot,
                static_cast<long>(profile->holders[slot].load()), slot,
                static_cast<long>(profile->startTimes[slot]));
  return line;
}

void printAllProf(JNIEnv* env) {
  ProfileTable* table = globalTable.load(std::memory_order_acquire);
  if (table == nullptr) {
    NB_INFO(env, "No profiles are being tracked.");
    return;
  }
  mutexLock(&table->mutex, LockRank::profileRegistry);
  for (int32_t i = 0; i < table->count; i++) {
    char* line = toString(table->profiles[i]);
    if (line != nullptr) NB_INFO(env, "%s", line);
    std::free(line);
  }
  mutexUnlock(&table->mutex, LockRank::profileRegistry);
}

native_prof* profileIn(ProfileSlot& slot, int32_t positions, const char* name,
                       const char* const* labels, int32_t points) {
  native_prof* profile = slot.load(std::memory_order_acquire);
  if (profile != nullptr) return profile;
  profile = allocateNativeProf(positions, points, name);
  if (profile == nullptr) return nullptr;
  setLabels(profile, labels, points);
  slot.store(profile, std::memory_order_release);
  return profile;
}

native_prof* startRun(ProfileSlot& slot, int32_t positions, const char* name,
                      const char* const* labels, int32_t points) {
  native_prof* profile = profileIn(slot, positions, name, labels, points);
  if (profile != nullptr) start(profile);
  return profile;
}

}  // namespace nimbra
