// Sums, differences, products and quotients: to the bit and with every flag, in every mode and
// every variant.
#include <gtest/gtest.h>

#include "support/quad_cases.h"
#include "support/quad_compiler.h"

using namespace ksomd::test;

extern "C" {
// The variants; each of the four cores takes magnitudes, for operands whose signs say so.
void add_magnitudes_l(quad128*, const quad128*, const quad128*) __asm__("__addq_mag.L");
void add_magnitudes_a(quad128*, const quad128*, const quad128*) __asm__("__addq_mag.A");
void subtract_magnitudes_l(quad128*, const quad128*, const quad128*) __asm__("__subq_mag.L");
void subtract_magnitudes_a(quad128*, const quad128*, const quad128*) __asm__("__subq_mag.A");
void multiply_l(quad128*, const quad128*, const quad128*) __asm__("__mulq.L");
void multiply_a(quad128*, const quad128*, const quad128*) __asm__("__mulq.A");
void divide_l(quad128*, const quad128*, const quad128*) __asm__("__divq.L");
void divide_a(quad128*, const quad128*, const quad128*) __asm__("__divq.A");
}

namespace {

bool signs_differ(const quad128* a, const quad128* b) {
  return (a->high ^ b->high) >> 63 != 0;
}

void add_l(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? subtract_magnitudes_l : add_magnitudes_l)(r, a, b);
}
void add_a(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? subtract_magnitudes_a : add_magnitudes_a)(r, a, b);
}
void subtract_l(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? add_magnitudes_l : subtract_magnitudes_l)(r, a, b);
}
void subtract_a(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? add_magnitudes_a : subtract_magnitudes_a)(r, a, b);
}

struct Operation {
  const char* name;
  BinaryRoutine routines[3];  // entry, .L, .A
  Outcome (*oracle)(Bits, Bits, Mode);
  compiler::Operation in_compiler;
};
constexpr Operation operations[] = {
    {"add", {__addq, add_l, add_a}, oracle::add, compiler::Operation::Add},
    {"subtract", {__subq, subtract_l, subtract_a}, oracle::subtract, compiler::Operation::Subtract},
    {"multiply", {__mulq, multiply_l, multiply_a}, oracle::multiply, compiler::Operation::Multiply},
    {"divide", {__divq, divide_l, divide_a}, oracle::divide, compiler::Operation::Divide},
};

bool agrees(const Outcome& compilers, const Outcome& expected) {
  const bool nans = oracle::is_nan(compilers.bits) && oracle::is_nan(expected.bits);
  return compilers.flags == expected.flags && (nans || compilers.bits == expected.bits);
}

// One case by its name, for messages.
struct Case {
  const Operation& operation;
  Bits a;
  Bits b;
  Mode mode;
};
std::ostream& operator<<(std::ostream& stream, const Case& c) {
  return stream << c.operation.name << ' ' << c.a << ", " << c.b << ' ' << c.mode;
}

bool check_variants(const Case& c, const Outcome& expected, unsigned more_bits) {
  for (const BinaryRoutine routine : c.operation.routines) {
    const Outcome actual = run(routine, c.a, c.b, c.mode, more_bits);
    if (actual.bits != expected.bits ||
        actual.flags != (expected.flags | (more_bits & flag::all))) {
      ADD_FAILURE() << c << "\n  variant "
                    << std::find(c.operation.routines, c.operation.routines + 3, routine) -
                           c.operation.routines
                    << " with MXCSR bits " << more_bits << "\n  gives    " << actual
                    << "\n  expected " << expected;
      return false;
    }
  }
  return true;
}

// Both oracles, then every variant. False after a failure.
bool check(const Case& c, unsigned more_bits = 0) {
  const Outcome expected = c.operation.oracle(c.a, c.b, c.mode);
  if (compiler::available()) {
    const Outcome second = compiler::run(c.operation.in_compiler, c.a, c.b, c.mode);
    if (!agrees(second, expected)) {
      ADD_FAILURE() << "the oracles disagree: " << c << "\n  " << second << "\n  " << expected;
      return false;
    }
  }
  return check_variants(c, expected, more_bits);
}

constexpr unsigned subnormals_off = mxcsr::flush_to_zero | mxcsr::denormals_are_zero;

