// Feature detection: what it finds, names, the disable variable, and how it publishes.
#include "cpu/detection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <iterator>
#include <thread>

#include "cpu/cache.h"
#include "cpu/features.h"
#include "cpu/isa_names.h"
#include "cpu/machine.h"
#include "ksomd/core.h"
#include "support/child_process.h"
#include "support/operand.h"
#include "support/sweep.h"
#ifndef _WIN32
#include "support/single_step.h"
#endif

namespace ksomd::test {
namespace {

// ---- the oracle: the documentation, read as plainly as possible ---------------------------------

// Whether each Condition holds.
std::vector<bool> conditions_of(SyntheticProcessor& p) {
  const auto set = [&p](std::uint32_t leaf, std::uint32_t subleaf, char reg, int bit) {
    return (p.reg(leaf, subleaf, reg) >> bit & 1) != 0;
  };
  const auto state = [&](std::uint32_t bits) {
    return set(1, 0, 'c', 27) && (p.xcr0_low & bits) == bits;
  };
  const bool ymm = state(0x6), tiles = state(0x60000);
  // clang-format off
  return {true, set(1, 0, 'd', 24), ymm, state(0xE6), tiles, state(0x1E), ymm && set(1, 0, 'c', 28),
          ymm && set(7, 0, 'b', 5), tiles && set(7, 0, 'd', 24), set(7, 0, 'c', 23),
          set(7, 1, 'd', 19), state(0x80000)};
  // clang-format on
}

// Whether a list between commas has the name.
bool is_named(const std::string& name, const std::string& list) {
  return !name.empty() && (',' + list + ',').find(',' + name + ',') != std::string::npos;
}

// Leaves that are read only where a condition holds.
bool is_gated(const Feature& f) {
  return f.leaf.leaf == 0x19 || f.leaf.leaf == 0x1E || f.leaf.leaf == 0x24;
}

void expect_detected(SyntheticProcessor& p, const std::string& disabled = "") {
  static Operand text(4096);  // the variable's value ends at a page that faults
  auto* const value = text.place_values<char>(disabled.size() + 1, Place::AtEnd);
  std::ranges::copy(disabled + '\0', value);
  Explanation explanations[isa_id_count];
  explain_features(p.processor(), value, explanations);
  p.asked.clear();
  p.xgetbv_count = 0;
  const Detection found = detect_features(p.processor(), value, false);

  const bool silent = p.at(0).eax == 0;  // no leaf beyond the first: nothing is reported
  const std::vector<bool> holds = conditions_of(p);
  std::string wrong = found.status == 0 && text.intact() ? "" : "status ";
  FeatureSet expected = {};
  for (int id = 1; id < isa_id_count; ++id) {
    const Feature& f = features[id - 1];
    if (f.bit < 0) {
      continue;
    }
    const bool reported = f.reg != '-';
    const bool condition_holds = holds[static_cast<std::size_t>(f.condition)];
    const bool read = !is_gated(f) || condition_holds;
    const bool has = reported && read && f.reported_by(p.reg(f.leaf.leaf, f.leaf.subleaf, f.reg));
    const Finding finding = f.bit == 0                      ? Finding::Present
                            : silent                        ? Finding::NotReported
                            : !read                         ? Finding::NotAsked
                            : !has                          ? Finding::NotReported
                            : !condition_holds              ? Finding::ConditionFails
                            : is_named(f.lower(), disabled) ? Finding::SwitchedOff
                                                            : Finding::Present;
    expected[f.bit / 64] |= std::uint64_t{finding == Finding::Present} << f.bit % 64;
    const Explanation& told = explanations[id];
    const bool tells_why = finding == Finding::NotAsked || finding == Finding::ConditionFails;
    const bool was_read = !reported || p.times_asked(f.leaf.leaf, f.leaf.subleaf) == 1;
    if (told.finding != finding || (tells_why && told.condition != f.condition) ||
        (found.features[f.bit / 64] >> f.bit % 64 & 1) != (finding == Finding::Present) ||
        was_read != (read && !(silent && reported))) {
      wrong += std::string(f.name) + ' ';
    }
  }
  const bool same =
      found.features[0] == expected[0] && found.features[1] == expected[1] && wrong.empty();
  const bool xgetbv = (p.reg(1, 0, 'c') >> 27 & 1) != 0;
  ASSERT_TRUE(same && p.xgetbv_count == (xgetbv && !silent))
      << wrong << "without " << disabled << " on " << p.describe();
}

// ---- processors ---------------------------------------------------------------------------------

SyntheticProcessor processor_of(std::uint32_t everywhere) {
  SyntheticProcessor p;
  p.set_vendor("OtherVendor!");
  for (const LeafNumber& leaf : feature_leaves) {
    p.at(leaf.leaf, leaf.subleaf) = {everywhere, everywhere, everywhere, everywhere};
  }
  p.xcr0_low = everywhere;
  return p;
}

// Every condition holds, and nothing else is reported.
SyntheticProcessor ready_processor() {
  SyntheticProcessor p = processor_of(0);
  p.at(1) = {0, 0, 3u << 27, 1u << 24};
  p.at(7) = {0, 1u << 5, 1u << 23, 1u << 24};
  p.reg(7, 1, 'd') = 1u << 19;
  p.xcr0_low = 0xE00FE;
  return p;
}

TEST(Detection, EveryBitOfEveryRegister) {
  for (SyntheticProcessor p : {processor_of(0), ready_processor(), processor_of(~0u)}) {
    expect_detected(p);
    const auto flip_each = [&p](std::uint32_t& value) {
      for (std::uint32_t bit = 1; bit != 0; bit <<= 1) {
        value ^= bit;
        expect_detected(p);
        value ^= bit;
      }
    };
    flip_each(p.xcr0_low);
    for (const LeafNumber& leaf : feature_leaves) {
      for (const char reg : {'a', 'b', 'c', 'd'}) {
        flip_each(p.reg(leaf.leaf, leaf.subleaf, reg));
      }
    }
  }
}

TEST(Detection, EverySystemState) {
  SyntheticProcessor p = processor_of(~0u);
  for (std::uint32_t subset = 0; subset < 1u << 11; ++subset) {
    p.xcr0_low = (subset & 0x7F) << 1 | (subset & 0x380) << 10;
    p.reg(1, 0, 'c') = subset >> 10 != 0 ? ~0u : ~(1u << 27);
    expect_detected(p);
  }
}

// Lists of names, some of them spoiled.
std::string random_list(Random& random) {
  std::string list;
  for (std::uint64_t count = random.below(7); count > 0; --count) {
    const Feature& f = random.one_of(features);
    const std::string name = f.lower(), part = name.substr(0, random.below(name.size() + 1));
    list += random.one_of<std::string>({name, name, name, std::string(f.name), name + ' ',
                                        ' ' + name, name + '0', name + ";avx", part, ""});
    list += random.one_in(8) ? "" : ",";
  }
  return list;
}

TEST(Detection, RandomProcessorsAndLists) {
  Random random(seed_of(1));
  for (int round = 0; round < (full_length() ? 100'000 : 3000); ++round) {
    // Mostly set bits, or the conditions would seldom hold.
    const auto dense = [&random] {
      return static_cast<std::uint32_t>(random.next() | random.next() | random.next());
    };
    SyntheticProcessor p = processor_of(0);
    for (const LeafNumber& leaf : feature_leaves) {
      p.at(leaf.leaf, leaf.subleaf) = {dense(), dense(), dense(), dense()};
    }
    p.xcr0_low = dense();
    p.at(0).eax = static_cast<std::uint32_t>(random.below(32));
    expect_detected(p, random_list(random));
  }
}

TEST(Detection, VendorAndHighestLeaf) {
  SyntheticProcessor p = processor_of(~0u);
  for (int changed = -1; changed < 12; ++changed) {
    for (const std::uint32_t highest : {0u, 1u, 0x24u}) {
      for (const bool check : {false, true}) {
        std::string vendor = "GenuineOrvex";
        if (changed >= 0) {
          vendor[static_cast<std::size_t>(changed)] ^= 0x20;
        }
        p.set_vendor(vendor, highest);
        SCOPED_TRACE(testing::Message() << vendor << ' ' << highest << ' ' << check);
        const Detection found = detect_features(p.processor(), "avx2", check);
        const bool other = check && changed >= 0 && highest != 0;
        EXPECT_EQ(found.publish, other   ? Publish::GateOnly
                                 : check ? Publish::Both
                                         : Publish::General);
        EXPECT_EQ(found.features[0] == 1 && found.features[1] == 0, other || highest == 0);
        EXPECT_EQ(found.features[0] >> 23 & 1, 0u);
      }
    }
  }
}

// ---- names --------------------------------------------------------------------------------------

TEST(Names, EveryRow) {
  ASSERT_EQ(std::size(features), 107u);
  for (int id = 1; id < isa_id_count; ++id) {
    const Feature& f = features[id - 1];
    SCOPED_TRACE(id);
    FeatureSet set = {};
    const char* const name = __orvex_feature_name(id);
    EXPECT_EQ(name != nullptr ? name : "", f.name);
    EXPECT_EQ(__orvex_feature_bit(id), f.bit);
    EXPECT_EQ(__orvex_test_feature(set, id), f.bit < 0 ? -1 : 0);
    EXPECT_EQ(__orvex_set_feature(set, id), f.bit < 0 ? -1 : 0);
    EXPECT_EQ(__orvex_test_feature(set, id), f.bit < 0 ? -1 : 1);
    for (int word = 0; word < 2; ++word) {
      EXPECT_EQ(set[word], f.bit >= 0 && f.bit / 64 == word ? 1uLL << f.bit % 64 : 0);
    }
  }
}

// ---- the two sets -------------------------------------------------------------------------------

TEST(Sets, AreFilledByTheirEntries) {
  for (const char* vendor : {"GenuineOrvex", "OtherVendor!"}) {
    SyntheticProcessor p = processor_of(~0u);
    p.set_vendor(vendor);
    disabled_names = "avx2,amx-tile";
    const Detection all = detect_features(p.processor(), disabled_names, false);
    const bool genuine = *vendor == 'G';
    install(&p);
    EXPECT_EQ(__orvex_cpu_features_init_vendor(), 0);
    EXPECT_EQ(__orvex_vendor_feature_indicator[0], genuine ? all.features[0] : 1);
    EXPECT_EQ(__orvex_vendor_feature_indicator[1], genuine ? all.features[1] : 0);
    EXPECT_EQ(__orvex_cpu_feature_indicator[0], genuine ? all.features[0] : 0);
    install(&p);
    EXPECT_EQ(feature_word(), all.features[0]);
    EXPECT_EQ(__orvex_cpu_feature_indicator[1], all.features[1]);
    EXPECT_EQ(__orvex_vendor_feature_indicator[0], 0u) << "filled by its own entry only";
    EXPECT_FALSE(has_features(FeatureMask{{all.features[0], 0}} | feature_mask("AVX2")));
  }
  disabled_names = nullptr;
  install(nullptr);
}

TEST(Sets, StayEmptyIfTheNameTableIsBroken) {
  const SyntheticProcessor p = processor_of(~0u);
  install(&p);
  __orvex_isa_table_init();
  for (const int row : {1, 24}) {
    const IsaRow saved = __orvex_isa_table[row];
    for (const auto& [bit, status] : {std::pair{128, -3}, {-1, -1}, {-2, -3}}) {
      __orvex_isa_table[row].bit = bit;
      EXPECT_EQ(__orvex_cpu_features_init(), status);
      EXPECT_EQ(__orvex_cpu_features_init_vendor(), row == 1 ? status : 0);
      EXPECT_EQ(__orvex_cpu_feature_indicator[0], 0u);
    }
    __orvex_isa_table[row] = saved;
  }
  install(nullptr);
}

// The compiler's run-time library looks for itself.
TEST(Sets, AgreeWithTheCompilersViewOfThisProcessor) {
  __builtin_cpu_init();
  const std::pair<const char*, bool> views[] = {
      {"SSE3", __builtin_cpu_supports("sse3")},         {"AVX", __builtin_cpu_supports("avx")},
      {"SSE4_2", __builtin_cpu_supports("sse4.2")},     {"AVX2", __builtin_cpu_supports("avx2")},
      {"AES", __builtin_cpu_supports("aes")},           {"FMA", __builtin_cpu_supports("fma")},
      {"AVX512F", __builtin_cpu_supports("avx512f")},   {"GFNI", __builtin_cpu_supports("gfni")},
      {"AVX512VL", __builtin_cpu_supports("avx512vl")}, {"VAES", __builtin_cpu_supports("vaes")}};
  const Detection here = detect_features(hardware_processor, nullptr, false);
  for (const auto& [name, supported] : views) {
    const auto row = std::ranges::find(features, name, &Feature::name);
    EXPECT_EQ(here.features[0] >> row->bit & 1, supported) << name;
  }
}

// Sixteen threads that all find everything empty.
KSOMD_CHILD(race) {
  __libkso_cache_info = {};
  std::barrier start(16);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (std::int32_t id = 1; id <= 16; ++id) {
    threads.emplace_back([&start, &wrong, id] {
      start.arrive_and_wait();
      wrong += features[id - 1].name != __orvex_feature_name(id) || (feature_word() & 1) == 0;
      wrong += __cacheSize(1) != gather_caches(hardware_processor).level[0].size_kib;
      __detect_cpu_core_type();
    });
  }
  std::ranges::for_each(threads, &std::thread::join);
  return wrong;
}

TEST(Sets, RacingFirstUsersAgree) {
  for (int round = 0; round < 5; ++round) {
    expect_exit(run_child("race"), 0, "");
  }
}

#ifndef _WIN32
struct Watch {
  Detection detection;
  std::uint64_t seen[4];
  std::string order;  // the numbers of the words as they change
};

TEST(Sets, ArePublishedGatedFirstAndWordZeroLast) {
  if (!can_single_step()) {
    GTEST_SKIP() << "this processor or emulator does not single-step";
  }
  const auto observe = [](const std::uint8_t*, void* context) {
    // In the order in which they must change.
    const std::uint64_t words[] = {
        __orvex_vendor_feature_indicator[1], __orvex_vendor_feature_indicator[0],
        __orvex_cpu_feature_indicator[1], __orvex_cpu_feature_indicator[0]};
    auto& [detection, seen, order] = *static_cast<Watch*>(context);
    for (std::size_t i = 0; i < 4; ++i) {
      order += words[i] != seen[i] ? std::string(1, static_cast<char>('0' + i)) : "";
      seen[i] = words[i];
    }
  };
  const std::pair<Publish, const char*> orders[] = {
      {Publish::Both, "0123"}, {Publish::General, "23"}, {Publish::GateOnly, "01"}};
  for (const int status : {0, -3}) {
    for (const auto& [where, order] : orders) {
      Watch watch{{status, where, {}}, {}, ""};
      observe(nullptr, &watch);
      watch.detection.features[0] = watch.seen[1] + watch.seen[3] + 2;
      watch.detection.features[1] = watch.seen[0] + watch.seen[2] + 1;
      watch.order = "";
      single_step([](void* context) { publish(static_cast<Watch*>(context)->detection); }, observe,
                  &watch);
      observe(nullptr, &watch);
      EXPECT_EQ(watch.order, status == 0 ? order : "");
    }
  }
  install(nullptr);
}
#endif

}  // namespace
}  // namespace ksomd::test
