// NaN results.
#include "quad/format.h"

namespace ksomd::quad {

quad128 default_nan() {
  raise_invalid();
  return make_quad(sign_bit | infinity | quiet_bit, 0);
}

namespace {

// Whether NaN a is taken before NaN b: a quiet one before a signaling one, then the larger
// magnitude, then the negative one.
bool precedes(quad128 a, quad128 b) {
  if (is_signaling(a) != is_signaling(b)) {
    return is_signaling(b);
  }
  if (magnitude(a) != magnitude(b)) {
    return magnitude(a) > magnitude(b);
  }
  return (a.high & sign_bit) != 0;
}

}  // namespace

quad128 nan_result(quad128 a, quad128 b) {
  const quad128 chosen = is_nan(a) && (!is_nan(b) || precedes(a, b)) ? a : b;
  if (is_signaling(a) || is_signaling(b)) {
    raise_invalid();
  }
  return make_quad(chosen.high | quiet_bit, chosen.low);
}

}  // namespace ksomd::quad
