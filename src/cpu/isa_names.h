// The names of processor features by ISA id, and the environment variable that switches features
// off.
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

// Adds to `mask` the features that `value` names. The names are in lower case, separated by commas
// and compared byte for byte. A name that no row has is ignored. A null or empty value adds
// nothing.
void add_disabled_features(const char* value, FeatureSet& mask);

}  // namespace ksomd

extern "C" {

// The name table by ISA id. It is empty until the first look-up fills it from the feature table.
[[gnu::visibility("hidden")]] extern ksomd::IsaRow __orvex_isa_table[ksomd::isa_id_count];

// Fills the name table if it is empty. Every routine below calls it.
void __orvex_isa_table_init(void);

// `id` is an ISA id from 1 to isa_id_count - 1.

// The upper-case name; null for a row without a feature.
const char* __orvex_feature_name(std::int32_t id);
// The feature's bit; -1 for a row without one; isa_bad_bit for a row whose bit lies outside a
// feature set.
std::int32_t __orvex_feature_bit(std::int32_t id);
// 1 if the set has the feature, else 0. For an id without a valid bit the result is the negative
// one of __orvex_feature_bit.
std::int32_t __orvex_test_feature(const std::uint64_t* set, std::int32_t id);
// Adds the feature to the set and returns 0. For an id without a valid bit the set stays as it is,
// and the result is the negative one of __orvex_feature_bit.
std::int32_t __orvex_set_feature(std::uint64_t* set, std::int32_t id);

}  // extern "C"
