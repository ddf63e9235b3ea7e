// What ksomd-info tells, on processors made of answers and on this one.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>

#include "cpu/feature_table.h"
#include "cpu/isa_names.h"
#include "ksomd/memory.h"
#include "mem/dispatch.h"
#include "report.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {
namespace {

using info::Report;

constexpr std::uint32_t osxsave = 1u << 27, fxsave = 1u << 24;
constexpr std::uint32_t every_state = 0xE00FE;  // every XCR0 bit that a condition names

// A processor that reports everything that has a bit anywhere, on a system that keeps all state.
SyntheticProcessor full_processor() {
  SyntheticProcessor answers;
  answers.set_vendor(genuine_vendor);
  for (const std::uint32_t leaf : {1u, 7u, 0x14u, 0x19u, 0x24u, 0x80000001u, 0x80000008u}) {
    answers.at(leaf) = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
  }
  answers.at(7, 1) = answers.at(0x1E, 1) = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
  answers.xcr0_low = every_state;
  return answers;
}

std::string why(const Report& report, const char* name) {
  return info::reason(report, info::find_feature(name));
}

// Whatever a processor reports: what is explained as present is what detection finds.
TEST(InfoReport, ExplanationsAgreeWithDetection) {
  std::mt19937 random(20);  // NOLINT(bugprone-random-generator-seed): the same cases on each run
  std::map<Finding, int> seen;
  for (int round = 0; round < 2000; ++round) {
    SyntheticProcessor answers = full_processor();
    for (SyntheticProcessor::Answer& answer : answers.answers) {
      if (answer.leaf != 0) {
        CpuidResult& r = answer.result;
        // Three of four bits set, so that conditions hold often enough.
        r = {static_cast<std::uint32_t>(random() | random()),
             static_cast<std::uint32_t>(random() | random()),
             static_cast<std::uint32_t>(random() | random()),
             static_cast<std::uint32_t>(random() | random())};
      }
    }
    answers.xcr0_low = static_cast<std::uint32_t>(random() | random());
    if (round % 50 == 0) {
      answers.set_vendor(genuine_vendor, 0);
    }
    const char* disabled = round % 2 == 0 ? nullptr : "avx,sse4.2,sse4,amx-tile,kl,movrs,gfni";
    const Report report = info::make_report(answers.processor(), disabled);
    for (int id = 1; id < isa_id_count; ++id) {
      const bool present = report.explanations[id].finding == Finding::Present;
      ASSERT_EQ(__orvex_test_feature(report.features, id) == 1, present) << id;
      ASSERT_EQ(info::reason(report, id).empty(), present) << id;
      ++seen[report.explanations[id].finding];
    }
  }
  EXPECT_EQ(seen.size(), 5u) << "not every kind of finding came up";
}

TEST(InfoReport, SaysWhyAFeatureIsMissing) {
  SyntheticProcessor answers = full_processor();
  EXPECT_EQ(why(info::make_report(answers.processor(), "avx2"), "AVX2"),
            "switched off by ORVEX_ISA_DISABLE");
  EXPECT_EQ(why(info::make_report(answers.processor(), "avx2"), "FMA"), "");

  answers.xcr0_low = every_state & ~0x4u;  // no upper halves of YMM registers
  const Report no_ymm = info::make_report(answers.processor(), "avx");
  EXPECT_EQ(why(no_ymm, "AVX"), "reported, but the system does not preserve the YMM registers");
  EXPECT_EQ(why(no_ymm, "VAES"), "reported, but AVX is not usable");
  EXPECT_EQ(why(no_ymm, "AVX512F"),
            "reported, but the system does not preserve the ZMM and mask registers");
  EXPECT_EQ(why(no_ymm, "AMX-TILE"), "");

  answers.xcr0_low = every_state & ~0x40000u;  // no tile data
  const Report no_tiles = info::make_report(answers.processor(), nullptr);
  EXPECT_EQ(why(no_tiles, "AMX-TILE"),
            "reported, but the system does not preserve the tile registers");
  EXPECT_EQ(why(no_tiles, "AMX-FP8"), "not asked for: AMX-TILE is not usable");

  answers.reg(1, 0, 'c') &= ~osxsave;
  const Report no_xgetbv = info::make_report(answers.processor(), nullptr);
  EXPECT_EQ(why(no_xgetbv, "APXF"),
            "reported, but the system does not preserve the extended general registers");
  answers.reg(1, 0, 'd') &= ~fxsave;
  EXPECT_EQ(why(info::make_report(answers.processor(), nullptr), "SSE"),
            "reported, but the processor does not report FXSAVE");
  answers.reg(7, 0, 'b') &= ~(1u << 19);
  EXPECT_EQ(why(info::make_report(answers.processor(), nullptr), "ADX"),
            "the processor does not report it");
  EXPECT_EQ(why(info::make_report(full_processor().processor(), nullptr), "PLXNI"),
            "the processor does not report it");
}

TEST(InfoReport, FindsEveryNameInEitherCase) {
  for (int id = 1; id < isa_id_count; ++id) {
    for (const char* name :
         {feature_table::rows[id].upper_name, feature_table::rows[id].lower_name}) {
      if (name == nullptr) {
        continue;
      }
      std::string other;
      for (const char* c = name; *c != '\0'; ++c) {
        other += static_cast<char>(std::isupper(*c) != 0 ? std::tolower(*c) : std::toupper(*c));
      }
      EXPECT_EQ(info::find_feature(name), id) << name;
      EXPECT_EQ(info::find_feature(other), id) << other;
    }
  }
  for (const char* name : {"", "avx3", "avx2 ", "sse4.3"}) {
    EXPECT_EQ(info::find_feature(name), 0) << name;
  }
}

TEST(InfoReport, NamesWhatAVariableMisspells) {
  const SyntheticProcessor answers = full_processor();
  const Report report = info::make_report(answers.processor(), ",avx2,AVX,sse 4,,fma,");
  EXPECT_EQ(report.unknown_names, (std::vector<std::string>{"AVX", "sse 4"}));
}

// A level passes if and only if none of its features is missing; take each away once.
TEST(InfoReport, LevelsNameWhatIsMissing) {
  const SyntheticProcessor answers = full_processor();
  const Report full = info::make_report(answers.processor(), nullptr);
  ASSERT_EQ(full.levels.size(), 11u);
  for (const info::LevelOutcome& outcome : full.levels) {
    EXPECT_TRUE(outcome.passes()) << outcome.level->letter;
  }
  const Report report = info::make_report(answers.processor(), "movbe,f16c");
  std::string failing;
  for (const info::LevelOutcome& outcome : report.levels) {
    failing += outcome.passes() ? "" : outcome.level->letter;
  }
  EXPECT_EQ(failing, "LIE");
  EXPECT_EQ(report.levels.back().missing[0], feature_mask("MOVBE", "F16C").words[0]);
  EXPECT_EQ(info::level_entry(*report.levels.back().level), "__orvex_new_proc_init_E");
  EXPECT_EQ(info::level_entry(*report.levels.front().level), "__orvex_new_proc_init");
}

// What is told of this processor is what the entry points then do.
TEST(InfoReport, TellsTheVariantsThatAreTaken) {
  const std::map<std::string, mem::CopyRoutine*> copies = {
      {"__orvex_avx_rep_memcpy", __orvex_avx_rep_memcpy},
      {"__orvex_avx_memmove", __orvex_avx_memmove},
      {"__orvex_new_memcpy", __orvex_new_memcpy},
      {"__orvex_new_memmove", __orvex_new_memmove},
      {"std::memmove", std::memmove},
  };
  char from[8] = {}, to[8];
  _orvex_fast_memcpy(to, from, sizeof to);
  _orvex_fast_memmove(to, from, sizeof to);
  std::map<std::string, const char*> told;
  for (const DispatchingEntry& entry : mem::memory_entries()) {
    told[entry.name] = entry.variant(__orvex_cpu_feature_indicator);
  }
  EXPECT_EQ(copies.at(told["_orvex_fast_memcpy"]), __orvex_fast_memcpy_slot);
  EXPECT_EQ(copies.at(told["_orvex_fast_memmove"]), __orvex_fast_memmove_slot);
}

// With every feature each family takes its best variant, without any its last.
TEST(InfoReport, VariantsFollowTheFeatures) {
  const SyntheticProcessor full = full_processor();
  SyntheticProcessor silent;
  const Report best = info::make_report(full.processor(), nullptr);
  const Report least = info::make_report(silent.processor(), nullptr);
  const std::map<std::string, std::pair<std::string, std::string>> expected = {
      {"_orvex_fast_memset", {"__orvex_avx_rep_memset", "std::memset"}},
      {"__libkso_nontemporal_store", {"__libkso_nontemporal_store_512", "store_plain"}},
      {"__divq", {".L", ".A"}},
      {"_MATMUL_r8_t_n", {"packed", "portable"}},
      {"_MATMUL_c4_t_n", {"portable", "portable"}},
      {"_MATMUL_c8_n_t_pst_General", {"avx512", "baseline"}},
      {"MATMUL_v_tt_pst", {"avx512", "baseline"}},
      {"__libkso_scalbn", {"vector", "general"}},
  };
  std::size_t found = 0;
  for (const info::Family& family : info::families()) {
    EXPECT_FALSE(family.entries.empty()) << family.title;
    for (const DispatchingEntry& entry : family.entries) {
      if (const auto row = expected.find(entry.name); row != expected.end()) {
        EXPECT_EQ(entry.variant(best.features), row->second.first) << entry.name;
        EXPECT_EQ(entry.variant(least.features), row->second.second) << entry.name;
        ++found;
      }
    }
  }
  EXPECT_EQ(found, expected.size());
}

TEST(InfoReport, TellsEveryTuningField) {
  SyntheticProcessor answers = full_processor();
  answers.at(4) = {1u << 5 | 1, 11u << 22 | 63, 63, 0};  // level 1, data: 12 ways, 64 sets of 64
  const Report report = info::make_report(answers.processor(), nullptr);
  EXPECT_EQ(report.caches.level[0].size_kib, 48u);
  std::map<std::string, std::uint64_t> fields;
  for (const info::TuningValue& field : report.tuning) {
    fields[field.name] = field.value;
  }
  EXPECT_EQ(fields["l1_size"], 48u * 1024);
  EXPECT_EQ(fields["avx512_nt_threshold"], 6u * 48 * 1024);
  EXPECT_EQ(fields["mem_class"], 2u);
  EXPECT_EQ(fields.size() * sizeof(std::uint64_t), sizeof(mem::Tuning)) << "a field is not told";
}

}  // namespace
}  // namespace ksomd::test
