// The mixing of hashes and addresses before they choose a bucket or a chain.
#pragma once

#include <cstdint>

namespace nimbra {

inline uint32_t hashFn32(uint32_t hash) {
  // Steps 4 and 6 shift left, unlike 2 and 7; where an entry lies depends on it.
  hash -= hash << 9;
  hash ^= hash >> 14;
  hash -= hash << 5;
  hash ^= hash << 4;
  hash -= hash << 7;
  hash ^= hash << 7;
  hash ^= hash >> 18;
  return hash;
}

inline uint64_t hashFn64(uint64_t hash) {
  hash -= hash << 9;
  hash ^= hash >> 14;
  hash -= hash << 5;
  hash ^= hash << 4;
  hash -= hash << 7;
  hash ^= hash << 7;
  hash ^= hash >> 18;
  return hash;
}

}  // namespace nimbra
