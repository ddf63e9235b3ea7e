// The kernel of sums and differences.
//
// Everything reduces to sign(a) * (|a| + |b|) or sign(a) * (|a| - |b|), the sign turned if |b| is
// larger. The kernel has no branch on signs, order or distance of its operands: the signs become a
// mask, the order a selection, the distance a shift count. Long cancellation, which is exact, has a
// function of its own. The complete cores in sum.cpp take operands that are not normal and results
// near the ends of the exponent range.
#pragma once

#include <immintrin.h>

#include <bit>
#include <cstdlib>

#include "quad/dispatch.h"
#include "quad/format.h"

namespace ksomd::quad {

// Operands are held 14 bits to the left of their place in the format: bit 127 is left for the
// carry. 14 bits keep a shift by up to 14 exact, and beyond it one sticky bit is enough, since at
// most one leading bit can then cancel.
inline constexpr int carry_room = 1;

// Bounds for both exponents. At the upper one, neither a carry of the sum nor one of the
// rounding reaches infinity; at the lower one, cancellation that the kernel deals with leaves a
// normal number.
inline constexpr std::uint64_t lowest_common_exponent = 16;
inline constexpr std::uint64_t highest_common_exponent = largest_exponent - 2;
// The lowest place of the leading one in the sum's high word that leaves a remainder below 113
// bits.
inline constexpr int lowest_top = 49;

// A normal number's significand with room for a carry.
struct Roomy {
  std::uint64_t high;
  std::uint64_t low;
};
inline constexpr std::uint64_t roomy_one = hidden_bit << (remainder_width - carry_room);
// `leading_one` is roomy_one in a register: the compiler would use the constant by a slow
// instruction.
inline Roomy roomy(quad128 a, std::uint64_t leading_one) {
  constexpr int padding = remainder_width - carry_room;
  const std::uint64_t shifted = a.high << padding | a.low >> (64 - padding);
  return {(shifted & (roomy_one - 1)) | leading_one, a.low << padding};
}

// The number of zeros below the lowest bit that is set. y.high holds the leading one, so it is not
// 0.
inline std::uint64_t trailing_zeros(Roomy y) {
  const auto in_low = static_cast<std::uint64_t>(std::countr_zero(y.low));
  const auto in_high = static_cast<std::uint64_t>(__builtin_ctzll(y.high));
  return y.low != 0 ? in_low : in_high | 64;
}

// The zero that an exact cancellation leaves: -0 if the thread rounds down. No flag.
inline quad128 cancelled_zero() {
  return make_quad(std::bit_cast<std::uint64_t>(add_in_mode(number::one, -number::one)), 0);
}

// Packs a difference of neighbouring exponents that lost all of its remainder. It is exact and may
// be subnormal. `exponent` is the field that belongs to a leading one at bit 126.
[[gnu::always_inline]] inline quad128 cancelled_difference(std::uint64_t sign, int exponent,
                                                           Uint128 difference) {
  if (difference == 0) {
    return cancelled_zero();
  }
  const int shift = std::min(leading_zeros(difference), exponent);
  // The leading one, at bit 112 unless the result is subnormal, counts as 1 in the exponent.
  const quad128 result = make_quad((static_cast<Uint128>(exponent - shift) << 112) +
                                   (difference << shift >> remainder_width));
  return make_quad(result.high | sign, result.low);
}

// The high word without its sign, and the exponent from it. The barrier makes all uses share one
// shift.
inline std::uint64_t unsigned_word(quad128 a) {
  return computed_here(a.high << 1);
}
inline std::uint64_t exponent(quad128 a) {
  return unsigned_word(a) >> 49;
}

// a + b if turn_b is 0, a - b if it is the sign bit.
template <std::uint64_t turn_b>
struct SumOrDifference {
  // The processor is asked here and not in the entry: which variants there are depends on the
  // signs.
  [[gnu::always_inline]] static bool is_common(quad128 a, quad128 b) {
    constexpr std::uint64_t range = highest_common_exponent - lowest_common_exponent;
    return exponent(a) - lowest_common_exponent <= range &&
           exponent(b) - lowest_common_exponent <= range && l_is_known();
  }

  [[gnu::always_inline]] static quad128 common(quad128 a, quad128 b) {
    // x has the larger magnitude. Beyond a distance of 127, nothing but y's sticky bit is left.
    const bool swap = make_uint128(unsigned_word(a), a.low) < make_uint128(unsigned_word(b), b.low);
    const std::uint64_t leading_one = computed_here(roomy_one);
    const Roomy a_roomy = roomy(a, leading_one);
    const Roomy b_roomy = roomy(b, leading_one);
    const std::uint64_t x_high = (swap ? b.high : a.high) ^ (swap ? turn_b : 0);
    const Roomy x = {swap ? b_roomy.high : a_roomy.high, swap ? b_roomy.low : a_roomy.low};
    const Roomy y = {swap ? a_roomy.high : b_roomy.high, swap ? a_roomy.low : b_roomy.low};
    const auto difference = static_cast<std::int64_t>(exponent(a) - exponent(b));
    const auto distance =
        static_cast<std::uint64_t>(std::min<std::int64_t>(std::abs(difference), 127));

    // x - y, less 1 if y loses bits; or x + y as x - ~y - 1. The lowest bit is made sticky below.
    const Uint128 aligned = make_uint128(y.high, y.low) >> distance;
    const std::uint64_t zeros = trailing_zeros(y);
    const auto add_mask =
        static_cast<std::uint64_t>(static_cast<std::int64_t>(~(a.high ^ b.high ^ turn_b)) >> 63);
    unsigned long long low = 0;
    unsigned long long high = 0;
    const std::uint8_t rest = zeros < (distance | add_mask) ? 1 : 0;
    const std::uint8_t borrow = _subborrow_u64(rest, x.low, low_word(aligned) ^ add_mask, &low);
    _subborrow_u64(borrow, x.high, high_word(aligned) ^ add_mask, &high);
    const std::uint64_t sticky = zeros < distance ? 1 : 0;
    if (high >> lowest_top == 0) [[unlikely]] {
      return cancelled_difference(x_high & sign_bit, static_cast<int>(x_high << 1 >> 49),
                                  make_uint128(high, low));
    }
    const std::uint64_t top = highest_bit(high);
    return round_normal<lowest_top - 1>(x_high, sign_and_exponent(x_high) + carry_room + top - 63,
                                        make_uint128(high, low | sticky), top);
  }

  [[gnu::cold]] static quad128 any(quad128 a, quad128 b) {
    const bool add = ((a.high ^ b.high ^ turn_b) & sign_bit) == 0;
    return add ? call_variant<add_variants>(a, b) : call_variant<subtract_variants>(a, b);
  }
};
using Sum = SumOrDifference<0>;
using Difference = SumOrDifference<sign_bit>;

}  // namespace ksomd::quad
