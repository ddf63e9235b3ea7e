#include "cpu/cache.h"

#include <cstddef>

#include "ksomd/core.h"

constinit ksomd::CacheInfo __libkso_cache_info{};

namespace ksomd {
namespace {

struct DescriptorRow {
  std::uint8_t byte;
  CacheDescriptor cache;  // level, size in KiB, ways, line, partitions
};

// The data and unified caches among the descriptors of CPUID leaf 2.
constexpr DescriptorRow descriptor_rows[] = {
    // level 1
    {0x0A, {1, 8, 2, 32, 1}},
    {0x0C, {1, 16, 4, 32, 1}},
    {0x0D, {1, 16, 4, 64, 1}},
    {0x0E, {1, 24, 6, 64, 1}},
    {0x10, {1, 16, 4, 32, 1}},
    {0x2C, {1, 32, 8, 64, 1}},
    {0x60, {1, 16, 8, 64, 1}},
    {0x62, {1, 32, 8, 64, 1}},
    {0x66, {1, 8, 4, 64, 2}},
    {0x67, {1, 16, 4, 64, 2}},
    {0x68, {1, 32, 4, 64, 2}},
    {0x69, {1, 64, 4, 64, 2}},
    // level 2
    {0x1A, {2, 96, 6, 64, 1}},
    {0x1D, {2, 128, 2, 64, 1}},
    {0x21, {2, 256, 8, 64, 1}},
    {0x24, {2, 1024, 16, 64, 1}},
    {0x39, {2, 128, 4, 64, 1}},
    {0x3A, {2, 192, 6, 64, 1}},
    {0x3B, {2, 128, 2, 64, 1}},
    {0x3C, {2, 256, 4, 64, 1}},
    {0x3D, {2, 384, 6, 64, 1}},
    {0x3E, {2, 512, 4, 64, 1}},
    {0x3F, {2, 256, 4, 64, 1}},
    {0x41, {2, 128, 4, 32, 1}},
    {0x42, {2, 256, 4, 32, 1}},
    {0x43, {2, 512, 4, 32, 1}},
    {0x44, {2, 1024, 4, 32, 1}},
    {0x45, {2, 2048, 4, 32, 1}},
    {0x48, {2, 3072, 12, 64, 1}},
    {0x49, {2, 4096, 16, 64, 1}},
    {0x4E, {2, 6144, 24, 64, 1}},
    {0x78, {2, 1024, 4, 64, 1}},
    {0x79, {2, 128, 8, 64, 2}},
    {0x7A, {2, 256, 8, 64, 2}},
    {0x7B, {2, 512, 8, 64, 2}},
    {0x7C, {2, 1024, 8, 64, 2}},
    {0x7D, {2, 2048, 8, 64, 2}},
    {0x7E, {2, 256, 12, 128, 1}},
    {0x7F, {2, 512, 2, 64, 1}},
    {0x80, {2, 512, 8, 64, 1}},
    {0x81, {2, 128, 8, 32, 1}},
    {0x82, {2, 256, 8, 32, 1}},
    {0x83, {2, 512, 8, 32, 1}},
    {0x84, {2, 1024, 8, 32, 1}},
    {0x85, {2, 2048, 8, 32, 1}},
    {0x86, {2, 512, 4, 64, 1}},
    {0x87, {2, 1024, 8, 64, 1}},
    // level 3
    {0x22, {3, 512, 4, 64, 2}},
    {0x23, {3, 1024, 8, 64, 2}},
    {0x25, {3, 2048, 8, 64, 2}},
    {0x29, {3, 4096, 8, 64, 2}},
    {0x46, {3, 4096, 4, 64, 1}},
    {0x47, {3, 8192, 8, 64, 1}},
    {0x4A, {3, 6144, 12, 64, 1}},
    {0x4B, {3, 8192, 16, 64, 1}},
    {0x4C, {3, 12288, 12, 64, 1}},
    {0x4D, {3, 16384, 16, 64, 1}},
    {0x88, {3, 2048, 4, 64, 1}},
    {0x89, {3, 4096, 4, 64, 1}},
    {0x8A, {3, 8192, 4, 64, 1}},
    {0x8D, {3, 3072, 12, 128, 1}},
    {0xD0, {3, 512, 4, 64, 1}},
    {0xD1, {3, 1024, 4, 64, 1}},
    {0xD2, {3, 2048, 4, 64, 1}},
    {0xD6, {3, 1024, 8, 64, 1}},
    {0xD7, {3, 2048, 8, 64, 1}},
    {0xD8, {3, 4096, 8, 64, 1}},
    {0xDC, {3, 2048, 12, 64, 1}},
    {0xDD, {3, 4096, 12, 64, 1}},
    {0xDE, {3, 8192, 12, 64, 1}},
    {0xE2, {3, 2048, 16, 64, 1}},
    {0xE3, {3, 4096, 16, 64, 1}},
    {0xE4, {3, 8192, 16, 64, 1}},
    {0xEA, {3, 12288, 24, 64, 1}},
    {0xEB, {3, 18432, 24, 64, 1}},
    {0xEC, {3, 24576, 24, 64, 1}},
};
static_assert(sizeof descriptor_rows / sizeof descriptor_rows[0] == 76);

struct DescriptorTable {
  CacheDescriptor by_byte[256] = {};

