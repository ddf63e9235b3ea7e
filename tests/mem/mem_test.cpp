// Which variant a dispatching entry point takes, and the tuning values: those that follow from the
// processor, and those that are asked for.
#include <algorithm>
#include <atomic>
#include <barrier>
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
using Context = __libkso_nt_context;

struct DispatchingCase {
  void* slot;
  const char *wide, *narrow;              // the first two variants; the third is not exported
  void (*call)(Byte* to, Context* from);  // brings to `to` the 40 equal bytes behind the context
  bool streams = std::string_view(wide).starts_with("__lib");

  // Whether a call does what it should and leaves in the slot what the word asks for.
  bool takes(std::uint64_t word) const {
    struct {
      Context context;
      Byte chunk[40];
    } from = {};
    Byte to[41] = {};
    from.context.destination = to;
    std::memset(from.chunk, 0xD5, sizeof from.chunk);
    call(to, &from.context);
    const void* const held = __atomic_load_n(static_cast<void* const*>(slot), __ATOMIC_RELAXED);
    const bool is_wide = ((streams ? avx512_level : avx2_level) & ~word) == 0;
    const bool is_narrow = !is_wide && ((streams ? avx2_level : baseline) & ~word) == 0;
    return std::memcmp(to, from.chunk, sizeof from.chunk) == 0 && to[40] == 0 && held != nullptr &&
           (held == find_entry(wide)) == is_wide && (held == find_entry(narrow)) == is_narrow;
  }
};

const DispatchingCase cases[] = {
    {&__orvex_fast_memcpy_slot, "__orvex_avx_rep_memcpy", "__orvex_new_memcpy",
     [](Byte* to, Context* from) { _orvex_fast_memcpy(to, from + 1, 40); }},
    {&__orvex_fast_memmove_slot, "__orvex_avx_memmove", "__orvex_new_memmove",
     [](Byte* to, Context* from) { _orvex_fast_memmove(to, from + 1, 40); }},
    {&__orvex_fast_memset_slot, "__orvex_avx_rep_memset", "__orvex_new_memset",
     [](Byte* to, Context*) { _orvex_fast_memset(to, 0xFD5, 40); }},
    {&__libkso_nontemporal_store_slot, "__libkso_nontemporal_store_512",
     "__libkso_nontemporal_store_256",
     [](Byte*, Context* from) { __libkso_nontemporal_store(from, 40, 1); }},
    {&__libkso_nontemporal_store_dynamic_slot, "__libkso_nontemporal_store_dynamic_512",
     "__libkso_nontemporal_store_dynamic_256",
     [](Byte*, Context* from) { __libkso_nontemporal_store_dynamic(from, 40, 1, 0); }},
};

void set_features_and_empty_slots(std::uint64_t word) {
  __orvex_cpu_feature_indicator[0] = word;
  for (const DispatchingCase& row : cases) {
    *static_cast<void**>(row.slot) = nullptr;
  }
}

TEST(Dispatch, EachFeatureDecidesOnceAndForAll) {
  const std::uint64_t hardware = feature_word();
  for (const std::uint64_t level : {avx512_level, avx2_level, baseline, ~std::uint64_t{0}}) {
    for (int feature = 0; feature < 65; ++feature) {
      const std::uint64_t without = feature < 64 ? std::uint64_t{1} << feature : 0;
      const std::uint64_t word = 1 | (level & hardware & ~without);
      set_features_and_empty_slots(word);
      for (const bool later : {false, true}) {
        for (const DispatchingCase& row : cases) {
          EXPECT_TRUE(row.takes(word)) << row.wide << " or less on " << std::hex << word << later;
        }
        __orvex_cpu_feature_indicator[0] = 1;  // which later calls do not look at
      }
    }
  }
  set_features_and_empty_slots(hardware);
}

