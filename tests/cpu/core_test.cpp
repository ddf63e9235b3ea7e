// Core types and caches, of processors that are tables.
#include "ksomd/core.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "cpu/cache.h"
#include "cpu/core_type.h"
#include "cpu/machine.h"
#include "support/child_process.h"
#include "support/entry.h"
#include "support/sweep.h"
#ifndef _WIN32
#include <sched.h>
#endif

namespace ksomd::test {
namespace {

const auto cache_size = entry<std::uint32_t(std::uint32_t)>("__cacheSize");
const auto init_core_type = entry<void()>("__init_cpu_core_type");
const auto detect_core_type = entry<std::uint32_t()>("__detect_cpu_core_type");
const auto core_types = entry<std::uint8_t>("__cpu_core_type");

// The data and unified caches of the published encoding of leaf 2, by level:
// byte, KiB/ways/line and, where there are two, /partitions.
constexpr const char* published[] = {
    R"(0A 8/2/32 0C 16/4/32 0D 16/4/64 0E 24/6/64 10 16/4/32 2C 32/8/64 60 16/8/64 62 32/8/64
    66 8/4/64/2 67 16/4/64/2 68 32/4/64/2 69 64/4/64/2)",
    R"(1A 96/6/64 1D 128/2/64 21 256/8/64 24 1024/16/64 39 128/4/64 3A 192/6/64 3B 128/2/64
    3C 256/4/64 3D 384/6/64 3E 512/4/64 3F 256/4/64 41 128/4/32 42 256/4/32 43 512/4/32
    44 1024/4/32 45 2048/4/32 48 3072/12/64 49 4096/16/64 4E 6144/24/64 78 1024/4/64 79 128/8/64/2
    7A 256/8/64/2 7B 512/8/64/2 7C 1024/8/64/2 7D 2048/8/64/2 7E 256/12/128 7F 512/2/64 80 512/8/64
    81 128/8/32 82 256/8/32 83 512/8/32 84 1024/8/32 85 2048/8/32 86 512/4/64 87 1024/8/64)",
    R"(22 512/4/64/2 23 1024/8/64/2 25 2048/8/64/2 29 4096/8/64/2 46 4096/4/64 47 8192/8/64
    4A 6144/12/64 4B 8192/16/64 4C 12288/12/64 4D 16384/16/64 88 2048/4/64 89 4096/4/64 8A 8192/4/64
    8D 3072/12/128 D0 512/4/64 D1 1024/4/64 D2 2048/4/64 D6 1024/8/64 D7 2048/8/64 D8 4096/8/64
    DC 2048/12/64 DD 4096/12/64 DE 8192/12/64 E2 2048/16/64 E3 4096/16/64 E4 8192/16/64
    EA 12288/24/64 EB 18432/24/64 EC 24576/24/64)"};

struct Published {
  std::size_t level = 0;  // 0: describes no cache
  Cache cache{0, 0, 1, 0};
};

const std::vector<Published>& published_caches() {
  static const std::vector<Published> caches = [] {
    std::vector<Published> by_byte(256);
    for (std::size_t level = 1; level <= cache_levels; ++level) {
      std::istringstream words(published[level - 1]);
      std::size_t byte = 0;
      for (std::string sizes; words >> std::hex >> byte >> sizes; by_byte[byte].level = level) {
        Cache& cache = by_byte[byte].cache;
        std::sscanf(sizes.c_str(), "%u/%u/%u/%u", &cache.size_kib, &cache.ways, &cache.line,
                    &cache.partitions);
      }
    }
    return by_byte;
  }();
  return caches;
}

// ---- the oracle ---------------------------------------------------------------------------------

void read_descriptors(SyntheticProcessor& p, std::size_t executions, CacheInfo& info) {
  const bool moved = (p.at(1).eax & 0x0FFF0FF0) == 0xF60;  // family 15, model 6
  for (std::size_t i = 0; i < executions; ++i) {
    for (const char reg : {'a', 'b', 'c', 'd'}) {
      const std::uint32_t value = SyntheticProcessor::reg(p.leaf_2[i], reg);
      for (unsigned shift = 0; shift < 32 && value < 0x80000000; shift += 8) {
        const std::uint32_t byte = value >> shift & 0xFF;
        if (byte == 0xFF) {
          std::ranges::fill(info.level, Cache{});
          return;
        }
        const auto& [level, cache] = published_caches()[byte];
        if (level != 0) {
          info.level[byte == 0x49 && moved ? 2 : level - 1] = cache;
        }
      }
    }
  }
}

