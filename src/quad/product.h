// The kernel of products.
#pragma once

#include "quad/format.h"

namespace ksomd::quad {

// a * b / 2^128 with its lowest bit set if anything is lost: four products of words,
//
//   a_high b_high        2^128
//   a_high b_low         2^64
//   a_low b_high         2^64
//   a_low b_low          1
//
// A product of two words plus two words fits in two words, so no sum overflows.
[[gnu::always_inline]] inline Uint128 high_product(Uint128 a, Uint128 b) {
  const auto times = [](std::uint64_t x, std::uint64_t y) { return static_cast<Uint128>(x) * y; };
  const Uint128 low = times(low_word(a), low_word(b));
  const Uint128 cross = times(high_word(a), low_word(b)) + high_word(low);
  const Uint128 middle = times(low_word(a), high_word(b)) + low_word(cross);
  const Uint128 high = times(high_word(a), high_word(b)) + high_word(cross) + high_word(middle);
  return high | static_cast<Uint128>((low_word(low) | low_word(middle)) != 0);
}

struct Product {
  // Both are normal, and the sum of their exponents makes the result normal, rounded up or not.
  [[gnu::always_inline]] static bool is_common(quad128 a, quad128 b) {
    // The exponent field of the result is the sum less bias, plus 1 if the product is 2 or more,
    // and plus 1 if rounding carries.
    constexpr std::uint64_t lowest_sum = bias + 1;
    constexpr std::uint64_t highest_sum = bias + largest_exponent - 2;
    const std::uint64_t a_field = a.high << 1 >> 49;
    const std::uint64_t b_field = b.high << 1 >> 49;
    return a_field - 1 < special_exponent - 1 && b_field - 1 < special_exponent - 1 &&
           a_field + b_field - lowest_sum <= highest_sum - lowest_sum;
  }

  [[gnu::always_inline]] static quad128 common(quad128 a, quad128 b) {
    const Uint128 product = high_product(normal_significand(a), normal_significand(b));
    // The leading one of the product is at bit 127 if it is 2 or more, else at bit 126.
    const std::uint64_t at_least_two = high_word(product) >> 63;
    return round_normal<1 - remainder_width>(
        a.high ^ b.high,
        sign_and_exponent(a.high) + sign_and_exponent(b.high) - bias + at_least_two, product,
        at_least_two);
  }

  static quad128 any(quad128 a, quad128 b);
};

}  // namespace ksomd::quad
