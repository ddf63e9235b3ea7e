// The feature check: what it requires, the list of what is missing, and its reports.
#include <gtest/gtest.h>

#include <cstring>

#include "cpu/feature_set.h"
#include "cpu/isa_names.h"
#include "cpu/startup.h"
#include "feature_golden.h"
#include "ksomd/processor.h"
#include "msg/messages.h"
#include "support/child_process.h"
#include "support/mxcsr.h"

namespace ksomd::test {
namespace {

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
      {sse, 1, mask_of({52}), FeatureVerdict::Missing, ""},  // bit 116, which has no name
      {sse, 0, mask_of({31}), FeatureVerdict::Missing, ""},  // nor has this one
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
    FeatureSet missing;
    const FeatureVerdict verdict = judge_features(c.set, c.index, c.mask, missing);
    EXPECT_EQ(verdict, c.verdict);
    if (verdict == FeatureVerdict::Missing) {
      EXPECT_TRUE(list_features(missing, " and ", list));
    }
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
  const std::vector<std::string> all = names_of(~std::uint64_t{3} & ~mask_of({52}));
  const std::pair<Arguments, std::string> cases[] = {
      {{"1", "0", "0", "0"}, other_vendor},
      {{"3", "0", "5", "0"}, incompatible},
      {{"3", "0", "0", "80000000"}, incompatible},
      {{"break", "0", "0", "0"}, inconsistent},
      {{"3", "0", "0", "10000"}, missing("AVX")},
      {{"3", "0", "0", "840000"}, missing("FMA and AVX2")},
      {{"3", "0", "1", "7"}, missing("CLDEMOTE, MOVDIRI and MOVDIR64B")},
      // Everything: more than a line holds.
      {{"3", "0", "0", "ffffffffffffffff"}, missing(joined(all, all.size(), " and "))},
  };
  for (const auto& [arguments, message] : cases) {
    expect_exit(run_child("feature_check", arguments), 1,
                text_mode("\n" + message.substr(0, message_size - 1) + "\n\n"));
  }
  expect_exit(run_child("feature_check", {"840001", "0", "0", "10000000840000"}), 77, "returned");
}

TEST(FeatureCheck, TheModeIsSetWhereTheGatedSetHasSse) {
  const Restore restore;
  for (const bool sse : {false, true}) {
    for (std::uint32_t flags = 0; flags < 8; ++flags) {
      __orvex_vendor_feature_indicator[0] = sse ? 0x23 : 0x3;
      _mm_setcsr(0x1F80);
      __orvex_new_feature_proc_init(static_cast<std::int32_t>(flags), 0x2);
      const std::uint32_t after = _mm_getcsr();
      _mm_setcsr(0x1F80);
      EXPECT_EQ(after, 0x1F80u | (sse ? gained_mode(0, flags, mxcsr_mask()) : 0)) << flags;
    }
  }
  __orvex_vendor_feature_indicator[0] = 0;
}

}  // namespace
}  // namespace ksomd::test