// Nothing is known of the processor when the first calls race.
TEST(Dispatch, RacingFirstCallsAgree) {
  const std::uint64_t hardware = feature_word();
  for (int round = 0; round < (Sweep::proving() ? 200 : 20); ++round) {
    set_features_and_empty_slots(0);
    std::barrier start(4);
    std::atomic<int> wrong{0};
    const auto race = [&] {
      start.arrive_and_wait();
      wrong += !std::ranges::all_of(cases, [&](const auto& row) { return row.takes(hardware); });
    };
    {
      const std::jthread others[] = {std::jthread(race), std::jthread(race), std::jthread(race)};
      race();
    }
    ASSERT_EQ(wrong.load(), 0);
  }
}

// ---- tuning values ------------------------------------------------------------------------------

constexpr std::uint32_t sse2 = 1u << 26, mmx = 1u << 23, l2_leaf = 0x80000006;

CacheInfo caches_of(std::uint32_t genuine, std::uint32_t leaf, const std::uint32_t (&kib)[3]) {
  return {genuine, leaf, {{kib[0], 0, 0, 0}, {kib[1], 0, 0, 0}, {kib[2], 0, 0, 0}}, 1};
}

// With the largest cache and that of level 1, in KiB; or with the largest one alone.
mem::Tuning known(std::uint64_t most, std::uint64_t l1, std::int32_t mem_class) {
  return {most << 10, most << 9, l1 << 10, l1 << 9, l1 << 8, 8192, l1 * 6144, 2048, mem_class};
}
mem::Tuning usual(std::int32_t mem_class, std::uint64_t most = 128) {
  return {most << 10, most << 9, 16384, 8192, 4096, 8192, 65536, 16384, mem_class};
}

TEST(TuningValues, FollowTheProcessor) {
  const struct {
    std::string_view vendor;
    std::uint32_t features, extended, l2_register, leaf, caches[3];
    mem::Tuning expected;
  } rows[] = {
      {"GenuineOrvex", ~mmx, 0, 0, 22, {48, 1280, 30720}, known(30720, 48, 2)},
      {"GenuineOrvex", ~sse2, l2_leaf, ~0u, 1, {32, 8, 16}, known(32, 32, 1)},
      {"GenuineOrvex", mmx, 0, 0, 22, {1, 3, 2}, known(3, 1, 1)},
      {"GenuineOrvex", sse2, 0, 0, 22, {~0u, 1, ~0u}, known(~0u, ~0u, 2)},
      {"GenuineOrvex", sse2, 0, 0, 22, {0, 1280, 30720}, usual(2)},
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
    table.at(1).edx = row.features;
    table.at(0x80000000).eax = row.extended;
    table.at(l2_leaf).ecx = row.l2_register;
    const CacheInfo caches = caches_of(row.vendor == genuine_vendor, row.leaf, row.caches);
    EXPECT_EQ(text_of(mem::derive_tuning(table.processor(), caches)), text_of(row.expected))
        << "row " << &row - rows;
  }
}

// Seen by a constructor of this program: the library's own has run before it. The tuning values of
// many processors are the defaults; that the caches are gathered tells on all of them.
const std::uint32_t gathered_at_construction = __libkso_cache_info.ready;
const std::string tuning_at_construction = text_of(__libkso_mem_tuning);
TEST(TuningValues, AreReadyForConstructors) {
  EXPECT_EQ(gathered_at_construction, 1u);
  const CacheInfo caches = gather_caches(hardware_processor);
  EXPECT_EQ(tuning_at_construction, text_of(mem::derive_tuning(hardware_processor, caches)));
}

// The initialiser itself, on caches as a broken genuine processor reports them.
KSOMD_CHILD(initialise_again) {
  __libkso_cache_info = caches_of(arguments[0] == "1", 4, {arguments[1] == "1" ? 48u : 0u, 9, 0});
  __libkso_mem_tuning = {.l1_size = 77, .rep_movsb_threshold = 77};
  __libkso_mem_tuning_init();
  std::printf("%d %d", static_cast<int>(__libkso_mem_tuning.l1_size),
              static_cast<int>(__libkso_mem_tuning.rep_movsb_threshold));
  return 0;
}

