// What ksomd-info tells, on processors made of answers.
#include <gtest/gtest.h>

#include <map>

#include "cpu/feature_table.h"
#include "report.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {
namespace {

using info::Report;

// A processor that reports everything that has a bit anywhere, on a system that keeps all state.
SyntheticProcessor full_processor() {
  SyntheticProcessor p;
  p.set_vendor(genuine_vendor);
  p.at(7, 1) = p.at(0x1E, 1) = {~0u, ~0u, ~0u, ~0u};
  for (const std::uint32_t leaf : {1u, 7u, 0x14u, 0x19u, 0x24u, 0x80000001u, 0x80000008u}) {
    p.at(leaf) = {~0u, ~0u, ~0u, ~0u};
  }
  p.xcr0_low = 0xE00FE;
  return p;
}

TEST(InfoReport, SaysWhyAFeatureIsMissing) {
  const struct {
    const char* variable;
    std::uint32_t leaf;
    char reg;  // 'x': XCR0
    std::uint32_t cleared;
    const char *feature, *why;
  } rows[] = {
      {"avx2", 1, 'a', 0, "AVX2", "switched off by ORVEX_ISA_DISABLE"},
      {"avx2", 1, 'a', 0, "FMA", ""},
      {"", 1, 'a', 0, "plxni", "the processor does not report it"},
      {"", 7, 'b', 1u << 19, "Adx", "the processor does not report it"},
      {"", 1, 'd', 1u << 24, "SSE4_2", "reported, but the processor does not report FXSAVE"},
      {"", 0, 'x', 4, "avx", "reported, but the system does not preserve the YMM registers"},
      {"avx", 0, 'x', 4, "VAES", "reported, but AVX is not usable"},
      {"", 7, 'b', 1u << 5, "sm4", "reported, but AVX2 is not usable"},
      {"", 0, 'x', 8, "MPX", "reported, but the system does not preserve the bound registers"},
      {"", 0, 'x', 64, "AVX512F",
       "reported, but the system does not preserve the ZMM and mask registers"},
      {"", 0, 'x', 4, "AMX-TILE", ""},
      {"", 0, 'x', 1u << 18, "amx-tile",
       "reported, but the system does not preserve the tile registers"},
      {"", 0, 'x', 1u << 18, "AMX-FP8", "not asked for: AMX-TILE is not usable"},
      {"", 7, 'c', 1u << 23, "wide-KL", "not asked for: the processor does not report Key Locker"},
      {"", 1, 'c', 1u << 27, "apxf",
       "reported, but the system does not preserve the extended general registers"},
  };
  for (const auto& [variable, leaf, reg, cleared, feature, why] : rows) {
    SyntheticProcessor p = full_processor();
    (reg == 'x' ? p.xcr0_low : p.reg(leaf, 0, reg)) &= ~cleared;
    const Report report = info::make_report(p.processor(), variable);
    EXPECT_EQ(info::reason(report, info::find_feature(feature)), why) << feature;
  }
}

TEST(InfoReport, FindsEveryNameAndNamesWhatNoneIs) {
  for (int id = 1; id < isa_id_count; ++id) {
    const FeatureRow& row = feature_table::rows[id];
    for (const char* const name : {row.upper_name, row.lower_name}) {
      EXPECT_EQ(info::find_feature(name != nullptr ? name : ""), name != nullptr ? id : 0) << id;
    }
  }
  for (const char* name : {"avx3", "avx2 ", "sse4.3"}) {
    EXPECT_EQ(info::find_feature(name), 0) << name;
  }
  const Report report =
      info::make_report(full_processor().processor(), ",avx2,AVX,sse 4,,amx-fp8,fma,");
  EXPECT_EQ(report.unknown_names, (std::vector<std::string>{"AVX", "sse 4"}));
}

TEST(InfoReport, LevelsNameWhatIsMissing) {
  const SyntheticProcessor p = full_processor();
  for (const auto& [variable, expected] :
       {std::pair{"", ""}, {"movbe,f16c", "LIE"}, {"sse", "BNPTLSHGIE"}}) {
    const Report report = info::make_report(p.processor(), variable);
    std::string failing;
    for (const info::LevelOutcome& outcome : report.levels) {
      failing += outcome.passes() ? "" : outcome.level->letter;
    }
    EXPECT_EQ(failing, expected);
  }
}

TEST(InfoReport, TellsFamilyAndModel) {
  const std::uint32_t rows[][4] = {
      {0xA06F4, 6, 0xAF, 4}, {0x07A20F12, 0x89, 0x21, 2}, {0x0FFF0593, 5, 9, 3}};
  for (const auto& [signature, family, model, stepping] : rows) {
    SyntheticProcessor p = full_processor();
    p.at(1).eax = signature;
    const info::Identity told = info::make_report(p.processor(), nullptr).identity;
    EXPECT_TRUE(told.family == family && told.model == model && told.stepping == stepping)
        << std::hex << signature << " is told as " << told.family << ' ' << told.model;
  }
}

// On a processor with everything, on one without AVX and SSE3, and on one that reports nothing.
TEST(InfoReport, VariantsFollowTheFeatures) {
  const std::map<std::string, std::array<std::string, 3>> expected = {
      {"_orvex_fast_memset", {"__orvex_avx_rep_memset", "__orvex_new_memset", "std::memset"}},
      {"__libkso_nontemporal_store",
       {"__libkso_nontemporal_store_512", "store_plain", "store_plain"}},
      {"__divq", {".L", ".A", ".A"}},
      {"_MATMUL_r8_t_n", {"packed", "packed", "portable"}},
      {"_MATMUL_c4_t_n", {"portable", "portable", "portable"}},
      {"_MATMUL_c8_n_t_pst_General", {"avx512", "baseline", "baseline"}},
      {"MATMUL_v_tt_pst", {"avx512", "baseline", "baseline"}},
      {"__libkso_scalbn", {"vector", "vector", "general"}},
  };
  const SyntheticProcessor full = full_processor(), silent;
  const Report reports[] = {info::make_report(full.processor(), nullptr),
                            info::make_report(full.processor(), "avx,sse3"),
                            info::make_report(silent.processor(), nullptr)};
  std::map<std::string, std::array<std::string, 3>> found;
  for (const info::Family& family : info::families()) {
    for (const DispatchingEntry& entry : family.entries) {
      for (std::size_t i = 0; expected.contains(entry.name) && i < 3; ++i) {
        found[entry.name][i] = entry.variant(reports[i].features);
      }
    }
  }
  EXPECT_EQ(found, expected);
}

TEST(InfoReport, TellsEveryTuningField) {
  SyntheticProcessor p = full_processor();
  p.at(4) = {1u << 5 | 1, 11u << 22 | 63, 63, 0};  // level 1, data: 12 ways, 64 sets of 64
  const Report report = info::make_report(p.processor(), nullptr);
  std::vector<std::uint64_t> values;
  for (const info::TuningValue& field : report.tuning) {
    values.push_back(field.value);
  }
  EXPECT_EQ(values,
            (std::vector<std::uint64_t>{49152, 24576, 49152, 24576, 12288, 8192, 294912, 2048, 2}));
}

}  // namespace
}  // namespace ksomd::test
