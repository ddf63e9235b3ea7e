// Which processor variant of a routine is taken: the one for newer processors is named .L, the
// other .A.
#pragma once

#include "cpu/feature_set.h"

namespace ksomd::quad {

// X87, CMOV, MMX, SSE, SSE2, SSE3
inline constexpr std::uint64_t features_of_l = 0xEE;

inline bool take_l() {
  return has_features(features_of_l);
}

}  // namespace ksomd::quad