TEST(TuningValues, FollowTheEnvironment) {
  const std::string message = text_mode(
      "\nCache size is incorrectly reported as 0. Please engage your hardware and/or OS support to "
      "address the problem.\n\n");
  const struct {
    const char *genuine, *l1, *debug, *request;
    std::string output;
  } rows[] = {{"1", "", "off", "", message},
              {"1", "", "", "rep_movsb_threshold=3K", "16384 3072"},
              {"1", "1", "1", "", "49152 8192"},
              {"", "", "1", "l1_size=5", "5 8192"}};
  for (const auto& [genuine, l1, debug, request, output] : rows) {
    const auto child = run_child("initialise_again", {genuine, l1},
                                 {{"__ORVEX_LIBKSO_DEBUG", debug}, {"KSOMD_MEM_TUNING", request}});
    expect_exit(child, output == message ? 1 : 0, output);
  }
  expect_exit(run_child("initialise_again", {"1", ""}), 0, "16384 8192");
}

// The values that a request asks for, then what of it was refused.
std::string asked(const SyntheticProcessor& from, const std::string& request) {
  static std::string refused;
  refused.clear();
  const Processor processor = from.processor();
  const mem::Tuning tuning = mem::requested_tuning(
      {processor, gather_caches(processor), request.c_str()}, nullptr,
      [](const char* item, std::size_t length) { refused += '|' + std::string(item, length); });
  return text_of(tuning) + refused;
}

TEST(TuningValues, FollowARequestAndRefuseWhatIsNone) {
  // Caches of 32 KiB and 16 MiB, in the leaf that describes one in each subleaf.
  const auto with_caches = [](const char* vendor, std::uint32_t leaf) {
    SyntheticProcessor processor;
    processor.set_vendor(vendor, 0x10);
    processor.at(1).edx = sse2 | mmx;
    processor.at(0x80000000).eax = 0x80000020;
    processor.at(leaf, 0) = {1u << 5 | 1, 7u << 22 | 63, 63, 0};
    processor.at(leaf, 1) = {3u << 5 | 3, 15u << 22 | 63, 16383, 0};
    return processor;
  };
  const SyntheticProcessor other = with_caches("SomebodyElse", 0x8000001D);
  const std::string fixed = text_of(usual(0)), derived = text_of(known(16384, 32, 2));
  EXPECT_EQ(asked(with_caches("GenuineOrvex", 4), ""), derived);
  EXPECT_EQ(asked(with_caches("SomebodyElse", 4), "auto"), derived);
  EXPECT_EQ(asked(with_caches("SomebodyElse", 5), "auto"), fixed);
  EXPECT_EQ(asked(other, ""), fixed);
  EXPECT_EQ(asked(other, "auto"), derived);
  EXPECT_EQ(asked(other, "auto,largest_cache_size=3,l1_quarter=16K,mem_class=1"),
            "3 8388608 32768 16384 16384 8192 196608 2048 1 ");
  EXPECT_EQ(asked(other, "copy_nt_threshold=8M,,rep_stosb_threshold=2G,mem_class=2,l1_half=0"),
            "131072 8388608 16384 0 4096 8192 65536 2147483648 2 ");
  EXPECT_EQ(asked(other, "l1_size=18446744073709551615,l1_half=16777215G"),
            "131072 65536 18446744073709551615 18014397435740160 4096 8192 65536 16384 0 ");
  for (const std::string item :
       {"Auto", "l1_size", "l1_size=", "l1_size=K", "l1_size=1k", "l1_size=1KB", "l1_size=-1",
        "l1_size= 1", "l1_size=18446744073709551616", "l1_size=17179869184G", "l1=5", "=5", "=",
        "mem_class=3", "L1_size=1"}) {
    EXPECT_EQ(asked(other, item + ",mem_class=1"), text_of(usual(1)) + '|' + item);
  }
}

}  // namespace
}  // namespace ksomd::test
