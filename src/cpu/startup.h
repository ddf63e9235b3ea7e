// Start-up checks: what the exported entries and the dotted names share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu/feature_set.h"
#include "cpu/fp_mode.h"

namespace ksomd {

// A processor level: the features that it requires, what it guarantees of MXCSR, and how
// a processor below it is reported. A level without a report lets such a processor pass.
struct Level {
  const char* letter;  // as the entries' names end; "": the lowest
  FeatureMask required;
  Guarantees known;
  void (*report)(std::uint32_t message);
  std::uint32_t message;
};

// Every level, in the order of what they require.
[[gnu::visibility("hidden")]] extern const Level* const levels[];
[[gnu::visibility("hidden")]] extern const std::size_t level_count;

inline constexpr std::size_t feature_list_size = 1024;

// Writes the upper-case names of the features of `missing`, in ISA-id order, as "A", "A and B" or
// "A, B and C", where " and " is `joiner`. Names that would take the text beyond 1023 characters
// are dropped from the end. False, if a missing feature's row has no name; the text is then unset.
bool list_features(const FeatureSet& missing, const char* joiner, char (&list)[feature_list_size]);

// What the feature check finds.
enum class FeatureVerdict {
  Present,      // every required feature is there
  OtherVendor,  // the processor is not a genuine one
  BadIndex,     // no such word of the feature set
  Missing,      // `missing` holds what is not there
};

// Judges `vendor_set`, a filled vendor-gated feature set.
FeatureVerdict judge_features(const FeatureSet& vendor_set, std::int32_t index, std::uint64_t mask,
                              FeatureSet& missing);

}  // namespace ksomd

// Where the dotted names lead: the report of a level, and the MXCSR step by what is guaranteed.
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
