// The data caches of a processor.
#pragma once

#include <cstdint>

#include "cpu/processor.h"

namespace ksomd {

inline constexpr std::uint32_t cache_levels = 3;

struct Cache {
  std::uint32_t size_kib, line, partitions, ways;  // all 0: no such cache
};

struct CacheInfo {
  std::uint32_t genuine;       // 1: the vendor string is "GenuineOrvex"
  std::uint32_t highest_leaf;  // highest basic CPUID leaf of a genuine processor, else 0
  Cache level[cache_levels];   // the data or unified cache of level i + 1
  std::uint32_t ready;         // 1 once the fields above are filled; stored last
};

// Gathers what a genuine processor reports. For any other processor all fields but `ready` are 0.
CacheInfo gather_caches(const Processor& processor);

// The caches that a processor of any vendor reports by the leaf that describes one cache in each
// subleaf: leaf 4, or its counterpart 0x8000001D. Everything but `highest_leaf` is 0 for a
// processor without such a leaf; `genuine` and `ready` are not set.
CacheInfo reported_caches(const Processor& processor);

// The cache that a descriptor byte of CPUID leaf 2 stands for; level 0 if it is no data or unified
// cache.
struct CacheDescriptor {
  std::uint8_t level;
  std::uint32_t size_kib, ways, line, partitions;
};
const CacheDescriptor& cache_descriptor(std::uint8_t byte);

// The caches of the processor that the code runs on. The first call gathers them.
CacheInfo process_caches();

}  // namespace ksomd

extern "C" {

// The process's caches. Readers call process_caches().
[[gnu::visibility("hidden")]] extern ksomd::CacheInfo __libkso_cache_info;

// Gathers the caches of the processor that the code runs on.
void __libkso_cache_init(void);

}  // extern "C"
