// Complex arithmetic and comparisons, and the conversions of the a_ family.
#include <gtest/gtest.h>

#include "support/quad_cases.h"

using namespace ksomd::test;

namespace {

constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;

struct Complex {
  Bits re;
  Bits im;
  bool operator==(const Complex&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Complex& x) {
  return stream << x.re << " + i " << x.im;
}

cquad128 cquad(Complex x) {
  return {quad(x.re), quad(x.im)};
}
Complex complex_of(const cquad128& x) {
  return {bits_of(x.re), bits_of(x.im)};
}

// Steps of an algorithm by the exact oracle, their flags gathered.
class Steps {
 public:
  explicit Steps(Mode mode) : mode_(mode) {}
  Bits add(Bits a, Bits b) { return note(oracle::add(a, b, mode_)); }
  Bits subtract(Bits a, Bits b) { return note(oracle::subtract(a, b, mode_)); }
  Bits multiply(Bits a, Bits b) { return note(oracle::multiply(a, b, mode_)); }
  Bits divide(Bits a, Bits b) { return note(oracle::divide(a, b, mode_)); }
  [[nodiscard]] unsigned flags() const { return flags_; }

 private:
  Bits note(const Outcome& outcome) {
    flags_ |= outcome.flags;
    return outcome.bits;
  }
  Mode mode_;
  unsigned flags_ = 0;
};

Complex expected_sum(Steps& steps, Complex a, Complex b) {
  return {steps.add(a.re, b.re), steps.add(a.im, b.im)};
}
Complex expected_difference(Steps& steps, Complex a, Complex b) {
  return {steps.subtract(a.re, b.re), steps.subtract(a.im, b.im)};
}
Complex expected_product(Steps& steps, Complex a, Complex b) {
  return {steps.subtract(steps.multiply(a.re, b.re), steps.multiply(a.im, b.im)),
          steps.add(steps.multiply(a.re, b.im), steps.multiply(a.im, b.re))};
}
Complex expected_quotient(Steps& steps, Complex a, Complex b) {
  const Bits norm = steps.add(steps.multiply(b.re, b.re), steps.multiply(b.im, b.im));
  const Bits inverse = steps.divide(one, norm);
  const Bits re = steps.add(steps.multiply(a.re, b.re), steps.multiply(a.im, b.im));
  const Bits im = steps.subtract(steps.multiply(a.im, b.re), steps.multiply(a.re, b.im));
  return {steps.multiply(re, inverse), steps.multiply(im, inverse)};
}

using ComplexRoutine = void (*)(cquad128*, const quad128*, const quad128*, const quad128*,
                                const quad128*);
struct Operation {
  ComplexRoutine routines[2];
  Complex (*expected)(Steps&, Complex, Complex);
};
constexpr Operation operations[] = {{{__caddq, a_caddq}, expected_sum},
                                    {{__csubq, a_csubq}, expected_difference},
                                    {{__cmulq, a_cmulq}, expected_product},
                                    {{__cdivq, a_cdivq}, expected_quotient}};

void check(const Operation& operation, Complex a, Complex b, Mode mode) {
  Steps steps(mode);
  const Complex expected = operation.expected(steps, a, b);
  for (const ComplexRoutine routine : operation.routines) {
    cquad128 x = cquad(a);
    cquad128 y = cquad(b);
    cquad128 apart;
    // The result apart, over the first operand, over the second.
    for (cquad128* const result : {&apart, &x, &y}) {
      x = cquad(a);
      y = cquad(b);
      const unsigned flags =
          flags_of(mode, 0, [&] { routine(result, &x.re, &x.im, &y.re, &y.im); });
      ASSERT_EQ(complex_of(*result), expected)
          << "operation " << &operation - operations << ": " << a << ", " << b << ' ' << mode;
      ASSERT_EQ(flags, steps.flags()) << a << ", " << b << ' ' << mode;
    }
  }
}

TEST(QuadComplex, Arithmetic) {
  Random random(67);
  const std::vector<Bits> values = boundary_values();
  for (const Operation& operation : operations) {
    for (int i = 0; i < 3000; ++i) {
      const auto part = [&] {
        return i % 2 == 0 ? values[random.below(values.size())]
                          : random.with_exponent(0x3FF0 + random.below(32));
      };
      const Complex a = {part(), part()};
      check(operation, a, {part(), part()}, all_modes[i / 2 % 4]);
    }
  }
}

// The quotient by its steps scales nothing.
TEST(QuadComplex, QuotientsAtTheEnds) {
  const Bits zero = {0, 0};
  const Bits large = {(std::uint64_t{0x3FFF} + 9000) << 48, 0};
  const auto divide = [](Complex a, Complex b, unsigned expected_flags) {
    const cquad128 x = cquad(a);
    const cquad128 y = cquad(b);
    cquad128 r;
    EXPECT_EQ(flags_of(Mode::NearestEven, 0, [&] { __cdivq(&r, &x.re, &x.im, &y.re, &y.im); }),
              expected_flags);
    return complex_of(r);
  };
  EXPECT_EQ(divide({one, zero}, {large, zero}, flag::overflow | flag::inexact),
            (Complex{zero, zero}));
  const Complex by_itself =
      divide({large, zero}, {large, zero}, flag::overflow | flag::inexact | flag::invalid);
  EXPECT_TRUE(oracle::is_nan(by_itself.re));
  EXPECT_EQ(by_itself.im, zero);
  const Complex by_zero = divide({one, one}, {zero, zero}, flag::divide_by_zero | flag::invalid);
  EXPECT_TRUE(oracle::is_nan(by_zero.re) && oracle::is_nan(by_zero.im));
}

TEST(QuadComplex, Comparisons) {
  const std::vector<Bits> values = boundary_values();
  Random random(71);
  for (int i = 0; i < 50000; ++i) {
    const auto part = [&] { return values[random.below(values.size())]; };
    const Complex a = {part(), part()};
    const Complex b = {random.below(2) == 0 ? a.re : part(), random.below(2) == 0 ? a.im : part()};
    const auto equal = [](Bits x, Bits y) {
      return !oracle::is_nan(x) && !oracle::is_nan(y) && oracle::compare(x, y) == 0;
    };
    const bool same_value = equal(a.re, b.re) && equal(a.im, b.im);
    const bool same_bits = a == b;
    const cquad128 x = cquad(a);
    const cquad128 y = cquad(b);
    int results[4] = {};
    EXPECT_EQ(flags_of(Mode::NearestEven, 0,
                       [&] {
                         results[0] = __ceqq(&x.re, &x.im, &y.re, &y.im);
                         results[1] = __cneq(&x.re, &x.im, &y.re, &y.im);
                         results[2] = a_ceqq(&x.re, &x.im, &y.re, &y.im);
                         results[3] = a_cneq(&x.re, &x.im, &y.re, &y.im);
                       }),
              0u);
    ASSERT_EQ(results[0], same_value ? 1 : 0) << a << ", " << b;
    ASSERT_EQ(results[1], same_value ? 0 : 1) << a << ", " << b;
    ASSERT_EQ(results[2], same_bits ? 1 : 0) << a << ", " << b;
    ASSERT_EQ(results[3], same_bits ? 0 : 1) << a << ", " << b;
  }
}

TEST(QuadComplex, Negation) {
  for (const Bits& a : boundary_values()) {
    cquad128 x = cquad({a, one});
    EXPECT_EQ(flags_of(Mode::Down, 0, [&] { __cnegq(&x, &x.im, &x.re); }), 0u);
    EXPECT_EQ(complex_of(x), (Complex{{one.high | sign_bit, 0}, {a.high ^ sign_bit, a.low}}));
  }
}

// All 32 bytes, over whatever was there.
template <class Convert>
Complex converted(Convert convert) {
  unsigned char memory[48];
  std::memset(memory, 0xA5, sizeof memory);
  auto* result = reinterpret_cast<cquad128*>(memory + 7);
  EXPECT_EQ(flags_of(Mode::Up, 0, [&] { convert(result); }), 0u);
  EXPECT_EQ(memory[6], 0xA5);
  EXPECT_EQ(memory[39], 0xA5);
  return complex_of(*result);
}

TEST(QuadComplex, ToComplex) {
  const Bits zero = {0, 0};
  for (const std::int64_t value : {0LL, 1LL, -1LL, 127LL, -128LL, 1000LL, -32768LL, 123456789LL,
                                   -2147483648LL, -9223372036854775807LL - 1}) {
    const auto expect = [&](std::int64_t x, auto convert) {
      const auto bits = static_cast<std::uint64_t>(x);
      const Bits re = oracle::from_integer(x < 0, x < 0 ? 0 - bits : bits);
      EXPECT_EQ(converted(convert), (Complex{re, zero})) << x;
    };
    const auto i32 = static_cast<std::int32_t>(value);
    const auto i16 = static_cast<std::int16_t>(value);
    const auto i8 = static_cast<std::int8_t>(value);
    expect(value, [&](cquad128* r) { a_jtocq(r, value); });
    expect(i32, [&](cquad128* r) { a_itocq(r, i32); });
    expect(i16, [&](cquad128* r) { a_stocq(r, i16); });
    expect(i8, [&](cquad128* r) { a_chtocq(r, i8); });
  }
  // NaNs among them: signaling ones stay as they are, in memory and in registers.
  const std::uint64_t doubles[] = {0,
                                   sign_bit,
                                   0x3FF8000000000000,
                                   1,
                                   0x7FF0000000000001,
                                   0xFFF8000000000123,
                                   0x7FF0000000000000};
  const std::uint32_t floats[] = {0, 0x80000000, 0x3FC00000, 1, 0x7F800001, 0xFFC00123, 0x7F800000};
  for (std::size_t i = 0; i < 7; ++i) {
    const std::uint64_t pair[] = {doubles[i], doubles[(i + 1) % 7]};
    unsigned char memory[24];
    std::memcpy(memory + 3, pair, sizeof pair);
    EXPECT_EQ(
        converted([&](cquad128* r) { a_cdtocq(r, reinterpret_cast<const double*>(memory + 3)); }),
        (Complex{oracle::from_double(pair[0]), oracle::from_double(pair[1])}));
    EXPECT_EQ(converted([&](cquad128* r) { a_dtocq(r, std::bit_cast<double>(pair[0])); }),
              (Complex{oracle::from_double(pair[0]), zero}));
    const std::uint32_t float_pair[] = {floats[i], floats[(i + 1) % 7]};
    std::memcpy(memory + 1, float_pair, sizeof float_pair);
    EXPECT_EQ(
        converted([&](cquad128* r) { a_ctocq(r, reinterpret_cast<const float*>(memory + 1)); }),
        (Complex{oracle::from_float(float_pair[0]), oracle::from_float(float_pair[1])}));
    EXPECT_EQ(converted([&](cquad128* r) { a_ftocq(r, std::bit_cast<float>(float_pair[0])); }),
              (Complex{oracle::from_float(float_pair[0]), zero}));
  }
  for (const Bits& a : boundary_values()) {
    const quad128 x = quad(a);
    EXPECT_EQ(converted([&](cquad128* r) { a_qtocq(r, &x); }), (Complex{a, zero}));
  }
}

TEST(QuadComplex, FromComplex) {
  Random random(73);
  std::vector<Bits> values = boundary_values();
  for (int i = 0; i < 4000; ++i) {
    values.push_back(random.with_exponent(0x3FFF - 140 + random.below(280)));
  }
  for (std::size_t i = 0; i < values.size(); ++i) {
    const Complex value = {values[i], values[(i * 31 + 7) % values.size()]};
    const cquad128 x = cquad(value);
    const Mode mode = all_modes[i % 4];
    SCOPED_TRACE(testing::Message() << value << ' ' << mode);

    std::uint64_t result = 0;
    const auto expect_integer = [&](const Outcome& expected, auto convert) {
      const unsigned flags =
          flags_of(mode, 0, [&] { result = static_cast<std::uint64_t>(convert(&x)); });
      EXPECT_EQ((Outcome{{0, result}, flags}), expected);
    };
    const auto as_unsigned = [](std::int32_t (*routine)(const cquad128*)) {
      return [=](const cquad128* a) { return static_cast<std::uint32_t>(routine(a)); };
    };
    const auto toward_zero = oracle::IntegerRounding::TowardZero;
    for (const auto routine : {a_cqtoi, a_cqtoch, a_cqtos}) {
      expect_integer(oracle::to_signed(value.re, 32, toward_zero), as_unsigned(routine));
    }
    expect_integer(oracle::to_signed(value.re, 64, toward_zero), a_cqtoj);
    expect_integer(oracle::to_double(value.re, mode),
                   [](const cquad128* a) { return std::bit_cast<std::uint64_t>(a_cqtod(a)); });
    expect_integer(oracle::to_float(value.re, mode),
                   [](const cquad128* a) { return std::bit_cast<std::uint32_t>(a_cqtof(a)); });

    quad128 part;
    EXPECT_EQ(flags_of(mode, 0, [&] { a_cqtoq(&part, &x); }), 0u);
    EXPECT_EQ(bits_of(part), value.re);

    const Outcome doubles[] = {oracle::to_double(value.re, mode),
                               oracle::to_double(value.im, mode)};
    const Outcome floats[] = {oracle::to_float(value.re, mode), oracle::to_float(value.im, mode)};
    unsigned char memory[32];
    std::uint64_t pair[2];
    EXPECT_EQ(flags_of(mode, 0, [&] { a_cqtocd(reinterpret_cast<double*>(memory + 3), &x); }),
              doubles[0].flags | doubles[1].flags);
    std::memcpy(pair, memory + 3, sizeof pair);
    EXPECT_TRUE(pair[0] == doubles[0].bits.low && pair[1] == doubles[1].bits.low);
    std::uint32_t float_pair[2];
    EXPECT_EQ(flags_of(mode, 0, [&] { a_cqtoc(reinterpret_cast<float*>(memory + 1), &x); }),
              floats[0].flags | floats[1].flags);
    std::memcpy(float_pair, memory + 1, sizeof float_pair);
    EXPECT_TRUE(float_pair[0] == floats[0].bits.low && float_pair[1] == floats[1].bits.low);
  }
}

// The second names of routines with a rounding argument pass it on.
TEST(QuadComplex, SecondNamesOfIntegerConversions) {
  const quad128 value = quad({0xC000400000000000, 0});  // -2.5
  for (const auto routine : {__qtoi, a_qtoi, a_qtoc, a_qtos}) {
    EXPECT_EQ(routine(&value, KSOMD_ROUND_TOWARD_ZERO), -2);
    EXPECT_EQ(routine(&value, KSOMD_ROUND_NEAREST_EVEN), -2);
    EXPECT_EQ(routine(&value, KSOMD_ROUND_DOWN), -3);
    EXPECT_EQ(routine(&value, KSOMD_ROUND_UP), -2);
  }
  EXPECT_EQ(a_qtoj(&value, KSOMD_ROUND_DOWN), -3);
}

}  // namespace