  consteval DescriptorTable() {
    for (const DescriptorRow& row : descriptor_rows) {
      by_byte[row.byte] = row.cache;
    }
  }
};
constexpr DescriptorTable descriptors;

constexpr std::uint32_t field(std::uint32_t value, unsigned high, unsigned low) {
  return value << (31 - high) >> (31 - high + low);
}

// Reads one of the leaves that describe a cache in each subleaf.
void read_deterministic_leaf(const Processor& processor, std::uint32_t leaf, CacheInfo& info) {
  constexpr std::uint32_t most_subleaves = 8;
  constexpr std::uint32_t no_more = 0, data = 1, unified = 3;
  for (std::uint32_t subleaf = 0; subleaf < most_subleaves; ++subleaf) {
    const CpuidResult result = processor.leaf(leaf, subleaf);
    const std::uint32_t type = field(result.eax, 4, 0);
    const std::uint32_t level = field(result.eax, 7, 5);
    if (type == no_more) {
      break;
    }
    if ((type != data && type != unified) || level < 1 || level > cache_levels) {
      continue;
    }
    Cache cache{};
    cache.line = field(result.ebx, 11, 0) + 1;
    cache.partitions = field(result.ebx, 21, 12) + 1;
    cache.ways = field(result.ebx, 31, 22) + 1;
    const std::uint32_t sets = result.ecx + 1;
    cache.size_kib = ((cache.ways * cache.line) * (cache.partitions * sets)) >> 10;
    info.level[level - 1] = cache;
  }
}

// Descriptor 0x49 means level 3 on one processor model: family 15, model 6.
bool is_family_15_model_6(const Processor& processor) {
  const std::uint32_t signature = processor.leaf(1).eax;
  const std::uint32_t model = field(signature, 19, 16) << 4 | field(signature, 7, 4);
  return field(signature, 11, 8) == 0xF && field(signature, 27, 20) == 0 && model == 6;
}

void record_descriptor(const Processor& processor, std::uint8_t byte, CacheInfo& info) {
  constexpr std::uint8_t level_2_or_3 = 0x49;
  const CacheDescriptor& found = cache_descriptor(byte);
  if (found.level == 0) {
    return;
  }
  const bool is_level_3 = byte == level_2_or_3 && is_family_15_model_6(processor);
  info.level[is_level_3 ? 2 : found.level - 1] = {found.size_kib, found.line, found.partitions,
                                                  found.ways};
}

void read_leaf_2(const Processor& processor, CacheInfo& info) {
  constexpr std::uint32_t most_executions = 4;
  constexpr std::uint32_t no_descriptors = 1u << 31;
  constexpr std::uint8_t use_leaf_4 = 0xFF;
  CpuidResult results[most_executions];
  results[0] = processor.leaf(2);
  const std::uint32_t wanted = field(results[0].eax, 7, 0);
  const std::uint32_t executions = wanted < most_executions ? wanted : most_executions;
  for (std::uint32_t i = 1; i < executions; ++i) {
    results[i] = processor.leaf(2);
  }
  for (std::uint32_t i = 0; i < executions; ++i) {
    const CpuidResult& result = results[i];
    const std::uint32_t registers[] = {result.eax, result.ebx, result.ecx, result.edx};
    for (const std::uint32_t value : registers) {
      // The lowest byte of EAX is the number of executions. It is looked up like a descriptor,
      // which does no harm: 1 to 4 describe no cache.
      for (int byte = 0; byte < 4 && (value & no_descriptors) == 0; ++byte) {
        const auto descriptor = static_cast<std::uint8_t>(value >> (8 * byte));
        if (descriptor == use_leaf_4) {
          for (Cache& cache : info.level) {
            cache = {};
          }
          return;
        }
        record_descriptor(processor, descriptor, info);
      }
    }
  }
}

// Copies all fields but `ready`, each word atomically. Threads that race for the first use store
// the same values.
void copy_caches(const CacheInfo& from, CacheInfo& to) {
  constexpr std::size_t words = offsetof(CacheInfo, ready) / sizeof(std::uint32_t);
  const auto* source = reinterpret_cast<const std::uint32_t*>(&from);
  auto* target = reinterpret_cast<std::uint32_t*>(&to);
  for (std::size_t i = 0; i < words; ++i) {
    __atomic_store_n(&target[i], __atomic_load_n(&source[i], __ATOMIC_RELAXED), __ATOMIC_RELAXED);
  }
}

}  // namespace

const CacheDescriptor& cache_descriptor(std::uint8_t byte) {
  return descriptors.by_byte[byte];
}

CacheInfo gather_caches(const Processor& processor) {
  CacheInfo info{};
  if (processor.has_cpuid(processor.self)) {
    if (processor.vendor_is(genuine_vendor)) {
      info.genuine = 1;
      info.highest_leaf = processor.leaf(0).eax;
    }
    if (info.highest_leaf >= 4) {
      read_deterministic_leaf(processor, 4, info);
    }
    if (info.level[0].size_kib == 0 && info.highest_leaf >= 2) {
      read_leaf_2(processor, info);
    }
  }
  info.ready = 1;
  return info;
}

CacheInfo reported_caches(const Processor& processor) {
  constexpr std::uint32_t extended_range = 0x80000000, extended_leaf = 0x8000001D;
  CacheInfo info{};
  if (!processor.has_cpuid(processor.self)) {
    return info;
  }
  info.highest_leaf = processor.leaf(0).eax;
  if (info.highest_leaf >= 4) {
    read_deterministic_leaf(processor, 4, info);
  }
  if (info.level[0].size_kib == 0 && processor.leaf(extended_range).eax >= extended_leaf) {
    read_deterministic_leaf(processor, extended_leaf, info);
  }
  return info;
}

CacheInfo process_caches() {
  if (__atomic_load_n(&__libkso_cache_info.ready, __ATOMIC_ACQUIRE) == 0) {
    __libkso_cache_init();
  }
  CacheInfo info{};
  copy_caches(__libkso_cache_info, info);
  info.ready = 1;
  return info;
}

}  // namespace ksomd

void __libkso_cache_init() {
  ksomd::copy_caches(ksomd::gather_caches(ksomd::hardware_processor), __libkso_cache_info);
  __atomic_store_n(&__libkso_cache_info.ready, 1, __ATOMIC_RELEASE);
}

std::uint32_t __cacheSize(std::uint32_t level) {
  if (level < 1 || level > ksomd::cache_levels) {
    return 0;
  }
  return ksomd::process_caches().level[level - 1].size_kib;
}
