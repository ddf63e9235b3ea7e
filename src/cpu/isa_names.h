// Names of processor features by ISA id, and the variable that switches features off.
#pragma once

#include <cstdint>

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"

namespace ksomd {

struct IsaRow {
  const char* upper_name;
  std::int32_t bit;
  const char* lower_name;
};

inline constexpr std::int32_t isa_bad_bit = -3;

// Adds to `mask` the features named in `value`: lower-case names between commas, byte for byte.
// Names that no row has are passed over. A null or empty value adds nothing.
void add_disabled_features(const char* value, FeatureSet& mask);

}  // namespace ksomd

extern "C" {

// The name table by ISA id, empty until the first look-up fills it from the feature table.
[[gnu::visibility("hidden")]] extern ksomd::IsaRow __orvex_isa_table[ksomd::isa_id_count];

// Fills the name table if it is empty. Every routine below does so itself.
void __orvex_isa_table_init(void);

// All of these take an ISA id of 1 to 107.

// The upper-case name, or null.
const char* __orvex_feature_name(std::int32_t id);
// The bit, -1 for a row without one, -3 for a row whose bit lies outside a feature set.
std::int32_t __orvex_feature_bit(std::int32_t id);
// 1 or 0: whether the set has the feature; negative, the set unread, as __orvex_feature_bit.
std::int32_t __orvex_test_feature(const std::uint64_t* set, std::int32_t id);
// Adds the feature to the set: 0; negative, the set untouched, as __orvex_feature_bit.
std::int32_t __orvex_set_feature(std::uint64_t* set, std::int32_t id);

}  // extern "C"
