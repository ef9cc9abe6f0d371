// What an entry costs at one size: a plain std::unordered_map that copies the same bytes, and the
// library's native road.
//
//   nimbra_scale --entries N --value-bytes B
//
// Prints one JSON object a line. putNs: one insertion while filling, growth included. getNs: one
// copy of a value that is there, keys drawn uniformly; getApartNs: the same when a get begins only
// once the one before it has completed. bytesPerEntry: what the allocator counts as in use with the
// full map less what it counted before, so payload, tables and rounding are all in it. Times are
// processor time of the one thread that runs.
#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <unordered_map>
#include <utility>
#include <vector>

#include "native_options.h"
#include "native_stores.h"
#include "native_workload.h"
#include "nb_alloc.h"
#include "nb_alloc_backend.h"

namespace nimbra::bench {

namespace {

constexpr int64_t kMaximum = int64_t{1} << 40;  // bytes; no map comes near it
constexpr uint64_t kMostEntries = 1'000'000'000;
constexpr size_t kChunk = 65'536;    // requests that are made before they are timed
constexpr size_t kSample = 500'000;  // gets in one pass
constexpr int kPasses = 5;           // the median counts

// ---- The plain map -------------------------------------------------------------------------

using Key = std::array<uint8_t, kKeyBytes>;

// The keys' bytes are random already, as the hash that the other map is given.
struct HashOfKey {
  size_t operator()(const Key& key) const {
    size_t word;
    std::memcpy(&word, key.data(), sizeof word);
    return word;
  }
};

struct FreeBlock {
  void operator()(uint8_t* block) const { std::free(block); }
};

// Bytes that malloc made room for, and how many.
struct Value {
  std::unique_ptr<uint8_t, FreeBlock> bytes;
  size_t length;
};

class PlainMap {
 public:
  static constexpr const char* kName = "std::unordered_map";
  static constexpr const char* kAllocator = "glibc malloc";

  explicit PlainMap(uint32_t valueBytes) : source_(valueBytes, 1) {}

  static uint64_t bytesInUse() {
    const struct mallinfo2 figures = mallinfo2();
    return figures.uordblks + figures.hblkhd;
  }

  void insert(const Request& request) {
    std::unique_ptr<uint8_t, FreeBlock> bytes(static_cast<uint8_t*>(std::malloc(source_.size())));
    if (bytes == nullptr) giveUp("no memory for a value of the plain map");
    std::memcpy(bytes.get(), source_.data(), source_.size());
    if (!map_.emplace(keyOf(request), Value{std::move(bytes), source_.size()}).second) {
      giveUp("the plain map has a key already");
    }
  }

  void getHit(const Request& request) {
    const auto found = map_.find(keyOf(request));
    if (found == map_.end()) giveUp("the plain map misses a key");
    std::memcpy(scratchArray().bytes, found->second.bytes.get(), found->second.length);
  }

 private:
  static Key keyOf(const Request& request) {
    Key key;
    std::memcpy(key.data(), request.key, kKeyBytes);
    return key;
  }

  std::unordered_map<Key, Value, HashOfKey> map_;
  std::vector<uint8_t> source_;
};

// ---- The library's -------------------------------------------------------------------------

class NativeMap {
 public:
  static constexpr const char* kName = "nimbra-native";
  static constexpr const char* kAllocator = "jemalloc, pages in use";

  explicit NativeMap(uint32_t valueBytes) : road_(std::make_shared<EntryMap>(valueBytes)) {}
  static uint64_t bytesInUse() { return backend::sizeInUse(); }
  void insert(const Request& request) { road_.insert(request); }
  void getHit(const Request& request) { road_.getHit(request); }