void expect_caches(SyntheticProcessor& p, bool genuine) {
  CacheInfo info{};
  info.ready = 1;
  int leaf_4 = 0, leaf_2 = 0, read_4 = 0;
  if (genuine && p.cpuid_exists) {
    info.genuine = 1;
    info.highest_leaf = p.at(0).eax;
  }
  for (bool more = info.highest_leaf >= 4; more && leaf_4 < 8;) {
    const CpuidResult r = p.at(4, static_cast<std::uint32_t>(leaf_4++));
    const std::uint32_t type = r.eax % 32, level = r.eax / 32 % 8;
    more = type != 0;
    if ((type == 1 || type == 3) && level >= 1 && level <= cache_levels) {
      const std::uint32_t line = r.ebx % 4096 + 1, partitions = r.ebx / 4096 % 1024 + 1;
      const std::uint32_t ways = r.ebx / 4194304 + 1;
      const std::uint32_t bytes = ways * line * partitions * (r.ecx + 1);  // 32 bits of it
      info.level[level - 1] = {bytes / 1024, line, partitions, ways};
    }
  }
  if (info.level[0].size_kib == 0 && info.highest_leaf >= 2) {
    const std::uint32_t wanted = p.leaf_2[0].eax & 0xFF;
    leaf_2 = static_cast<int>(std::clamp(wanted, 1u, 4u));
    read_descriptors(p, std::min(wanted, 4u), info);
  }
  p.asked.clear();
  const CacheInfo found = gather_caches(p.processor());
  for (std::uint32_t subleaf = 0; subleaf < 16; ++subleaf) {
    read_4 += p.times_asked(4, subleaf);
  }
  ASSERT_EQ(std::memcmp(&found, &info, sizeof found), 0)
      << testing::PrintToString(found) << "\nexpected " << testing::PrintToString(info) << "\non "
      << p.describe();
  ASSERT_TRUE(read_4 == leaf_4 && p.times_asked(2) == leaf_2) << p.describe();
}

SyntheticProcessor genuine_processor(std::uint32_t highest_leaf) {
  SyntheticProcessor p;
  p.set_vendor(genuine_vendor, highest_leaf);
  p.leaf_2.resize(4);
  return p;
}

TEST(Caches, EachDescriptor) {
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    SyntheticProcessor p = genuine_processor(3);
    p.leaf_2[0] = {1 | byte << 8, 0, 0, 0x2C};
    expect_caches(p, true);
  }
}

