// The fuzz targets by name. The name is also that of the target's folder of inputs.

#pragma once

#include <cstddef>
#include <cstdint>

namespace nimbra::fuzz {

class Input;

void fuzzKeyCompare(Input& input);
void fuzzHashtable(Input& input);
void fuzzRevisionQueue(Input& input);
void fuzzEvictionQueue(Input& input);
void fuzzOverflowSweep(Input& input);
void fuzzJavaReplies(Input& input);

struct Target {
  const char* name;
  void (*run)(Input& input);
};

inline constexpr Target kTargets[] = {
    {"key_compare", &fuzzKeyCompare},       {"hashtable", &fuzzHashtable},
    {"revision_queue", &fuzzRevisionQueue}, {"eviction_queue", &fuzzEvictionQueue},
    {"overflow_sweep", &fuzzOverflowSweep}, {"java_replies", &fuzzJavaReplies},
};

}  // namespace nimbra::fuzz