 private:
  FaceRoad road_;
};

// ---- Measurement ---------------------------------------------------------------------------

template <typename Map>
double filled(Map& map, uint64_t entries) {
  double seconds = 0;
  std::vector<Request> chunk;
  for (uint64_t done = 0; done < entries; done += chunk.size()) {
    chunk.clear();
    while (chunk.size() < kChunk && done + chunk.size() < entries) {
      chunk.push_back(requestOf(done + chunk.size()));
    }
    const double start = processorSeconds();
    for (const Request& request : chunk) map.insert(request);
    seconds += processorSeconds() - start;
  }
  return seconds * 1e9 / static_cast<double>(entries);
}

std::vector<Request> uniformSample(uint64_t entries) {
  std::mt19937_64 random(entries);
  std::uniform_int_distribution<uint64_t> index(0, entries - 1);
  std::vector<Request> sample(kSample);
  for (Request& request : sample) request = requestOf(index(random));
  return sample;
}

template <bool Apart, typename Map>
double timeOfGet(Map& map, const std::vector<Request>& sample) {
  std::array<double, kPasses> nanoseconds;
  for (double& pass : nanoseconds) {
    const double start = processorSeconds();
    for (const Request& request : sample) {
      map.getHit(request);
      if constexpr (Apart) waitForCompletion();
    }
    pass = (processorSeconds() - start) * 1e9 / static_cast<double>(sample.size());
  }
  std::sort(nanoseconds.begin(), nanoseconds.end());
  return nanoseconds[kPasses / 2];
}

template <typename Map>
void measureMap(uint64_t entries, uint32_t valueBytes) {
  const std::vector<Request> sample = uniformSample(entries);
  const uint64_t before = Map::bytesInUse();
  Map map(valueBytes);
  const double put = filled(map, entries);
  const double bytes =
      static_cast<double>(Map::bytesInUse() - before) / static_cast<double>(entries);
  for (const Request& request : sample) map.getHit(request);
  const double get = timeOfGet<false>(map, sample);
  const double apart = timeOfGet<true>(map, sample);
  std::printf(
      "{\"impl\": \"%s\", \"entries\": %llu, \"valueBytes\": %u, \"getNs\": %.2f, \"putNs\": %.2f, "
      "\"getApartNs\": %.2f, \"bytesPerEntry\": %.2f, \"allocator\": \"%s\"}\n",
      Map::kName, static_cast<unsigned long long>(entries), valueBytes, get, put, apart, bytes,
      Map::kAllocator);
  std::fflush(stdout);
}

// Bytes that the system can give out without swapping; all there are when it does not say.
uint64_t availableBytes() {
  std::FILE* file = std::fopen("/proc/meminfo", "r");
  if (file == nullptr) return UINT64_MAX;
  char line[128];
  unsigned long long kilobytes = 0;
  bool found = false;
  while (!found && std::fgets(line, sizeof line, file) != nullptr) {
    found = std::sscanf(line, "MemAvailable: %llu kB", &kilobytes) == 1;
  }
  std::fclose(file);
  return found ? kilobytes * 1024 : UINT64_MAX;
}

// Ends the program with status 3 when the larger of the two maps would not fit.
void checkMemory(uint64_t entries, uint32_t valueBytes) {
  const uint64_t needed = entries * (valueBytes + valueBytes / 4 + 320) + (uint64_t{64} << 20);
  const uint64_t available = availableBytes();
  if (needed <= available) return;
  std::fprintf(stderr,
               "%llu entries with values of %u bytes need about %llu MiB; %llu MiB are available\n",
               static_cast<unsigned long long>(entries), valueBytes,
               static_cast<unsigned long long>(needed >> 20),
               static_cast<unsigned long long>(available >> 20));
  std::exit(3);
}

}  // namespace

}  // namespace nimbra::bench

int main(int argc, char** argv) {
  using namespace nimbra;
  using namespace nimbra::bench;
  uint64_t entries = 0;
  uint32_t valueBytes = 0;
  for (int i = 1; i < argc; i++) {
    if (std::strcmp(argv[i], "--entries") == 0) {
      entries = numberOf("--entries", valueBehind(argc, argv, &i), 1, kMostEntries);
    } else if (std::strcmp(argv[i], "--value-bytes") == 0) {
      valueBytes = static_cast<uint32_t>(
          numberOf("--value-bytes", valueBehind(argc, argv, &i), 1, kMaximumValueBytes));
    } else {
      std::fprintf(stderr, "unknown argument '%s' (expected --entries N and --value-bytes B)\n",
                   argv[i]);
      return 2;
    }
  }
  if (entries == 0 || valueBytes == 0) {
    std::fprintf(stderr, "%s is missing\n", entries == 0 ? "--entries" : "--value-bytes");
    return 2;
  }
  checkMemory(entries, valueBytes);
  backend::prepareSizeInUse();
  maxOffHeapSize = kMaximum;
  measureMap<PlainMap>(entries, valueBytes);
  malloc_trim(0);
  measureMap<NativeMap>(entries, valueBytes);
  return 0;
}
