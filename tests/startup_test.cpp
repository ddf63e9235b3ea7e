// Start-up checks: what each of the exported entries requires, sets and reports.
#include "cpu/startup.h"

#include <gtest/gtest.h>
#include <immintrin.h>

#include <cstring>
#include <functional>

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "cpu/fp_mode.h"
#include "cpu/isa_names.h"
#include "feature_golden.h"
#include "msg/messages.h"
#include "support/child_process.h"

namespace ksomd::test {
namespace {

// ---- the exported entries --------------------------------------------------------------------

using Entry = void (*)(std::uint32_t flags);

enum class Missing { Returns, ProcessorReport, SystemReport };

struct EntryRow {
  const char* name;
  Entry entry;
  std::uint64_t required;  // 0: the entry checks nothing
  Guarantees known;
  bool takes_flags;
  Missing missing;
  std::uint32_t message;
  bool sets_mode;
};

// One declaration for each exported name, the dotted ones included.
// NOLINTBEGIN(bugprone-macro-parentheses): the arguments are names
#define ENTRY(id, exported) extern "C" void id(std::uint32_t flags) __asm__(exported)
ENTRY(p, "__orvex_proc_init");
ENTRY(n, "__orvex_new_proc_init");
ENTRY(pB, "__orvex_proc_init_B");
ENTRY(nB, "__orvex_new_proc_init_B");
ENTRY(pN, "__orvex_proc_init_N");
ENTRY(nN, "__orvex_new_proc_init_N");
ENTRY(pP, "__orvex_proc_init_P");
ENTRY(nP, "__orvex_new_proc_init_P");
ENTRY(pT, "__orvex_proc_init_T");
ENTRY(nT, "__orvex_new_proc_init_T");
ENTRY(nL, "__orvex_new_proc_init_L");
ENTRY(nS, "__orvex_new_proc_init_S");
ENTRY(nH, "__orvex_new_proc_init_H");
ENTRY(nG, "__orvex_new_proc_init_G");
ENTRY(nI, "__orvex_new_proc_init_I");
ENTRY(nE, "__orvex_new_proc_init_E");
ENTRY(pA, "__orvex_proc_init.A");
ENTRY(nA, "__orvex_new_proc_init.A");
ENTRY(pBA, "__orvex_proc_init_B.A");
ENTRY(nBA, "__orvex_new_proc_init_B.A");
ENTRY(pNA, "__orvex_proc_init_N.A");
ENTRY(nNA, "__orvex_new_proc_init_N.A");
ENTRY(pPA, "__orvex_proc_init_P.A");
ENTRY(nPA, "__orvex_new_proc_init_P.A");
ENTRY(pTA, "__orvex_proc_init_T.A");
ENTRY(nTA, "__orvex_new_proc_init_T.A");
ENTRY(nLA, "__orvex_new_proc_init_L.A");
ENTRY(nSA, "__orvex_new_proc_init_S.A");
ENTRY(nHA, "__orvex_new_proc_init_H.A");
ENTRY(nGA, "__orvex_new_proc_init_G.A");
ENTRY(nIA, "__orvex_new_proc_init_I.A");
ENTRY(nEA, "__orvex_new_proc_init_E.A");
ENTRY(pH_, "__orvex_proc_init.H");
ENTRY(pBJ, "__orvex_proc_init_B.J");
ENTRY(pNJ, "__orvex_proc_init_N.J");
ENTRY(pBK, "__orvex_proc_init_B.K");
ENTRY(pBL, "__orvex_proc_init_B.L");
ENTRY(pNK, "__orvex_proc_init_N.K");
ENTRY(pNL, "__orvex_proc_init_N.L");
ENTRY(pPL, "__orvex_proc_init_P.L");
ENTRY(pTM, "__orvex_proc_init_T.M");
ENTRY(nH_, "__orvex_new_proc_init.H");
ENTRY(nBJ, "__orvex_new_proc_init_B.J");
ENTRY(nNJ, "__orvex_new_proc_init_N.J");
ENTRY(nBK, "__orvex_new_proc_init_B.K");
ENTRY(nBL, "__orvex_new_proc_init_B.L");
ENTRY(nLO, "__orvex_new_proc_init_L.O");
ENTRY(nNK, "__orvex_new_proc_init_N.K");
ENTRY(nNL, "__orvex_new_proc_init_N.L");
ENTRY(nPL, "__orvex_new_proc_init_P.L");
ENTRY(nSN, "__orvex_new_proc_init_S.N");
ENTRY(nTM, "__orvex_new_proc_init_T.M");
ENTRY(nEV, "__orvex_new_proc_init_E.V");
ENTRY(nGR, "__orvex_new_proc_init_G.R");
ENTRY(nHP, "__orvex_new_proc_init_H.P");
ENTRY(nIS, "__orvex_new_proc_init_I.S");
// NOLINTEND(bugprone-macro-parentheses)

constexpr auto returns = Missing::Returns;
constexpr auto processor = Missing::ProcessorReport;
constexpr auto system = Missing::SystemReport;

const EntryRow entry_rows[] = {
    {"__orvex_proc_init", p, 0x2E, 0, false, returns, 0, true},
    {"__orvex_new_proc_init", n, 0x2E, 0, true, returns, 0, true},
    {"__orvex_proc_init_B", pB, 0x6E, 2, false, processor, 44, true},
    {"__orvex_new_proc_init_B", nB, 0x6E, 2, true, processor, 44, true},
    {"__orvex_proc_init_N", pN, 0x6E, 2, false, processor, 45, true},
    {"__orvex_new_proc_init_N", nN, 0x6E, 2, true, processor, 45, true},
    {"__orvex_proc_init_P", pP, 0xEE, 2, false, processor, 43, true},
    {"__orvex_new_proc_init_P", nP, 0xEE, 2, true, processor, 43, true},
    {"__orvex_proc_init_T", pT, 0x1EE, 2, false, processor, 42, true},
    {"__orvex_new_proc_init_T", nT, 0x1EE, 2, true, processor, 42, true},
    {"__orvex_new_proc_init_L", nL, 0x9EE, 2, true, processor, 48, true},
    {"__orvex_new_proc_init_S", nS, 0x3EE, 2, true, processor, 46, true},
    {"__orvex_new_proc_init_H", nH, 0x17EE, 6, true, processor, 47, true},
    {"__orvex_new_proc_init_G", nG, 0x117EE, 6, true, system, 50, true},
    {"__orvex_new_proc_init_I", nI, 0x197EE, 6, true, system, 51, true},
    {"__orvex_new_proc_init_E", nE, 0x9D9FEE, 6, true, system, 52, true},
    {"__orvex_proc_init.A", pA, 0, 0, false, returns, 0, false},
    {"__orvex_new_proc_init.A", nA, 0, 0, true, returns, 0, false},
    {"__orvex_proc_init_B.A", pBA, 0, 0, false, processor, 44, false},
    {"__orvex_new_proc_init_B.A", nBA, 0, 0, true, processor, 44, false},
    {"__orvex_proc_init_N.A", pNA, 0, 0, false, processor, 45, false},
    {"__orvex_new_proc_init_N.A", nNA, 0, 0, true, processor, 45, false},
    {"__orvex_proc_init_P.A", pPA, 0, 0, false, processor, 43, false},
    {"__orvex_new_proc_init_P.A", nPA, 0, 0, true, processor, 43, false},
    {"__orvex_proc_init_T.A", pTA, 0, 0, false, processor, 42, false},
    {"__orvex_new_proc_init_T.A", nTA, 0, 0, true, processor, 42, false},
    {"__orvex_new_proc_init_L.A", nLA, 0, 0, true, processor, 48, false},
    {"__orvex_new_proc_init_S.A", nSA, 0, 0, true, processor, 46, false},
    {"__orvex_new_proc_init_H.A", nHA, 0, 0, true, processor, 47, false},
    {"__orvex_new_proc_init_G.A", nGA, 0, 0, true, system, 50, false},
    {"__orvex_new_proc_init_I.A", nIA, 0, 0, true, system, 51, false},
    {"__orvex_new_proc_init_E.A", nEA, 0, 0, true, system, 52, false},
    {"__orvex_proc_init.H", pH_, 0, 0, false, returns, 0, true},
    {"__orvex_proc_init_B.J", pBJ, 0, 0, false, returns, 0, true},
    {"__orvex_proc_init_N.J", pNJ, 0, 0, false, returns, 0, true},
    {"__orvex_proc_init_B.K", pBK, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_B.L", pBL, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_N.K", pNK, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_N.L", pNL, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_P.L", pPL, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_T.M", pTM, 0, 2, false, returns, 0, true},
    {"__orvex_new_proc_init.H", nH_, 0, 0, true, returns, 0, true},
    {"__orvex_new_proc_init_B.J", nBJ, 0, 0, true, returns, 0, true},
    {"__orvex_new_proc_init_N.J", nNJ, 0, 0, true, returns, 0, true},
    {"__orvex_new_proc_init_B.K", nBK, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_B.L", nBL, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_L.O", nLO, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_N.K", nNK, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_N.L", nNL, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_P.L", nPL, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_S.N", nSN, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_T.M", nTM, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_E.V", nEV, 0, 6, true, returns, 0, true},
    {"__orvex_new_proc_init_G.R", nGR, 0, 6, true, returns, 0, true},
    {"__orvex_new_proc_init_H.P", nHP, 0, 6, true, returns, 0, true},
    {"__orvex_new_proc_init_I.S", nIS, 0, 6, true, returns, 0, true},
};

// Calls an entry. Those that take no flags are called with them all the same, as the registers of
// both conventions allow.
[[clang::no_sanitize("function")]] void call_entry(Entry entry, std::uint32_t flags) {
  entry(flags);
}

void pretend(std::uint64_t word) {
  __orvex_cpu_feature_indicator[0] = word | 1;
}

// Restores MXCSR and the feature set at the end of a test.
class Restore {
 public:
  Restore() : mxcsr_(_mm_getcsr()), word_(feature_word()) {}
  ~Restore() {
    _mm_setcsr(mxcsr_);
    __orvex_cpu_feature_indicator[0] = word_;
  }
  Restore(const Restore&) = delete;
  Restore& operator=(const Restore&) = delete;

 private:
  std::uint32_t mxcsr_;
  std::uint64_t word_;
};

std::uint32_t mxcsr_mask() {
  alignas(16) unsigned char image[512] = {};
  _fxsave64(image);
  std::uint32_t mask;
  std::memcpy(&mask, image + 28, sizeof mask);
  return mask;
}

// ---- MXCSR -----------------------------------------------------------------------------------

// What MXCSR gains for `flags` on a processor with this MXCSR_MASK.
std::uint32_t gained_mode(Guarantees known, std::uint32_t flags, std::uint32_t supported) {
  std::uint32_t gained = (flags & 1) != 0 ? 0x8000 : 0;
  const bool probed =
      ((flags & 2) != 0 && (known & 2) == 0) || ((flags & 4) != 0 && (known & 4) == 0);
  if ((flags & 2) != 0 && (!probed || (supported & 0x40) != 0)) {
    gained |= 0x40;
  }
  if ((flags & 4) != 0 && (!probed || (supported & 0x20000) != 0)) {
    gained |= 0x20000;
  }
  return gained;
}

struct RecordedMxcsr {
  std::uint32_t value;
  std::uint32_t mask;
  std::vector<std::uint32_t>* writes;
  int* probes;
  std::uint32_t read() const { return value; }
  void write(std::uint32_t next) {
    writes->push_back(next ^ value);
    value = next;
  }
  std::uint32_t supported() const {
    ++*probes;
    return mask;
  }
};

TEST(FloatingPointMode, EveryGuaranteeFlagAndMask) {
  for (const Guarantees known : {0u, 2u, 6u}) {
    for (std::uint32_t flags = 0; flags < 16; ++flags) {
      for (const std::uint32_t mask : {0u, 0x40u, 0x20000u, 0x20040u, ~0u}) {
        SCOPED_TRACE(testing::Message()
                     << "known " << known << " flags " << flags << " mask " << std::hex << mask);
        std::vector<std::uint32_t> writes;
        int probes = 0;
        set_fp_mode(RecordedMxcsr{0x1F80, mask, &writes, &probes}, known, flags);
        std::vector<std::uint32_t> expected;
        for (const std::uint32_t bit : {0x8000u, 0x40u, 0x20000u}) {
          if ((gained_mode(known, flags, mask) & bit) != 0) {
            expected.push_back(bit);  // one at a time, in this order
          }
        }
        EXPECT_EQ(writes, expected);
        EXPECT_EQ(probes, (flags & ~known & 6) != 0 ? 1 : 0);
      }
    }
  }
}

TEST(FloatingPointMode, EveryEntryOnThisProcessor) {
  const Restore restore;
  const std::uint32_t supported = mxcsr_mask();
  int calls = 0;
  for (const EntryRow& row : entry_rows) {
    if (!row.sets_mode && row.missing != Missing::Returns) {
      continue;  // ends the process: see below
    }
    for (std::uint32_t flags = 0; flags < 8; ++flags) {
      const std::uint32_t effective = row.takes_flags ? flags : 3;
      const std::uint32_t gained = row.sets_mode ? gained_mode(row.known, effective, supported) : 0;
      if ((gained & ~supported) != 0) {
        continue;  // guaranteed by a level that this processor does not have: it would fault
      }
      // Bits that are set already, the exception flags among them, stay.
      for (const std::uint32_t before : {0x1F80u, 0x7FBFu, 0x9FC0u}) {
        pretend(row.required);
        _mm_setcsr(before);
        call_entry(row.entry, flags);
        const std::uint32_t after = _mm_getcsr();
        _mm_setcsr(0x1F80);
        ASSERT_EQ(after, before | gained) << row.name << " flags " << flags;
        ++calls;
      }
    }
  }
  std::printf("%d calls\n", calls);
}

TEST(LevelCheck, TheLowestLevelReturnsWhenSomethingIsMissing) {
  const Restore restore;
  for (const int bit : {1, 2, 3, 5}) {
    for (const Entry entry : {p, n}) {
      pretend(0x2EuLL & ~(1uLL << bit));
      _mm_setcsr(0x1F80);
      call_entry(entry, 3);
      EXPECT_EQ(_mm_getcsr(), 0x1F80u) << bit;
    }
  }
}

// ---- reports ---------------------------------------------------------------------------------

// call ROW WORD: calls an entry with this word 0 of the feature set.
KSOMD_CHILD(call) {
  pretend(std::stoull(arguments[1], nullptr, 16));
  std::atexit([] { std::printf("exit handlers run\n"); });
  call_entry(entry_rows[std::stoul(arguments[0])].entry, 0);
  std::printf("returned\n");
  return 77;
}

std::string hex(std::uint64_t value) {
  char text[20];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return text;
}

const std::pair<std::uint32_t, const char*> level_texts[] = {
    {42,
     "Orvex(R) Pelta(TM) Duo processors and compatible Orvex processors with supplemental "
     "Streaming SIMD Extensions 3 (SSSE3) instruction support"},
    {43,
     "Orvex(R) Calvix(R) 4 and compatible Orvex processors with Orvex(R) Streaming SIMD Extensions "
     "3 (Orvex(R) SSE3) instruction support"},
    {44, "Orvex(R) Calvix(R) M and compatible Orvex processors"},
    {45,
     "Orvex(R) Calvix(R) 4 and compatible Orvex processors. Enables new optimizations in addition "
     "to Orvex processor-specific optimizations"},
    {46, "Orvex(R) processors with Tandem New Instructions support"},
    {47, "Orvex(R) processors with SSE4.2 and POPCNT instructions support"},
    {48, "Orvex(R) processors with MOVBE instructions support"},
    {50, "Please verify that both the operating system and the processor support Orvex(R) AVX."},
    {51,
     "Please verify that both the operating system and the processor support Orvex(R) AVX, F16C "
     "and RDRAND instructions."},
    {52,
     "Please verify that both the operating system and the processor support Orvex(R) AVX2, BMI, "
     "LZCNT, HLE, RTM and FMA instructions."},
};

std::string report_text(const EntryRow& row) {
  std::string text;
  for (const auto& [message, level_text] : level_texts) {
    if (message == row.message) {
      text = level_text;
    }
  }
  if (row.missing == Missing::ProcessorReport) {
    text =
        "Fatal Error: This program was not built to run on the processor in your system.\n"
        "The allowed processors are: " +
        text + ".";
  } else {
    text = "Fatal Error: This program was not built to run in your system.\n" + text;
  }
  return text_mode("\n" + text + "\n\nexit handlers run\n");
}

void expect_exit(const ChildResult& child, int status, const std::string& output) {
  EXPECT_EQ(child.ending, Ending::Exit);
  EXPECT_EQ(child.status, status);
  EXPECT_EQ(child.output, output);
}

TEST(LevelCheck, PassesWithItsSetAndReportsEachMissingFeature) {
  int children = 0;
  for (std::size_t i = 0; i < std::size(entry_rows); ++i) {
    const EntryRow& row = entry_rows[i];
    SCOPED_TRACE(row.name);
    if (row.missing == Missing::Returns) {
      continue;
    }
    if (row.required == 0) {
      expect_exit(run_child("call", {std::to_string(i), "ffffffff"}), 1, report_text(row));
      ++children;
      continue;
    }
    expect_exit(run_child("call", {std::to_string(i), hex(row.required)}), 77,
                text_mode("returned\nexit handlers run\n"));
    for (int bit = 0; bit < 64; ++bit) {
      if ((row.required >> bit & 1) != 0) {
        // Everything else that a processor may have does not help.
        const std::uint64_t word = ~(std::uint64_t{1} << bit);
        expect_exit(run_child("call", {std::to_string(i), hex(word)}), 1, report_text(row));
        ++children;
      }
    }
  }
  std::printf("%d reports\n", children);
}

KSOMD_CHILD(dispatch_fail) {
  std::atexit([] { std::printf("exit handlers run\n"); });
  __orvex_cpu_dispatch_fail();
}

TEST(DispatchFail, IsABreakpointTrapWithoutAWord) {
  const ChildResult child = run_child("dispatch_fail");
  EXPECT_EQ(child.ending, Ending::BreakpointTrap);
  EXPECT_EQ(child.output, "");
}

// ---- the feature check -----------------------------------------------------------------------

std::uint64_t mask_of(std::initializer_list<int> bits) {
  std::uint64_t mask = 0;
  for (const int bit : bits) {
    mask |= std::uint64_t{1} << bit % 64;
  }
  return mask;
}

TEST(FeatureCheck, Verdicts) {
  const FeatureSet nothing = {1, 0};
  const FeatureSet sse = {0x2F, 0};
  const struct {
    const FeatureSet& set;
    std::int32_t index;
    std::uint64_t mask;
    FeatureVerdict verdict;
    const char* list;
  } cases[] = {
      {nothing, 0, 0, FeatureVerdict::OtherVendor, ""},
      {nothing, 7, 0, FeatureVerdict::OtherVendor, ""},
      {sse, 0, 0, FeatureVerdict::Present, ""},
      {sse, 0, 0x2F, FeatureVerdict::Present, ""},
      {sse, 1, 0, FeatureVerdict::Present, ""},
      {sse, 2, 0, FeatureVerdict::BadIndex, ""},
      {sse, -1, 0, FeatureVerdict::BadIndex, ""},
      {sse, 0, mask_of({52}), FeatureVerdict::Present, ""},  // shadow stacks are never required
      {sse, 1, mask_of({52}), FeatureVerdict::Unnamed, ""},  // bit 116
      {sse, 0, mask_of({31}), FeatureVerdict::Unnamed, ""},
      {sse, 0, mask_of({31, 16}), FeatureVerdict::Missing, "AVX"},
      {sse, 0, mask_of({18, 23}), FeatureVerdict::Missing, "FMA and AVX2"},
      {sse, 0, mask_of({15, 16}), FeatureVerdict::Missing, "AVX and F16C"},
      {sse, 0, mask_of({24, 27, 6}), FeatureVerdict::Missing, "SSE2, AVX512F and AVX512DQ"},
      {sse, 0, mask_of({52, 51}), FeatureVerdict::Missing, "IBT"},
      {sse, 1, mask_of({64, 71, 112}), FeatureVerdict::Missing, "CLDEMOTE, AMX-TILE and MWAIT"},
  };
  for (const auto& c : cases) {
    char list[feature_list_size] = "";
    SCOPED_TRACE(testing::Message() << "index " << c.index << " mask " << std::hex << c.mask);
    EXPECT_EQ(judge_features(c.set, c.index, c.mask, " and ", list), c.verdict);
    EXPECT_STREQ(list, c.list);
  }
}

// The names of the features of a mask in the order of their ISA ids.
std::vector<std::string> names_of(std::uint64_t mask) {
  std::vector<std::string> by_id(isa_id_count);
  for (const GoldenFeature& feature : golden_features) {
    if (feature.bit < 64 && (mask >> feature.bit & 1) != 0) {
      by_id[static_cast<std::size_t>(feature.isa_id)] = feature.upper_name;
    }
  }
  std::erase(by_id, "");
  return by_id;
}

std::string joined(const std::vector<std::string>& names, std::size_t count,
                   const std::string& joiner) {
  std::string list = names[0];
  for (std::size_t i = 1; i < count; ++i) {
    list += (i + 1 == count ? joiner : ", ") + names[i];
  }
  return list;
}

TEST(FeatureCheck, ListsAreCutAtWholeNames) {
  const std::uint64_t all = ~std::uint64_t{0};
  const std::vector<std::string> names = names_of(all);
  const FeatureSet missing = {all, 0};
  std::size_t cuts = 0;
  for (std::size_t length = 0; length < 950; ++length) {
    const std::string joiner(length, '+');
    // As many names as fit into 1023 characters, the joiner before the last.
    std::size_t count = 2;
    while (count < names.size() && joined(names, count + 1, joiner).size() <= 1023) {
      ++count;
    }
    cuts += count < names.size() ? 1 : 0;
    char list[feature_list_size];
    std::memset(list, '?', sizeof list);
    ASSERT_TRUE(list_features(missing, joiner.c_str(), list));
    ASSERT_EQ(std::string(list), joined(names, count, joiner)) << "joiner of " << length;
  }
  EXPECT_GT(cuts, 0u);
}

TEST(FeatureCheck, ARowWithoutANameEndsTheList) {
  __orvex_isa_table_init();
  const IsaRow saved = __orvex_isa_table[16];
  char list[feature_list_size];
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    __orvex_isa_table[16].upper_name = name;
    EXPECT_FALSE(list_features({mask_of({6, 16}), 0}, " and ", list));
    EXPECT_EQ(judge_features({3, 0}, 0, mask_of({6, 16}), " and ", list), FeatureVerdict::Unnamed);
  }
  __orvex_isa_table[16] = saved;
}

// feature_check SET0 SET1 INDEX MASK: the exported check on this vendor-gated set. "break" as
// SET0 damages the name table instead.
KSOMD_CHILD(feature_check) {
  if (arguments[0] == "break") {
    __orvex_isa_table_init();
    __orvex_isa_table[1].bit = 1000;
  } else {
    __orvex_vendor_feature_indicator[0] = std::stoull(arguments[0], nullptr, 16);
    __orvex_vendor_feature_indicator[1] = std::stoull(arguments[1], nullptr, 16);
  }
  __orvex_new_feature_proc_init_n(std::stoi(arguments[2]), std::stoull(arguments[3], nullptr, 16));
  std::printf("returned");
  return 77;
}

TEST(FeatureCheck, Reports) {
  const std::string incompatible =
      "Please verify that your application was built with compatible Orvex(R) libkso library";
  const std::string inconsistent =
      "Use of incompatible or internally inconsistent Orvex(R) libkso library";
  const std::string other_vendor =
      "This executable is built with target processor feature specified, it can only be run on "
      "Orvex(R) processors.";
  const auto missing = [](const std::string& list) {
    return "Please verify that both the operating system and the processor support Orvex(R) " +
           list + " instructions.";
  };
  const std::pair<Arguments, std::string> cases[] = {
      {{"1", "0", "0", "0"}, other_vendor},
      {{"3", "0", "5", "0"}, incompatible},
      {{"3", "0", "0", "80000000"}, incompatible},
      {{"break", "0", "0", "0"}, inconsistent},
      {{"3", "0", "0", "10000"}, missing("AVX")},
      {{"3", "0", "0", "840000"}, missing("FMA and AVX2")},
      {{"3", "0", "1", "7"}, missing("CLDEMOTE, MOVDIRI and MOVDIR64B")},
  };
  for (const auto& [arguments, message] : cases) {
    expect_exit(run_child("feature_check", arguments), 1, text_mode("\n" + message + "\n\n"));
  }
  expect_exit(run_child("feature_check", {"840001", "0", "0", "10000000840000"}), 77, "returned");
}

TEST(FeatureCheck, TheModeIsSetWhereTheGatedSetHasSse) {
  const Restore restore;
  for (const bool sse : {false, true}) {
    __orvex_vendor_feature_indicator[0] = sse ? 0x23 : 0x3;
    _mm_setcsr(0x1F80);
    __orvex_new_feature_proc_init(1, 0x2);
    EXPECT_EQ(_mm_getcsr(), sse ? 0x9F80u : 0x1F80u);
  }
  __orvex_vendor_feature_indicator[0] = 0;
}

}  // namespace
}  // namespace ksomd::test
