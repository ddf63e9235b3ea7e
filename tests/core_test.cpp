// Core types, cache sizes and tuning values of processors that are tables.
#include "ksomd/core.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "cpu/cache.h"
#include "cpu/core_type.h"
#include "mem/tuning.h"
#include "support/child_process.h"

namespace ksomd::test {
namespace {

// A processor that answers from a table, and counts what it is asked.
class TableProcessor {
 public:
  explicit TableProcessor(const char* vendor, std::uint32_t highest_leaf) {
    const auto word = [&](int first) {
      std::uint32_t result = 0;
      for (int i = 3; i >= 0; --i) {
        result = result << 8 | static_cast<unsigned char>(vendor[first + i]);
      }
      return result;
    };
    leaf(0) = {highest_leaf, word(0), word(8), word(4)};
  }

  CpuidResult& leaf(std::uint32_t number, std::uint32_t subleaf = 0) {
    return leaves[{number, subleaf}];
  }
  Processor processor() const {
    return {[](const void* self, std::uint32_t number, std::uint32_t subleaf) {
              return static_cast<const TableProcessor*>(self)->answer(number, subleaf);
            },
            [](const void*) { return 0u; },
            [](const void* self) {
              const auto& table = *static_cast<const TableProcessor*>(self);
              const std::size_t last = table.numbers.size() - 1;
              return table.numbers[std::min(table.rdpid_count++, last)];
            },
            [](const void* self) { return static_cast<const TableProcessor*>(self)->cpuid_exists; },
            this};
  }

  std::map<std::pair<std::uint32_t, std::uint32_t>, CpuidResult> leaves;
  std::vector<CpuidResult> leaf_2;        // successive answers
  std::vector<std::uint32_t> numbers{0};  // successive processor numbers
  bool cpuid_exists = true;
  mutable std::size_t rdpid_count = 0, leaf_2_count = 0;
  mutable std::map<std::uint32_t, int> asked;

