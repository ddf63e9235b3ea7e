// Sums and differences.
//
// Everything reduces to sign(a) * (|a| + |b|) or sign(a) * (|a| - |b|), the sign turned if |b| is
// larger. A kernel for the common case has no branch on signs, order or distance of its operands:
// the signs become a mask, the order a selection, the distance a shift count. What it leaves goes
// to the complete cores, one source for 64-bit and 32-bit words: operands that are not normal and
// results near the ends of the exponent range. Long cancellation, which is exact, has a function of
// its own.
#include <immintrin.h>

#include <cstdlib>

#include "quad/dispatch.h"
#include "quad/format.h"
#include "second_names.h"

using namespace ksomd::quad;

namespace {

// An operand is held 14 bits to the left of its place in the format: bit 127 is left for the
// carry. 14 bits keep a shift by up to 14 exact, and beyond it one sticky bit is enough, since at
// most one leading bit can then cancel.
constexpr int carry_room = 1;

// ---- the complete cores -------------------------------------------------------------------------

// An infinite or NaN operand.
void store_special_sum(quad128* r, const quad128* a, const quad128* b, bool subtract) {
  if (is_nan(a->high, a->low) || is_nan(b->high, b->low)) {
    store_nan(r, a, b);
    return;
  }
  const bool a_infinite = exponent_field(a->high) == special_exponent;
  const bool b_infinite = exponent_field(b->high) == special_exponent;
  if (a_infinite && b_infinite && subtract) {
    store_default_nan(r);
    return;
  }
  const std::uint64_t turned = !a_infinite && subtract ? sign_bit : 0;
  store(r, ((a->high & sign_bit) ^ turned) | infinity, 0);
}

struct Operand {
  Uint128 magnitude;  // as stored
  int exponent;       // that of subnormal numbers and zeros counts as 1
  Uint128 significand;
};

Operand unpack(const quad128& a) {
  const std::uint64_t high = a.high & magnitude_bits;
  const int field = exponent_field(high);
  const std::uint64_t hidden = field != 0 ? hidden_bit : 0;
  return {make_uint128(high, a.low), std::max(field, 1),
          make_uint128((high & fraction_bits) | hidden, a.low) << (remainder_width - carry_room)};
}

template <class Word>
[[gnu::always_inline]] inline void combine_magnitudes(quad128* r, const quad128* a,
                                                      const quad128* b, bool subtract) {
  if (exponent_field(a->high) == special_exponent || exponent_field(b->high) == special_exponent) {
    store_special_sum(r, a, b, subtract);
    return;
  }
  std::uint64_t sign = a->high & sign_bit;
  Operand x = unpack(*a);
  Operand y = unpack(*b);
  if (y.magnitude > x.magnitude) {
    std::swap(x, y);
    sign ^= subtract ? sign_bit : 0;
  }
  const int distance = std::min(x.exponent - y.exponent, 127);
  const Wide<Word> aligned = Wide<Word>(y.significand).shifted_right_sticky(distance);
  const Wide<Word> sum = Wide<Word>(x.significand).plus(aligned, subtract);
  if (sum.is_zero()) {
    if (subtract) {
      sign = rounding_mode() == RoundingMode::Down ? sign_bit : 0;
    }
    store(r, sign, 0);
    return;
  }
  const int shift = sum.leading_zeros();
  round_and_store_any(r, sign, x.exponent + carry_room - shift, sum.shifted_left(shift).value());
}

// ---- the common case ----------------------------------------------------------------------------

// Bounds for both exponents. At the upper one, neither a carry of the sum nor one of the
// rounding reaches infinity; at the lower one, cancellation that the kernel deals with leaves a
// normal number.
constexpr std::uint64_t lowest_common_exponent = 16;
constexpr std::uint64_t highest_common_exponent = largest_exponent - 2;
// The lowest place of the leading one in the sum's high word that leaves a remainder below 113
// bits.
constexpr int lowest_top = 49;
constexpr std::uint64_t common_exponents = highest_common_exponent - lowest_common_exponent;

// Everything else: a + b, or a + (-b) if turn_b is the sign bit.
[[gnu::cold, gnu::noinline]] void sum_by_cores(quad128* r, const quad128* a, const quad128* b,
                                               std::uint64_t turn_b) {
  const bool add = ((a->high ^ b->high ^ turn_b) & sign_bit) == 0;
  return add ? call_variant<add_variants>(r, a, b) : call_variant<subtract_variants>(r, a, b);
}

// A difference of neighbouring exponents that lost all of its remainder: exact.
[[gnu::cold, gnu::noinline]] void store_cancelled(quad128* r, std::uint64_t x_high,
                                                  std::uint64_t high, std::uint64_t low) {
  if ((high | low) == 0) {
    store(r, rounding_mode() == RoundingMode::Down ? sign_bit : 0, 0);
    return;
  }
  round_and_store_any(r, x_high & sign_bit, exponent_field(x_high) + carry_room,
                      make_uint128(high, low));
}

// A normal number, its significand with room for a carry.
struct Roomy {
  std::uint64_t high;
  std::uint64_t low;
};
constexpr std::uint64_t roomy_one = hidden_bit << (remainder_width - carry_room);
// `leading_one` is roomy_one, in a register: as a constant it would be added, by a slow
// instruction.
inline Roomy roomy(std::uint64_t high, std::uint64_t low, std::uint64_t leading_one) {
  constexpr int padding = remainder_width - carry_room;
  const std::uint64_t shifted = high << padding | low >> (64 - padding);
  return {(shifted & (roomy_one - 1)) | leading_one, low << padding};
}

// The number of zeros below the lowest bit that is set, which y.high has anyway.
inline std::uint64_t trailing_zeros(Roomy y) {
  const auto in_low = static_cast<std::uint64_t>(std::countr_zero(y.low));
  const auto in_high = static_cast<std::uint64_t>(__builtin_ctzll(y.high));
  return y.low != 0 ? in_low : in_high | 64;
}

[[gnu::always_inline]] inline void sum_or_difference(quad128* r, const quad128* a, const quad128* b,
                                                     std::uint64_t turn_b) {
  const std::uint64_t a_high = a->high;
  const std::uint64_t b_high = b->high ^ turn_b;
  const std::uint64_t a_exponent = a_high << 1 >> 49;
  const std::uint64_t b_exponent = b_high << 1 >> 49;
  if (a_exponent - lowest_common_exponent > common_exponents) [[unlikely]] {
    return sum_by_cores(r, a, b, turn_b);
  }
  if (b_exponent - lowest_common_exponent > common_exponents) [[unlikely]] {
    return sum_by_cores(r, a, b, turn_b);
  }
  if (!l_is_known()) [[unlikely]] {
    return sum_by_cores(r, a, b, turn_b);
  }
  // x has the larger magnitude. Beyond a distance of 127, nothing but y's sticky bit is left.
  const bool swap = make_uint128(a_high << 1, a->low) < make_uint128(b_high << 1, b->low);
  const std::uint64_t leading_one = computed_here(roomy_one);
  const Roomy a_roomy = roomy(a_high, a->low, leading_one);
  const Roomy b_roomy = roomy(b_high, b->low, leading_one);
  const std::uint64_t x_high = swap ? b_high : a_high;
  const Roomy x = {swap ? b_roomy.high : a_roomy.high, swap ? b_roomy.low : a_roomy.low};
  const Roomy y = {swap ? a_roomy.high : b_roomy.high, swap ? a_roomy.low : b_roomy.low};
  const auto difference = static_cast<std::int64_t>(a_exponent - b_exponent);
  const auto distance =
      static_cast<std::uint64_t>(std::min<std::int64_t>(std::abs(difference), 127));

  // x - y, less 1 if y loses bits; or x + y as x - ~y - 1. The lowest bit is made sticky below.
  const Uint128 aligned = make_uint128(y.high, y.low) >> distance;
  const std::uint64_t zeros = trailing_zeros(y);
  const auto add_mask =
      static_cast<std::uint64_t>(static_cast<std::int64_t>(~(a_high ^ b_high)) >> 63);
  unsigned long long low = 0;
  unsigned long long high = 0;
  const std::uint8_t rest = zeros < (distance | add_mask) ? 1 : 0;
  const std::uint8_t borrow = _subborrow_u64(rest, x.low, low_word(aligned) ^ add_mask, &low);
  _subborrow_u64(borrow, x.high, high_word(aligned) ^ add_mask, &high);
  const std::uint64_t sticky = zeros < distance ? 1 : 0;
  if (high >> lowest_top == 0) [[unlikely]] {
    return store_cancelled(r, x_high, high, low);
  }
  const std::uint64_t top = highest_bit(high);
  round_and_store<lowest_top - 1>(r, x_high, sign_and_exponent(x_high) + carry_room + top - 63,
                                  make_uint128(high, low | sticky), top);
}

}  // namespace

void quad_add_magnitudes_l(quad128* r, const quad128* a, const quad128* b) {
  combine_magnitudes<std::uint64_t>(r, a, b, false);
}
void quad_add_magnitudes_a(quad128* r, const quad128* a, const quad128* b) {
  combine_magnitudes<std::uint32_t>(r, a, b, false);
}
void quad_subtract_magnitudes_l(quad128* r, const quad128* a, const quad128* b) {
  combine_magnitudes<std::uint64_t>(r, a, b, true);
}
void quad_subtract_magnitudes_a(quad128* r, const quad128* a, const quad128* b) {
  combine_magnitudes<std::uint32_t>(r, a, b, true);
}

void __addq(quad128* r, const quad128* a, const quad128* b) {
  sum_or_difference(r, a, b, 0);
}
KSOMD_SECOND_NAMES(__addq);
void __subq(quad128* r, const quad128* a, const quad128* b) {
  sum_or_difference(r, a, b, sign_bit);
}
KSOMD_SECOND_NAMES(__subq);
