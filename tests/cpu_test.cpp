// Feature detection, the two feature sets and their fill entries, names and the disable variable.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <ctime>
#include <limits>
#include <random>
#include <thread>

#include "cpu/detection.h"
#include "cpu/feature_table.h"
#include "cpu/isa_names.h"
#include "feature_golden.h"
#include "support/child_process.h"
#include "support/seed.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {
namespace {

constexpr std::uint32_t osxsave = 1u << 27;
constexpr std::uint32_t fxsave = 1u << 24;
constexpr std::uint32_t every_state = 0xE00FE;  // every XCR0 bit that a condition names

struct Bits {
  std::uint64_t word[2] = {};
  void set(int bit) { word[bit / 64] |= std::uint64_t{1} << (bit % 64); }
  bool test(int bit) const { return (word[bit / 64] >> (bit % 64) & 1) != 0; }
  bool contains(const Bits& other) const {
    return (other.word[0] & ~word[0]) == 0 && (other.word[1] & ~word[1]) == 0;
  }
  bool operator==(const Bits&) const = default;
};

void PrintTo(const Bits& bits, std::ostream* stream) {
  for (int bit = 0; bit < 128; ++bit) {
    if (bits.test(bit)) {
      *stream << bit << ' ';
    }
  }
}

Bits detect(const SyntheticProcessor& synthetic, const char* disabled = nullptr) {
  const Detection detection = detect_features(synthetic.processor(), disabled, false);
  EXPECT_EQ(detection.status, 0);
  return {{detection.features[0], detection.features[1]}};
}

// ---- the oracle: the golden list read as plainly as possible --------------------------------

bool state_enabled(SyntheticProcessor& p, std::uint32_t bits) {
  return (p.reg(1, 0, 'c') & osxsave) != 0 && (p.xcr0_low & bits) == bits;
}

bool condition_holds(SyntheticProcessor& p, std::string_view needs) {
  const auto set = [&p](std::uint32_t leaf, std::uint32_t subleaf, char reg, int bit) {
    return (p.reg(leaf, subleaf, reg) >> bit & 1) != 0;
  };
  const bool ymm = state_enabled(p, 0x6);
  const bool tmm = state_enabled(p, 0x60000);
  const std::pair<std::string_view, bool> conditions[] = {
      {"", true},
      {"fx", set(1, 0, 'd', 24)},
      {"ymm", ymm},
      {"ymm bnd", ymm && state_enabled(p, 0x18)},
      {"zmm", ymm && state_enabled(p, 0xE0)},
      {"avx", ymm && set(1, 0, 'c', 28)},
      {"avx2", ymm && set(7, 0, 'b', 5)},
      {"tmm", tmm},
      {"tile", tmm && set(7, 0, 'd', 24)},
      {"apx", state_enabled(p, 0x80000)},
      {"kl", set(7, 0, 'c', 23)},
      {"avx10", set(7, 1, 'd', 19)},
  };
  for (const auto& [name, holds] : conditions) {
    if (name == needs) {
      return holds;
    }
  }
  ADD_FAILURE() << "unknown condition " << needs;
  return false;
}

bool reported(SyntheticProcessor& p, const GoldenFeature& feature) {
  if (feature.reg == '-') {
    return feature.bit == 0;
  }
  const std::uint32_t value = p.reg(feature.leaf, feature.subleaf, feature.reg);
  return feature.leaf == 0x24 ? (value & 0xFF) >= feature.value
                              : (value & feature.value) == feature.value;
}

Bits expected_features(SyntheticProcessor& p) {
  Bits bits;
  for (const GoldenFeature& feature : golden_features) {
    if (reported(p, feature) && condition_holds(p, feature.needs)) {
      bits.set(feature.bit);
    }
  }
  return bits;
}

// ---- processors ------------------------------------------------------------------------------

struct LeafNumber {
  std::uint32_t leaf, subleaf;
};
constexpr LeafNumber feature_leaves[] = {{1, 0},          {7, 0},          {7, 1},
                                         {0x14, 0},       {0x19, 0},       {0x1E, 1},
                                         {0x80000001, 0}, {0x80000008, 0}, {0x24, 0}};

SyntheticProcessor empty_processor() {
  SyntheticProcessor p;
  p.set_vendor("OtherVendor!");
  for (const LeafNumber& leaf : feature_leaves) {
    p.at(leaf.leaf, leaf.subleaf) = {};
  }
  return p;
}

SyntheticProcessor full_processor() {
  SyntheticProcessor p = empty_processor();
  for (const LeafNumber& leaf : feature_leaves) {
    p.at(leaf.leaf, leaf.subleaf) = {~0u, ~0u, ~0u, ~0u};
  }
  p.xcr0_low = ~0u;
  return p;
}

SyntheticProcessor random_processor(std::mt19937& random) {
  SyntheticProcessor p = empty_processor();
  // Mostly set bits, or the conditions would seldom hold.
  const auto dense = [&random] { return random() | random() | random(); };
  for (const LeafNumber& leaf : feature_leaves) {
    p.at(leaf.leaf, leaf.subleaf) = {
        static_cast<std::uint32_t>(dense()), static_cast<std::uint32_t>(dense()),
        static_cast<std::uint32_t>(dense()), static_cast<std::uint32_t>(dense())};
  }
  p.xcr0_low = static_cast<std::uint32_t>(dense());
  return p;
}

// Makes the condition hold and returns what else that brings into the set.
Bits provide(SyntheticProcessor& p, std::string_view needs) {
  Bits brought;
  brought.set(0);
  p.reg(1, 0, 'c') |= osxsave;
  if (needs == "fx") {
    p.reg(1, 0, 'd') |= fxsave;
    brought.set(4);
  } else if (needs == "avx") {
    p.reg(1, 0, 'c') |= 1u << 28;
    brought.set(16);
  } else if (needs == "avx2") {
    p.reg(7, 0, 'b') |= 1u << 5;
    brought.set(23);
  } else if (needs == "tile") {
    p.reg(7, 0, 'd') |= 1u << 24;
    brought.set(71);
  } else if (needs == "kl") {
    p.reg(7, 0, 'c') |= 1u << 23;
  } else if (needs == "avx10") {
    p.reg(7, 1, 'd') |= 1u << 19;
  }
  p.xcr0_low = every_state;
  return brought;
}

TEST(Detection, EachFeatureAloneWithAndWithoutItsCondition) {
  int features = 0;
  for (const GoldenFeature& feature : golden_features) {
    if (feature.reg == '-') {
      continue;
    }
    ++features;
    SCOPED_TRACE(feature.upper_name);
    SyntheticProcessor with = empty_processor();
    Bits expected = provide(with, feature.needs);
    EXPECT_EQ(detect(with), expected) << "the condition alone";
    with.reg(feature.leaf, feature.subleaf, feature.reg) |= feature.value;
    expected.set(feature.bit);
    if (feature.upper_name == "AVX_10_2") {
      expected.set(91);  // a version of 2 includes 1
    }
    EXPECT_EQ(detect(with), expected);

    SyntheticProcessor without = empty_processor();
    without.reg(feature.leaf, feature.subleaf, feature.reg) |= feature.value;
    Bits generic;
    generic.set(0);
    if (feature.needs.empty()) {
      generic.set(feature.bit);
    }
    EXPECT_EQ(detect(without), generic) << "without the condition";
  }
  EXPECT_EQ(features, 104);
}

TEST(Detection, BitManipulationNeedsBothOfItsBits) {
  for (const std::uint32_t half : {1u << 3, 1u << 8}) {
    SyntheticProcessor p = empty_processor();
    p.reg(7, 0, 'b') = half;
    EXPECT_FALSE(detect(p).test(19));
  }
}

TEST(Detection, EveryPartialSystemState) {
  constexpr int state_bits[] = {1, 2, 3, 4, 5, 6, 7, 17, 18, 19};
  for (std::uint32_t subset = 0; subset < 1u << 10; ++subset) {
    SyntheticProcessor p = full_processor();
    p.xcr0_low = 0;
    for (int i = 0; i < 10; ++i) {
      p.xcr0_low |= (subset >> i & 1) << state_bits[i];
    }
    ASSERT_EQ(detect(p), expected_features(p)) << "XCR0 " << std::hex << p.xcr0_low;
    EXPECT_EQ(p.xgetbv_count, 1);
    p.reg(1, 0, 'c') &= ~osxsave;
    ASSERT_EQ(detect(p), expected_features(p)) << "without OSXSAVE";
    EXPECT_EQ(p.xgetbv_count, 1) << "XGETBV executed although the system has not enabled it";
  }
}

TEST(Detection, LeavesThatMayNotExistAreReadOnlyBehindTheirBits) {
  const struct {
    LeafNumber leaf;
    LeafNumber gate;
    char reg;
    std::uint32_t bit;
  } gated[] = {{{0x19, 0}, {7, 0}, 'c', 1u << 23},
               {{0x24, 0}, {7, 1}, 'd', 1u << 19},
               {{0x1E, 1}, {7, 0}, 'd', 1u << 24}};
  for (const auto& [leaf, gate, reg, bit] : gated) {
    SyntheticProcessor p = full_processor();
    detect(p);
    EXPECT_TRUE(p.was_asked(leaf.leaf, leaf.subleaf));
    p.asked.clear();
    p.reg(gate.leaf, gate.subleaf, reg) &= ~bit;
    detect(p);
    EXPECT_FALSE(p.was_asked(leaf.leaf, leaf.subleaf)) << std::hex << leaf.leaf;
  }
}

TEST(Detection, RandomProcessorsAndNoClearedBitEnablesAnything) {
  std::mt19937 random(seed_of(20240607));
  for (int round = 0; round < 10000; ++round) {
    SyntheticProcessor p = random_processor(random);
    const Bits before = detect(p);
    ASSERT_EQ(before, expected_features(p)) << "round " << round;
    const std::uint32_t cleared = ~(1u << random() % 32);
    if (round % 10 == 0) {
      p.xcr0_low &= cleared;
    } else {
      const LeafNumber& leaf = feature_leaves[random() % std::size(feature_leaves)];
      p.reg(leaf.leaf, leaf.subleaf, static_cast<char>('a' + random() % 4)) &= cleared;
    }
    ASSERT_TRUE(before.contains(detect(p))) << "round " << round;
  }
}

TEST(Detection, ClearingAnySingleBitOfAFullProcessorEnablesNothing) {
  SyntheticProcessor p = full_processor();
  const Bits before = detect(p);
  const auto check_without = [&](std::uint32_t& value) {
    for (int bit = 0; bit < 32; ++bit) {
      value ^= 1u << bit;
      const Bits after = detect(p);
      EXPECT_TRUE(before.contains(after));
      EXPECT_EQ(after, expected_features(p));
      value ^= 1u << bit;
    }
  };
  for (const LeafNumber& leaf : feature_leaves) {
    for (const char reg : {'a', 'b', 'c', 'd'}) {
      check_without(p.reg(leaf.leaf, leaf.subleaf, reg));
    }
  }
  check_without(p.xcr0_low);
}

TEST(Detection, VendorGateAndHighestLeaf) {
  const struct {
    const char* vendor;
    std::uint32_t highest_leaf;
    bool check_vendor;
    Publish publish;
    bool generic_only;
  } cases[] = {
      {"GenuineOrvex", 0x24, true, Publish::Both, false},
      {"GenuineOrvex", 0x24, false, Publish::General, false},
      {"OtherVendor!", 0x24, true, Publish::GateOnly, true},
      {"OtherVendor!", 0x24, false, Publish::General, false},
      {"GenuineOrveX", 1, true, Publish::GateOnly, true},
      {"genuineOrvex", 1, true, Publish::GateOnly, true},
      {"GenuinEOrvex", 1, true, Publish::GateOnly, true},
      {"GenuineOrvex", 1, true, Publish::Both, false},
      {"GenuineOrvex", 0, true, Publish::Both, true},
      {"OtherVendor!", 0, true, Publish::Both, true},
      {"OtherVendor!", 0, false, Publish::General, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.vendor << ' ' << c.highest_leaf << ' ' << c.check_vendor);
    SyntheticProcessor p = full_processor();
    p.set_vendor(c.vendor, c.highest_leaf);
    const Detection detection = detect_features(p.processor(), nullptr, c.check_vendor);
    EXPECT_EQ(detection.publish, c.publish);
    EXPECT_EQ(detection.features[0] == 1 && detection.features[1] == 0, c.generic_only);
  }
}

TEST(Detection, ATableRowWithoutAUsableBitStopsIt) {
  SyntheticProcessor p = full_processor();
  __orvex_isa_table_init();
  const IsaRow saved = __orvex_isa_table[24];
  for (const auto& [bit, status] : {std::pair{128, -3}, {-1, -1}, {-2, -3}}) {
    __orvex_isa_table[24].bit = bit;
    Detection detection = detect_features(p.processor(), nullptr, false);
    EXPECT_EQ(detection.status, status);
    const std::uint64_t before = __orvex_cpu_feature_indicator[0];
    detection.features[0] = ~before;
    publish(detection);
    EXPECT_EQ(__orvex_cpu_feature_indicator[0], before) << "a failed detection was published";
  }
  __orvex_isa_table[24] = saved;
}

// ---- names and the disable variable ----------------------------------------------------------

TEST(Names, EveryRow) {
  EXPECT_EQ(std::size(golden_features), 106u);
  for (const GoldenFeature& feature : golden_features) {
    EXPECT_STREQ(__orvex_feature_name(feature.isa_id), feature.upper_name.data());
    EXPECT_EQ(__orvex_feature_bit(feature.isa_id), feature.bit);
    const char* lower = __orvex_isa_table[feature.isa_id].lower_name;
    EXPECT_EQ(lower == nullptr ? "" : lower, feature.lower_name);
    FeatureSet set = {};
    EXPECT_EQ(__orvex_test_feature(set, feature.isa_id), 0);
    EXPECT_EQ(__orvex_set_feature(set, feature.isa_id), 0);
    Bits expected;
    expected.set(feature.bit);
    EXPECT_EQ((Bits{{set[0], set[1]}}), expected);
    EXPECT_EQ(__orvex_test_feature(set, feature.isa_id), 1);
  }
  FeatureSet set = {};
  EXPECT_EQ(__orvex_feature_name(32), nullptr);
  EXPECT_EQ(__orvex_feature_bit(32), -1);
  EXPECT_EQ(__orvex_test_feature(set, 32), -1);
  EXPECT_EQ(__orvex_set_feature(set, 32), -1);
  EXPECT_EQ(set[0] | set[1], 0u);
}

TEST(Disable, WhatEachValueClears) {
  std::string every_name;
  for (const GoldenFeature& feature : golden_features) {
    every_name += std::string(feature.lower_name) + ",";
  }
  std::vector<int> every_bit;
  for (const GoldenFeature& feature : golden_features) {
    if (!feature.lower_name.empty()) {
      every_bit.push_back(feature.bit);
    }
  }
  const std::string garbage(1 << 20, 'x');
  std::string comma_garbage;
  for (int i = 0; i < 1 << 18; ++i) {
    comma_garbage += "a,,b";
  }
  const std::pair<std::string, std::vector<int>> cases[] = {
      {"", {}},
      {",", {}},
      {",,,,,", {}},
      {"avx2", {23}},
      {",,avx2,,,avx512f,,", {23, 27}},
      {"avx2,avx2", {23}},
      {"AVX2", {}},
      {" avx2", {}},
      {"avx2 ", {}},
      {"avx2\t,avx", {16}},
      {"avx2;avx", {}},
      {"avx,avx20", {16}},
      {"sse4.2", {}},
      {"sse4", {10}},
      {"sse4.1", {9}},
      {"x87,cmov,fxsave,plxni,generic_qx32", {}},
      {"a,s,x", {}},
      {"kl", {74}},
      {"mwait,mmx", {3, 112}},
      {every_name, every_bit},
      {garbage, {}},
      {comma_garbage, {}},
      {garbage + ",avx2", {23}},
  };
  SyntheticProcessor p = full_processor();
  const Bits everything = detect(p);
  for (const auto& [value, cleared] : cases) {
    SCOPED_TRACE(value.substr(0, 60));
    Bits expected = everything;
    for (const int bit : cleared) {
      expected.word[bit / 64] &= ~(std::uint64_t{1} << (bit % 64));
    }
    // An allocation of the exact size: the sanitizer sees every byte read beyond the value.
    std::vector<char> exact(value.c_str(), value.c_str() + value.size() + 1);
    EXPECT_EQ(detect(p, exact.data()), expected);
  }
  EXPECT_EQ(detect(p, nullptr), everything);
}

TEST(Disable, AppliesToTheGatedSetToo) {
  SyntheticProcessor p = full_processor();
  p.set_vendor("GenuineOrvex");
  const Detection detection = detect_features(p.processor(), "avx2", true);
  EXPECT_EQ(detection.publish, Publish::Both);
  EXPECT_EQ(detection.features[0] >> 23 & 1, 0u);
  EXPECT_EQ(detection.features[0] >> 16 & 1, 1u);
}

TEST(Detection, TenThousandTakeLessThanASecond) {
  const SyntheticProcessor p = full_processor();
  // Processor time, and the best of three: other programs may be running.
  std::clock_t least = std::numeric_limits<std::clock_t>::max();
  for (int round = 0; round < 3; ++round) {
    const std::clock_t start = std::clock();
    for (int i = 0; i < 10000; ++i) {
      p.asked.clear();
      detect_features(p.processor(), "avx2,fma", false);
    }
    least = std::min(least, std::clock() - start);
  }
  EXPECT_LT(least, CLOCKS_PER_SEC);
}

// ---- this processor --------------------------------------------------------------------------

KSOMD_CHILD(print_features) {
  if (!arguments.empty() && arguments[0] == "vendor") {
    __orvex_cpu_features_init_vendor();
  }
  const std::uint64_t gated = __orvex_vendor_feature_indicator[0];
  feature_word();
  std::printf("%llx %llx %llx", static_cast<unsigned long long>(__orvex_cpu_feature_indicator[0]),
              static_cast<unsigned long long>(__orvex_cpu_feature_indicator[1]),
              static_cast<unsigned long long>(gated));
  return 0;
}

TEST(ThisProcessor, TheVariableIsReadAndTheSetsAreFilled) {
  const auto features = [](const ChildResult& child) {
    unsigned long long word[3] = {};
    EXPECT_EQ(child.ending, Ending::Exit);
    EXPECT_EQ(std::sscanf(child.output.c_str(), "%llx %llx %llx", &word[0], &word[1], &word[2]), 3)
        << child.output;
    return std::vector<unsigned long long>(word, word + 3);
  };
  const Detection here = detect_features(hardware_processor, nullptr, false);
  const auto plain = features(run_child("print_features"));
  EXPECT_EQ(plain[0], here.features[0]);
  EXPECT_EQ(plain[1], here.features[1]);
  EXPECT_EQ(plain[2], 0u) << "the gated set is filled by its own entry only";
  const auto without = features(run_child("print_features", {}, {{"ORVEX_ISA_DISABLE", "sse3,,"}}));
  EXPECT_EQ(without[0], here.features[0] & ~feature_mask("SSE3"));
  const auto gated = features(run_child("print_features", {"vendor"}));
  EXPECT_EQ(gated[0], here.features[0]);
  EXPECT_EQ(gated[2],
            hardware_processor.vendor_is(genuine_vendor) ? here.features[0] : std::uint64_t{1});
}

TEST(ThisProcessor, UselessDisableValuesChangeAndPrintNothing) {
  const std::string plain = run_child("print_features").output;
  for (const std::string& value : {std::string(",,,"), std::string("AVX2"), std::string(" avx2 "),
                                   std::string("x,"), std::string(30000, 'q')}) {
    expect_exit(run_child("print_features", {}, {{"ORVEX_ISA_DISABLE", value}}), 0, plain);
  }
}

std::string_view golden_name(int isa_id) {
  for (const GoldenFeature& feature : golden_features) {
    if (feature.isa_id == isa_id) {
      return feature.upper_name;
    }
  }
  return "";
}

// Sixteen threads that all find the sets and the name table empty.
KSOMD_CHILD(race) {
  std::barrier start(16);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&start, &wrong, i] {
      start.arrive_and_wait();
      const bool named = std::string_view(__orvex_feature_name(1 + i)) == golden_name(1 + i);
      const bool filled = (feature_word() & 1) != 0 && __orvex_feature_bit(24) == 23;
      wrong += named && filled ? 0 : 1;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return wrong;
}

TEST(ThisProcessor, RacingFirstUsersAgree) {
  for (int round = 0; round < 20; ++round) {
    expect_exit(run_child("race"), 0, "");
  }
}

}  // namespace
}  // namespace ksomd::test
