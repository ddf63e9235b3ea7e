// Sums and differences: the complete cores, one source for 64-bit and 32-bit words.
#include "quad/sum.h"

#include "quad/operation.h"
#include "second_names.h"

namespace ksomd::quad {
namespace {

// An infinite or NaN operand.
quad128 special_sum(quad128 a, quad128 b, bool subtract) {
  if (is_nan(a) || is_nan(b)) {
    return nan_result(a, b);
  }
  const bool a_infinite = exponent_field(a) == special_exponent;
  const bool b_infinite = exponent_field(b) == special_exponent;
  if (a_infinite && b_infinite && subtract) {
    return default_nan();
  }
  const std::uint64_t turned = !a_infinite && subtract ? sign_bit : 0;
  return make_quad(((a.high & sign_bit) ^ turned) | infinity, 0);
}

// The exponent of a finite number, which counts as 1 if the number is subnormal or zero, and its
// significand.
Normalized unpack(quad128 a) {
  const int field = exponent_field(a);
  const std::uint64_t hidden = field != 0 ? hidden_bit : 0;
  return {std::max(field, 1), make_uint128((a.high & fraction_bits) | hidden, a.low)
                                  << (remainder_width - carry_room)};
}

// sign(a) * (|a| + |b|), or sign(a) * (|a| - |b|).
template <class Word>
[[gnu::always_inline]] inline quad128 combine_magnitudes(quad128 a, quad128 b, bool subtract) {
  if (exponent_field(a) == special_exponent || exponent_field(b) == special_exponent) {
    return special_sum(a, b, subtract);
  }
  std::uint64_t sign = a.high & sign_bit;
  if (magnitude(b) > magnitude(a)) {
    std::swap(a, b);
    sign ^= subtract ? sign_bit : 0;
  }
  const Normalized x = unpack(a);
  const Normalized y = unpack(b);
  const int distance = std::min(x.exponent - y.exponent, 127);
  const Wide<Word> aligned = Wide<Word>(y.significand).shifted_right_sticky(distance);
  const Uint128 sum = Wide<Word>(x.significand).plus(aligned, subtract).value();
  if (sum == 0) {
    return subtract ? cancelled_zero() : make_quad(sign, 0);
  }
  return make_quad(round_and_pack<Binary128>(sign, x.exponent + carry_room, sum));
}

}  // namespace

quad128 add_magnitudes_l(quad128 a, quad128 b) {
  return combine_magnitudes<std::uint64_t>(a, b, false);
}
quad128 add_magnitudes_a(quad128 a, quad128 b) {
  return combine_magnitudes<std::uint32_t>(a, b, false);
}
quad128 subtract_magnitudes_l(quad128 a, quad128 b) {
  return combine_magnitudes<std::uint64_t>(a, b, true);
}
quad128 subtract_magnitudes_a(quad128 a, quad128 b) {
  return combine_magnitudes<std::uint32_t>(a, b, true);
}

}  // namespace ksomd::quad

using namespace ksomd::quad;

void quad_add_magnitudes_l(quad128* r, const quad128* a, const quad128* b) {
  *r = add_magnitudes_l(*a, *b);
}
void quad_add_magnitudes_a(quad128* r, const quad128* a, const quad128* b) {
  *r = add_magnitudes_a(*a, *b);
}
void quad_subtract_magnitudes_l(quad128* r, const quad128* a, const quad128* b) {
  *r = subtract_magnitudes_l(*a, *b);
}
void quad_subtract_magnitudes_a(quad128* r, const quad128* a, const quad128* b) {
  *r = subtract_magnitudes_a(*a, *b);
}

void __addq(quad128* r, const quad128* a, const quad128* b) {
  apply<Sum>(r, a, b);
}
KSOMD_SECOND_NAMES(__addq);
void __subq(quad128* r, const quad128* a, const quad128* b) {
  apply<Difference>(r, a, b);
}
KSOMD_SECOND_NAMES(__subq);
