// Widening, inline for the routines that convert more than one value.
#pragma once

#include <bit>
#include <type_traits>

#include "quad/format.h"

namespace ksomd::quad {

// The format of float or double.
template <class Float>
using FormatOf = std::conditional_t<sizeof(Float) == 8, Binary64, Binary32>;

template <class Float>
[[gnu::always_inline]] inline quad128 widen(Float x) {
  using F = FormatOf<Float>;
  const auto bits = std::uint64_t{std::bit_cast<typename F::Bits>(x)};
  const std::uint64_t sign = bits >> F::sign_position << 63;
  // The fraction, with its top at bit 62.
  std::uint64_t fraction = (bits & F::fraction_mask) << (63 - F::fraction_width);
  int exponent = static_cast<int>(bits >> F::fraction_width) & F::special;
  if (exponent == 0) [[unlikely]] {
    if (fraction == 0) {
      return make_quad(sign, 0);
    }
    const int shift = std::countl_zero(fraction);
    exponent = 1 - shift;
    fraction = fraction << shift;
  }
  // An infinity or NaN keeps the largest exponent field of all.
  exponent += exponent == F::special ? special_exponent - F::special : bias - F::bias;
  // A leading one at bit 63, which only a subnormal number has, is dropped.
  fraction <<= 1;
  return make_quad(sign | static_cast<std::uint64_t>(exponent) << 48 | fraction >> 16,
                   fraction << 48);
}

[[gnu::always_inline]] inline quad128 widen_magnitude(std::uint64_t sign, std::uint64_t magnitude) {
  // The count is defined for 0 too because of bit 0, which reaches no result.
  const int shift = std::countl_zero(magnitude | 1);
  const std::uint64_t aligned = magnitude << shift;
  const std::uint64_t exponent_word = static_cast<std::uint64_t>(bias + 62 - shift) << 48;
  // The leading one, at bit 48 after the shift, adds 1 to the exponent.
  const std::uint64_t high = sign + exponent_word + (aligned >> 15);
  return make_quad(magnitude != 0 ? high : 0, aligned << 49);
}

[[gnu::always_inline]] inline quad128 widen_integer(std::int64_t x) {
  const auto mask = static_cast<std::uint64_t>(x >> 63);
  return widen_magnitude(mask & sign_bit, (static_cast<std::uint64_t>(x) ^ mask) - mask);
}

}  // namespace ksomd::quad