TEST(QuadArithmetic, BoundaryPairs) {
  const std::vector<Bits> values = boundary_values();
  std::uint64_t cases = 0;
  for (const Operation& operation : operations) {
    for (const Bits& a : values) {
      for (const Bits& b : values) {
        for (const Mode mode : all_modes) {
          ASSERT_TRUE(check({operation, a, b, mode}));
          ++cases;
        }
      }
    }
  }
  EXPECT_EQ(cases, 4u * 82 * 82 * 4);
}

// Flags that are up stay up, and flush-to-zero and denormals-are-zero change nothing.
TEST(QuadArithmetic, ControlBits) {
  const std::vector<Bits> values = boundary_values();
  Random random(7);
  for (const Operation& operation : operations) {
    for (const Bits& a : values) {
      for (const Bits& b : values) {
        const Mode mode = all_modes[random.below(4)];
        const unsigned bits = static_cast<unsigned>(random.next()) & (subnormals_off | flag::all);
        ASSERT_TRUE(check_variants({operation, a, b, mode}, operation.oracle(a, b, mode), bits));
      }
    }
  }
}

// Every distance of exponents that matters, and the ends of the range, with every pattern.
TEST(QuadArithmetic, ExponentsAndPatterns) {
  const std::vector<Bits> patterns = fraction_patterns();
  std::vector<std::uint64_t> fields = {0, 1, 2, 63, 64, 65, 0x3FFE, 0x7FFC, 0x7FFD, 0x7FFE};
  for (std::uint64_t distance = 0; distance <= 130; ++distance) {
    fields.push_back(0x3FFF + distance);
  }
  Random random(11);
  for (const Operation& operation : operations) {
    for (const std::uint64_t field : fields) {
      for (const Bits& f : patterns) {
        for (const Bits& g : patterns) {
          const std::uint64_t signs = random.next();
          const Bits a = {(signs & std::uint64_t{1} << 63) | std::uint64_t{0x3FFF} << 48 | f.high,
                          f.low};
          const Bits b = {(signs << 1 & std::uint64_t{1} << 63) | field << 48 | g.high, g.low};
          const Mode mode = all_modes[signs & 3];
          ASSERT_TRUE(check({operation, a, b, mode}));
          ASSERT_TRUE(check({operation, b, a, mode}));
        }
      }
    }
  }
}

// Results a few units from an exact tie, or from an exact result, by construction: the quotient of
// q b + e by b, and the product of a by a number near x / a.
TEST(QuadArithmetic, NearTiesOfProductsAndQuotients) {
  Random random(13);
  const int count = full_length() ? 400000 : 20000;
  for (int i = 0; i < count; ++i) {
    const Bits b = random.with_exponent(0x3FFF);
    const Bits q = random.with_exponent(0x3FFF);
    const Mode mode = all_modes[i % 4];
    Bits near = oracle::multiply(q, b, mode).bits;
    near.low += random.below(5) - 2;
    if (i % 3 == 0) {  // half the precision: products are exact, or ties
      near =
          oracle::multiply({b.high, 0}, {q.high & ~std::uint64_t{0xF}, random.next() << 60}, mode)
              .bits;
    }
    ASSERT_TRUE(check({operations[3], near, b, mode})) << "case " << i;
    Bits inverse = oracle::divide(q, b, mode).bits;
    inverse.low += random.below(5) - 2;
    ASSERT_TRUE(check({operations[2], b, inverse, mode})) << "case " << i;
  }
}

