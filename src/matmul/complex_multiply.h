// The complex multiplication builtins of the compiler's run-time library: the plain formula
// (ac - bd) + i(ad + bc) and, where both of its parts are NaN, the recovery of infinities of
// ISO/IEC 9899, Annex G. This is the one place that names them.
#pragma once

#include "ksomd/builtins.h"

namespace ksomd::matmul {

inline auto annex_g_product(float a, float b, float c, float d) {
  return __mulsc3(a, b, c, d);
}

inline auto annex_g_product(double a, double b, double c, double d) {
  return __muldc3(a, b, c, d);
}

}  // namespace ksomd::matmul
