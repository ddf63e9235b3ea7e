// The binary128 format: its fields, and the one place where binary128 results are rounded and
// packed. Results of narrower formats are in from_quad.cpp.
#pragma once

#include <cstdint>

#include "ksomd/quad.h"
#include "quad/status.h"
#include "quad/wide.h"

namespace ksomd::quad {

inline constexpr int bias = 16383;
inline constexpr int special_exponent = 0x7FFF;
inline constexpr int largest_exponent = 0x7FFE;

inline constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
inline constexpr std::uint64_t magnitude_bits = ~sign_bit;
inline constexpr std::uint64_t hidden_bit = std::uint64_t{1} << 48;
inline constexpr std::uint64_t fraction_bits = hidden_bit - 1;
inline constexpr std::uint64_t quiet_bit = std::uint64_t{1} << 47;
inline constexpr std::uint64_t infinity = std::uint64_t{special_exponent} << 48;

inline int exponent_field(std::uint64_t high) {
  return static_cast<int>(high >> 48) & special_exponent;
}

inline void store(quad128* r, std::uint64_t high, std::uint64_t low) {
  r->low = low;
  r->high = high;
}

inline bool is_nan(std::uint64_t high, std::uint64_t low) {
  return ((high & magnitude_bits) | (low != 0 ? 1 : 0)) > infinity;
}

inline bool is_signaling(std::uint64_t high, std::uint64_t low) {
  return is_nan(high, low) && (high & quiet_bit) == 0;
}

// ---- significands, left-aligned -------------------------------------------------------------
//
// Kernels hold a significand in 128 bits with its leading one at bit 127, the result's 113 bits
// followed by 15 bits that decide the rounding; the lowest also stands for all that lies below
// ("sticky"):
//
//   127                          15 14        0
//   1 . 112 fraction bits          | remainder

inline constexpr int remainder_width = 15;
inline constexpr std::uint64_t remainder_mask = (1u << remainder_width) - 1;

// The significand of a normal number.
inline Uint128 normal_significand(std::uint64_t high, std::uint64_t low) {
  return make_uint128((high & fraction_bits) | hidden_bit, low) << remainder_width;
}

// A finite non-zero number with its leading one at bit 127: value = significand / 2^127 *
// 2^(exponent - bias). Subnormal numbers get exponents below 1.
struct Normalized {
  int exponent;
  Uint128 significand;
};
inline Normalized normalize(std::uint64_t high, std::uint64_t low) {
  const int field = exponent_field(high);
  if (field != 0) {
    return {field, normal_significand(high, low)};
  }
  const Uint128 fraction = make_uint128(high & fraction_bits, low) << remainder_width;
  const int shift = leading_zeros(fraction);
  return {1 - shift, fraction << shift};
}

// Sign and exponent as the upper 16 bits of a quad have them. Sums of them need no masks: what
// carries out of the exponent is the sign's business, and what carries out of the sign is lost.
inline std::uint64_t sign_and_exponent(std::uint64_t high) {
  return high >> 48;
}
inline std::uint64_t sign_and_exponent(std::uint64_t sign, int exponent) {
  return sign_and_exponent(sign) + static_cast<std::uint64_t>(exponent);
}

// Rounds significand / 2^position in the thread's mode and stores it with bit 63 of signed_word as
// the sign; inexact if it is not an integer. The exponent, below the sign as in a quad's upper 16
// bits, is 1 to 0x7FFD for an integer of 113 bits, and 1 for smaller ones, which are subnormal
// numbers. A carry out of the 113 bits moves into it. position = count - uncounted, from 1 to 15.
template <int uncounted>
[[gnu::always_inline]] inline void round_and_store(quad128* r, std::uint64_t signed_word,
                                                   std::uint64_t sign_exponent, Uint128 significand,
                                                   std::uint64_t count) {
  // The low half of the low word is left to the rounding.
  const std::uint64_t low = low_word(significand);
  const std::uint64_t rounded =
      round_quotient<uncounted>(signed_word, static_cast<std::uint32_t>(low), count);
  const Uint128 rest = make_uint128(high_word(significand), low >> 32 << 32);
  const int position = static_cast<int>(count) - uncounted;
  // The leading one, at bit 48, counts as 1 in the exponent.
  const Uint128 result =
      (rest >> (position & 63)) + make_uint128(computed_here(sign_exponent - 1) << 48, rounded);
  store(r, high_word(result), low_word(result));
}

// The same for any exponent, with overflow and underflow: the exponent is that of a leading one at
// bit 127, which the significand, other than 0, need not have.
void round_and_store_any(quad128* r, std::uint64_t sign, int exponent, Uint128 significand);

// Whether the mode rounds magnitudes of this sign up when last (0 or 1) is followed by remainder,
// a number of 2^bits - 1 at most, and half = 2^(bits - 1). Raises nothing.
inline bool rounds_up(RoundingMode mode, std::uint64_t sign, std::uint64_t last,
                      std::uint64_t remainder, std::uint64_t half) {
  switch (mode) {
    case RoundingMode::NearestEven:
      return remainder > half || (remainder == half && last != 0);
    case RoundingMode::Down:
      return remainder != 0 && sign != 0;
    case RoundingMode::Up:
      return remainder != 0 && sign == 0;
    case RoundingMode::TowardZero:
      break;
  }
  return false;
}

// Whether an overflow of this sign gives infinity, not the largest finite number.
inline bool overflows_to_infinity(RoundingMode mode, std::uint64_t sign) {
  return mode == RoundingMode::NearestEven ||
         mode == (sign != 0 ? RoundingMode::Down : RoundingMode::Up);
}

// Raises overflow and inexact, and stores what the mode asks for.
void store_overflow(quad128* r, std::uint64_t sign);

// Raises underflow and inexact for a magnitude in the lower half of the smallest subnormal number,
// the half included, and stores zero or that number.
void store_underflow(quad128* r, std::uint64_t sign);

// Raises invalid and stores the default NaN.
void store_default_nan(quad128* r);

// The result of an arithmetic operation with at least one NaN operand, and its flag.
void store_nan(quad128* r, const quad128* a, const quad128* b);

}  // namespace ksomd::quad
