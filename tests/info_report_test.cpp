// What ksomd-info tells, on processors made of answers.
#include <gtest/gtest.h>

#include <map>

#include "report.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {
namespace {

using info::Report;

// A processor that reports everything that has a bit anywhere, on a system that keeps all state.
SyntheticProcessor full_processor() {
  return SyntheticProcessor::of_words([] { return ~0u; });
}

TEST(InfoReport, SaysWhyAFeatureIsMissing) {
  const std::string lost = "reported, but the system does not preserve the ";
  const struct {
    const char* variable;
    std::uint32_t leaf;
    char reg;  // 'x': XCR0
    std::uint32_t cleared;
    const char* feature;
    std::string why;
  } rows[] = {
      {"avx2", 1, 'a', 0, "AVX2", "switched off by ORVEX_ISA_DISABLE"},
      {"avx2", 1, 'a', 0, "FMA", ""},
      {"", 1, 'a', 0, "plxni", "the processor does not report it"},
      {"", 7, 'b', 1u << 19, "Adx", "the processor does not report it"},
      {"", 1, 'd', 1u << 24, "SSE4_2", "reported, but the processor does not report FXSAVE"},
      {"", 0, 'x', 4, "avx", lost + "YMM registers"},
      {"avx", 0, 'x', 4, "VAES", "reported, but AVX is not usable"},
      {"", 7, 'b', 1u << 5, "sm4", "reported, but AVX2 is not usable"},
      {"", 0, 'x', 8, "MPX", lost + "bound registers"},
      {"", 0, 'x', 64, "AVX512F", lost + "ZMM and mask registers"},
      {"", 0, 'x', 4, "AMX-TILE", ""},
      {"", 0, 'x', 1u << 18, "amx-tile", lost + "tile registers"},
      {"", 0, 'x', 1u << 18, "AMX-FP8", "not asked for: AMX-TILE is not usable"},
      {"", 7, 'c', 1u << 23, "wide-KL", "not asked for: the processor does not report Key Locker"},
      {"", 1, 'c', 1u << 27, "apxf", lost + "extended general registers"},
  };
  for (const auto& [variable, leaf, reg, cleared, feature, why] : rows) {
    SyntheticProcessor p = full_processor();
    (reg == 'x' ? p.xcr0_low : p.reg(leaf, 0, reg)) &= ~cleared;
    const Report report = info::make_report(p.processor(), variable);
    EXPECT_EQ(info::reason(report, info::find_feature(feature)), why) << feature;
  }
  for (const char* name : {"", "avx3", "avx2 ", "sse4.3"}) {
    EXPECT_EQ(info::find_feature(name), 0) << name;
  }
}

TEST(InfoReport, SaysWhatFollowsFromTheVariable) {
  const std::tuple<const char*, std::vector<std::string>, const char*> rows[] = {
      {"", {}, ""},
      {"movbe,f16c", {}, "LIE"},
      {",sse,AVX,sse 4,,amx-fp8,fma,", {"AVX", "sse 4"}, "BNPTLSHGIE"}};
  for (const auto& [variable, unknown, failing_levels] : rows) {
    const Report report = info::make_report(full_processor().processor(), variable);
    EXPECT_EQ(report.unknown_names, unknown);
    std::string failing;
    for (const info::LevelOutcome& outcome : report.levels) {
      failing += outcome.passes() ? "" : outcome.level->letter;
    }
    EXPECT_EQ(failing, failing_levels);
  }
}

TEST(InfoReport, TellsIdentityAndTuning) {
  const std::uint32_t rows[][4] = {
      {0xA06F4, 6, 0xAF, 4}, {0x07A20F12, 0x89, 0x21, 2}, {0x0FFF0593, 5, 9, 3}};
  for (const auto& [signature, family, model, stepping] : rows) {
    SyntheticProcessor p = full_processor();
    p.at(1).eax = signature;
    p.at(4) = {1u << 5 | 1, 11u << 22 | 63, 63, 0};  // level 1, data: 12 ways, 64 sets of 64
    const Report report = info::make_report(p.processor(), nullptr);
    const info::Identity& told = report.identity;
    std::string tuning;
    for (const info::TuningValue& field : report.tuning) {
      tuning += std::to_string(field.value) + ' ';
    }
    EXPECT_TRUE(told.family == family && told.model == model && told.stepping == stepping)
        << std::hex << signature << " is told as " << told.family << ' ' << told.model;
    EXPECT_EQ(tuning, "49152 24576 49152 24576 12288 8192 294912 2048 2 ");
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
  std::map<std::string, std::array<std::string, 3>> found;
  const SyntheticProcessor full = full_processor(), silent;
  const Processor processors[] = {full.processor(), full.processor(), silent.processor()};
  for (std::size_t i = 0; i < 3; ++i) {
    const Report report = info::make_report(processors[i], i == 1 ? "avx,sse3" : nullptr);
    for (const info::Family& family : info::families()) {
      for (const DispatchingEntry& entry : family.entries) {
        expected.contains(entry.name) ? found[entry.name][i] = entry.variant(report.features) : "";
      }
    }
  }
  EXPECT_EQ(found, expected);
}

}  // namespace
}  // namespace ksomd::test
