// Core types and caches, of processors that are tables.
#include "ksomd/core.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>
#include <thread>

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
  Cache cache{};
};

Published published_cache(std::uint32_t byte) {
  for (std::size_t level = 1; level <= cache_levels; ++level) {
    std::istringstream words(published[level - 1]);
    std::uint32_t number = 0;
    for (std::string sizes; words >> std::hex >> number >> sizes;) {
      if (number == byte) {
        Cache cache{0, 0, 1, 0};
        std::sscanf(sizes.c_str(), "%u/%u/%u/%u", &cache.size_kib, &cache.ways, &cache.line,
                    &cache.partitions);
        return {level, cache};
      }
    }
  }
  return {};
}

// ---- the oracle ---------------------------------------------------------------------------------

void read_descriptors(SyntheticProcessor& p, const std::vector<CpuidResult>& answers,
                      CacheInfo& info) {
  static const std::vector<Published> caches = [] {
    std::vector<Published> by_byte;
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
      by_byte.push_back(published_cache(byte));
    }
    return by_byte;
  }();
  const bool moved = (p.at(1).eax & 0x0FFF0FF0) == 0xF60;
  for (const CpuidResult& answer : answers) {
    for (const std::uint32_t value : {answer.eax, answer.ebx, answer.ecx, answer.edx}) {
      for (unsigned shift = 0; shift < 32 && value < 0x80000000; shift += 8) {
        const std::uint32_t byte = value >> shift & 0xFF;
        if (byte == 0xFF) {
          std::ranges::fill(info.level, Cache{});
          return;
        }
        if (caches[byte].level != 0) {
          info.level[byte == 0x49 && moved ? 2 : caches[byte].level - 1] = caches[byte].cache;
        }
      }
    }
  }
}

// The caches of a processor, and how often leaf 2 and each sub-leaf of leaf 4 are to be read.
CacheInfo expected_caches(SyntheticProcessor& p, bool genuine, int& leaf_4, int& leaf_2) {
  CacheInfo info{};
  info.ready = 1;
  leaf_4 = leaf_2 = 0;
  if (!genuine || !p.cpuid_exists) {
    return info;
  }
  info.genuine = 1;
  info.highest_leaf = p.at(0).eax;
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
    if (wanted != 0) {
      read_descriptors(p, {p.leaf_2.begin(), p.leaf_2.begin() + leaf_2}, info);
    }
  }
  return info;
}

void expect_caches(SyntheticProcessor& p, bool genuine) {
  int leaf_4, leaf_2, read_4 = 0;
  const CacheInfo expected = expected_caches(p, genuine, leaf_4, leaf_2);
  p.asked.clear();
  const CacheInfo found = gather_caches(p.processor());
  for (std::uint32_t subleaf = 0; subleaf < 16; ++subleaf) {
    read_4 += p.times_asked(4, subleaf);
  }
  ASSERT_EQ(std::memcmp(&found, &expected, sizeof found), 0)
      << testing::PrintToString(found) << "\nexpected " << testing::PrintToString(expected);
  ASSERT_EQ(read_4, leaf_4);
  ASSERT_EQ(p.times_asked(2), leaf_2);
}

SyntheticProcessor genuine_processor(std::uint32_t highest_leaf) {
  SyntheticProcessor p;
  p.set_vendor(genuine_vendor, highest_leaf);
  p.leaf_2.resize(4);
  return p;
}

TEST(Caches, EachDescriptorInEachPlace) {
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    for (std::uint32_t place = 0; place < 16; ++place) {
      SyntheticProcessor p = genuine_processor(2 + byte % 2);
      p.leaf_2[0] = {1 | (place == 0 ? byte << 8 : 0), 0, 0, 0};
      p.leaf_2[0].edx = place == 15 ? 0x2C : 0;
      std::uint32_t* const registers[] = {&p.leaf_2[0].eax, &p.leaf_2[0].ebx, &p.leaf_2[0].ecx,
                                          &p.leaf_2[0].edx};
      *registers[place / 4] |= place == 0 ? 0 : byte << place % 4 * 8;
      SCOPED_TRACE(testing::Message() << "byte " << byte << " place " << place);
      expect_caches(p, true);
    }
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
    for (std::uint32_t subleaf = 0, end = static_cast<std::uint32_t>(random.below(10));
         subleaf < end; ++subleaf) {
      const auto type = random.one_of({1u, 2u, 3u, 3u, 4u, 17u});
      const auto level = static_cast<std::uint32_t>(random.below(random.one_in(2) ? 4 : 8));
      const std::uint32_t small = word() & 0x01C0703F;
      p.at(4, subleaf) = {(word() & ~0xFFu) | level << 5 | type, random.one_in(4) ? word() : small,
                          random.one_in(4) ? word() : word() & 0xFFF, word()};
    }
    for (CpuidResult& r : p.leaf_2) {
      for (std::uint32_t* const value : {&r.eax, &r.ebx, &r.ecx, &r.edx}) {
        const std::uint32_t bytes = random.one_in(16) ? 0 : 0x7F7F7F7F;
        *value = random.one_in(3) ? 0x49 : word() & (random.one_in(4) ? ~0u : bytes);
      }
    }
    p.leaf_2[0].eax = (p.leaf_2[0].eax & ~0xFFu) | random.one_of({0u, 1u, 2u, 3u, 4u, 5u, 0x2Cu});
    SCOPED_TRACE(testing::Message() << "round " << round);
    expect_caches(p, genuine);
  }
}

