// What has to come of a fault, beside the rule: the native fails, nothing has changed, every lock
// is free, and the fault's own exception, if it has one, is pending. The first row that fits
// decides.
//
// A pattern names cases and faults. A fault is "memory:" (the allocator has nothing left), "limit:"
// (the maximum is reached) or "afterwards:" (reached by others meanwhile) with the allocation's
// label, or "null:" or "throws:" with the JNI function.

#pragma once

#include <cstdint>

namespace nimbra::test::fault {

enum class Outcome {
  kFails,               // the rule
  kFailsQuietly,        // the fault's exception was cleared, or it had none
  kFailsPartly,         // as the rule, but a step before the failing one stays
  kReports,             // the library has raised an exception of its own
  kReportsPartly,       // likewise where the fault had none, and a step stays
  kFindsNothing,        // answers as if the key were absent, and nothing has changed
  kSucceeds,            // as if nothing had happened, and nothing is pending
  kSucceedsAndReports,  // likewise, but the library raises an exception of its own at the end
  kSucceedsPartly,      // likewise, but for a side effect that the reason names
};

struct OutcomeRow {
  const char* native;
  const char* fault;
  Outcome outcome;
  const char* reason;
};
inline constexpr OutcomeRow kOutcomes[] = {
    // Tracing.
    {"*", "traced throws:*", Outcome::kSucceeds, "a lost record changes nothing"},
    {"*", "traced null:GetStaticMethodID", Outcome::kSucceedsAndReports,
     "a logger without its method is raised when the native has done its work"},
    // Memory.
    {"*", "*:Bookmarks", Outcome::kSucceeds, "a query without its bookmark begins at the head"},
    {"LuOffHeapMapImpl_allocateLuOffHeapMap*", "memory:Bucket[[]]", Outcome::kReports,
     "a map without its table is raised as an illegal state"},
    {"LuOffHeapMapImpl_allocateLuOffHeapMap*", "memory:MapHeader", Outcome::kReports,
     "a map without its table is raised as an illegal state"},
    {"OffHeapManager_initializeOffHeap_WithOverflow*", "limit:*", Outcome::kFailsQuietly,
     "a start without its lists is logged and answered by false"},
    {"BoundedNatives_put_Expired*", "[mla]*:*", Outcome::kFailsPartly,
     "the expired entry is removed before the new one is made"},
    {"*_NewOwner*", "*:*", Outcome::kFailsPartly, "a queue list that has grown stays so"},
    {"LuOffHeapMapImpl_insertAndGetNewAndPin_Grows*", "*:LuOffHeapQueue*", Outcome::kReportsPartly,
     "an owner's queue that cannot be had is raised; a queue list that has grown stays so"},
    {"OverflowNatives_pageIn_Overflow", "limit:*", Outcome::kFailsQuietly,
     "without a view to hand over, the value has been read all the same"},
    // Java's callbacks.
    {"*", "*:CallBooleanMethod", Outcome::kSucceeds,
     "an equality that Java cannot decide is logged and counts as no match"},
    {"*", "*:CallObjectMethod", Outcome::kSucceeds,
     "a key that Java cannot read is logged and counts as no match"},
    {"LuOffHeapMapImpl_getLuValue*", "*:NewIntArray", Outcome::kSucceeds,
     "an access that Java is not told of is not counted; the lookup is not spoiled by it"},
    // Start-up.
    {"OffHeapManager_initializeOffHeap_FirstTrace", "null:FindClass#1", Outcome::kReports,
     "a logger that cannot be found is raised as an illegal state"},
    {"OffHeapManager_initializeOffHeap_FirstTrace", "null:NewGlobalRef#1", Outcome::kReports,
     "a logger that cannot be kept is raised as an illegal state"},
    {"OffHeapManager_initializeOffHeap*", "*:GetStaticMethodID#1", Outcome::kReports,
     "a logger without its method is raised as an illegal state"},
    {"OffHeapManager_initializeOffHeap_WithOverflow*", "*:GetStaticMethodID",
     Outcome::kFailsQuietly,
     "a start without Java's side of overflow is logged and answered by false"},
    {"OffHeapManager_initializeOffHeap_WithOverflow*", "*:FindClass#[12]", Outcome::kFailsQuietly,
     "a start without Java's side of overflow is logged and answered by false"},
    {"OffHeapManager_initializeOffHeap_WithOverflow*", "*:NewGlobalRef#[12]",
     Outcome::kFailsQuietly,
     "a start without Java's side of overflow is logged and answered by false"},
    // The logger.
    {"OffHeapManager_setLogLevel", "*:CallStaticIntMethod", Outcome::kFailsQuietly,
     "a logger without a level is switched off"},
    {"*", "*:CallStaticIntMethod", Outcome::kSucceeds, "a logger without a level is switched off"},
    {"*", "throws:NewCharArray", Outcome::kSucceeds, "a lost record changes nothing"},
    {"*", "null:NewCharArray", Outcome::kSucceeds, "a lost record changes nothing"},
    {"OffHeapManager_*rint*", "throws:CallStaticVoidMethod", Outcome::kSucceeds,
     "an exception of the logger is cleared"},
    {"OffHeapManager_pinTrack", "throws:CallStaticVoidMethod", Outcome::kSucceeds,
     "an exception of the logger is cleared"},
    {"OffHeapManager_pinTrack", "*:GetStaticMethodID", Outcome::kReports,
     "a logger without its method is raised as an illegal state"},
    {"OffHeapManager_printProfileStats", "*:GetStaticMethodID", Outcome::kReports,
     "a logger without its method is raised as an illegal state"},
    {"OffHeapManager_setLogLevel", "*:GetStaticMethodID", Outcome::kReports,
     "a logger without its method is raised as an illegal state"},
    // Java's side of overflow.
    {"*", "throws:CallStaticVoidMethod", Outcome::kSucceedsPartly,
     "a callback of Java's that raises is logged; a record of whose end Java does not know stays"},
    {"BoundedNatives*", "*:NewLongArray", Outcome::kSucceedsPartly,
     "a deletion that Java cannot be told of is logged; its record stays"},
    {"MapNatives*", "*:NewLongArray", Outcome::kSucceedsPartly,
     "a deletion that Java cannot be told of is logged; its record stays"},
    {"CallNatives*", "*:NewLongArray", Outcome::kSucceedsPartly,
     "a deletion that Java cannot be told of is logged; its record stays"},
    {"LuOffHeapMapImpl*", "*:NewLongArray", Outcome::kSucceedsPartly,
     "a deletion that Java cannot be told of is logged; its record stays"},
    {"OffHeapManager_unpinLuOffHeapValue_native*", "*:NewLongArray", Outcome::kSucceedsPartly,
     "a deletion that Java cannot be told of is logged; its record stays"},
    // A key that Java does not show.
    {"*Natives_put_PresentLong*", "null:GetPrimitiveArrayCritical", Outcome::kSucceeds,
     "the search is made again by the insert, which finds the key"},
    {"*Natives_putIfAbsent_PresentLong*", "null:GetPrimitiveArrayCritical", Outcome::kSucceeds,
     "the search is made again by the insert, which finds the key"},
    {"*Natives_re*Long*", "null:GetPrimitiveArrayCritical", Outcome::kFindsNothing,
     "a key that Java does not show, without saying why, is no match"},
    // Lists of buffers.
    {"OffHeapManager_freeAllToOffHeap", "null:GetObjectArrayElement", Outcome::kSucceedsPartly,
     "an element that is null is passed over"},
    {"OffHeapManager_freeAllToOffHeap", "throws:GetObjectArrayElement", Outcome::kFailsPartly,
     "the buffers before the element are let go"},
    {"OverflowNatives_nextEvictable*", "throws:SetLongArrayRegion", Outcome::kFailsPartly,
     "the cursor rests on the entry that could not be handed over, and goes on from there"},
    // Touched before the answer is made.
    {"BoundedNatives_get*", "*:*", Outcome::kFailsPartly, "the entry counts as used"},
    {"BoundedNatives_pin*", "*:*", Outcome::kFailsPartly, "the entry counts as used"},
};

// Locks that a call keeps, or that the case takes before it as Java does.
struct HeldRow {
  const char* native;
  bool byArrangement;
  const char* reason;
};
inline constexpr HeldRow kHeld[] = {
    {"LuOffHeapMapImpl_lockMapAndQueues*", false, "Java unlocks the map with unlockMapAndQueues"},
    {"LuOffHeapMapImpl_updateAndGetNewAndPin*_Overflow", false,
     "the entry's node stays locked until Java has moved its copy on disk, and unlocks it"},
    {"LuOffHeapMapImpl_queryRevisionAndPinWithBounds*_Overflow", false,
     "the nodes of the entries stay locked until Java has read their values, and unlocks them"},
    {"NOFStruct_lockValidAndGetChunkPtr*", false, "Java unlocks with unlockBucketSetAndMetadata"},
    {"Overflow_lockBucketSetAndMetadata*", false, "Java unlocks with unlockBucketSetAndMetadata"},
    {"OverflowNatives_beginRead_OnDisk*", false,
     "the node stays locked until the value has been read from disk"},
    {"CacheIter_init*", false, "the sweep's cursor holds the locks of the entry that it rests on"},
    {"CacheIter_advanceAndNextEvictable*", true, "a sweep is under way"},
    {"CacheIter_getSweepState*", true, "a sweep is under way"},
    {"OverflowNatives_nextEvictable*", true, "a sweep is under way"},
    {"OverflowNatives_evicted*", true, "a sweep is under way"},
    {"OverflowNatives_keep*", true, "a sweep is under way"},
    {"NOFStruct_evictedToDisk*", true, "Java pages out under the entry's locks"},
    {"NOFStruct_valueToLuOffHeapValue*", true, "Java pages in under the entry's locks"},
};

// What stays behind on purpose. Without a fault ("none:"): of every successful call.
struct Kept {
  const char* native;
  const char* fault;
  int64_t blocks;
  int64_t globals;
  bool memory;  // blocks stay, not only their count
  const char* reason;
};
inline constexpr Kept kKept[] = {
    {"*", "afterwards:*", 1, 0, false,
     "the count of blocks stays raised: Java derives the number of refusals from it"},
    {"*_Overflow", "limit:*", 1, 0, false,
     "the count of blocks stays raised: Java derives the number of refusals from it"},
    {"OffHeapManager_initializeOffHeap_WithOverflow*", "limit:*", -1, 0, false,
     "the layer is not on yet: the limit acts before the allocation"},
    {"LuOffHeapMapImpl_allocateLuOffHeapMap*", "*:Bucket[[]]#3", 1, 0, true,
     "arrays of earlier bucket sets stay: the contract with Java"},
    {"LuOffHeapMapImpl_allocateLuOffHeapMap*", "*:Bucket[[]]#4", 2, 0, true,
     "arrays of earlier bucket sets stay: the contract with Java"},
    {"LuOffHeapMapImpl_allocateLuOffHeapMap*", "*:Bucket[[]]#5", 3, 0, true,
     "arrays of earlier bucket sets stay: the contract with Java"},
    {"LuOffHeapMapImpl_allocateLuOffHeapMap*", "*:LuOffHeap*", 5, 0, true,
     "a map that fails behind its table leaves the table: the contract with Java"},
    {"MapNatives*_Overflow", "throws:NewLongArray", 3, 0, true,
     "the record of whose end Java could not be told stays, with key and value"},
    {"MapNatives*_Overflow", "throws:CallStaticVoidMethod", 3, 0, true,
     "the record of whose end Java could not be told stays, with key and value"},
    {"CallNatives_replace_OnDisk*", "null:NewLongArray", 2, 0, true,
     "the earlier state, of whose end Java could not be told, stays and keeps the key"},
    {"CallNatives_replace_OnDisk*", "throws:NewLongArray", 2, 0, true,
     "the earlier state, of whose end Java could not be told, stays and keeps the key"},
    {"CallNatives_replace_OnDisk*", "throws:CallStaticVoidMethod", 2, 0, true,
     "the earlier state, of whose end Java could not be told, stays and keeps the key"},
    {"LuOffHeapMapImpl_clear_Overflow", "throws:NewLongArray", 3, 0, true,
     "the record of whose end Java could not be told stays, with key and value"},
    {"LuOffHeapMapImpl_clear_Overflow", "throws:CallStaticVoidMethod", 3, 0, true,
     "the record of whose end Java could not be told stays, with key and value"},
    {"OffHeapManager_unpinLuOffHeapValue_native_Overflow", "throws:NewLongArray", 3, 0, true,
     "the record of whose end Java could not be told stays, with key and value"},
    {"OffHeapManager_unpinLuOffHeapValue_native_Overflow", "throws:CallStaticVoidMethod", 3, 0,
     true, "the record of whose end Java could not be told stays, with key and value"},
    {"BoundedNatives_put_*resent*_Overflow", "throws:NewLongArray", 3, 0, true,
     "the record of whose end Java could not be told stays, with key and value"},
    {"BoundedNatives_put_*resent*_Overflow", "throws:CallStaticVoidMethod", 3, 0, true,
     "the record of whose end Java could not be told stays, with key and value"},
    {"BoundedNatives_[!p]*_Overflow", "throws:NewLongArray", 5, 0, true,
     "the record of whose end Java could not be told stays, with all that it carries"},
    {"BoundedNatives_[!p]*_Overflow", "throws:CallStaticVoidMethod", 5, 0, true,
     "the record of whose end Java could not be told stays, with all that it carries"},
    {"BoundedNatives_put_Expired_Overflow", "throws:NewLongArray", 5, 0, true,
     "the record of whose end Java could not be told stays, with all that it carries"},
    {"BoundedNatives_put_Expired_Overflow", "throws:CallStaticVoidMethod", 5, 0, true,
     "the record of whose end Java could not be told stays, with all that it carries"},
    {"OffHeapManager_pinTrack", "*", 0, 0, true,
     "a report that discards leaves its records to a thread that may be about to lock them"},
    {"OffHeapManager_allocatePhantom", "none:", 0, 1, false,
     "a phantom buffer is a global reference that lives as long as the process"},
    {"OffHeapManager_initializeOffHeap*", "none:", 0, 1, false,
     "start-up runs once: its reference to the map's class is never given back"},
    {"OffHeapManager_initializeOffHeap*", "*:GetMethodID", 0, 1, false,
     "start-up runs once: its reference to the map's class is never given back"},
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
    {"*", "limit:Bookmarks", "bookmarks are allocated without a look at the limits"},
    {"*", "afterwards:Bookmarks", "bookmarks are allocated without a look at the limits"},
    {"*Unchecked", "limit:*", "Java asked for no look at the limits"},
    {"*Unchecked", "afterwards:*", "Java asked for no look at the limits"},
    {"*", "throws:SetCharArrayRegion", "the array was made with the length that is written"},
    {"*", "throws:SetIntArrayRegion", "the array was made with the length that is written"},
    {"*", "throws:SetByteArrayRegion", "the array was made with the length that is written"},
    {"LuOffHeapEvictionQueue_getEvictionList", "throws:SetLongArrayRegion",
     "the array was asked for its length"},
    {"LuOffHeapTTLEvictionQueue_*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"LuOffHeapVoskaEvictionQueue_*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"LuOffHeapMapImpl_clear*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"OffHeapManager_unpinLuOffHeapValue_native*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"*Natives_put*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"*Natives_re*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"BoundedNatives_clear*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"BoundedNatives_evict*", "throws:SetLongArrayRegion", "the array was asked for its length"},
    {"MapNatives_scan*", "throws:SetLongArrayRegion",
     "the array was asked for its length, and the cursor has been read before"},
    {"NOFStruct_lockValidAndGetChunkPtr*", "throws:SetLongArrayRegion",
     "the array was made with the length that is written"},
    {"MapNatives_unpinAll*", "throws:GetLongArrayRegion",
     "the array is the one that a step of the walk has filled"},
    {"*Natives_*", "throws:GetByteArrayRegion", "the array was asked for its length"},
};

}  // namespace nimbra::test::fault
