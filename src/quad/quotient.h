// The kernel of quotients.
#pragma once

#include "quad/format.h"

namespace ksomd::quad {

// How a quotient is found. For significands n and d with their leading ones at bit 127,
//
//   w  = 2^126 / (top word of d)         one 64/32-bit division, and one Newton step
//   q1 = (top word of n) w / 2^64        close to n 2^62 / d
//   R  = n 2^62 - q1 d                   exactly; a few d at most, of either sign
//   q2 = R 2^64 / d                      by w again
//   Q  = q1 2^64 + q2                    close to n 2^126 / d
//
// On many processors the 128/64-bit division instruction takes longer than all of this.
//
// Errors, relative to the exact values:
//   w   in [-2^-61, 2^-63]: the first estimate is within 2^-31, so that the step leaves 2^-62 at
//       most and always below; cutting adds one unit, 2^-62; d's lower word is up to 2^-63 of it
//   q1  in (-5.5, 1): the above times 2^63, n's lower word, and cutting
//   Q   in (-78, 20): w's error times |q2| < 2^66.5, 32 for what is cut off R, and cutting
// The error matters to the rounding only if Q is that close to a multiple of 2^12. Then Q is
// corrected by its exact remainder. Otherwise its low bits decide as the exact ones would: they are
// not 0, and lie on the right side of a tie.
inline constexpr std::uint64_t quotient_window = 64;  // covers the error, once it is centred
inline constexpr std::uint64_t quotient_centre = 29;
inline constexpr std::uint64_t quotient_period = 1u << 12;

// 2^126 / d, for d with its top bit set; below 2^63.
[[gnu::always_inline]] inline std::int64_t reciprocal(std::uint64_t d) {
  std::uint32_t estimate = 0xFFFFFFFF;  // 2^63 - 1 by d's upper half: close to 2^95 / d
  std::uint32_t remainder = 0x7FFFFFFF;
  asm("divl %2"
      : "+a"(estimate), "+d"(remainder)
      : "r"(static_cast<std::uint32_t>(d >> 32))
      : "cc");
  // (2^95 - d estimate) / 4, which fits in a word: 2^93 is 0 there.
  const std::uint64_t product = (d >> 2) * estimate + ((d & 3) * estimate >> 2);
  const auto error = static_cast<std::int64_t>(0 - product);
  const std::int64_t first = static_cast<std::int64_t>(std::uint64_t{estimate} << 31);
  return first + static_cast<std::int64_t>(static_cast<Int128>(first) * error >> 93);
}

// R 2^64 / D for D = d / 2^8, without R's lowest 60 bits. |R| < 2^123
[[gnu::always_inline]] inline Int128 divide_remainder(Int128 remainder, std::int64_t w) {
  const auto top = static_cast<std::int64_t>(remainder >> 60);
  return static_cast<Int128>(top) * w >> 58;
}

// Q made exact, its lowest bit set if it is not. `remainder` is R / 2^8.
[[gnu::cold, gnu::noinline]] inline Uint128 exact_quotient(Uint128 q, std::uint64_t q1,
                                                           Int128 remainder, Uint128 divisor) {
  // Modulo 2^128, in which the result, less than 128 D, fits with its sign.
  const Uint128 q2 = q - (static_cast<Uint128>(q1) << 64);
  auto rest = static_cast<Int128>((static_cast<Uint128>(remainder) << 64) - q2 * divisor);
  while (rest < 0) {
    rest += static_cast<Int128>(divisor);
    --q;
  }
  while (rest >= static_cast<Int128>(divisor)) {
    rest -= static_cast<Int128>(divisor);
    ++q;
  }
  return q | static_cast<Uint128>(rest != 0);
}

// n / d in units of 2^-126, its lowest bit set if it is not exact: between 2^125 and 2^127, and
// below 2^126 if n < d. n and d have their leading ones at bit 127 and 15 low bits of 0.
[[gnu::always_inline]] inline Uint128 divide_significands(Uint128 n, Uint128 d) {
  const Uint128 divisor = d >> 8;
  const std::int64_t w = reciprocal(high_word(d));
  const auto q1 = high_word(static_cast<Uint128>(high_word(n)) * static_cast<std::uint64_t>(w));
  // n 2^54 - q1 d / 2^8, modulo 2^128.
  const auto remainder =
      static_cast<Int128>((n << 54) - static_cast<Uint128>(q1) * low_word(divisor) -
                          (static_cast<Uint128>(q1 * high_word(divisor)) << 64));
  Uint128 q = (static_cast<Uint128>(q1) << 64) + quotient_centre +
              static_cast<Uint128>(divide_remainder(remainder, w));
  if (((low_word(q) + quotient_window) & (quotient_period - 1)) < quotient_window + quotient_window)
      [[unlikely]] {
    q = exact_quotient(q, q1, remainder, divisor);
  }
  return q;
}

struct Quotient {
  // Both are normal, and their exponents make the result normal, rounded up or not.
  [[gnu::always_inline]] static bool is_common(quad128 a, quad128 b) {
    const std::uint64_t a_field = a.high << 1 >> 49;
    const std::uint64_t b_field = b.high << 1 >> 49;
    return a_field - 1 < special_exponent - 1 && b_field - 1 < special_exponent - 1 &&
           a_field - b_field + bias - 2 <= largest_exponent - 1 - 2;
  }

  [[gnu::always_inline]] static quad128 common(quad128 a, quad128 b) {
    const Uint128 quotient = divide_significands(normal_significand(a), normal_significand(b));
    const std::uint64_t at_least_one = high_word(quotient) >> 62;
    return round_normal<2 - remainder_width>(
        a.high ^ b.high,
        sign_and_exponent(a.high) - sign_and_exponent(b.high) + bias - 1 + at_least_one, quotient,
        at_least_one);
  }

  static quad128 any(quad128 a, quad128 b);
};

}  // namespace ksomd::quad
