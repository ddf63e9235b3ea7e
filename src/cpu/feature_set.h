// Sets of processor features, and the two sets of the process.
#pragma once

#include <cstdint>

// Marks a routine that preserves its caller's registers, so that the compiler spills nothing around
// a call.
#ifdef __clang__
#define KSOMD_PRESERVES_REGISTERS [[clang::preserve_all]]
#else
#define KSOMD_PRESERVES_REGISTERS
#endif

namespace ksomd {

// 128 bits. Bit b is bit b % 64 of word b / 64.
using FeatureSet = std::uint64_t[2];

// The features that a variant or a level needs. feature_mask() in cpu/feature_table.h makes one
// from their names.
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

// The features of this processor, of whatever vendor. Both words are 0 until the first detection.
// After it word 0 is never 0, because bit 0 is always set. Word 1 is stored before word 0.
[[gnu::visibility("hidden")]] extern ksomd::FeatureSet __orvex_cpu_feature_indicator;

// The same features on a "GenuineOrvex" processor, and bit 0 alone on any other. Only the feature
// start-up check reads this set.
[[gnu::visibility("hidden")]] extern ksomd::FeatureSet __orvex_vendor_feature_indicator;

// __orvex_cpu_features_init fills the general set. __orvex_cpu_features_init_vendor fills the
// vendor-gated set, and also the general one if the vendor is "GenuineOrvex". The result is 0. Any
// other result means that the name table and the detection disagree; then nothing was stored. Both
// routines preserve every argument and scratch register, vector and mask registers at full width.
// Only the result register and the flags change. They stand in register_preserving_init.S.
KSOMD_PRESERVES_REGISTERS int __orvex_cpu_features_init(void);
KSOMD_PRESERVES_REGISTERS int __orvex_cpu_features_init_vendor(void);

// The detection that both call, in the ordinary calling convention.
int __orvex_cpu_features_detect(int check_vendor);

}  // extern "C"

namespace ksomd {

inline std::uint64_t load_feature_word(const std::uint64_t& word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// Word 0 of the general set, which is filled first if it is empty. Every dispatching routine reads
// the set this way. Once the set is filled, that costs one load and one compare.
inline std::uint64_t feature_word() {
  // A second round would mean that the detection stored nothing, which the tables rule out.
  std::uint64_t word = load_feature_word(__orvex_cpu_feature_indicator[0]);
  while (word == 0) [[unlikely]] {
    __orvex_cpu_features_init();
    word = load_feature_word(__orvex_cpu_feature_indicator[0]);
  }
  return word;
}

// Both words of the general set, which is filled first if it is empty.
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
