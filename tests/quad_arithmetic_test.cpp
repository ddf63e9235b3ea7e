// Sums, differences, products and quotients: to the bit and with every flag, in every mode and
// every variant.
#include <gtest/gtest.h>

#include "support/effort.h"
#include "support/quad_operations.h"

using namespace ksomd::test;

namespace {

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

// Sanitizers make a case five times as long.
constexpr std::uint64_t usual_cases = sanitized ? 100000 : 1000000;

// The length that one operation gets in one mode.
std::uint64_t random_cases() {
  if (full_length()) {
    return 1000000;
  }
  return compiler::available() ? usual_cases : 20000;
}

// The exact oracle is slow: at the default length it takes one case in sixteen.
TEST(QuadArithmetic, RandomOperands) {
  const std::uint64_t count = random_cases();
  const std::uint64_t exact_step = !compiler::available() || full_length() ? 1 : 16;
  for (const Operation& operation : operations) {
    for (const Mode mode : all_modes) {
      Random random(1000 + static_cast<unsigned>(mode));
      for (std::uint64_t i = 0; i < count; ++i) {
        show_progress(operation.name, i, count);
        const Bits a = random.any();
        const Bits b = random.partner(a);
        const Case c = {operation, a, b, mode};
        const bool right =
            i % exact_step == 0 ? check(c, i % 32 == 0 ? subnormals_off : 0) : check_quickly(c);
        ASSERT_TRUE(right) << "case " << i;
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
