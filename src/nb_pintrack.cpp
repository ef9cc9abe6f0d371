// Pin tracking: the table of tracked objects, the recording of events, and the report.
//
// State: the table of chains, made by the first tracked pin. Two threads may make it at once; the
// second to finish gives its own up. Everything else is guarded by the chain's lock, and an
// object's events by its record's lock as well.
#include "nb_pintrack.h"

#include <cstdlib>
#include <cstring>

#include "nb_hash.h"
#include "nb_lock.h"
#include "nb_logging.h"

namespace nimbra {

std::atomic<PinTracker**> _tracker;

namespace {

constexpr char kReport[] = "PinTrack";

void freeTable(PinTracker** table) {
  for (uint32_t i = 0; i < kTrackerBuckets; i++) std::free(table[i]);
  std::free(static_cast<void*>(table));
}

// The table, made when there is none yet; null when the C heap is exhausted.
PinTracker** tableForPins() {
  PinTracker** table = _tracker.load(std::memory_order_acquire);
  if (table != nullptr) return table;
  PinTracker** made = initTrackerMap();
  if (made == nullptr) return nullptr;
  // A table that lost the race must not be used: unpins would miss the pins recorded in it.
  if (_tracker.compare_exchange_strong(table, made, std::memory_order_acq_rel)) return made;
  freeTable(made);
  return table;
}

// An event with the calling stack; null when the C heap is exhausted.
Pin* makeEvent(bool isPin, uint32_t reason) {
  char** lines = nullptr;
  const int count = get_backtrace(&lines);
  size_t textSize = 0;
  for (int i = 0; i < count; i++) textSize += std::strlen(lines[i]) + 1;
  const size_t slots = count > 0 ? static_cast<size_t>(count) : 1;
  auto* event = static_cast<Pin*>(std::calloc(1, sizeof(Pin) + slots * sizeof(char*)));
  auto* text = count > 0 ? static_cast<char*>(std::malloc(textSize)) : nullptr;
  if (event == nullptr || (count > 0 && text == nullptr)) {
    std::free(event);
    std::free(text);
    std::free(static_cast<void*>(lines));
    return nullptr;
  }
  event->isPin = isPin;
  event->reason = getReason(reason);
  event->backtrace = reinterpret_cast<char**>(event + 1);
  event->frameCount = count;
  if (isPin) event->thread = static_cast<uint64_t>(pthread_self());
  for (int i = 0; i < count; i++) {
    const size_t length = std::strlen(lines[i]) + 1;
    std::memcpy(text, lines[i], length);
    event->backtrace[i] = text;
    text += length;
  }
  std::free(static_cast<void*>(lines));
  return event;
}

void freeEvent(Pin* event) {
  std::free(event->backtrace[0]);
  std::free(event);
}

// REQUIRES: the head. The object's record, linked first; null when the C heap is exhausted.
PinTracker* recordFor(const Pinnable* object, PinTracker* head) {
  if (PinTracker* record = getCurr(object, head)) return record;
  PinTracker* record = allocatePinTracker();
  if (record == nullptr) return nullptr;
  record->object = object;
  record->next = head->next;
  head->next = record;
  return record;
}

// REQUIRES: the record's head.
void reportRecord(JNIEnv* env, const PinTracker* record) {
  info(env, kReport, "Address=%p AllPins=%d CurrentPins=%d",
       static_cast<const void*>(record->object), record->eventCount, record->balance);
  int sum = 0;
  for (int32_t i = 0; i < record->eventCount; i++) {
    const Pin* event = record->events[i];
    sum += event->isPin ? 1 : -1;
    info(env, kReport, event->isPin ? "  +%s Thread=%d PinSum=%d" : "  -%s Thread=%d PinSum=%d",
         event->reason, static_cast<int>(event->thread), sum);
    for (int32_t line = 0; line < event->frameCount; line++) {
      info(env, kReport, "    %s", event->backtrace[line]);
    }
  }
}

void discardEvents(PinTracker* record) {
  for (int32_t i = 0; i < record->eventCount; i++) freeEvent(record->events[i]);
  std::free(static_cast<void*>(record->events));
}

}  // namespace

PinTracker** initTrackerMap() {
  auto** table = static_cast<PinTracker**>(std::calloc(kTrackerBuckets, sizeof(PinTracker*)));
  if (table == nullptr) return nullptr;
  for (uint32_t i = 0; i < kTrackerBuckets; i++) {
    table[i] = static_cast<PinTracker*>(std::calloc(1, sizeof(PinTracker)));
    if (table[i] == nullptr) {
      freeTable(table);
      return nullptr;
    }
    rwlockInit(&table[i]->lock, LockRank::pinChain);
  }
  return table;
}

PinTracker* getTracker(const Pinnable* object) {
  const uint64_t hash = hashFn64(reinterpret_cast<uintptr_t>(object));
  return _tracker.load(std::memory_order_acquire)[hash % kTrackerBuckets];
}

PinTracker* getCurr(const Pinnable* object, PinTracker* head) {
  for (PinTracker** link = &head->next; *link != nullptr; link = &(*link)->next) {
    PinTracker* record = *link;
    if (record->object != object) continue;
    *link = record->next;
    record->next = head->next;
    head->next = record;
    return record;
  }
  return nullptr;
}

PinTracker* allocatePinTracker() {
  auto* record = static_cast<PinTracker*>(std::calloc(1, sizeof(PinTracker)));
  if (record != nullptr) rwlockInit(&record->lock, LockRank::pinRecord);
  return record;
}

bool addPin(PinTracker* record, Pin* event) {
  rwlockWrite(&record->lock, LockRank::pinRecord);
  // Grown by one element an event: a history is read far more often than its memory would be saved.
  auto** events =
      static_cast<Pin**>(std::malloc((static_cast<size_t>(record->eventCount) + 1) * sizeof(Pin*)));
  if (events != nullptr) {
    for (int32_t i = 0; i < record->eventCount; i++) events[i] = record->events[i];
    events[record->eventCount] = event;
    std::free(static_cast<void*>(record->events));
    record->events = events;
    record->eventCount++;
    record->balance += event->isPin ? 1 : -1;
  } else {
    freeEvent(event);
  }
  rwlockUnlock(&record->lock, LockRank::pinRecord);
  return events != nullptr;
}

void recordPin(const Pinnable* object, uint32_t reason) {
  if (tableForPins() == nullptr) return;
  PinTracker* head = getTracker(object);
  rwlockWrite(&head->lock, LockRank::pinChain);
  if (PinTracker* record = recordFor(object, head)) {
    if (Pin* event = makeEvent(true, reason)) addPin(record, event);
  }
  rwlockUnlock(&head->lock, LockRank::pinChain);
}

void recordUnpin(const Pinnable* object, uint32_t reason) {
  if (_tracker.load(std::memory_order_acquire) == nullptr) return;
  PinTracker* head = getTracker(object);
  rwlockWrite(&head->lock, LockRank::pinChain);
  PinTracker* record = getCurr(object, head);
  // Deliberate: an object without a record leaves its chain locked for good. The contract with Java
  // says so; the Java face turns tracking on only while no block is live.
  // Pinned by PinTracking.UnpinOfAnUnrecordedObjectLeavesItsChainLocked.
  if (record == nullptr) return;
  if (Pin* event = makeEvent(false, reason)) addPin(record, event);
  rwlockUnlock(&head->lock, LockRank::pinChain);
}

void reportPins(JNIEnv* env) {
  PinTracker** table = _tracker.load(std::memory_order_acquire);
  if (table == nullptr) return;
  int64_t total = 0;
  for (uint32_t i = 0; i < kTrackerBuckets; i++) {
    PinTracker* head = table[i];
    rwlockWrite(&head->lock, LockRank::pinChain);
    const bool tracking = logInfo.pinTracking;
    for (PinTracker* record = head->next; record != nullptr;) {
      PinTracker* next = record->next;
      if (!tracking) {
        // The record itself stays allocated, out of reach: another thread may be about to lock it.
        discardEvents(record);
      } else if (record->balance != 0 || logInfo.pinTrackingBalanced) {
        reportRecord(env, record);
        total += record->balance;
      }
      record = next;
    }
    if (!tracking) head->next = nullptr;
    rwlockUnlock(&head->lock, LockRank::pinChain);
  }
  info(env, kReport, "Total current pins: %ld", static_cast<long>(total));
}

}  // namespace nimbra
