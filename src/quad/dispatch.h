// Which processor variant of a routine is taken: the one for newer processors is named .L, the
// other .A.
#pragma once

#include <span>

#include "cpu/dispatching_entry.h"
#include "cpu/feature_set.h"

namespace ksomd::quad {

// X87, CMOV, MMX, SSE, SSE2, SSE3
inline constexpr std::uint64_t features_of_l = 0xEE;

// The arithmetic entry points.
std::span<const DispatchingEntry> dispatching_entries();

// Whether .L suits the processor, as far as the indicator is filled: true settles it.
inline bool l_is_known() {
  const std::uint64_t word = load_feature_word(__orvex_cpu_feature_indicator[0]);
  return (word & features_of_l) == features_of_l;
}

// The same for certain, by the reader's contract. Entries ask l_is_known() first and leave this to
// a function of its own, which keeps the call that fills the indicator out of the usual way.
inline bool l_suits() {
  return has_features(features_of_l);
}

}  // namespace ksomd::quad
