// Widening, inline for the routines that convert more than one value.
#pragma once

#include <bit>
#include <limits>

#include "quad/format.h"

namespace ksomd::quad {

// The format of float or double.
template <class Float>
struct FloatFormat {
  using Bits = std::conditional_t<sizeof(Float) == 8, std::uint64_t, std::uint32_t>;
  static constexpr int fraction_width = std::numeric_limits<Float>::digits - 1;
  static constexpr int exponent_bias = std::numeric_limits<Float>::max_exponent - 1;
  static constexpr int special = 2 * exponent_bias + 1;  // exponent field of infinities and NaNs
  static constexpr Bits fraction_mask = (Bits{1} << fraction_width) - 1;
  static constexpr int sign_position = 8 * sizeof(Float) - 1;
};

template <class Float>
[[gnu::always_inline]] inline void widen(quad128* r, Float x) {
  using Format = FloatFormat<Float>;
  // The fraction, its top at the top of the quad fraction, bits 47 of high downward.
  const auto bits = std::uint64_t{std::bit_cast<typename Format::Bits>(x)};
  const std::uint64_t sign = bits >> Format::sign_position << 63;
  std::uint64_t fraction = (bits & Format::fraction_mask) << (63 - Format::fraction_width);
  int exponent = static_cast<int>(bits >> Format::fraction_width) & Format::special;
  if (exponent == 0) [[unlikely]] {
    if (fraction == 0) {
      store(r, sign, 0);
      return;
    }
    const int shift = std::countl_zero(fraction);
    exponent = 1 - shift;
    fraction = fraction << shift;
  }
  // An infinity or NaN keeps the largest exponent field of all.
  const int special_rebias = special_exponent - Format::special;
  const int normal_rebias = bias - Format::exponent_bias;
  exponent += exponent == Format::special ? special_rebias : normal_rebias;
  // Bit 63 of fraction stands for the hidden bit, or nothing.
  fraction <<= 1;
  store(r, sign | static_cast<std::uint64_t>(exponent) << 48 | fraction >> 16, fraction << 48);
}

[[gnu::always_inline]] inline quad128* magnitude_to_quad(quad128* r, std::uint64_t sign,
                                                         std::uint64_t magnitude) {
  // Bit 0 keeps the count defined. It cannot reach a result, for magnitudes other than 0.
  const int shift = std::countl_zero(magnitude | 1);
  const std::uint64_t aligned = magnitude << shift;
  const std::uint64_t exponent_word = static_cast<std::uint64_t>(bias + 62 - shift) << 48;
  // The leading one, at bit 48 after the shift, adds 1 to the exponent.
  const std::uint64_t high = sign + exponent_word + (aligned >> 15);
  store(r, magnitude != 0 ? high : 0, aligned << 49);
  return r;
}

template <class Integer>
[[gnu::always_inline]] inline quad128* integer_to_quad(quad128* r, Integer x) {
  const auto wide = static_cast<std::int64_t>(x);
  const std::uint64_t mask = static_cast<std::uint64_t>(wide >> 63);
  const std::uint64_t magnitude = (static_cast<std::uint64_t>(wide) ^ mask) - mask;
  return magnitude_to_quad(r, mask & sign_bit, magnitude);
}

}  // namespace ksomd::quad
