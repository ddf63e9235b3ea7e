// Products.
#include "quad/dispatch.h"
#include "quad/format.h"
#include "second_names.h"

using namespace ksomd::quad;

namespace {

// a * b / 2^128 with its lowest bit set if anything is lost: four products of words,
//
//   a_high b_high        2^128
//   a_high b_low         2^64     each sum of three words fits in two
//   a_low b_high         2^64
//   a_low b_low          1
[[gnu::always_inline]] inline Uint128 high_product(Uint128 a, Uint128 b) {
  const auto times = [](std::uint64_t x, std::uint64_t y) { return static_cast<Uint128>(x) * y; };
  const Uint128 low = times(low_word(a), low_word(b));
  const Uint128 cross = times(high_word(a), low_word(b)) + high_word(low);
  const Uint128 middle = times(low_word(a), high_word(b)) + low_word(cross);
  const Uint128 high = times(high_word(a), high_word(b)) + high_word(cross) + high_word(middle);
  return high | static_cast<Uint128>((low_word(low) | low_word(middle)) != 0);
}

// Zeros, subnormal numbers, infinities and NaNs, and results outside the inner exponent range.
[[gnu::cold, gnu::noinline]] void multiply_any(quad128* r, const quad128* a, const quad128* b) {
  const std::uint64_t sign = (a->high ^ b->high) & sign_bit;
  const int a_field = exponent_field(a->high);
  const int b_field = exponent_field(b->high);
  const bool a_zero = ((a->high & magnitude_bits) | a->low) == 0;
  const bool b_zero = ((b->high & magnitude_bits) | b->low) == 0;
  if (a_field == special_exponent || b_field == special_exponent) {
    if (is_nan(a->high, a->low) || is_nan(b->high, b->low)) {
      store_nan(r, a, b);
    } else if (a_zero || b_zero) {
      store_default_nan(r);
    } else {
      store(r, sign | infinity, 0);
    }
    return;
  }
  if (a_zero || b_zero) {
    store(r, sign, 0);
    return;
  }
  if (a_field == 0 && b_field == 0) {
    store_underflow(r, sign);
    return;
  }
  const Normalized x = normalize(a->high, a->low);
  const Normalized y = normalize(b->high, b->low);
  round_and_store_any(r, sign, x.exponent + y.exponent - bias + 1,
                      high_product(x.significand, y.significand));
}

[[gnu::always_inline]] inline void multiply(quad128* r, const quad128* a, const quad128* b) {
  const std::uint64_t a_high = a->high;
  const std::uint64_t b_high = b->high;
  const std::uint64_t a_field = a_high << 1 >> 49;
  const std::uint64_t b_field = b_high << 1 >> 49;
  // Both normal, and the sum of their exponents such that the result is, rounded up or not.
  constexpr std::uint64_t lowest_sum = bias + 1;
  constexpr std::uint64_t highest_sum = bias + largest_exponent - 2;
  if (a_field - 1 >= special_exponent - 1) [[unlikely]] {
    return multiply_any(r, a, b);
  }
  if (b_field - 1 >= special_exponent - 1) [[unlikely]] {
    return multiply_any(r, a, b);
  }
  if (a_field + b_field - lowest_sum > highest_sum - lowest_sum) [[unlikely]] {
    return multiply_any(r, a, b);
  }
  const Uint128 product =
      high_product(normal_significand(a_high, a->low), normal_significand(b_high, b->low));
  const std::uint64_t carry = high_word(product) >> 63;
  round_and_store<1 - remainder_width>(
      r, a_high ^ b_high, sign_and_exponent(a_high) + sign_and_exponent(b_high) - bias + carry,
      product, carry);
}

}  // namespace

void quad_multiply_l(quad128* r, const quad128* a, const quad128* b) {
  multiply(r, a, b);
}
void quad_multiply_a(quad128* r, const quad128* a, const quad128* b) {
  multiply(r, a, b);
}

void __mulq(quad128* r, const quad128* a, const quad128* b) {
  if (l_is_known()) [[likely]] {
    return quad_multiply_l(r, a, b);
  }
  return call_variant<multiply_variants>(r, a, b);
}
KSOMD_SECOND_NAMES(__mulq);
