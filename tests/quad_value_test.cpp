// The C++ value type: operators against the routines they stand for, text against itself. (The host
// build adds a peer's text conversions.)
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <compare>
#include <iomanip>
#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "ksomd/quad.hpp"
#include "support/effort.h"
#include "support/quad_cases.h"

namespace ksomd::test {
namespace {

using Limits = std::numeric_limits<Quad>;
using namespace ksomd::literals;

Quad value(Bits bits) {
  return Quad::from_bits(bits.high, bits.low);
}
Bits bits_of(const Quad& a) {
  return {a.bits().high, a.bits().low};
}

template <class To, class From>
constexpr bool converts_silently = std::is_convertible_v<From, To>;

// What loses nothing is implicit, what may is not.
static_assert(converts_silently<Quad, int> && converts_silently<Quad, std::uint64_t> &&
              converts_silently<Quad, float> && converts_silently<Quad, double> &&
              converts_silently<Quad, long double> && converts_silently<Quad, quad128>);
static_assert(!converts_silently<int, Quad> && !converts_silently<double, Quad> &&
              !converts_silently<bool, Quad>);
static_assert(!std::is_constructible_v<Quad, bool> && !std::is_constructible_v<Quad, const char*>);
static_assert(sizeof(Quad) == 16 && alignof(Quad) == 1 && std::is_trivially_copyable_v<Quad> &&
              std::is_standard_layout_v<Quad>);
static_assert(std::is_nothrow_invocable_v<std::plus<>, Quad, Quad> &&
              std::is_nothrow_constructible_v<Quad, int> && noexcept(static_cast<int>(Quad())));

// The compiler rounds literals as the program would.
static_assert((0.1_q).bits().high == 0x3FFB999999999999 &&
              (0.1_q).bits().low == 0x999999999999999A);
static_assert(isinf(1e4933_q) && !signbit(2_q) && signbit(-2_q));
static_assert((1'234.5e-1'0_q).bits().low == (1234.5e-10_q).bits().low);

TEST(QuadValue, OperatorsAreTheRoutines) {
  const std::vector<Bits> values = boundary_values();
  const BinaryRoutine routines[] = {__addq, __subq, __mulq, __divq};
  for (const Bits& x : values) {
    for (const Bits& y : values) {
      const Quad a = value(x);
      const Quad b = value(y);
      const Quad by_operator[] = {a + b, a - b, a * b, a / b};
      Quad assigned[] = {a, a, a, a};
      assigned[0] += b;
      assigned[1] -= b;
      assigned[2] *= b;
      assigned[3] /= b;
      for (int i = 0; i < 4; ++i) {
        Quad expected;
        routines[i](&expected.bits(), &a.bits(), &b.bits());
        ASSERT_EQ(bits_of(by_operator[i]), bits_of(expected)) << i << x << y;
        ASSERT_EQ(bits_of(assigned[i]), bits_of(expected)) << i << x << y;
      }
    }
  }
}

TEST(QuadValue, ComparesLikeNumbers) {
  const std::vector<Bits> values = boundary_values();
  for (const Bits& x : values) {
    for (const Bits& y : values) {
      const Quad a = value(x);
      const Quad b = value(y);
      std::partial_ordering expected = std::partial_ordering::unordered;
      if (!oracle::is_nan(x) && !oracle::is_nan(y)) {
        expected = oracle::compare(x, y);
      }
      ASSERT_EQ(a <=> b, expected) << x << y;
      ASSERT_EQ(a == b, expected == 0) << x << y;
      ASSERT_EQ(a != b, expected != 0) << x << y;
      ASSERT_EQ(a < b, expected < 0) << x << y;
      ASSERT_EQ(a <= b, expected <= 0) << x << y;
      ASSERT_EQ(a > b, expected > 0) << x << y;
      ASSERT_EQ(a >= b, expected >= 0) << x << y;
      if (expected == 0) {
        ASSERT_EQ(std::hash<Quad>()(a), std::hash<Quad>()(b)) << x << y;
      }
    }
  }
}

TEST(QuadValue, HashesTellNeighboursApart) {
  std::vector<std::size_t> hashes;
  for (int i = 0; i < 4096; ++i) {
    hashes.push_back(std::hash<Quad>()(Quad(i)));
    hashes.push_back(
        std::hash<Quad>()(value({0x3FFF000000000000, static_cast<std::uint64_t>(i) + 1})));
  }
  std::sort(hashes.begin(), hashes.end());
  EXPECT_EQ(std::unique(hashes.begin(), hashes.end()), hashes.end());
}

TEST(QuadValue, ClassifiesAndMovesSigns) {
  for (const Bits& x : boundary_values()) {
    const Quad a = value(x);
    const bool negative = x.high >> 63 != 0;
    const Bits positive = {x.high & ~(std::uint64_t{1} << 63), x.low};
    const bool infinite = positive == Bits{0x7FFF000000000000, 0};
    EXPECT_EQ(signbit(a), negative) << x;
    EXPECT_EQ(isnan(a), oracle::is_nan(x)) << x;
    EXPECT_EQ(isinf(a), infinite) << x;
    EXPECT_EQ(isfinite(a), !oracle::is_nan(x) && !infinite) << x;
    EXPECT_EQ(bits_of(abs(a)), positive) << x;
    EXPECT_EQ(bits_of(copysign(a, Quad(1))), positive) << x;
    EXPECT_EQ(bits_of(copysign(a, Quad(-1))), bits_of(-abs(a))) << x;
    EXPECT_EQ(bits_of(- -a), x);
    EXPECT_EQ(bits_of(+a), x);
    EXPECT_EQ(static_cast<bool>(a), positive != (Bits{0, 0})) << x;
  }
}

// The value while compiling, the value while running, and back.
template <class T, T x>
void integer_both_ways() {
  constexpr Quad compiled = x;
  volatile T hidden = x;
  const Quad computed = T{hidden};
  EXPECT_EQ(bits_of(compiled), bits_of(computed)) << +x;
  EXPECT_EQ(static_cast<T>(computed), x);
}
template <class T>
void integer_type() {
  using Range = std::numeric_limits<T>;
  integer_both_ways<T, Range::min()>();
  integer_both_ways<T, Range::max()>();
  integer_both_ways<T, static_cast<T>(Range::max() - 1)>();
  integer_both_ways<T, static_cast<T>(Range::min() + 1)>();
  integer_both_ways<T, T{0}>();
  integer_both_ways<T, T{1}>();
  integer_both_ways<T, T{100}>();
  integer_both_ways<T, static_cast<T>(-1)>();
}

TEST(QuadValue, IntegersGoThere) {
  integer_type<signed char>();
  integer_type<unsigned char>();
  integer_type<char16_t>();
  integer_type<short>();
  integer_type<unsigned short>();
  integer_type<int>();
  integer_type<unsigned>();
  integer_type<long>();
  integer_type<unsigned long>();
  integer_type<long long>();
  integer_type<unsigned long long>();
  EXPECT_EQ(static_cast<int>(2.75_q), 2);
  EXPECT_EQ(static_cast<int>(-2.75_q), -2);
  EXPECT_EQ(static_cast<std::int64_t>(-2.75_q), -2);
  EXPECT_EQ(static_cast<std::int32_t>(1e10_q), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(static_cast<std::uint64_t>(1e30_q), std::uint64_t{1} << 63);
}

template <class T>
void floating_type() {
  using Range = std::numeric_limits<T>;
  for (const T x : {T{0}, T{-0.0}, T{1}, T{-1.5}, Range::min(), Range::max(), Range::lowest(),
                    Range::denorm_min(), Range::infinity(), -Range::infinity(), Range::epsilon()}) {
    const Quad wide = x;
    const T back = static_cast<T>(wide);
    EXPECT_EQ(back, x);
    EXPECT_EQ(std::signbit(back), std::signbit(x)) << x;
    EXPECT_EQ(signbit(wide), std::signbit(x)) << x;
  }
  EXPECT_TRUE(std::isnan(static_cast<T>(Quad(Range::quiet_NaN()))));
  EXPECT_EQ(static_cast<T>(Quad(Range::max()) * 4), Range::infinity());
}

TEST(QuadValue, FloatingPointGoesThere) {
  floating_type<float>();
  floating_type<double>();
  floating_type<long double>();
  EXPECT_EQ(Quad(0.5L) + 0.25, 0.75_q);
  EXPECT_EQ(1 + Quad(2) * 3, 7);
  EXPECT_LT(1, Quad(2));
}

TEST(QuadValue, LimitsAreLimits) {
  EXPECT_EQ(Quad(1) + Limits::epsilon(), value({0x3FFF000000000000, 1}));
  EXPECT_EQ(Quad(1) + Limits::epsilon() / 2, 1);
  EXPECT_TRUE(isinf(Limits::max() * 2));
  EXPECT_EQ(Limits::lowest(), -Limits::max());
  EXPECT_EQ(Limits::denorm_min() / 2, 0);
  EXPECT_EQ(Limits::min() / value({0x406F000000000000, 0}), Limits::denorm_min());  // 2^112
  EXPECT_TRUE(oracle::is_signaling(bits_of(Limits::signaling_NaN())));
  EXPECT_FALSE(oracle::is_signaling(bits_of(Limits::quiet_NaN())));
  EXPECT_TRUE(isnan(Limits::quiet_NaN()));
  // digits10: the decimal texts of that length survive; exponents of ten: the last normal ones.
  EXPECT_EQ(Limits::digits10, static_cast<int>(112 * std::log10(2.0)));
  EXPECT_GE(1e-4931_q, Limits::min());
  EXPECT_LT(1e-4932_q, Limits::min());
  EXPECT_LE(1e4932_q, Limits::max());
}

// ---- text ---------------------------------------------------------------------------------------

// What is no number at all gives a value that no test expects.
Quad parsed(std::string_view text) {
  return from_string(text).value_or(value({0x7FFF0000DEADBEEF, 0}));
}

std::string rounded(const Quad& a, int digits) {
  char text[quad_text_size];
  const std::to_chars_result result = to_chars(text, text + sizeof text, a, digits);
  EXPECT_EQ(result.ec, std::errc{});
  return {text, result.ptr};
}

struct Written {
  const char* text;
  Quad value;
};

TEST(QuadText, ShortestForms) {
  const Written cases[] = {
      {"0", 0},
      {"-0", -Quad(0)},
      {"1", 1},
      {"-1.5", -1.5},
      {"10", 10},
      {"1200", 1200},
      {"0.1", Quad(1) / 10},
      {"0.001", Quad(1) / 1000},
      {"0.00001", Quad(1) / 100000},
      {"1e-06", Quad(1) / 1000000},
      {"0.3333333333333333333333333333333333", Quad(1) / 3},
      {"0.1000000000000000055511151231257827", 0.1},
      {"123456789.25", 123456789.25},
      {"100000000000000000000000000000000000", 1e18_q * 1e17_q},
      {"1e+36", 1e18_q * 1e18_q},
      {"6e-4966", Limits::denorm_min()},
      {"1e-4965", value({0, 2})},
      {"3.3621031431120935062626778173217526e-4932", Limits::min()},
      {"1.189731495357231765085759326628007e+4932", Limits::max()},
      {"inf", Limits::infinity()},
      {"-inf", -Limits::infinity()},
      {"nan", Limits::quiet_NaN()},
      {"-nan", -Limits::quiet_NaN()},
      {"nan(0x4000000000000000000000000000)", Limits::signaling_NaN()},
      {"nan(0x8000000000000000000000000001)", value({0x7FFF800000000000, 1})},
  };
  for (const Written& written : cases) {
    EXPECT_EQ(to_string(written.value), written.text);
    EXPECT_EQ(bits_of(parsed(written.text)), bits_of(written.value)) << written.text;
  }
  EXPECT_EQ(rounded(2.5_q, 1), "2e+00");
  EXPECT_EQ(rounded(3.5_q, 1), "4e+00");
  EXPECT_EQ(rounded(99.95_q, 3), "1.00e+02");
  EXPECT_EQ(rounded(0, 3), "0.00e+00");
  std::ostringstream stream;
  stream << std::setfill('.') << std::setw(6) << 1.5_q << 2_q << std::internal << std::setw(6)
         << -1.5_q << std::setw(4) << 7_q << std::left << std::setw(4) << -7_q << std::setw(1)
         << -8_q;
  EXPECT_EQ(stream.str(), "...1.52-..1.5...7-7..-8");
}

TEST(QuadText, WritesNothingBeyondItsRange) {
  char text[quad_text_size + 1];
  for (const Quad& a : {-Limits::max(), 1_q / 3, -value({0x7FFF800000000000, 1}), 1e30_q}) {
    const std::string whole = to_string(a);
    for (std::size_t room = 0; room <= whole.size(); ++room) {
      std::fill(std::begin(text), std::end(text), '#');
      const std::to_chars_result result = to_chars(text, text + room, a);
      EXPECT_EQ(result.ptr, text + room);
      EXPECT_EQ(result.ec, room == whole.size() ? std::errc{} : std::errc::value_too_large);
      EXPECT_EQ(text[room], '#');
    }
  }
  for (const int digits : {-1, 0, 37}) {
    EXPECT_EQ(to_chars(text, text + sizeof text, 1, digits).ec, std::errc::invalid_argument);
  }
}

TEST(QuadText, ReadsWhatItShould) {
  struct Read {
    const char* text;
    std::ptrdiff_t length;  // read
    Quad value;
    std::errc error;
  };
  constexpr std::errc fine{};
  const Quad untouched = 42;
  const Read cases[] = {
      {"12abc", 2, 12, fine},
      {".5", 2, 0.5, fine},
      {"5.", 2, 5, fine},
      {"1.2.3", 3, 1.2_q, fine},
      {"1e", 1, 1, fine},
      {"1e+", 1, 1, fine},
      {"1E+2", 4, 100, fine},
      {"1e-2x", 4, 0.01_q, fine},
      {"000000000000000000000000000000000000000000001", 45, 1, fine},
      {"0.00000000000000000000000000000000000000000e99999999999", 55, 0, fine},
      {"Infinity", 8, Limits::infinity(), fine},
      {"infinit", 3, Limits::infinity(), fine},
      {"-INF", 4, -Limits::infinity(), fine},
      {"nan(0x0)", 3, Limits::quiet_NaN(), fine},
      {"nan(0x10000000000000000000000000000)", 3, Limits::quiet_NaN(), fine},
      {"NaN(0X8000000000000000000000000001)", 35, value({0x7FFF800000000000, 1}), fine},
      {"", 0, untouched, std::errc::invalid_argument},
      {"-", 0, untouched, std::errc::invalid_argument},
      {"+1", 0, untouched, std::errc::invalid_argument},
      {" 1", 0, untouched, std::errc::invalid_argument},
      {".", 0, untouched, std::errc::invalid_argument},
      {"e5", 0, untouched, std::errc::invalid_argument},
      {"-1e5000", 7, -Limits::infinity(), std::errc::result_out_of_range},
      {"1e99999999999999999999", 22, Limits::infinity(), std::errc::result_out_of_range},
      {"-1e-5000", 8, -Quad(0), std::errc::result_out_of_range},
      // around half of the smallest number, 3.23758...e-4966
      {"3.2375875597190125e-4966", 24, 0, std::errc::result_out_of_range},
      {"3.2375875597190126e-4966", 24, Limits::denorm_min(), fine},
      // around the middle above the largest number
      {"1.189731495357231765085759326628007073480e4932", 46, Limits::infinity(),
       std::errc::result_out_of_range},
      {"1.189731495357231765085759326628007073479e4932", 46, Limits::max(), fine},
  };
  for (const Read& read : cases) {
    Quad a = untouched;
    const std::string_view text = read.text;
    const std::from_chars_result result = from_chars(text.data(), text.data() + text.size(), a);
    EXPECT_EQ(result.ptr - text.data(), read.length) << text;
    EXPECT_EQ(result.ec, read.error) << text;
    EXPECT_EQ(bits_of(a), bits_of(read.value)) << text;
    EXPECT_EQ(from_string(text).has_value(),
              read.error != std::errc::invalid_argument &&
                  read.length == static_cast<std::ptrdiff_t>(text.size()))
        << text;
  }
}

// 1 + 2^-113, the middle between 1 and the next number, has 114 digits; one more decides.
TEST(QuadText, LongTextsAreRoundedOnce) {
  std::string middle = "1.";
  std::string power = "1";  // 5^113, behind zeros: 2^-113
  for (int i = 0; i < 113; ++i) {
    int carry = 0;
    for (auto digit = power.rbegin(); digit != power.rend(); ++digit) {
      carry += (*digit - '0') * 5;
      *digit = static_cast<char>('0' + carry % 10);
      carry /= 10;
    }
    if (carry != 0) {
      power.insert(power.begin(), static_cast<char>('0' + carry));
    }
  }
  middle += std::string(113 - power.size(), '0') + power;
  const Bits next = {one.high, 1};
  EXPECT_EQ(bits_of(parsed(middle)), one);
  EXPECT_EQ(bits_of(parsed(middle + std::string(20000, '0'))), one);
  EXPECT_EQ(bits_of(parsed(middle + std::string(20000, '0') + "1")), next);
  middle.back() = '4';
  EXPECT_EQ(bits_of(parsed(middle + std::string(20000, '9'))), one);
  // Zeros before the point, beyond the digits that are kept.
  EXPECT_EQ(bits_of(parsed("1" + std::string(15000, '0') + "e-15000")), one);
  EXPECT_EQ(bits_of(parsed("." + std::string(15000, '0') + "1e15001")), one);
}

void expect_round_trip(Bits x) {
  const Quad a = value(x);
  const std::string all = rounded(a, quad_round_trip_digits);
  const std::string shortest = to_string(a);
  ASSERT_EQ(bits_of(parsed(all)), x) << all;
  ASSERT_EQ(bits_of(parsed(shortest)), x) << shortest;
}

TEST(QuadText, BoundariesComeBack) {
  for (const Bits& x : boundary_values()) {
    expect_round_trip(x);
  }
  for (std::uint64_t field = 0; field < 0x7FFF; ++field) {  // every power of two, and below it
    for (const Bits& fraction : {Bits{0, 0}, Bits{0xFFFFFFFFFFFF, ~std::uint64_t{0}}}) {
      if (field % 16 == 1 || full_length()) {
        expect_round_trip({field << 48 | fraction.high, fraction.low});
      }
    }
  }
}

TEST(QuadText, RandomNumbersComeBack) {
  Random random(2026);
  const std::uint64_t count = full_length() ? 1000000 : 200000;
  for (std::uint64_t i = 0; i < count; ++i) {
    show_progress("round trips", i, count);
    // Exponents about 1, as most numbers have; every tenth anywhere.
    const Bits x =
        i % 10 == 0 ? random.any() : random.with_exponent(16383 - 128 + random.below(256));
    expect_round_trip(x);
    if (HasFatalFailure()) {
      return;
    }
  }
}

// The significant digits, without zeros at the end.
std::string digits_of(const std::string& text) {
  std::string digits;
  for (const char c : text.substr(0, text.find('e'))) {
    if (c >= '0' && c <= '9' && (!digits.empty() || c != '0')) {
      digits += c;
    }
  }
  return digits.substr(0, digits.find_last_not_of('0') + 1);
}

// No text of fewer digits reads back the same, and none of as many is nearer; ties are even.
TEST(QuadText, ShortestIsShortest) {
  Random random(7);
  for (int i = 0; i < 5000; ++i) {
    const int kept = 1 + static_cast<int>(random.below(36));
    // Quarters between 2^110 and 2^111 are the only ties: one decimal reads back either way.
    const Quad a = i % 10 == 0 ? value(random.with_exponent(16383 + 110))
                               : parsed(rounded(value(random.any()), kept));
    if (!isfinite(a)) {
      continue;
    }
    const std::string text = to_string(a);
    const std::string found = digits_of(text);
    const int digits = static_cast<int>(found.size());
    ASSERT_LE(digits, i % 10 == 0 ? 35 : kept) << text;
    if (digits > 1) {
      ASSERT_NE(bits_of(parsed(rounded(a, digits - 1))), bits_of(a)) << text;
    }
    if (digits > 0 && bits_of(parsed(rounded(a, digits))) == bits_of(a)) {
      ASSERT_EQ(found, digits_of(rounded(a, digits))) << text;
    }
  }
}

}  // namespace
}  // namespace ksomd::test