 private:
  CpuidResult answer(std::uint32_t number, std::uint32_t subleaf) const {
    ++asked[number];
    if (number == 2 && !leaf_2.empty()) {
      return leaf_2[leaf_2_count++ % leaf_2.size()];
    }
    const auto found = leaves.find({number, subleaf});
    return found == leaves.end() ? CpuidResult{} : found->second;
  }
};

CpuidResult cache_leaf(std::uint32_t type, std::uint32_t level, std::uint32_t ways,
                       std::uint32_t line, std::uint32_t partitions, std::uint32_t sets) {
  return {type | level << 5, (ways - 1) << 22 | (partitions - 1) << 12 | (line - 1), sets - 1, 0};
}

constexpr std::uint32_t data = 1, instruction = 2, unified = 3;

void expect_sizes(const CacheInfo& info, std::uint32_t l1, std::uint32_t l2, std::uint32_t l3) {
  EXPECT_EQ(info.level[0].size_kib, l1);
  EXPECT_EQ(info.level[1].size_kib, l2);
  EXPECT_EQ(info.level[2].size_kib, l3);
  EXPECT_EQ(info.ready, 1u);
}

// ---- core type ----------------------------------------------------------------------------------

TableProcessor hybrid_processor() {
  TableProcessor table(genuine_vendor, 0x1A);
  table.leaf(7) = {0, 0, 1u << 22, 1u << 15};
  table.leaf(0x1A) = {0x40000001, 0, 0, 0};
  return table;
}

TEST(CoreType, HybridStateNeedsEverything) {
  EXPECT_EQ(hybrid_state(hybrid_processor().processor()), HybridState::Available);
  TableProcessor table = hybrid_processor();
  table.leaf(0).eax = 0x19;
  EXPECT_EQ(hybrid_state(table.processor()), HybridState::Unavailable);
  EXPECT_EQ(table.rdpid_count, 0u);
  table = hybrid_processor();
  table.leaf(0).ecx ^= 1u << 24;
  EXPECT_EQ(hybrid_state(table.processor()), HybridState::Unavailable);
  for (std::uint32_t CpuidResult::* reg : {&CpuidResult::ecx, &CpuidResult::edx}) {
    table = hybrid_processor();
    table.leaf(7).*reg = ~(table.leaf(7).*reg);
    EXPECT_EQ(hybrid_state(table.processor()), HybridState::Unavailable);
  }
}

TEST(CoreType, ReadingsThatDisagreeAreTriedTwice) {
  const struct {
    std::vector<std::uint32_t> numbers;
    bool valid;
    std::uint32_t number;
  } cases[] = {{{1030, 1030}, true, 1030}, {{1, 2, 5, 5}, true, 5}, {{1, 2, 2, 1, 7, 7}, false, 0}};
  for (const auto& c : cases) {
    TableProcessor table = hybrid_processor();
    table.numbers = c.numbers;
    const CoreReading reading = read_core_type(table.processor());
    EXPECT_EQ(reading.valid, c.valid);
    EXPECT_EQ(reading.processor_number, c.number);
    EXPECT_EQ(reading.type, c.valid ? 0x40 : 0);
    EXPECT_LE(table.rdpid_count, 4u);
  }
  EXPECT_EQ(1030 % core_type_entries, 6u);
}

TEST(CoreType, OfThisProcessor) {
  __init_cpu_core_type();
  const std::uint32_t type = __detect_cpu_core_type();
  EXPECT_EQ(__detect_cpu_core_type_1n() == 0, type == 0);
  if (hybrid_state(hardware_processor) != HybridState::Available) {
    EXPECT_EQ(type, 0u);
    for (const std::uint8_t entry : __cpu_core_type) {
      ASSERT_EQ(entry, 0);
    }
  }
}

// ---- caches -------------------------------------------------------------------------------------

TEST(Caches, LeafFour) {
  TableProcessor table(genuine_vendor, 0x16);
  table.leaf(4, 0) = cache_leaf(data, 1, 8, 64, 1, 64);
  table.leaf(4, 1) = cache_leaf(instruction, 1, 16, 64, 1, 4096);
  table.leaf(4, 2) = cache_leaf(unified, 2, 10, 64, 2, 1024);
  table.leaf(4, 3) = cache_leaf(unified, 4, 16, 64, 1, 65536);
  table.leaf(4, 4) = cache_leaf(unified, 3, 1024, 4096, 1024, 1);  // 2^32 bytes: overflows to 0
  const CacheInfo info = gather_caches(table.processor());
  expect_sizes(info, 32, 1280, 0);
  EXPECT_EQ(info.genuine, 1u);
  EXPECT_EQ(info.highest_leaf, 0x16u);
  EXPECT_EQ(info.level[1].line, 64u);
  EXPECT_EQ(info.level[1].partitions, 2u);
  EXPECT_EQ(info.level[1].ways, 10u);
  EXPECT_EQ(info.level[2].ways, 1024u);
  EXPECT_EQ(table.asked[2], 0);
}

TEST(Caches, LeafFourIsReadEightTimesAtMost) {
  TableProcessor table(genuine_vendor, 4);
  for (std::uint32_t i = 0; i < 9; ++i) {
    table.leaf(4, i) = cache_leaf(data, 1, 1, 64, 1, 16 * (i + 1));
  }
  expect_sizes(gather_caches(table.processor()), 8, 0, 0);
  EXPECT_EQ(table.asked[4], 8);
}

TEST(Caches, SizesOverflowAsThirtyTwoBits) {
  TableProcessor table(genuine_vendor, 4);
  table.leaf(4, 0) = cache_leaf(data, 1, 1024, 4096, 1024, 1025);
  expect_sizes(gather_caches(table.processor()), 0, 0, 0);
  table.leaf(4, 0) = cache_leaf(data, 1, 3, 1024, 1, 0x80000001u);
  expect_sizes(gather_caches(table.processor()), 3, 0, 0);
}

TEST(Caches, LeafTwoDescribesSeventySixCaches) {
  int described = 0;
  std::uint64_t sum[cache_levels] = {};
  for (unsigned byte = 0; byte < 256; ++byte) {
    const CacheDescriptor& cache = cache_descriptor(static_cast<std::uint8_t>(byte));
    described += cache.level != 0;
    if (cache.level == 0) {
      EXPECT_EQ(cache.size_kib + cache.ways + cache.line + cache.partitions, 0u);
      continue;
    }
    sum[cache.level - 1] += cache.size_kib;
    TableProcessor table(genuine_vendor, 2);
    table.leaf(2) = {byte << 24 | 1, 0, 0, 0};
    if (byte < 0x80) {
      const CacheInfo info = gather_caches(table.processor());
      EXPECT_EQ(info.level[cache.level - 1].size_kib, cache.size_kib) << byte;
      EXPECT_EQ(info.level[cache.level - 1].ways, cache.ways) << byte;
      EXPECT_EQ(info.level[cache.level - 1].line, cache.line) << byte;
      EXPECT_EQ(info.level[cache.level - 1].partitions, cache.partitions) << byte;
    }
  }
  EXPECT_EQ(described, 76);
  EXPECT_EQ(sum[0], 280u);
  EXPECT_EQ(sum[1], 32416u);
  EXPECT_EQ(sum[2], 175104u);
}

TEST(Caches, LeafTwoScan) {
  const struct {
    const char* what;
    std::vector<CpuidResult> answers;
    std::uint32_t signature, l1, l2, l3;
  } cases[] = {
      {"bytes from the lowest up, later ones win", {{0x0A0C0A01, 0, 0, 0}}, 0, 8, 0, 0},
      {"later registers win", {{0x0C000001, 0x7F7E21, 0x46, 0x2C}}, 0, 32, 512, 4096},
      {"marked registers hold nothing", {{0x2C01, 0x80000021, 0x80000046, 0}}, 0, 32, 0, 0},
      {"byte FF ends the scan and clears", {{0x2C2101, 0x46FF00, 0x60, 0x60}}, 0, 0, 0, 0},
      {"a count of 0 ends it before", {{0x2C00, 0x21, 0x46, 0}}, 0, 0, 0, 0},
      {"three executions",
       {{0x03, 0, 0, 0}, {0x2C00, 0, 0, 0}, {0x2100, 0, 0, 0}, {0x4600, 0, 0, 0}},
       0,
       32,
       256,
       0},
      {"four executions at most",
       {{0x2105, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0x2C}, {0x46, 0, 0, 0}},
       0,
       32,
       256,
       0},
      {"byte 49 is level 2", {{0x4901, 0, 0, 0}}, 0x0F50, 0, 4096, 0},
      {"byte 49 is level 3 on family 15 model 6", {{0x4901, 0, 0, 0}}, 0x0F65, 0, 0, 4096},
      {"but not on model 0x16", {{0x4901, 0, 0, 0}}, 0x10F65, 0, 4096, 0},
      {"nor on family 16", {{0x4901, 0, 0, 0}}, 0x100F65, 0, 4096, 0},
      {"the count itself is looked up", {{0x0A, 0, 0, 0}}, 0, 8, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TableProcessor table(genuine_vendor, 3);
    table.leaf_2 = c.answers;
    table.leaf(1).eax = c.signature;
    expect_sizes(gather_caches(table.processor()), c.l1, c.l2, c.l3);
    EXPECT_LE(table.asked[2], 4);
  }
}

TEST(Caches, LeafTwoIsReadOnlyWithoutALevelOneCache) {
  TableProcessor table(genuine_vendor, 4);
  table.leaf(4, 0) = cache_leaf(unified, 2, 8, 64, 1, 512);
  table.leaf(2) = {0x2C01, 0, 0, 0};
  expect_sizes(gather_caches(table.processor()), 32, 256, 0);
  table.leaf(0).eax = 1;
  expect_sizes(gather_caches(table.processor()), 0, 0, 0);
}

TEST(Caches, OtherVendorsDescribeNone) {
  TableProcessor table("AuthenticAMD", 0x16);
  table.leaf(4, 0) = cache_leaf(data, 1, 8, 64, 1, 64);
  CacheInfo info = gather_caches(table.processor());
  expect_sizes(info, 0, 0, 0);
  EXPECT_EQ(info.genuine + info.highest_leaf, 0u);
  TableProcessor without(genuine_vendor, 0x16);
  without.cpuid_exists = false;
  info = gather_caches(without.processor());
  expect_sizes(info, 0, 0, 0);
  EXPECT_EQ(info.genuine + info.highest_leaf, 0u);
}

TEST(Caches, OfThisProcessor) {
  for (const std::uint32_t level : {0u, 4u, 0xFFFFFFFFu}) {
    EXPECT_EQ(__cacheSize(level), 0u);
  }
  const CacheInfo info = gather_caches(hardware_processor);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      __libkso_cache_init();
      for (std::uint32_t level = 1; level <= cache_levels; ++level) {
        EXPECT_EQ(__cacheSize(level), info.level[level - 1].size_kib);
      }
      __detect_cpu_core_type();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// ---- tuning values ------------------------------------------------------------------------------

constexpr std::uint32_t sse2 = 1u << 26, mmx = 1u << 23;

CacheInfo genuine_caches(std::uint32_t l1, std::uint32_t l2, std::uint32_t l3) {
  CacheInfo info{};
  info.genuine = 1;
  info.highest_leaf = 0x16;
  info.level[0].size_kib = l1;
  info.level[1].size_kib = l2;
  info.level[2].size_kib = l3;
  return info;
}

void expect_tuning(const mem::Tuning& tuning, const mem::Tuning& expected) {
  EXPECT_EQ(tuning.largest_cache_size, expected.largest_cache_size);
  EXPECT_EQ(tuning.copy_nt_threshold, expected.copy_nt_threshold);
  EXPECT_EQ(tuning.l1_size, expected.l1_size);
  EXPECT_EQ(tuning.l1_half, expected.l1_half);
  EXPECT_EQ(tuning.l1_quarter, expected.l1_quarter);
  EXPECT_EQ(tuning.rep_movsb_threshold, expected.rep_movsb_threshold);
  EXPECT_EQ(tuning.avx512_nt_threshold, expected.avx512_nt_threshold);
  EXPECT_EQ(tuning.rep_stosb_threshold, expected.rep_stosb_threshold);
  EXPECT_EQ(tuning.mem_class, expected.mem_class);
}

mem::Tuning defaults(std::int32_t mem_class) {
  return {131072, 65536, 16384, 8192, 4096, 8192, 65536, 16384, mem_class};
}

TEST(TuningValues, OfGenuineProcessors) {
  TableProcessor table(genuine_vendor, 0x16);
  table.leaf(1).edx = sse2 | mmx;
  expect_tuning(mem::derive_tuning(table.processor(), genuine_caches(48, 1280, 30720)),
                {31457280, 15728640, 49152, 24576, 12288, 8192, 294912, 2048, 2});
  // The largest cache need not be the last; sizes beyond 32 bits are kept.
  expect_tuning(
      mem::derive_tuning(table.processor(), genuine_caches(32, 0xFFFFFFFF, 8)),
      {0xFFFFFFFFull * 1024, 0xFFFFFFFFull * 512, 32768, 16384, 8192, 8192, 196608, 2048, 2});
  expect_tuning(mem::derive_tuning(table.processor(), genuine_caches(0xFFFFFFFF, 1, 1)),
                {0xFFFFFFFFull * 1024, 0xFFFFFFFFull * 512, 0xFFFFFFFFull * 1024,
                 0xFFFFFFFFull * 512, 0xFFFFFFFFull * 256, 8192, 0xFFFFFFFFull * 6144, 2048, 2});
  expect_tuning(mem::derive_tuning(table.processor(), genuine_caches(0, 1280, 30720)), defaults(2));
  table.leaf(1).edx = mmx;
  expect_tuning(mem::derive_tuning(table.processor(), genuine_caches(0, 0, 0)), defaults(1));
  table.leaf(1).edx = 0;
  expect_tuning(mem::derive_tuning(table.processor(), genuine_caches(0, 0, 0)), defaults(0));
  table.leaf(1).edx = sse2;
  CacheInfo no_leaves = genuine_caches(0, 0, 0);
  no_leaves.highest_leaf = 0;
  expect_tuning(mem::derive_tuning(table.processor(), no_leaves), defaults(0));
}

TEST(TuningValues, OfOtherVendors) {
  TableProcessor level_2("AuthenticAMD", 0x10);
  level_2.leaf(1).edx = sse2 | mmx;
  level_2.leaf(0x80000006).ecx = 512u << 16 | 0xFFFF;
  expect_tuning(mem::derive_tuning(level_2.processor(), {}), defaults(1));
  EXPECT_EQ(level_2.asked[0x80000006], 0);
  level_2.leaf(0x80000000).eax = 0x80000006;
  mem::Tuning expected = defaults(1);
  expected.largest_cache_size = 524288;
  expected.copy_nt_threshold = 262144;
  expect_tuning(mem::derive_tuning(level_2.processor(), {}), expected);
  level_2.leaf(1).edx = sse2;
  expected.mem_class = 0;
  expect_tuning(mem::derive_tuning(level_2.processor(), {}), expected);
  TableProcessor other("SomebodyElse", 0x16);
  other.leaf(1).edx = sse2 | mmx;
  other.leaf(0x80000000).eax = 0x80000008;
  expect_tuning(mem::derive_tuning(other.processor(), {}), defaults(0));
}

TEST(TuningValues, AreThoseOfThisProcessorFromTheStart) {
  expect_tuning(__libkso_mem_tuning,
                mem::derive_tuning(hardware_processor, gather_caches(hardware_processor)));
}

// Seen by a constructor of this program: the library's own has run before it. The tuning values of
// many processors are the defaults; that the caches are gathered tells on all of them.
const std::uint32_t gathered_at_construction = [] { return __libkso_cache_info.ready; }();
const mem::Tuning tuning_at_construction = __libkso_mem_tuning;
const std::int32_t class_at_construction = [] { return __libkso_mem_tuning.mem_class; }();
TEST(TuningValues, AreReadyForConstructors) {
  EXPECT_EQ(gathered_at_construction, 1u);
  expect_tuning(tuning_at_construction, __libkso_mem_tuning);
  EXPECT_EQ(class_at_construction, __libkso_mem_tuning.mem_class);
}

// Arguments: the level-1 size and the debug variable's value, "-" if it is not set.
KSOMD_CHILD(check_cache_size) {
  CacheInfo info = genuine_caches(static_cast<std::uint32_t>(std::stoul(arguments[0])), 0, 0);
  info.genuine = arguments[2] == "genuine";
  mem::check_cache_size(info, arguments[1] == "-" ? nullptr : arguments[1].c_str() + 1);
  return 7;
}

TEST(TuningValues, ReportOfAMissingCacheSize) {
  const ChildResult fatal = run_child("check_cache_size", {"0", "=1", "genuine"});
  EXPECT_EQ(fatal.ending, Ending::Exit);
  EXPECT_EQ(fatal.status, 1);
  EXPECT_EQ(fatal.output, text_mode("\nCache size is incorrectly reported as 0. Please engage your "
                                    "hardware and/or OS support to address the problem.\n\n"));
  for (const Arguments& quiet : {Arguments{"32", "=1", "genuine"},
                                 {"0", "-", "genuine"},
                                 {"0", "=", "genuine"},
                                 {"0", "=1", "other"}}) {
    const ChildResult result = run_child("check_cache_size", quiet);
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(result.output, "");
  }
}

// The initialiser itself, on caches as a broken genuine processor reports them.
KSOMD_CHILD(initialise_again) {
  __libkso_cache_info = genuine_caches(static_cast<std::uint32_t>(std::stoul(arguments[0])), 9, 0);
  __libkso_cache_info.genuine = arguments[1] == "genuine";
  __libkso_cache_info.ready = 1;
  __libkso_mem_tuning_init();
  return __libkso_mem_tuning.l1_size == mem::Tuning{}.l1_size ? 7 : 8;
}

TEST(TuningValues, InitialiserHeedsTheDebugVariable) {
  const struct {
    const char *l1, *vendor, *variable;
    int status;
  } cases[] = {{"0", "genuine", "1", 1},
               {"0", "genuine", "", 7},
               {"0", "genuine", nullptr, 7},
               {"0", "other", "1", 7},
               {"48", "genuine", "1", 8}};
  for (const auto& c : cases) {
    std::vector<std::pair<std::string, std::string>> environment;
    if (c.variable != nullptr) {
      environment.emplace_back("__ORVEX_LIBKSO_DEBUG", c.variable);
    }
    SCOPED_TRACE(std::string(c.l1) + ' ' + c.vendor);
    expect_exit(run_child("initialise_again", {c.l1, c.vendor}, environment), c.status,
                c.status != 1
                    ? ""
                    : text_mode("\nCache size is incorrectly reported as 0. Please engage "
                                "your hardware and/or OS support to address the "
                                "problem.\n\n"));
  }
}

}  // namespace
}  // namespace ksomd::test
