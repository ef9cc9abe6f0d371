// The stores that the native benchmarks compare: an entry map by two roads, and the floor.
//
// All offer the same five operations on the same requests. The map's own bytes and the floor's lie
// in blocks of the same sizes from the same allocator, made in the same order, so that both meet
// the same caches and the same page tables.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "native_workload.h"
#include "nb_map.h"

namespace nimbra::bench {

// An entry map that both roads use; freed with its entries.
class EntryMap {
 public:
  explicit EntryMap(uint32_t valueBytes);
  ~EntryMap();
  EntryMap(const EntryMap&) = delete;
  EntryMap& operator=(const EntryMap&) = delete;

  LuOffHeapMap* handle() const { return map_; }
  uint32_t valueBytes() const { return valueBytes_; }
  int64_t nextRevision() { return ++revision_; }
  uint64_t bucketCount() const;  // of all sets together

 private:
  LuOffHeapMap* map_;
  uint32_t valueBytes_;
  int64_t revision_ = 0;
};

// What OffHeapMap's natives do below the JNI layer: keys and values are Java byte arrays.
class FaceRoad {
 public:
  explicit FaceRoad(std::shared_ptr<EntryMap> map);
  void getHit(const Request& request);
  void getMiss(const Request& request);
  void insert(const Request& request);
  void update(const Request& request);
  void remove(const Request& request);

 private:
  std::shared_ptr<EntryMap> map_;
  std::vector<jbyte> source_;
  ScriptedArray value_;
};

// What the contract's natives do below theirs: keys and values are buffers of the library, an
// update answers with the entry's previous state.
class ContractRoad {
 public:
  explicit ContractRoad(std::shared_ptr<EntryMap> map);
  void getHit(const Request& request);
  void getMiss(const Request& request);
  void insert(const Request& request);
  void update(const Request& request);
  void remove(const Request& request);

 private:
  std::shared_ptr<EntryMap> map_;
  std::vector<uint8_t> source_;
};

// The least work: one mutex, a fixed array of chains, records and buffers of the map's layout, kept
// in order of their revisions. No pins, no limits, no counts, no growth, no callbacks.
class Floor {
 public:
  Floor(uint32_t valueBytes, uint64_t bucketCount);
  ~Floor();
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;
  void getHit(const Request& request);
  void getMiss(const Request& request);
  void insert(const Request& request);
  void update(const Request& request);
  void remove(const Request& request);

 private:
  LuOffHeapValue** bucketOf(const Request& request) {
    return &buckets_[(uint64_t{request.hash} * buckets_.size()) >> 32];
  }
  ByteBufferHeader* filledBuffer(const void* bytes, uint32_t length);
  void append(LuOffHeapValue* record);
  void unlink(LuOffHeapValue* record);

  uint32_t valueBytes_;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::vector<LuOffHeapValue*> buckets_;
  LuQueueEntry ends_ = {};  // its next is the oldest record, its prev the newest
  std::vector<uint8_t> source_;
};

}  // namespace nimbra::bench
