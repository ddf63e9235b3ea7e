// The formats and their fields, and the one place where a result is rounded and packed.
#pragma once

#include <cstdint>

#include "ksomd/quad.h"
#include "quad/status.h"
#include "quad/wide.h"

namespace ksomd::quad {

// An IEEE format, packed into the low bits of an integer:
//
//   sign | exponent field | fraction
template <int fraction, int exponent, class Integer>
struct Format {
  using Bits = Integer;
  static constexpr int fraction_width = fraction;
  static constexpr int sign_position = fraction + exponent;
  static constexpr int special = (1 << exponent) - 1;  // the field of infinities and NaNs
  static constexpr int bias = special / 2;
  static constexpr Bits infinity = static_cast<Bits>(special) << fraction;
  static constexpr Bits quiet_bit = static_cast<Bits>(1) << (fraction - 1);
  static constexpr Bits fraction_mask = (static_cast<Bits>(1) << fraction) - 1;
  // Whether a result counts as tiny if its exponent field is 0. IEEE formats count it as tiny
  // unless rounding with an unbounded exponent would give a normal number.
  static constexpr bool tiny_by_field = false;
};
using Binary32 = Format<23, 8, std::uint32_t>;
using Binary64 = Format<52, 11, std::uint64_t>;
using Binary128 = Format<112, 15, Uint128>;
// The x87 format without its integer bit, which the exponent field implies.
struct Extended : Format<63, 15, Uint128> {
  static constexpr bool tiny_by_field = true;
};

// ---- the fields of a quad -------------------------------------------------------------------

inline constexpr int bias = Binary128::bias;
inline constexpr int special_exponent = Binary128::special;
inline constexpr int largest_exponent = special_exponent - 1;

// Of the high word.
inline constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
inline constexpr std::uint64_t magnitude_bits = ~sign_bit;
inline constexpr std::uint64_t hidden_bit = std::uint64_t{1} << 48;
inline constexpr std::uint64_t fraction_bits = hidden_bit - 1;
inline constexpr std::uint64_t quiet_bit = std::uint64_t{1} << 47;
inline constexpr std::uint64_t infinity = std::uint64_t{special_exponent} << 48;

inline quad128 make_quad(std::uint64_t high, std::uint64_t low) {
  return {low, high};
}
inline quad128 make_quad(Uint128 bits) {
  return make_quad(high_word(bits), low_word(bits));
}

inline int exponent_field(quad128 a) {
  return static_cast<int>(a.high >> 48) & special_exponent;
}
inline Uint128 magnitude(quad128 a) {
  return make_uint128(a.high & magnitude_bits, a.low);
}
inline bool is_zero(quad128 a) {
  return magnitude(a) == 0;
}
inline bool is_nan(quad128 a) {
  return ((a.high & magnitude_bits) | (a.low != 0 ? 1 : 0)) > infinity;
}
inline bool is_signaling(quad128 a) {
  return is_nan(a) && (a.high & quiet_bit) == 0;
}

// ---- significands, left-aligned -------------------------------------------------------------
//
// Kernels hold a significand in 128 bits with its leading one at bit 127. The result's 113 bits
// are followed by 15 bits that decide the rounding. The lowest of them is sticky: it also stands
// for all that lies below.
//
//   127                          15 14        0
//   1 . 112 fraction bits          | remainder

inline constexpr int remainder_width = 15;

// The significand of a normal number.
inline Uint128 normal_significand(quad128 a) {
  return make_uint128((a.high & fraction_bits) | hidden_bit, a.low) << remainder_width;
}

// A finite non-zero number with its leading one at bit 127: value = significand / 2^127 *
// 2^(exponent - bias). Subnormal numbers get exponents below 1.
struct Normalized {
  int exponent;
  Uint128 significand;
};
inline Normalized normalize(quad128 a) {
  const int field = exponent_field(a);
  if (field != 0) {
    return {field, normal_significand(a)};
  }
  const Uint128 fraction = magnitude(a) << remainder_width;
  const int shift = leading_zeros(fraction);
  return {1 - shift, fraction << shift};
}

// Sign and exponent as the upper 16 bits of a quad have them. Sums of them need no masks. A carry
// out of the exponent flips the sign bit; callers account for it. A carry out of the sign is lost.
inline std::uint64_t sign_and_exponent(std::uint64_t high) {
  return high >> 48;
}

// ---- rounding -----------------------------------------------------------------------------------

// Rounds significand / 2^position, position = count - uncounted from 1 to 15, in the thread's mode.
// The result is a normal number with bit 63 of signed_word as its sign; sign_exponent holds the
// same sign and the exponent. A carry out of the 113 bits moves into the exponent, which must leave
// room for it: 1 to 0x7FFD. Raises inexact if it is due.
template <int uncounted>
[[gnu::always_inline]] inline quad128 round_normal(std::uint64_t signed_word,
                                                   std::uint64_t sign_exponent, Uint128 significand,
                                                   std::uint64_t count) {
  // The low half of the low word is left to the rounding.
  const std::uint64_t low = low_word(significand);
  const std::uint64_t rounded =
      round_quotient<uncounted>(signed_word, static_cast<std::uint32_t>(low), count);
  const Uint128 rest = make_uint128(high_word(significand), low >> 32 << 32);
  const int position = static_cast<int>(count) - uncounted;
  // The leading one, at bit 48, counts as 1 in the exponent.
  return make_quad((rest >> (position & 63)) +
                   make_uint128(computed_here(sign_exponent - 1) << 48, rounded));
}

// The upper `width` bits of a significand, the lowest of them sticky.
template <int width>
std::uint64_t upper_bits(Uint128 significand) {
  const std::uint64_t kept = high_word(significand) >> (64 - width);
  return kept | ((significand << width) != 0 ? 1 : 0);
}

template <class F>
F::Bits pack(std::uint64_t sign, typename F::Bits magnitude) {
  if constexpr (F::sign_position > 63) {
    return static_cast<F::Bits>(sign) << (F::sign_position - 63) | magnitude;
  } else {
    return static_cast<F::Bits>(sign >> (63 - F::sign_position) | magnitude);
  }
}

// Rounds the last of F's bits of a significand, and what lies below it, to 0, 1 or 2 in the
// thread's mode. Raises inexact if it is due.
template <class F>
[[gnu::always_inline]] inline std::uint64_t rounded_last(std::uint64_t signed_word,
                                                         Uint128 significand) {
  constexpr int position = 20;  // decides every tie
  return round_quotient<0>(
      signed_word,
      static_cast<std::uint32_t>(upper_bits<position + 1>(significand << F::fraction_width)),
      position);
}

// Rounds and packs a significand with its leading one at bit 127 and `exponent` as the field of the
// result, or a lower one and `exponent` 1. A carry moves into the exponent.
template <class F>
[[gnu::always_inline]] inline F::Bits round_to(std::uint64_t signed_word, std::uint64_t exponent,
                                               Uint128 significand) {
  using Sum = std::conditional_t<sizeof(typename F::Bits) == 16, Uint128, std::uint64_t>;
  const auto kept = static_cast<Sum>(significand >> (127 - F::fraction_width));
  return pack<F>(signed_word & sign_bit,
                 static_cast<F::Bits>((static_cast<Sum>(exponent - 1) << F::fraction_width) +
                                      (kept & ~static_cast<Sum>(1)) +
                                      rounded_last<F>(signed_word, significand)));
}

// Rounds and packs a number that may be out of F's range. `sign` is 0 but for bit 63. `exponent` is
// the field that belongs to a leading one at bit 127; the significand is not 0, but may have its
// leading one lower.
template <class F>
[[gnu::cold, gnu::noinline]] F::Bits round_and_pack(std::uint64_t sign, int exponent,
                                                    Uint128 significand) {
  const int shift = leading_zeros(significand);
  significand <<= shift;
  exponent -= shift;
  const RoundingMode mode = rounding_mode();
  // Whether rounding up carries out of a significand that is all ones. This is asked before any
  // flag is raised.
  const auto carries_out = [=](Uint128 x) {
    const Uint128 kept = x >> (127 - F::fraction_width);
    return (kept & (kept + 1)) == 0 &&
           rounds_up(mode, sign, true, upper_bits<64>(x << (F::fraction_width + 1)));
  };

  if (exponent >= F::special || (exponent == F::special - 1 && carries_out(significand))) {
    raise_overflow_and_inexact();
    const bool infinite = rounds_up(mode, sign, true, ~std::uint64_t{0});
    return pack<F>(sign, infinite ? F::infinity : F::infinity - 1);
  }
  if (exponent >= 1) {
    return round_to<F>(sign, static_cast<std::uint64_t>(exponent), significand);
  }
  const Uint128 lowered = shift_right_sticky(significand, std::min(1 - exponent, 127));
  // Tiny, unless it is the number just below the smallest normal one and rounds up to it.
  const bool tiny = exponent < 0 || !carries_out(F::tiny_by_field ? lowered : significand);
  if (tiny && lowered << (F::fraction_width + 1) != 0) {
    raise_underflow_and_inexact();
  }
  return round_to<F>(sign, 1, lowered);
}

// ---- NaN results --------------------------------------------------------------------------------

// The default NaN, with invalid raised.
quad128 default_nan();

// The result of an arithmetic operation with at least one NaN operand, with its flag.
quad128 nan_result(quad128 a, quad128 b);

}  // namespace ksomd::quad
