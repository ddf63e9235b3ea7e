// Quotients.
#include "quad/dispatch.h"
#include "quad/format.h"

using namespace ksomd::quad;

extern "C" {
KSOMD_API void quad_divide_l(quad128*, const quad128*, const quad128*) __asm__("__divq.L");
KSOMD_API void quad_divide_a(quad128*, const quad128*, const quad128*) __asm__("__divq.A");
}

namespace {

// dividend / divisor, whose quotient fits in a word.
inline std::uint64_t divide_words(Uint128 dividend, std::uint64_t divisor) {
  std::uint64_t quotient = low_word(dividend);
  std::uint64_t remainder = high_word(dividend);
  asm("divq %2" : "+a"(quotient), "+d"(remainder) : "r"(divisor) : "cc");
  return quotient;
}

struct QuotientWord {
  std::uint64_t quotient;
  Uint128 remainder;
};

// floor(n * 2^64 / d) and the remainder, for n < d and the top bit of d set. The estimate from the
// top word of d is at most 2 too large.
[[gnu::always_inline]] inline QuotientWord next_word(Uint128 n, Uint128 d) {
  std::uint64_t q = high_word(n) < high_word(d) ? divide_words(n, high_word(d)) : ~std::uint64_t{0};
  // n * 2^64 - q d, in 192 bits: the top word is 0, or all ones if the result is negative.
  const Uint128 low_product = static_cast<Uint128>(q) * low_word(d);
  const Uint128 high_product = static_cast<Uint128>(q) * high_word(d) + high_word(low_product);
  Uint128 upper = n - high_product;
  std::uint64_t lower = 0 - low_word(low_product);
  upper -= lower != 0 ? 1 : 0;
  while (static_cast<std::int64_t>(high_word(upper)) < 0) {
    const std::uint64_t sum = lower + low_word(d);
    upper += static_cast<Uint128>(high_word(d)) + (sum < lower ? 1 : 0);
    lower = sum;
    --q;
  }
  return {q, make_uint128(low_word(upper), lower)};
}

// The quotient of two significands whose leading ones stand at bit 127. The leading one of the
// result stands at bit 127, its exponent is 1 less if a < b; its lowest bit is set if anything is
// lost.
[[gnu::always_inline]] inline Uint128 quotient(Uint128 a, Uint128 b) {
  // Both have 15 low bits of 0, so that a / 2 loses nothing.
  const QuotientWord first = next_word(a < b ? a : a >> 1, b);
  const QuotientWord second = next_word(first.remainder, b);
  return make_uint128(first.quotient, second.quotient) |
         static_cast<Uint128>(second.remainder != 0);
}

[[gnu::cold, gnu::noinline]] void divide_any(quad128* r, const quad128* a, const quad128* b) {
  const std::uint64_t sign = (a->high ^ b->high) & sign_bit;
  const int a_field = exponent_field(a->high);
  const int b_field = exponent_field(b->high);
  const bool a_zero = ((a->high & magnitude_bits) | a->low) == 0;
  const bool b_zero = ((b->high & magnitude_bits) | b->low) == 0;
  if (is_nan(a->high, a->low) || is_nan(b->high, b->low)) {
    store_nan(r, a, b);
    return;
  }
  if ((a_zero && b_zero) || (a_field == special_exponent && b_field == special_exponent)) {
    store_default_nan(r);
    return;
  }
  if (a_field == special_exponent) {
    store(r, sign | infinity, 0);
    return;
  }
  if (a_zero || b_field == special_exponent) {
    store(r, sign, 0);
    return;
  }
  if (b_zero) {
    raise_divide_by_zero();
    store(r, sign | infinity, 0);
    return;
  }
  const Normalized n = normalize(a->high, a->low);
  const Normalized d = normalize(b->high, b->low);
  const int exponent = n.exponent - d.exponent + bias;
  round_and_store_any(r, sign, n.significand < d.significand ? exponent - 1 : exponent,
                      quotient(n.significand, d.significand));
}

[[gnu::always_inline]] inline void divide(quad128* r, const quad128* a, const quad128* b) {
  const std::uint64_t a_high = a->high;
  const std::uint64_t b_high = b->high;
  const std::uint64_t a_field = a_high << 1 >> 49;
  const std::uint64_t b_field = b_high << 1 >> 49;
  const std::uint64_t exponent = a_field - b_field + bias;
  const Uint128 n = normal_significand(a_high, a->low);
  const Uint128 d = normal_significand(b_high, b->low);
  // Both normal, and the exponent such that the result is, rounded up or not.
  if (a_field - 1 >= special_exponent - 1 || b_field - 1 >= special_exponent - 1 ||
      exponent - 2 > largest_exponent - 1 - 2) [[unlikely]] {
    return divide_any(r, a, b);
  }
  round_and_store(r, (a_high ^ b_high) & sign_bit, static_cast<int>(exponent) - (n < d ? 1 : 0),
                  quotient(n, d));
}

}  // namespace

void quad_divide_l(quad128* r, const quad128* a, const quad128* b) {
  divide(r, a, b);
}
void quad_divide_a(quad128* r, const quad128* a, const quad128* b) {
  divide(r, a, b);
}

void __divq(quad128* r, const quad128* a, const quad128* b) {
  if (take_l()) [[likely]] {
    return quad_divide_l(r, a, b);
  }
  return quad_divide_a(r, a, b);
}
