// Conversions from quad to the processor's own types.
#include "quad/from_quad.h"

#include <bit>

#include "second_names.h"

using namespace ksomd::quad;

namespace {

// Raises invalid; the processor's "integer indefinite", whose top bit alone is set.
template <class Integer>
[[gnu::cold, gnu::noinline]] Integer out_of_range() {
  raise_invalid();
  return static_cast<Integer>(std::uint64_t{1} << (8 * sizeof(Integer) - 1));
}

// A magnitude in units of 2^-64, the lowest bit sticky: the integer part is the high word.
//
// For 1 <= |a| < 2^63, from its exponent.
[[gnu::always_inline]] inline Uint128 inner_fixed_point(std::uint64_t exponent, quad128 a) {
  // This product is a shift that keeps both parts: shifts by a variable distance take longer.
  const std::uint64_t factor = computed_here(std::uint64_t{1} << (exponent + 1));
  const Uint128 significand = normal_significand(a);
  return static_cast<Uint128>(high_word(significand)) * factor |
         static_cast<Uint128>(low_word(significand) != 0);
}

// For |a| < 2^64.
[[gnu::always_inline]] inline Uint128 fixed_point(quad128 a) {
  const int exponent = exponent_field(a) - bias;
  if (exponent >= 0 && exponent < 63) [[likely]] {
    return inner_fixed_point(static_cast<std::uint64_t>(exponent), a);
  }
  const Uint128 significand = normal_significand(a);
  if (exponent == 63) {
    return significand;
  }
  // Less than a half is all sticky, and may be 0.
  return exponent == -1 ? shift_right_sticky(significand, 64) : Uint128{!is_zero(a)};
}

// The integer part. Raises inexact if there is a fraction.
[[gnu::always_inline]] inline std::uint64_t cut(Uint128 fixed_point) {
  raise_inexact_if(low_word(fixed_point) != 0);
  return high_word(fixed_point);
}

template <class Integer>
[[gnu::noinline]] Integer to_signed_any(quad128 a, RoundingMode mode) {
  constexpr int width = 8 * sizeof(Integer);
  if (exponent_field(a) >= bias + width) {
    return out_of_range<Integer>();
  }
  const Uint128 value = fixed_point(a);
  const std::uint64_t integer = high_word(value);
  const std::uint64_t negative = a.high >> 63;
  const bool up = rounds_up(mode, negative, (integer & 1) != 0, low_word(value));
  const std::uint64_t magnitude = integer + (up ? 1 : 0);
  constexpr std::uint64_t limit = std::uint64_t{1} << (width - 1);
  // A carry out of 64 bits leaves 0; the integer part then was too large before it.
  if (magnitude > limit - 1 + negative || integer > limit) {
    return out_of_range<Integer>();
  }
  cut(value);
  return static_cast<Integer>((magnitude ^ -negative) + negative);
}

template <class Integer>
[[gnu::always_inline]] inline Integer to_signed(quad128 a, std::int32_t mode,
                                                RoundingMode mode_of_other_numbers) {
  const auto exponent = static_cast<std::uint64_t>(exponent_field(a)) - bias;
  if (exponent < 8 * sizeof(Integer) - 1 && mode == KSOMD_ROUND_TOWARD_ZERO) [[likely]] {
    const auto mask = static_cast<std::uint64_t>(static_cast<std::int64_t>(a.high) >> 63);
    return static_cast<Integer>((cut(inner_fixed_point(exponent, a)) ^ mask) - mask);
  }
  const bool known = mode >= KSOMD_ROUND_TOWARD_ZERO && mode <= KSOMD_ROUND_UP;
  return to_signed_any<Integer>(
      a, known ? RoundingMode{static_cast<std::uint32_t>(mode)} : mode_of_other_numbers);
}

template <class Integer>
[[gnu::noinline]] Integer to_unsigned_any(quad128 a) {
  const int field = exponent_field(a);
  if (field >= bias + static_cast<int>(8 * sizeof(Integer)) ||
      (field >= bias && (a.high & sign_bit) != 0)) {
    return out_of_range<Integer>();
  }
  return static_cast<Integer>(cut(fixed_point(a)));
}

template <class Integer>
[[gnu::always_inline]] inline Integer to_unsigned(quad128 a) {
  constexpr std::uint64_t width = std::min<std::uint64_t>(8 * sizeof(Integer), 63);
  // The sign stays in it, which puts negative numbers out of this range.
  const std::uint64_t exponent = (a.high >> 48) - bias;
  if (exponent < width) [[likely]] {
    return static_cast<Integer>(cut(inner_fixed_point(exponent, a)));
  }
  return to_unsigned_any<Integer>(a);
}

}  // namespace

double __qtod(const quad128* a) {
  return std::bit_cast<double>(narrow<Binary64>(*a));
}
KSOMD_SECOND_NAMES(__qtod);
float __qtof(const quad128* a) {
  return std::bit_cast<float>(narrow<Binary32>(*a));
}
KSOMD_SECOND_NAMES(__qtof);

extended80* __qtol(extended80* r, const quad128* a) {
  *r = narrow_to_extended(*a);
  return r;
}

std::int32_t __qtoi(const quad128* a, std::int32_t mode) {
  return to_signed<std::int32_t>(*a, mode, RoundingMode::AwayFromZero);
}
KSOMD_SECOND_NAMES(__qtoi);
std::int64_t __qtoj(const quad128* a, std::int32_t mode) {
  return to_signed<std::int64_t>(*a, mode, RoundingMode::TowardZero);
}
KSOMD_SECOND_NAMES(__qtoj);
std::uint32_t __qtou(const quad128* a) {
  return to_unsigned<std::uint32_t>(*a);
}
std::uint64_t __qtok(const quad128* a) {
  return to_unsigned<std::uint64_t>(*a);
}