// Products of significands of 57 bits at most have up to 114: exact, or a tie.
TEST(QuadArithmetic, TiesOfProducts) {
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
TEST(QuadArithmetic, QuotientsThatNeedCorrection) {
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

// The length that one operation gets in one mode.
std::uint64_t random_cases() {
  if (!compiler::available()) {
    return 20000;
  }
  return full_length() ? 1000000 : 200000;
}

TEST(QuadArithmetic, RandomOperands) {
  const std::uint64_t count = random_cases();
  for (const Operation& operation : operations) {
    for (const Mode mode : all_modes) {
      Random random(1000 + static_cast<unsigned>(mode));
      for (std::uint64_t i = 0; i < count; ++i) {
        show_progress(operation.name, i, count);
        const Bits a = random.any();
        const Bits b = random.partner(a);
        const Case c = {operation, a, b, mode};
        // The exact oracle is slow: at the default length it takes one case in eight.
        if (!compiler::available() || full_length() || i % 8 == 0) {
          ASSERT_TRUE(check(c, i % 16 == 0 ? subnormals_off : 0)) << "case " << i;
          continue;
        }
        const Outcome expected = compiler::run(operation.in_compiler, a, b, mode);
        if (!oracle::is_nan(expected.bits)) {
          ASSERT_TRUE(check_variants(c, expected, 0)) << "case " << i;
        }
      }
    }
  }
}

// ---- what no oracle has a part in ---------------------------------------------------------------

constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
Bits negated(Bits a) {
  return {a.high ^ sign_bit, a.low};
}

Mode mirrored(Mode mode) {
  return mode == Mode::Up ? Mode::Down : mode == Mode::Down ? Mode::Up : mode;
}

TEST(QuadArithmetic, Symmetries) {
  Random random(23);
  for (int i = 0; i < 50000; ++i) {
    const Bits a = random.any();
    const Bits b = random.partner(a);
    const Mode mode = all_modes[i % 4];
    SCOPED_TRACE(testing::Message() << a << ", " << b << ' ' << mode);
    ASSERT_EQ(run(__addq, a, b, mode), run(__addq, b, a, mode));
    ASSERT_EQ(run(__mulq, a, b, mode), run(__mulq, b, a, mode));
    if (oracle::is_nan(a) || oracle::is_nan(b)) {
      continue;
    }
    ASSERT_EQ(run(__subq, a, b, mode), run(__addq, a, negated(b), mode));
    // Everything mirrored, the mode included; exact zeros alone keep their sign.
    Outcome mirror = run(__subq, b, a, mirrored(mode));
    const Outcome difference = run(__subq, a, b, mode);
    if ((difference.bits.high << 1 | difference.bits.low) != 0 &&
        !oracle::is_nan(difference.bits)) {
      mirror.bits = negated(mirror.bits);
      ASSERT_EQ(difference, mirror);
    }
  }
}

TEST(QuadArithmetic, IdentitiesAndPowersOfTwo) {
  Random random(29);
  for (int i = 0; i < 50000; ++i) {
    const Bits a = random.with_exponent(300 + random.below(0x7FFF - 600));
    const Mode mode = all_modes[i % 4];
    SCOPED_TRACE(testing::Message() << a << ' ' << mode);
    ASSERT_EQ(run(__divq, a, a, mode), (Outcome{one, 0}));
    ASSERT_EQ(run(__subq, a, a, mode).bits.high, mode == Mode::Down ? sign_bit : 0);
    ASSERT_EQ(run(__mulq, a, one, mode), (Outcome{a, 0}));
    const std::uint64_t k = random.below(250);
    const Bits power = {(std::uint64_t{0x3FFF} + k) << 48, 0};
    const Bits scaled = {a.high + (k << 48), a.low};
    ASSERT_EQ(run(__mulq, a, power, mode), (Outcome{scaled, 0}));
    ASSERT_EQ(run(__divq, scaled, power, mode), (Outcome{a, 0}));
    ASSERT_EQ(run(__addq, a, a, mode), (Outcome{{a.high + (std::uint64_t{1} << 48), a.low}, 0}));
  }
}

// Results that overlay operands, wholly, at any byte of memory.
TEST(QuadArithmetic, OverlayAndAlignment) {
  Random random(31);
  for (const Operation& operation : operations) {
    for (const BinaryRoutine routine : operation.routines) {
      for (int i = 0; i < 4000; ++i) {
        const Bits a = random.any();
        const Bits b = i % 2 == 0 ? a : random.partner(a);
        const Mode mode = Mode::NearestEven;
        unsigned char memory[96];
        auto* x = reinterpret_cast<quad128*>(memory + i % 16);
        auto* y = i % 2 == 0 ? x : reinterpret_cast<quad128*>(memory + 40 + i % 13);
        *x = quad(a);
        *y = quad(b);
        quad128* const result = i % 4 < 2 ? x : y;
        flags_of(mode, 0, [&] { routine(result, x, y); });
        ASSERT_EQ(bits_of(*result), operation.oracle(a, b, mode).bits) << operation.name;
      }
    }
  }
}

}  // namespace