TEST(Caches, RandomProcessors) {
  Random random(seed_of(2));
  const auto word = [&random] { return static_cast<std::uint32_t>(random.next()); };
  for (int round = 0; round < (full_length() ? 1'000'000 : 20'000); ++round) {
    SyntheticProcessor p = genuine_processor(random.one_of({0u, 1u, 2u, 3u, 4u, 0x16u}));
    p.cpuid_exists = !random.one_in(16);
    const bool genuine = !random.one_in(16);
    p.reg(0, 0, random.one_of({'b', 'c', 'd'})) ^= genuine ? 0 : 1u << random.below(32);
    p.at(1).eax = random.one_of({0xF65u, 0xF50u, 0xE60u, 0x10F65u, 0x100F60u, 0xF000F06Fu, word()});
    const auto described = static_cast<std::uint32_t>(random.below(10));
    for (std::uint32_t subleaf = 0; subleaf < described; ++subleaf) {
      const std::uint32_t type = random.one_of({1u, 2u, 3u, 3u, 4u, 17u}) | (word() & 0xE0);
      const std::uint32_t mask = random.one_in(4) ? ~0u : 0x01C0703F;
      p.at(4, subleaf) = {(word() & ~0xFFu) | type, word() & mask, word() & mask, word()};
    }
    for (CpuidResult& r : p.leaf_2) {
      for (const char reg : {'a', 'b', 'c', 'd'}) {
        const std::uint32_t mask = random.one_of({~0u, 0x7F7F7F7Fu, 0x7F7F7F7Fu, 0u});
        SyntheticProcessor::reg(r, reg) = random.one_in(3) ? 0x49 : word() & mask;
      }
    }
    p.leaf_2[0].eax = (p.leaf_2[0].eax & ~0xFFu) | random.one_of({0u, 1u, 2u, 3u, 4u, 5u, 0x2Cu});
    expect_caches(p, genuine);
  }
}

TEST(Caches, AreGatheredByTheFirstUser) {
  SyntheticProcessor p = genuine_processor(2);
  p.leaf_2[0] = {0x2C01, 0x41, 0x88, 0};
  install(&p);
  EXPECT_EQ(cache_size(0) + cache_size(4) + cache_size(~0u), 0u);
  EXPECT_TRUE(p.asked.empty());
  EXPECT_EQ(cache_size(3), 2048u);
  EXPECT_EQ(cache_size(2), 128u);
  EXPECT_EQ(cache_size(1), 32u);
  const CacheInfo again = process_caches();
  EXPECT_EQ(std::memcmp(&again, &__libkso_cache_info, sizeof again), 0);
  EXPECT_EQ(again.ready, 1u);
  EXPECT_EQ(p.times_asked(2), 1) << "gathered again";
  install(nullptr);
}

// ---- core types ---------------------------------------------------------------------------------

SyntheticProcessor hybrid_processor() {
  SyntheticProcessor p = genuine_processor(0x1A);
  p.at(7) = {0, 0, 1u << 22, 1u << 15};
  p.at(0x1A).eax = 0x40000001;
  return p;
}

TEST(CoreType, NeedsEveryBit) {
  EXPECT_EQ(hybrid_state(hybrid_processor().processor()), HybridState::Available);
  const struct {
    std::uint32_t leaf;
    char reg;
    std::uint32_t flipped;
  } changes[] = {{0, 'a', 3}, {0, 'b', 1}, {0, 'c', 1}, {0, 'd', 1}, {7, 'c', ~0u}, {7, 'd', ~0u}};
  for (const auto& change : changes) {
    SyntheticProcessor p = hybrid_processor();
    p.reg(change.leaf, 0, change.reg) ^= change.flipped;
    EXPECT_EQ(hybrid_state(p.processor()), HybridState::Unavailable) << p.describe();
  }
}

// core_type NUMBER...: what the exported routines make of these processor numbers, one by one.
KSOMD_CHILD(core_type) {
  SyntheticProcessor p = hybrid_processor();
  p.numbers.clear();
  for (const std::string& number : arguments) {
    p.numbers.push_back(static_cast<std::uint32_t>(std::stoul(number)));
  }
  install(&p);
  init_core_type();
  const int asked = p.times_asked(7);  // once, and not again
  const std::uint32_t type = detect_core_type();
  std::printf("%d%d type %u after %zu:", asked, p.times_asked(7), type, p.rdpid_count);
  for (int i = 0; i < 1024; ++i) {
    if (core_types[i] != 0) {
      std::printf(" [%d]=%d", i, core_types[i]);
    }
  }
  return 0;
}

TEST(CoreType, IsReadTwiceAtMost) {
  const std::pair<Arguments, const char*> rows[] = {
      {{"6", "6"}, "11 type 64 after 2: [6]=64"},
      {{"1030", "1030"}, "11 type 64 after 2: [6]=64"},
      {{"1023", "1023"}, "11 type 64 after 2: [1023]=64"},
      {{"1", "2", "5", "5"}, "11 type 64 after 4: [5]=64"},
      {{"1", "2", "2", "1", "7", "7"}, "11 type 0 after 4:"}};
  for (const auto& [numbers, output] : rows) {
    expect_exit(run_child("core_type", numbers), 0, output);
  }
}

TEST(CoreType, OfThisProcessor) {
  EXPECT_TRUE(hardware_processor.has_cpuid(nullptr));
  EXPECT_EQ(detect_core_type, entry<std::uint32_t()>("__detect_cpu_core_type_1n"));
  if (hybrid_state(hardware_processor) != HybridState::Available) {
    EXPECT_EQ(detect_core_type(), 0u);
  }
#ifndef _WIN32
  // The thread may move in between, but not each time.
  const bool has_rdpid = (hardware_processor.leaf(7).ecx >> 22 & 1) != 0;
  bool same = !has_rdpid;
  for (int attempt = 0; attempt < 100 && !same; ++attempt) {
    same = static_cast<int>(hardware_processor.rdpid(nullptr) & 0xFFF) == sched_getcpu();
  }
  EXPECT_TRUE(same);
#endif
}

}  // namespace
}  // namespace ksomd::test
