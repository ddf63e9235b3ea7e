// Narrowing to float, double and the x87 format.
#pragma once

#include "quad/format.h"

namespace ksomd::quad {

// A number that is not normal in F, or may not be once it is rounded.
template <class F>
[[gnu::cold, gnu::noinline]] F::Bits narrow_any(quad128 a) {
  const std::uint64_t sign = a.high & sign_bit;
  if (exponent_field(a) != special_exponent) {
    if (is_zero(a)) {
      return pack<F>(sign, 0);
    }
    const Normalized x = normalize(a);
    return round_and_pack<F>(sign, x.exponent - (bias - F::bias), x.significand);
  }
  if (!is_nan(a)) {
    return pack<F>(sign, F::infinity);
  }
  if (is_signaling(a)) {
    raise_invalid();
  }
  const auto fraction = static_cast<F::Bits>(magnitude(a) >> (112 - F::fraction_width));
  return pack<F>(sign, F::infinity | F::quiet_bit | (fraction & F::fraction_mask));
}

// Whether a number is normal in F, rounded up or not.
template <class F>
[[gnu::always_inline]] inline bool is_inner(quad128 a) {
  return (a.high << 1 >> 49) - (bias - F::bias) - 1 <= F::special - 2 - 1;
}

template <class F>
[[gnu::always_inline]] inline F::Bits narrow(quad128 a) {
  if (!is_inner<F>(a)) [[unlikely]] {
    return narrow_any<F>(a);
  }
  return round_to<F>(a.high, (a.high << 1 >> 49) - (bias - F::bias), normal_significand(a));
}

// To the x87 format, with its integer bit.
[[gnu::always_inline]] inline extended80 narrow_to_extended(quad128 a) {
  constexpr std::uint64_t integer_bit = std::uint64_t{1} << 63;
  if (is_inner<Extended>(a)) [[likely]] {
    const Uint128 significand = normal_significand(a);
    const std::uint64_t rounded =
        (high_word(significand) & ~std::uint64_t{1}) + rounded_last<Extended>(a.high, significand);
    // A carry leaves 0, one exponent higher.
    return {rounded | integer_bit,
            static_cast<std::uint16_t>((a.high >> 48) + (rounded == 0 ? 1 : 0))};
  }
  const Uint128 bits = narrow_any<Extended>(a);
  const auto sign_exponent = static_cast<std::uint16_t>(bits >> Extended::fraction_width);
  const std::uint64_t fraction = low_word(bits & Extended::fraction_mask);
  return {(sign_exponent & Extended::special) != 0 ? fraction | integer_bit : fraction,
          sign_exponent};
}

}  // namespace ksomd::quad
