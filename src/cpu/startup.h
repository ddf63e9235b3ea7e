// Start-up checks: what the exported entries and the dotted names share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu/feature_set.h"
#include "cpu/fp_mode.h"

namespace ksomd {

// A processor level: the features that it requires, the MXCSR bits that it guarantees, and the
// report for a processor that lacks a feature. A level without a report lets such a processor pass.
struct Level {
  const char* letter;  // the suffix of the entries' names; "" for the lowest level
  FeatureMask required;
  Guarantees known;
  void (*report)(std::uint32_t message);
  std::uint32_t message;
};

// Every level, from the lowest upward.
[[gnu::visibility("hidden")]] extern const Level* const levels[];
[[gnu::visibility("hidden")]] extern const std::size_t level_count;

inline constexpr std::size_t feature_list_size = 1024;

// Writes the upper-case names of the features of `missing`, in the order of their ISA ids, as "A",
// "A and B" or "A, B and C", where " and " is `joiner`. Names that would make the text longer than
// 1023 characters are left out at the end. Returns false if the row of a missing feature has no
// name; the text is then undefined.
bool list_features(const FeatureSet& missing, const char* joiner, char (&list)[feature_list_size]);

// What the feature check finds.
enum class FeatureVerdict {
  Present,      // every required feature is there
  OtherVendor,  // the vendor string is not "GenuineOrvex"
  BadIndex,     // the feature set has no such word
  Missing,      // `missing` holds the required features that are not there
};

// Checks word `index` of `vendor_set`, a filled vendor-gated set, for the features of `mask`.
FeatureVerdict judge_features(const FeatureSet& vendor_set, std::int32_t index, std::uint64_t mask,
                              FeatureSet& missing);

}  // namespace ksomd

// The routines behind the dotted names. __orvex_report_X reports a processor below level X. The
// others set MXCSR: `default` stands for the default flags, `daz` and `17` for the bits that the
// level guarantees.
extern "C" {
[[noreturn]] void __orvex_report_B(void);
[[noreturn]] void __orvex_report_N(void);
[[noreturn]] void __orvex_report_P(void);
[[noreturn]] void __orvex_report_T(void);
[[noreturn]] void __orvex_report_L(void);
[[noreturn]] void __orvex_report_S(void);
[[noreturn]] void __orvex_report_H(void);
[[noreturn]] void __orvex_report_G(void);
[[noreturn]] void __orvex_report_I(void);
[[noreturn]] void __orvex_report_E(void);
void __orvex_report_none(void);
void __orvex_fp_mode_default(void);
void __orvex_fp_mode_default_daz(void);
void __orvex_fp_mode(std::uint32_t flags);
void __orvex_fp_mode_daz(std::uint32_t flags);
void __orvex_fp_mode_daz_17(std::uint32_t flags);
}
