// Arithmetic where rounding is decided: results by hand, constructed next to ties, and at the ends
// of the exponent range.
#include <gtest/gtest.h>

#include "quad/wide.h"
#include "support/effort.h"
#include "support/quad_operations.h"

using namespace ksomd::test;
using ksomd::quad::high_word;
using ksomd::quad::low_word;
using ksomd::quad::make_uint128;
using ksomd::quad::Uint128;

namespace {

constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
constexpr std::uint64_t ones = ~std::uint64_t{0};

// ---- by hand ------------------------------------------------------------------------------------

constexpr Bits power(int exponent) {
  return {static_cast<std::uint64_t>(0x3FFF + exponent) << 48, 0};
}
constexpr Bits minus(Bits a) {
  return {a.high ^ sign_bit, a.low};
}

constexpr Bits zero = {0, 0};
constexpr Bits infinity = {0x7FFF000000000000, 0};
constexpr Bits largest = {0x7FFEFFFFFFFFFFFF, ones};
constexpr Bits default_nan = {0xFFFF800000000000, 0};
constexpr Bits signaling = {0x7FFF000000000000, 5};
constexpr Bits quieted = {0x7FFF800000000000, 5};
constexpr Bits quiet = {0xFFFF800000000000, 9};
constexpr Bits smallest = {0, 1};
constexpr Bits smallest_normal = {0x0001000000000000, 0};
constexpr Bits largest_subnormal = {0x0000FFFFFFFFFFFF, ones};
constexpr Bits ten = {0x4002400000000000, 0};
constexpr Bits tenth = {0x3FFB999999999999, 0x9999999999999999};  // toward zero
constexpr Bits third = {0x3FFD555555555555, 0x5555555555555555};
constexpr Bits above_one = {0x3FFF000000000000, 1};
constexpr unsigned overflows = flag::overflow | flag::inexact;
constexpr unsigned underflows = flag::underflow | flag::inexact;

enum : int { Add, Subtract, Multiply, Divide };

// The results in the order of the modes: to nearest, down, up, toward zero.
const struct {
  int operation;
  Bits a, b;
  Bits results[4];
  unsigned flags;
} by_hand[] = {
    {Add, one, power(-113), {one, one, above_one, one}, flag::inexact},
    {Add, one, {0x3F8E800000000000, 0}, {above_one, one, above_one, one}, flag::inexact},
    {Add, zero, minus(zero), {zero, minus(zero), zero, zero}, 0},
    {Add, minus(zero), minus(zero), {minus(zero), minus(zero), minus(zero), minus(zero)}, 0},
    {Subtract, ten, ten, {zero, minus(zero), zero, zero}, 0},
    {Add, largest, largest, {infinity, largest, infinity, largest}, overflows},
    {Add, infinity, minus(infinity), {default_nan, default_nan, default_nan, default_nan}, 1},
    {Subtract, infinity, infinity, {default_nan, default_nan, default_nan, default_nan}, 1},
    {Add, infinity, infinity, {infinity, infinity, infinity, infinity}, 0},
    {Add, signaling, one, {quieted, quieted, quieted, quieted}, flag::invalid},
    {Add, quiet, signaling, {quiet, quiet, quiet, quiet}, flag::invalid},
    {Subtract, one, quiet, {quiet, quiet, quiet, quiet}, 0},
    {Add,
     largest_subnormal,
     smallest,
     {smallest_normal, smallest_normal, smallest_normal, smallest_normal},
     0},
    {Subtract,
     {0x0001000000000000, 1},
     smallest_normal,
     {smallest, smallest, smallest, smallest},
     0},
    {Divide,
     one,
     ten,
     {{tenth.high, tenth.low + 1}, tenth, {tenth.high, tenth.low + 1}, tenth},
     flag::inexact},
    {Divide,
     one,
     {0x4000800000000000, 0},
     {third, third, {third.high, third.low + 1}, third},
     flag::inexact},
    {Divide,
     {0x4001800000000000, 0},
     {0x4000800000000000, 0},
     {power(1), power(1), power(1), power(1)},
     0},
    {Divide, smallest_normal, power(112), {smallest, smallest, smallest, smallest}, 0},
    {Divide, smallest_normal, power(113), {zero, zero, smallest, zero}, underflows},
    {Multiply, largest, power(1), {infinity, largest, infinity, largest}, overflows},
    {Divide, one, zero, {infinity, infinity, infinity, infinity}, flag::divide_by_zero},
    {Divide,
     minus(one),
     zero,
     {minus(infinity), minus(infinity), minus(infinity), minus(infinity)},
     flag::divide_by_zero},
    {Divide, infinity, zero, {infinity, infinity, infinity, infinity}, 0},
    {Divide, zero, zero, {default_nan, default_nan, default_nan, default_nan}, flag::invalid},
    {Multiply, infinity, zero, {default_nan, default_nan, default_nan, default_nan}, flag::invalid},
    {Multiply, minus(zero), ten, {minus(zero), minus(zero), minus(zero), minus(zero)}, 0},
    {Multiply, smallest, smallest, {zero, zero, smallest, zero}, underflows},
    {Multiply,
     {0x3FFEFFFFFFFFFFFF, ones},
     smallest_normal,
     {smallest_normal, largest_subnormal, smallest_normal, largest_subnormal},
     underflows},
};

TEST(QuadBoundary, ResultsByHand) {
  for (const auto& row : by_hand) {
    for (const Mode mode : all_modes) {
      const Case c = {operations[row.operation], row.a, row.b, mode};
      EXPECT_TRUE(check_variants(c, {row.results[static_cast<int>(mode)], row.flags}, 0));
    }
  }
  // Just below the smallest normal number: tiny unless it rounds up to it with 113 bits.
  const Bits below_one = {0x3FFEFFFFFFFFFFFF, ones - 1};  // 1 - 2^-112
  const Bits above = {smallest_normal.high, 1};
  const Outcome results[] = {{smallest_normal, flag::inexact},
                             {largest_subnormal, underflows},
                             {smallest_normal, flag::inexact},
                             {largest_subnormal, underflows}};
  for (const Mode mode : all_modes) {
    EXPECT_TRUE(check_variants({operations[Multiply], below_one, above, mode},
                               results[static_cast<int>(mode)], 0));
  }
}

// The cores take b's magnitude only.
TEST(QuadBoundary, CoresIgnoreTheSignOfB) {
  const BinaryRoutine cores[] = {add_magnitudes_l, add_magnitudes_a, subtract_magnitudes_l,
                                 subtract_magnitudes_a};
  Random random(37);
  for (int i = 0; i < 20000; ++i) {
    const Bits a = random.any();
    Bits b = random.partner(a);
    b = i % 50 == 0 || oracle::is_nan(b) ? infinity : b;
    const Mode mode = all_modes[i / 4 % 4];
    const BinaryRoutine core = cores[i % 4];
    ASSERT_EQ(run(core, a, b, mode), run(core, a, minus(b), mode)) << a << ", " << b << ' ' << mode;
  }
}

// ---- next to ties and to exact results ----------------------------------------------------------

Uint128 inverse(Uint128 odd) {  // modulo 2^128
  Uint128 x = odd;
  for (int correct_bits = 3; correct_bits < 128; correct_bits *= 2) {
    x *= 2 - odd * x;
  }
  return x;
}

Uint128 high_product(Uint128 a, Uint128 b) {  // a b / 2^128, cut
  const auto times = [](std::uint64_t x, std::uint64_t y) { return static_cast<Uint128>(x) * y; };
  const Uint128 middle =
      times(high_word(a), low_word(b)) + high_word(times(low_word(a), low_word(b)));
  const Uint128 other = times(low_word(a), high_word(b)) + low_word(middle);
  return times(high_word(a), high_word(b)) + high_word(middle) + high_word(other);
}

// A number from its significand, of 113 bits at most.
Bits number(Uint128 significand) {
  const int shift = ksomd::quad::leading_zeros(significand) - 15;
  significand <<= shift;
  const std::uint64_t exponent = 0x3FFF - static_cast<std::uint64_t>(shift);
  return {(exponent << 48) + (high_word(significand) & 0x0000FFFFFFFFFFFF), low_word(significand)};
}

Uint128 random_odd_significand(Random& random) {
  const Bits bits = random.with_exponent(1);
  return make_uint128((bits.high & 0x0000FFFFFFFFFFFF) | std::uint64_t{1} << 48, bits.low | 1);
}

constexpr Uint128 one_word = 1;

int constructed_cases() {
  return full_length() ? 400000 : 20000;
}

// a b = k 2^cut + half or 0, + distance, for the bits that are cut off products of 225 and 226
// bits.
TEST(QuadBoundary, ProductsNextToTies) {
  Random random(13);
  int next_to_ties[2] = {};
  for (int i = 0; i < constructed_cases(); ++i) {
    const int cut = 112 + i % 2;
    const Uint128 b = random_odd_significand(random);
    const Uint128 distance = random.below(9) - Uint128{4};
    const Uint128 remainder = (i % 4 < 2 ? one_word << (cut - 1) : 0) + distance;
    // One factor in two has its top bit where it should be.
    const Uint128 a = (remainder * inverse(b)) & ((one_word << cut) - 1);
    const Uint128 placed = cut == 112 ? a | one_word << 112 : a;
    if (placed >> 112 == 0) {
      continue;
    }
    const Mode mode = all_modes[i / 4 % 4];
    ASSERT_TRUE(check({operations[Multiply], number(placed), number(b), mode})) << "case " << i;
    const bool long_product = high_product(placed, b) >> 97 != 0;
    next_to_ties[cut - 112] += long_product == (cut == 113) ? 1 : 0;
  }
  EXPECT_GT(next_to_ties[0], constructed_cases() / 20);
  EXPECT_GT(next_to_ties[1], constructed_cases() / 20);
}

// a / b = t / 2^114 - r / (b 2^114) for a = (b t - r) / 2^114, an integer if t = r / b modulo
// 2^114. t odd is a tie of 113 bits, t even their last bit; r is 1 to 8, or -1 to -8.
TEST(QuadBoundary, QuotientsNextToTies) {
  Random random(14);
  int ties = 0;
  for (int i = 0; i < constructed_cases(); ++i) {
    const Uint128 b = random_odd_significand(random);
    const std::uint64_t r = 1 + random.below(8);
    const bool above = i % 2 == 0;
    const Uint128 mask = (one_word << 114) - 1;
    const Uint128 t = (above ? 0 - r * inverse(b) : r * inverse(b)) & mask;
    if (t >> 113 == 0) {
      continue;
    }
    // (b t) / 2^114, up if a / b is above t.
    const Uint128 a = high_product(b, t << 14) + (above ? 1 : 0);
    ASSERT_TRUE(check({operations[Divide], number(a), number(b), all_modes[i / 2 % 4]}))
        << "case " << i;
    ties += static_cast<int>(t & 1);
  }
  EXPECT_GT(ties, constructed_cases() / 5);
}

// Products of significands of 57 bits at most have up to 114: exact, or a tie.
TEST(QuadBoundary, TiesOfProducts) {
  Random random(17);
  int ties = 0;
  for (int i = 0; i < 20000; ++i) {
    const auto short_number = [&] {
      Bits bits = random.with_exponent(0x3FFF);
      bits.low = (bits.low & std::uint64_t{0xFF} << 56) | std::uint64_t{1} << 56;
      return bits;
    };
    const Case c = {operations[2], short_number(), short_number(), all_modes[i % 4]};
    ties += (oracle::multiply(c.a, c.b, c.mode).flags & flag::inexact) != 0 ? 1 : 0;
    ASSERT_TRUE(check(c));
  }
  EXPECT_GT(ties, 5000);
}

// Quotient words whose estimate is too large by 1 or 2, or would not fit in a word: the divisor's
// upper word small and its lower one large, the remainder after the first word close to it.
TEST(QuadBoundary, QuotientsThatNeedCorrection) {
  Random random(19);
  const int count = full_length() ? 400000 : 20000;
  for (int i = 0; i < count; ++i) {
    // Aligned at the top, the divisor's upper word takes the fraction's first 63 bits: small.
    Bits b = {std::uint64_t{0x3FFF} << 48, ~std::uint64_t{0}};
    b.high |= random.below(4) == 0 ? random.below(4) : 0;
    b.low = i % 2 == 0 ? b.low - random.below(1000) : random.next() | (std::uint64_t{0x7FFF} << 34);
    if (i % 5 == 0) {
      b = {std::uint64_t{0x3FFF} << 48, random.next() >> 15};
    }
    Bits a = oracle::multiply(b, random.with_exponent(0x3FFF), Mode::TowardZero).bits;
    if (i % 3 == 0) {
      a = {b.high, b.low - 1 - random.below(100)};
    }
    ASSERT_TRUE(check({operations[3], a, b, all_modes[i % 4]})) << "case " << i;
  }
}

// ---- the ends of the exponent range -------------------------------------------------------------

// Results from far below the smallest number to above the largest, every place of subnormal numbers
// among them, of all patterns in all modes.
TEST(QuadBoundary, ProductsAndQuotientsAtTheEnds) {
  const std::vector<Bits> patterns = fraction_patterns();
  std::vector<int> result_exponents = {-130, -120, 0x7FFC, 0x7FFD, 0x7FFE, 0x7FFF, 0x8000};
  for (int exponent = -115; exponent <= 3; ++exponent) {
    result_exponents.push_back(exponent);
  }
  Random random(16);
  for (const int exponent : result_exponents) {
    for (const Bits& f : patterns) {
      for (const Bits& g : patterns) {
        // a's exponent, with room for b's on both sides; the product's less the bias is their sum.
        const int x = exponent < 0x4000 ? 0x1000 + static_cast<int>(random.below(0x2F00))
                                        : 0x4100 + static_cast<int>(random.below(0x2F00));
        const auto field = [](int e) { return static_cast<std::uint64_t>(e) << 48; };
        const std::uint64_t signs = random.next();
        const Bits a = {(signs & sign_bit) | field(x) | f.high, f.low};
        const Bits factor = {(signs << 1 & sign_bit) | field(exponent + 0x3FFF - x) | g.high,
                             g.low};
        const Bits divisor = {(signs << 1 & sign_bit) | field(x + 0x3FFF - exponent) | g.high,
                              g.low};
        for (const Mode mode : all_modes) {
          ASSERT_TRUE(check({operations[Multiply], a, factor, mode}));
          ASSERT_TRUE(check({operations[Divide], a, divisor, mode}));
        }
      }
    }
  }
}

// Subnormal operands with the leading one at every place.
TEST(QuadBoundary, SubnormalOperands) {
  Random random(18);
  for (int place = 0; place < 112; ++place) {
    for (int i = 0; i < 24; ++i) {
      const Uint128 fraction = (one_word << place) | (make_uint128(random.next(), random.next()) &
                                                      ((one_word << place) - 1));
      const Bits a = {(random.next() & sign_bit) | high_word(fraction), low_word(fraction)};
      const Bits other = i % 3 == 0   ? random.with_exponent(0)
                         : i % 3 == 1 ? random.with_exponent(0x3FFF - 120 + random.below(240))
                                      : random.with_exponent(0x7FFE - random.below(250));
      for (const Operation& operation : operations) {
        ASSERT_TRUE(check({operation, a, other, all_modes[i % 4]}));
        ASSERT_TRUE(check({operation, other, a, all_modes[i % 4]}));
      }
    }
  }
}

}  // namespace
