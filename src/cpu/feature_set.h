// A set of processor features, and the two process-wide ones.
#pragma once

#include <cstdint>

// Tells the compiler of a routine that keeps its caller's registers, so that nothing is spilled
// around a call of it.
#ifdef __clang__
#define KSOMD_PRESERVES_REGISTERS [[clang::preserve_all]]
#else
#define KSOMD_PRESERVES_REGISTERS
#endif

namespace ksomd {

// 128 bits: bit b lies in word b / 64 at position b mod 64.
using FeatureSet = std::uint64_t[2];

// Features that something needs. feature_mask() in cpu/feature_table.h makes one from their names.
struct FeatureMask {
  std::uint64_t words[2];

  constexpr bool all_in(const FeatureSet& set) const {
    return (set[0] & words[0]) == words[0] && (set[1] & words[1]) == words[1];
  }
  friend constexpr FeatureMask operator|(const FeatureMask& a, const FeatureMask& b) {
    return {{a.words[0] | b.words[0], a.words[1] | b.words[1]}};
  }
  friend constexpr bool operator==(const FeatureMask&, const FeatureMask&) = default;
};

}  // namespace ksomd

extern "C" {

// The features of this processor, whatever its vendor. Both words are 0 until the first detection;
// word 0 is never 0 after it, since bit 0 is always set. Word 1 is published before word 0.
[[gnu::visibility("hidden")]] extern ksomd::FeatureSet __orvex_cpu_feature_indicator;

// The same on a "GenuineOrvex" processor, bit 0 alone on any other. Only the feature start-up
// check reads it.
[[gnu::visibility("hidden")]] extern ksomd::FeatureSet __orvex_vendor_feature_indicator;

// Fill the general set; fill both sets, the general one only if the vendor is "GenuineOrvex".
// Result 0; anything else: the name table and the detection disagree, and nothing was stored.
// Both leave every argument and scratch register as they found it, vector and mask registers at
// their full width included; only the result register and the flags change.
KSOMD_PRESERVES_REGISTERS int __orvex_cpu_features_init(void);
KSOMD_PRESERVES_REGISTERS int __orvex_cpu_features_init_vendor(void);

// Detection itself, in the ordinary calling convention.
int __orvex_cpu_features_detect(int check_vendor);

}  // extern "C"

namespace ksomd {

inline std::uint64_t load_feature_word(const std::uint64_t& word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// Word 0 of the general set, filled first if nobody has. Every dispatching routine reads the set
// this way: one load and one compare once it is filled.
inline std::uint64_t feature_word() {
  std::uint64_t word = load_feature_word(__orvex_cpu_feature_indicator[0]);
  while (word == 0) [[unlikely]] {
    __orvex_cpu_features_init();
    word = load_feature_word(__orvex_cpu_feature_indicator[0]);
  }
  return word;
}

// Both words of the general set, filled first if nobody has.
inline void read_features(FeatureSet& features) {
  features[0] = feature_word();
  features[1] = load_feature_word(__orvex_cpu_feature_indicator[1]);
}

// Whether this processor has every feature of `mask`.
inline bool has_features(const FeatureMask& mask) {
  const std::uint64_t word_0 = feature_word();
  const std::uint64_t word_1 =
      mask.words[1] != 0 ? load_feature_word(__orvex_cpu_feature_indicator[1]) : 0;
  return mask.all_in({word_0, word_1});
}

}  // namespace ksomd