TEST(Caches, AreGatheredByTheFirstUser) {
  SyntheticProcessor p = genuine_processor(2);
  p.leaf_2[0] = {0x2C01, 0x41, 0x88, 0};
  install(&p);
  for (const std::uint32_t level : {0u, 4u, ~0u}) {
    EXPECT_EQ(cache_size(level), 0u);
  }
  EXPECT_TRUE(p.asked.empty());
  EXPECT_EQ(cache_size(3), 2048u);
  EXPECT_EQ(p.times_asked(2), 1);
  EXPECT_EQ(cache_size(2), 128u);
  EXPECT_EQ(cache_size(1), 32u);
  const CacheInfo again = process_caches();
  EXPECT_EQ(std::memcmp(&again, &__libkso_cache_info, sizeof again), 0);
  EXPECT_EQ(again.ready, 1u);
  EXPECT_EQ(p.times_asked(2), 1) << "gathered again";
  install(nullptr);
}

TEST(Caches, RacingFirstUsersAgree) {
  const CacheInfo info = gather_caches(hardware_processor);
  __libkso_cache_info = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      EXPECT_EQ(cache_size(1), info.level[0].size_kib);
      entry<std::uint32_t()>("__detect_cpu_core_type")();
    });
  }
  std::ranges::for_each(threads, &std::thread::join);
}

// ---- core types ---------------------------------------------------------------------------------

SyntheticProcessor hybrid_processor() {
  SyntheticProcessor p = genuine_processor(0x1A);
  p.at(7) = {0, 0, 1u << 22, 1u << 15};
  p.at(0x1A) = {0x40000001, 0, 0, 0};
  return p;
}

TEST(CoreType, NeedsEveryBit) {
  EXPECT_EQ(hybrid_state(hybrid_processor().processor()), HybridState::Available);
  const auto unavailable = [](const auto& spoil) {
    SyntheticProcessor p = hybrid_processor();
    spoil(p);
    EXPECT_EQ(hybrid_state(p.processor()), HybridState::Unavailable);
    EXPECT_EQ(p.rdpid_count, 0u);
  };
  unavailable([](auto& p) { p.at(0).eax = 0x19; });
  for (const char reg : {'b', 'c', 'd'}) {
    unavailable([reg](auto& p) { p.reg(0, 0, reg) ^= 1u << 24; });
  }
  unavailable([](auto& p) { p.at(7).ecx = ~p.at(7).ecx; });
  unavailable([](auto& p) { p.at(7).edx = ~p.at(7).edx; });
}

// core_type NUMBER...: what the exported routines make of these processor numbers, one by one.
KSOMD_CHILD(core_type) {
  SyntheticProcessor p = hybrid_processor();
  p.numbers.clear();
  for (const std::string& number : arguments) {
    p.numbers.push_back(static_cast<std::uint32_t>(std::stoul(number)));
  }
  install(&p);
  entry<void()>("__init_cpu_core_type")();
  const std::uint32_t type = entry<std::uint32_t()>("__detect_cpu_core_type")();
  std::printf("type %u after %zu:", type, p.rdpid_count);
  const auto* const types = entry<std::uint8_t>("__cpu_core_type");
  for (int i = 0; i < 1024; ++i) {
    if (types[i] != 0) {
      std::printf(" [%d]=%d", i, types[i]);
    }
  }
  return 0;
}

TEST(CoreType, IsReadTwiceAtMost) {
  const std::pair<Arguments, const char*> rows[] = {
      {{"6", "6"}, "type 64 after 2: [6]=64"},
      {{"1030", "1030"}, "type 64 after 2: [6]=64"},
      {{"1023", "1023"}, "type 64 after 2: [1023]=64"},
      {{"1", "2", "5", "5"}, "type 64 after 4: [5]=64"},
      {{"1", "2", "2", "1", "7", "7"}, "type 0 after 4:"}};
  for (const auto& [numbers, output] : rows) {
    expect_exit(run_child("core_type", numbers), 0, output);
  }
}

TEST(CoreType, OfThisProcessor) {
  const auto detect = entry<std::uint32_t()>("__detect_cpu_core_type");
  EXPECT_EQ(detect, entry<std::uint32_t()>("__detect_cpu_core_type_1n"));
  if (hybrid_state(hardware_processor) != HybridState::Available) {
    EXPECT_EQ(detect(), 0u);
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
