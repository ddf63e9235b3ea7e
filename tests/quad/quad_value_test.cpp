// The C++ value type: it does what the routines do, at compile time too; its text at the edges of
// the grammar.
#include <gtest/gtest.h>

#include <compare>
#include <iomanip>
#include <limits>
#include <set>
#include <sstream>
#include <tuple>
#include <type_traits>

#include "ksomd/quad.hpp"
#include "quad/quad_operands.h"

using namespace ksomd::test;
using namespace ksomd::literals;
using ksomd::Quad;
using Limits = std::numeric_limits<Quad>;

namespace {

template <class From, class To>
constexpr bool silently = std::is_convertible_v<From, To>;

// What loses nothing is implicit, what may is not.
static_assert(silently<int, Quad> && silently<std::uint64_t, Quad> && silently<float, Quad> &&
              silently<double, Quad> && silently<long double, Quad> && silently<quad128, Quad>);
static_assert(!silently<Quad, int> && !silently<Quad, double> && !silently<Quad, bool> &&
              !std::is_constructible_v<Quad, bool> && !std::is_constructible_v<Quad, const char*>);
static_assert(sizeof(Quad) == 16 && alignof(Quad) == 1 && std::is_trivially_copyable_v<Quad> &&
              std::is_nothrow_invocable_v<std::plus<>, Quad, Quad>);

constexpr bool same(const Quad& a, const Quad& b) {
  return a.bits().high == b.bits().high && a.bits().low == b.bits().low;
}
constexpr Quad bits(std::uint64_t high, std::uint64_t low) {
  return Quad::from_bits(high, low);
}

// The compiler rounds literals as the program would, and writes and reads text.
static_assert(same(0.1_q, bits(0x3FFB999999999999, 0x999999999999999A)));
static_assert(same(1'234.5e-1'0_q, 1234.5e-10_q) && same(1'000_q, 1000) && same(0_q, 0) &&
              same(0.5_q, 5e-1_q) && isinf(1e4933_q) && !signbit(2_q) && signbit(-2_q));
constexpr bool compiler_writes(const Quad& a, std::string_view expected) {
  char text[ksomd::quad_text_size] = {};
  const char* end = to_chars(text, text + sizeof text, a).ptr;
  return std::string_view(text, static_cast<std::size_t>(end - text)) == expected &&
         same(ksomd::from_string(expected).value_or(42), a);
}
static_assert(compiler_writes(-1.5e300_q, "-1.5e+300") && compiler_writes(0.001_q, "0.001"));

std::pair<Quad, Quad> any_pair(Random& random) {
  const quad::Value a = quad::any_value(random), b = quad::partner(random, a);
  return {bits(a.high, a.low), bits(b.high, b.low)};
}

TEST(QuadValue, OperatorsAreTheRoutines) {
  Random random(seed_of(1));
  for (int i = 0; i < 20'000; ++i) {
    const auto [a, b] = any_pair(random);
    const quad128 &x = a.bits(), &y = b.bits();
    Quad assigned[] = {a, a, a, a};
    const Quad by_operator[] = {a + b, a - b, a * b, a / b};
    assigned[0] += b, assigned[1] -= b, assigned[2] *= b, assigned[3] /= b;
    Quad right[4];
    __addq(&right[0].bits(), &x, &y), __subq(&right[1].bits(), &x, &y);
    __mulq(&right[2].bits(), &x, &y), __divq(&right[3].bits(), &x, &y);
    for (int k = 0; k < 4; ++k) {
      ASSERT_TRUE(same(by_operator[k], right[k]) && same(assigned[k], right[k])) << k << a << b;
    }
    const bool unordered = isnan(a) || isnan(b);
    std::partial_ordering order = std::partial_ordering::equivalent;
    EXPECT_EQ(raised_by(0, [&, &a = a, &b = b] { order = a <=> b; }),
              unordered ? mxcsr::invalid : 0u);
    bool equal = false;
    EXPECT_EQ(raised_by(0, [&, &a = a, &b = b] { equal = a == b; }), 0u);
    ASSERT_EQ(order == std::partial_ordering::unordered, unordered);
    ASSERT_EQ((order > 0) - (order < 0), __compareq(&x, &y));
    ASSERT_TRUE(equal == (order == 0) && (a != b) == (order != 0) && (a < b) == (order < 0) &&
                (a <= b) == (order <= 0) && (a > b) == (order > 0) && (a >= b) == (order >= 0))
        << a << ' ' << b;
    ASSERT_TRUE(!equal || std::hash<Quad>()(a) == std::hash<Quad>()(b)) << a;
  }
}

TEST(QuadValue, ConvertsLikeTheRoutines) {
  Random random(seed_of(2));
  for (int i = 0; i < 20'000; ++i) {
    const quad::Value from = quad::narrowed(random, random.one_of({'d', 'f', 'l', 'j', 'i'}));
    const Quad a = bits(from.high, from.low);
    const quad128& x = a.bits();
    long double wide = 0;
    __qtol(reinterpret_cast<extended80*>(&wide), &x);
    const auto by_routine = std::tuple(__qtof(&x), __qtod(&x), wide, __qtoi(&x, 0), __qtoj(&x, 0),
                                       __qtou(&x), __qtok(&x));
    ASSERT_EQ(std::tuple(static_cast<float>(a), static_cast<double>(a), static_cast<long double>(a),
                         static_cast<std::int32_t>(a), static_cast<std::int64_t>(a),
                         static_cast<std::uint32_t>(a), static_cast<std::uint64_t>(a)),
              by_routine)
        << a;
    ASSERT_EQ(static_cast<signed char>(a), static_cast<signed char>(__qtoi(&x, 0))) << a;
    ASSERT_EQ(static_cast<unsigned short>(a), static_cast<unsigned short>(__qtou(&x))) << a;
    const Quad back[] = {__qtof(&x), __qtod(&x), wide};
    ASSERT_EQ(std::tuple(__qtof(&back[0].bits()), __qtod(&back[1].bits()),
                         static_cast<long double>(back[2])),
              std::tuple(__qtof(&x), __qtod(&x), wide))
        << a;
  }
}

// The value while compiling, the value while running, and back.
template <class T, T... x>
void integers_both_ways() {
  constexpr Quad compiled[] = {x...};
  const T values[] = {x...};
  for (std::size_t i = 0; i < sizeof...(x); ++i) {
    volatile T hidden = values[i];
    const Quad computed = T{hidden};
    EXPECT_TRUE(same(compiled[i], computed)) << +values[i];
    EXPECT_EQ(static_cast<T>(computed), values[i]);
  }
}
template <class... T>
void integer_types() {
  (integers_both_ways<T, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), T{0}, T{1},
                      T{100}, static_cast<T>(-1), static_cast<T>(std::numeric_limits<T>::min() + 1),
                      static_cast<T>(std::numeric_limits<T>::max() / 3)>(),
   ...);
}
TEST(QuadValue, IntegersConvertWhileCompiling) {
  integer_types<signed char, unsigned char, char16_t, short, unsigned short, int, unsigned, long,
                unsigned long, long long, unsigned long long>();
}

TEST(QuadValue, ClassifiesAndMovesSigns) {
  Random random(seed_of(3));
  for (int i = 0; i < 20'000; ++i) {
    const auto [a, b] = any_pair(random);
    const std::uint64_t high = a.bits().high, low = a.bits().low, magnitude = high << 1 >> 1;
    const bool top = magnitude >= Limits::infinity().bits().high;
    const bool infinite = magnitude == Limits::infinity().bits().high && low == 0;
    const std::uint64_t other_sign = b.bits().high >> 63 << 63;
    ASSERT_TRUE(signbit(a) == (high >> 63 != 0) && isfinite(a) != top && isinf(a) == infinite &&
                isnan(a) == (top && !infinite) && bool{a} == ((magnitude | low) != 0) &&
                same(abs(a), bits(magnitude, low)) && same(+a, a) &&
                same(-a, bits(high ^ std::uint64_t{1} << 63, low)) &&
                same(copysign(a, b), bits(magnitude | other_sign, low)))
        << std::hex << high << ' ' << low;
  }
}

TEST(QuadValue, LimitsAreLimits) {
  EXPECT_TRUE(same(1 + Limits::epsilon(), bits(0x3FFF000000000000, 1)));
  EXPECT_TRUE(same(Limits::round_error(), 0.5_q));
  const Quad half_of_its_last_place = bits(0x7F8D000000000000, 0);
  EXPECT_TRUE(isinf(Limits::max() + half_of_its_last_place) && isfinite(Limits::max()));
  EXPECT_TRUE(same(Limits::lowest(), -Limits::max()));
  EXPECT_TRUE(same(Limits::denorm_min() / 2, 0) && Limits::denorm_min() > 0);
  EXPECT_TRUE(same(Limits::min() * Limits::epsilon(), Limits::denorm_min()));
  EXPECT_TRUE(same(Limits::infinity(), 1e4933_q) &&
              same(Limits::quiet_NaN(), ksomd::from_string("nan").value_or(42)));
  EXPECT_EQ(raised_by(0, [] { static_cast<void>(Limits::signaling_NaN() + 1); }), mxcsr::invalid);
  EXPECT_EQ(raised_by(0, [] { static_cast<void>(Limits::quiet_NaN() + 1); }), 0u);
  EXPECT_TRUE(1e-4931_q >= Limits::min() && 1e-4932_q < Limits::min() && 1e4932_q <= Limits::max());
  using Wide = std::numeric_limits<long double>;  // of the same exponents
  EXPECT_TRUE(Limits::max_exponent == Wide::max_exponent &&
              Limits::min_exponent == Wide::min_exponent &&
              Limits::max_exponent10 == Wide::max_exponent10 &&
              Limits::min_exponent10 == Wide::min_exponent10);
  constexpr double log10_2 = 0.30102999566398120;
  EXPECT_EQ(Limits::digits10, static_cast<int>((Limits::digits - 1) * log10_2));
  EXPECT_EQ(Limits::max_digits10, static_cast<int>(Limits::digits * log10_2 + 2));
}

TEST(QuadValue, HashesTellNeighboursApart) {
  std::set<std::size_t> hashes;
  for (int i = 1; i <= 4096; ++i) {
    hashes.insert(std::hash<Quad>()(i));
    hashes.insert(std::hash<Quad>()(bits(0x3FFF000000000000, static_cast<std::uint64_t>(i))));
  }
  EXPECT_EQ(hashes.size(), 2u * 4096);
}

TEST(QuadText, SpecialValuesAndStreams) {
  const std::pair<const char*, Quad> cases[] = {
      {"inf", Limits::infinity()},
      {"-nan", -Limits::quiet_NaN()},
      {"nan(0x4000000000000000000000000000)", Limits::signaling_NaN()},
      {"-nan(0x80123456789abcdef0f1e2d3c4b5)", bits(0xFFFF80123456789A, 0xBCDEF0F1E2D3C4B5)},
      {"nan(0x8000000000000000000000000001)", bits(0x7FFF800000000000, 1)},
      {"0.00001", Quad(1) / 100000},
      {"9.999e-06", Quad(9999) / 1000000000},
      {"999999999999999999999999999999999900", 9999999999999999999999999999999999e2_q},
      {"1e+36", 1e36_q}};
  for (const auto& [text, value] : cases) {
    EXPECT_EQ(to_string(value), text);
    EXPECT_TRUE(same(ksomd::from_string(text).value_or(42), value)) << text;
  }
  for (const char* text : {"1e+99", "1e+100", "1e-100", "1e+1000", "1e-1000", "9e+999", "1e-99"}) {
    EXPECT_EQ(to_string(ksomd::from_string(text).value_or(42)), text);
  }
  std::ostringstream stream;
  stream << std::setfill('.') << std::setw(6) << 1.5_q << 2_q << std::internal << std::setw(6)
         << -1.5_q << std::setw(4) << 7_q << std::left << std::setw(4) << -7_q << std::internal
         << std::setw(1) << -8_q << std::setprecision(1) << std::fixed << 0.25_q;
  EXPECT_EQ(stream.str(), "...1.52-..1.5...7-7..-80.25");
}

TEST(QuadText, WritesNothingBeyondItsRange) {
  char text[ksomd::quad_text_size + 1];
  for (const Quad& a : {-Limits::max(), 1_q / 3, -bits(0x7FFF800000000000, 1), 1e30_q}) {
    const std::string whole = to_string(a);
    for (std::size_t room = 0; room <= whole.size(); ++room) {
      std::fill(std::begin(text), std::end(text), '#');
      const std::to_chars_result result = to_chars(text, text + room, a);
      EXPECT_TRUE(result.ptr == text + room && text[room] == '#') << whole;
      EXPECT_EQ(result.ec, room == whole.size() ? std::errc{} : std::errc::value_too_large);
    }
  }
  for (const int digits : {-1, 0, 37}) {
    const std::to_chars_result result = ksomd::to_chars(text, text + sizeof text, 1, digits);
    EXPECT_TRUE(result.ec == std::errc::invalid_argument && result.ptr == text);
  }
}

// The text up to the bar is read, and is what stands behind the space; with a !, out of range.
// Z are 15000 zeros, S 27 sevens.
TEST(QuadText, ReadsAsFarAsANumberGoes) {
  std::istringstream rows(
      "12|abc 12\n.5| 0.5\n5.| 5\n1.2|.3 1.2\n1|e 1\n1|e+ 1\n1|e- 1\n1|e-+2 1\n1E+2| 100\n"
      "1|'0 1\n1e-2|x 0.01\n0|x1 0\n010| 10\n-0| -0\n0.0e99999999999| 0\nInfinity| inf\n"
      "inf|init inf\n-INF| -inf\n|na 42\nnan|(0x0) nan\nnan|(0x1 nan\nnan|() nan\nNaN| nan\n"
      "nan(0xA)| nan(0x000000000000000000000000000a)\nnan(0X1S)| nan(0x1S)\nnan|(0x10S) nan\n"
      "| 42\n|- 42\n|+1 42\n| 1 42\n|. 42\n|e5 42\n|--1 42\n1e18446744073709551617| inf!\n"
      "-1e-18446744073709551617| -0!\n1e4294967296| inf!\n1Ze-15000| 1\n.Z1e15001| 1\nZ1| 1\n"
      "1.Z1| 1\n");
  for (std::string row; std::getline(rows, row);) {
    SCOPED_TRACE(row);
    for (const auto& [letter, text] :
         {std::pair('Z', std::string(15000, '0')), {'S', std::string(27, '7')}}) {
      for (std::size_t at = row.find(letter); at != std::string::npos; at = row.find(letter)) {
        row.replace(at, 1, text);
      }
    }
    const std::size_t bar = row.find('|'), space = row.rfind(' ');
    const std::string text = row.substr(0, bar) + row.substr(bar + 1, space - bar - 1);
    Quad a = 42;
    const std::from_chars_result result = from_chars(text.data(), text.data() + text.size(), a);
    const bool out_of_range = result.ec == std::errc::result_out_of_range;
    EXPECT_EQ(to_string(a) + (out_of_range ? "!" : ""), row.substr(space + 1));
    EXPECT_EQ(result.ptr, text.data() + bar);
    EXPECT_EQ(result.ec == std::errc::invalid_argument, bar == 0);
    EXPECT_EQ(ksomd::from_string(text).has_value(), bar > 0 && bar == text.size());
  }
}

}  // namespace
