// Which variant a dispatching entry point takes, ranges whose size is out of the ordinary, and the
// tuning values.
#include <algorithm>
#include <atomic>
#include <string_view>
#include <thread>

#include "ksomd/core.h"
#include "mem/routines.h"
#include "support/child_process.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {
namespace {

// ---- dispatch -----------------------------------------------------------------------------------

constexpr std::uint64_t baseline = 0x6E, avx2_level = 0x9D9FEE, avx512_level = 0x64199D9FEE;

struct DispatchingCase {
  const char* name;
  void* slot;
  std::uint64_t wide_level, narrow_level;
  const char *wide, *narrow, *plain;

  const void* held() const {
    return __atomic_load_n(static_cast<void* const*>(slot), __ATOMIC_RELAXED);
  }
  const char* choice(std::uint64_t word) const {
    return (wide_level & ~word) == 0 ? wide : (narrow_level & ~word) == 0 ? narrow : plain;
  }
  // Whether the slot holds what the word asks for; what is not exported has no address here.
  bool bound(std::uint64_t word) const {
    return *choice(word) == '_' ? held() == find_entry(choice(word)) : held() != nullptr;
  }
  // Whether a call does what it should.
  bool use() const {
    for (const Routine& routine : routines) {
      if (routine.name == std::string_view(name)) {
        Range target(4096), source(4096);
        return runs_right({routine, target, target.begin(), source, source.begin(), 0x1D5, 40});
      }
    }
    struct {
      __libkso_nt_context context;
      Byte chunk[8];
    } chunk{{}, {1, 2, 3, 4, 5, 6, 7, 8}};
    Byte out[8] = {};
    chunk.context.destination = out;
    if (std::string_view(name).ends_with("_dynamic")) {
      entry<mem::DynamicStreamRoutine>(name)(&chunk.context, 5, 1, 0);
    } else {
      entry<mem::StreamRoutine>(name)(&chunk.context, 5, 1);
    }
    return std::memcmp(out, "\1\2\3\4\5\0\0\0", 8) == 0;
  }
};

const DispatchingCase cases[] = {
    {"_orvex_fast_memcpy", &__orvex_fast_memcpy_slot, avx2_level, baseline,
     "__orvex_avx_rep_memcpy", "__orvex_new_memcpy", "std::memmove"},
    {"_orvex_fast_memmove", &__orvex_fast_memmove_slot, avx2_level, baseline, "__orvex_avx_memmove",
     "__orvex_new_memmove", "std::memmove"},
    {"_orvex_fast_memset", &__orvex_fast_memset_slot, avx2_level, baseline,
     "__orvex_avx_rep_memset", "__orvex_new_memset", "std::memset"},
    {"__libkso_nontemporal_store", &__libkso_nontemporal_store_slot, avx512_level, avx2_level,
     "__libkso_nontemporal_store_512", "__libkso_nontemporal_store_256", "store_plain"},
    {"__libkso_nontemporal_store_dynamic", &__libkso_nontemporal_store_dynamic_slot, avx512_level,
     avx2_level, "__libkso_nontemporal_store_dynamic_512", "__libkso_nontemporal_store_dynamic_256",
     "store_dynamic_plain"},
};

void set_features_and_empty_slots(std::uint64_t word) {
  __orvex_cpu_feature_indicator[0] = word;
  for (const DispatchingCase& entry : cases) {
    *static_cast<void**>(entry.slot) = nullptr;
  }
}

TEST(Dispatch, EachFeatureDecidesOnceAndForAll) {
  const std::uint64_t hardware = feature_word();
  for (int number = 0; number < 66 * 4; ++number) {
    const std::uint64_t without = number < 64 * 4 ? std::uint64_t{1} << number / 4 : 0;
    const std::uint64_t word = 1 | (~without & (number % 4 == 0   ? avx512_level
                                                : number % 4 == 1 ? avx2_level
                                                : number % 4 == 2 ? baseline
                                                                  : ~std::uint64_t{0}));
    for (const DispatchingCase& entry : cases) {
      if ((word & ~hardware) == 0) {
        set_features_and_empty_slots(word);
        EXPECT_TRUE(entry.use() && entry.bound(word)) << entry.name << std::hex << word;
        // Later calls do not look at the features.
        __orvex_cpu_feature_indicator[0] = 1;
        EXPECT_TRUE(entry.use() && entry.bound(word)) << entry.name << std::hex << word;
      }
      std::size_t rows = 0;
      for (const auto& table : {mem::memory_entries(), mem::streaming_entries()}) {
        rows += table.size();
        for (const DispatchingEntry& row : table) {
          if (row.name == std::string_view(entry.name)) {
            EXPECT_STREQ(row.variant({word, 0}), entry.choice(word));
          }
        }
      }
      EXPECT_EQ(rows, std::size(cases));
    }
  }
  set_features_and_empty_slots(hardware);
}

// Nothing is known of the processor when the first calls race.
TEST(Dispatch, RacingFirstCallsAgree) {
  const std::uint64_t hardware = feature_word();
  std::vector<const void*> chosen;
  for (const DispatchingCase& entry : cases) {
    EXPECT_TRUE(entry.use() && entry.bound(hardware)) << entry.name;
    chosen.push_back(entry.held());
  }
  for (int round = 0; round < (Sweep::proving() ? 200 : 20); ++round) {
    set_features_and_empty_slots(0);
    std::atomic<int> waiting{4}, wrong{0};
    const auto race = [&] {
      for (--waiting; waiting.load() != 0;) {
        std::this_thread::yield();
      }
      for (std::size_t i = 0; i < chosen.size(); ++i) {
        wrong += !cases[i].use() || cases[i].held() != chosen[i];
      }
    };
    std::thread others[] = {std::thread(race), std::thread(race), std::thread(race)};
    race();
    for (std::thread& thread : others) {
      thread.join();
    }
    ASSERT_EQ(wrong.load(), 0);
  }
  EXPECT_EQ(feature_word(), hardware);
}

// ---- sizes and registers ---------------------------------------------------------------------

// Above the size of a vector a move onto itself touches nothing: the memory need not be there.
TEST(Ranges, MovesOntoThemselvesReturnAtOnce) {
  const GuardedMemory memory(4096);
  for (std::size_t n = 32; has_features(needs_avx2) && n < 200'000; n += 1 + n / 40) {
    ASSERT_EQ(__orvex_avx_memmove(memory.end(), memory.end(), n), memory.end()) << n;
  }
}

// No bit of a count is lost: a range of 4 GiB and 40 bytes does not end after 40 bytes.
KSOMD_CHILD(leave_a_range) {
  Range target(65536), source(65536);
  std::string wrong;
  run_plainly({routines[std::stoull(arguments[0])], target, target.begin(), source, source.begin(),
               0, std::stoull(arguments[1])},
              wrong);
  return 0;
}

TEST(Ranges, LongerThanThirtyTwoBits) {
  if (!Sweep::proving() || sanitized) {
    GTEST_SKIP()
        << "takes a process for each routine, whose fault is the system's: the host proves it";
  }
  for (const Routine& routine : routines) {
    for (const char* const count : {"2147483688", "4294967336"}) {
      EXPECT_TRUE(!routine.available() ||
                  run_child("leave_a_range", {std::to_string(&routine - routines), count}).ending ==
                      Ending::AccessViolation)
          << routine.name << " of " << count;
    }
  }
}

TEST(Registers, AreKeptByCoreQueries) {
  EXPECT_EQ(what_call_changes(__init_cpu_core_type), "");
  EXPECT_EQ(what_call_changes(__detect_cpu_core_type), "");
  EXPECT_EQ(what_call_changes(__detect_cpu_core_type_1n), "");
  EXPECT_EQ(what_call_changes(__cacheSize, 1u), "");
}

// ---- tuning values ------------------------------------------------------------------------------

constexpr std::uint32_t sse2 = 1u << 26, mmx = 1u << 23, l2_leaf = 0x80000006;
constexpr std::uint64_t most = 0xFFFFFFFF;

CacheInfo caches_of(std::uint64_t genuine, std::uint64_t leaf, const std::uint64_t (&kib)[3]) {
  CacheInfo info{static_cast<std::uint32_t>(genuine), static_cast<std::uint32_t>(leaf), {}, 1};
  for (int i = 0; i < 3; ++i) {
    info.level[i].size_kib = static_cast<std::uint32_t>(kib[i]);
  }
  return info;
}

// With the largest cache and that of level 1, in KiB.
mem::Tuning known(std::uint64_t largest, std::uint64_t l1, std::int32_t mem_class) {
  return {largest * 1024, largest * 512, l1 * 1024, l1 * 512, l1 * 256,
          8192,           l1 * 6144,     2048,      mem_class};
}
// With the largest cache alone.
mem::Tuning usual(std::int32_t mem_class, std::uint64_t largest = 128) {
  return {largest * 1024, largest * 512, 16384, 8192, 4096, 8192, 65536, 16384, mem_class};
}

TEST(TuningValues, FollowTheProcessor) {
  const struct {
    std::string_view vendor;
    std::uint32_t features, extended, l2_register;
    std::uint64_t leaf, caches[3];
    mem::Tuning expected;
  } rows[] = {
      {"GenuineOrvex", ~mmx, 0, 0, 22, {48, 1280, 30720}, known(30720, 48, 2)},
      {"GenuineOrvex", ~sse2, l2_leaf, ~0u, 1, {32, 8, 16}, known(32, 32, 1)},
      {"GenuineOrvex", mmx, 0, 0, 22, {1, 3, 2}, known(3, 1, 1)},
      {"GenuineOrvex", sse2, 0, 0, 22, {most, 1, most}, known(most, most, 2)},
      {"GenuineOrvex", sse2, 0, 0, 22, {0, 1280, 30720}, usual(2)},
      {"GenuineOrvex", mmx, 0, 0, 22, {0, 0, 0}, usual(1)},
      {"GenuineOrvex", ~(sse2 | mmx), 0, 0, 22, {0, 0, 0}, usual(0)},
      {"GenuineOrvex", sse2 | mmx, 0, 0, 0, {0, 9, 9}, usual(0)},
      {"AuthenticAMD", sse2 | mmx, l2_leaf, 512u << 16 | 0xFFFF, 0, {48, 9, 9}, usual(1, 512)},
      {"AuthenticAMD", ~mmx, l2_leaf + 2, ~0u, 0, {0, 0, 0}, usual(0, 0xFFFF)},
      {"AuthenticAMD", mmx, l2_leaf - 1, 512u << 16, 0, {0, 0, 0}, usual(1)},
      {"AuthenticAMD", mmx, l2_leaf, 0xFFFF, 0, {0, 0, 0}, usual(1, 0)},
      {"SomebodyElse", ~0u, l2_leaf, ~0u, 22, {48, 9, 9}, usual(0)},
  };
  for (const auto& row : rows) {
    SyntheticProcessor table;
    table.set_vendor(row.vendor);
    table.reg(1, 0, 'd') = row.features;
    table.reg(0x80000000, 0, 'a') = row.extended;
    table.reg(l2_leaf, 0, 'c') = row.l2_register;
    const CacheInfo caches = caches_of(row.vendor == "GenuineOrvex", row.leaf, row.caches);
    EXPECT_EQ(values_of(mem::derive_tuning(table.processor(), caches)), values_of(row.expected))
        << "row " << &row - rows;
  }
  EXPECT_EQ(values_of({}), values_of(usual(0)));
}

// Seen by a constructor of this program: the library's own has run before it. The tuning values of
// many processors are the defaults; that the caches are gathered tells on all of them.
const std::uint32_t gathered_at_construction = [] { return __libkso_cache_info.ready; }();
const mem::Tuning tuning_at_construction = [] { return __libkso_mem_tuning; }();
TEST(TuningValues, AreReadyForConstructors) {
  EXPECT_EQ(gathered_at_construction, 1u);
  const auto expected =
      values_of(mem::derive_tuning(hardware_processor, gather_caches(hardware_processor)));
  EXPECT_EQ(values_of(tuning_at_construction), expected);
}

// The initialiser itself, on caches as a broken genuine processor reports them.
KSOMD_CHILD(initialise_again) {
  __libkso_cache_info = caches_of(std::stoull(arguments[0]), 4, {std::stoull(arguments[1]), 9, 0});
  __libkso_mem_tuning.mem_class = 77;
  __libkso_mem_tuning_init();
  return __libkso_mem_tuning.mem_class == 77 ? 0 : __libkso_mem_tuning.l1_size == 16384 ? 7 : 6;
}

TEST(TuningValues, DebugVariableEndsTheProcessWithoutALevelOneCache) {
  const struct {
    const char *genuine, *l1, *variable;
    int status;
  } rows[] = {{"1", "0", "1", 1},     {"1", "0", "off", 1}, {"1", "0", "", 7},
              {"1", "0", nullptr, 7}, {"0", "0", "1", 7},   {"1", "48", "1", 6}};
  for (const auto& row : rows) {
    std::vector<std::pair<std::string, std::string>> environment;
    if (row.variable != nullptr) {
      environment.emplace_back("__ORVEX_LIBKSO_DEBUG", row.variable);
    }
    const std::string message =
        "\nCache size is incorrectly reported as 0. Please engage your hardware and/or OS support "
        "to address the problem.\n\n";
    expect_exit(run_child("initialise_again", {row.genuine, row.l1}, environment), row.status,
                row.status == 1 ? text_mode(message) : "");
  }
}

}  // namespace
}  // namespace ksomd::test
