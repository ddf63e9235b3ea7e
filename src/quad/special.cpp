// NaN results.
#include "quad/format.h"

namespace ksomd::quad {

void store_default_nan(quad128* r) {
  raise_invalid();
  store(r, sign_bit | infinity | quiet_bit, 0);
}

namespace {

// Whether NaN a is taken before NaN b: a quiet one before a signaling one, then the larger
// magnitude, then the negative one.
bool precedes(const quad128& a, const quad128& b) {
  const bool a_quiet = (a.high & quiet_bit) != 0;
  const bool b_quiet = (b.high & quiet_bit) != 0;
  if (a_quiet != b_quiet) {
    return a_quiet;
  }
  const Uint128 a_magnitude = make_uint128(a.high & magnitude_bits, a.low);
  const Uint128 b_magnitude = make_uint128(b.high & magnitude_bits, b.low);
  if (a_magnitude != b_magnitude) {
    return a_magnitude > b_magnitude;
  }
  return (a.high & sign_bit) != 0;
}

}  // namespace

void store_nan(quad128* r, const quad128* a, const quad128* b) {
  const bool a_nan = is_nan(a->high, a->low);
  const bool b_nan = is_nan(b->high, b->low);
  const bool invalid = is_signaling(a->high, a->low) || is_signaling(b->high, b->low);
  const quad128 chosen = a_nan && (!b_nan || precedes(*a, *b)) ? *a : *b;
  if (invalid) {
    raise_invalid();
  }
  store(r, chosen.high | quiet_bit, chosen.low);
}

}  // namespace ksomd::quad
