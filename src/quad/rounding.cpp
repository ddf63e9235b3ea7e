#include "quad/format.h"

namespace ksomd::quad {

void store_overflow(quad128* r, std::uint64_t sign) {
  raise_overflow_and_inexact();
  if (overflows_to_infinity(rounding_mode(), sign)) {
    store(r, sign | infinity, 0);
  } else {
    store(r, sign | (infinity - 1), ~std::uint64_t{0});
  }
}

void store_underflow(quad128* r, std::uint64_t sign) {
  raise_underflow_and_inexact();
  store(r, sign, rounds_up(rounding_mode(), sign, 0, 1, 1) ? 1 : 0);
}

[[gnu::cold]] void round_and_store_any(quad128* r, std::uint64_t sign, int exponent,
                                       Uint128 significand) {
  const int shift = leading_zeros(significand);
  significand <<= shift;
  exponent -= shift;
  // Rounding up carries out of 113 ones. This is asked before any flag is raised.
  constexpr Uint128 all_ones = ~static_cast<Uint128>(0) >> remainder_width;
  constexpr std::uint64_t half = 1u << (remainder_width - 1);
  const auto carries_out = [&] {
    return significand >> remainder_width == all_ones &&
           rounds_up(rounding_mode(), sign, 1, low_word(significand) & remainder_mask, half);
  };

  if (exponent > largest_exponent || (exponent == largest_exponent && carries_out())) {
    store_overflow(r, sign);
    return;
  }
  if (exponent >= 1) {
    round_and_store<0>(r, sign, sign_and_exponent(sign, exponent), significand, remainder_width);
    return;
  }
  // Tiny, unless it is the number just below the smallest normal one and rounds up to it.
  const bool tiny = exponent < 0 || !carries_out();
  significand = shift_right_sticky(significand, std::min(1 - exponent, 127));
  if (tiny && (low_word(significand) & remainder_mask) != 0) {
    raise_underflow_and_inexact();
  }
  round_and_store<0>(r, sign, sign_and_exponent(sign, 1), significand, remainder_width);
}

}  // namespace ksomd::quad
