// What only a caller of the archive can see: registers, and which variant a processor gets;
// and the C++ value type, whose expressions are the routines.
#include "ksomd/quad.hpp"

#include <gtest/gtest.h>

#include <iomanip>

#include "cpu/feature_set.h"
#include "quad/dispatch.h"
#include "quad/quad_cases.h"
#include "support/entry.h"
#include "support/preserved_registers.h"

namespace ksomd::test::quad {
namespace {

using namespace ksomd::literals;

// The complex operations with five arguments only call others. The dispatching ones ask for the
// processor's features first.
TEST(QuadCall, KeepsTheCalleesRegisters) {
  const std::uint64_t detected = feature_word();
  for (const Routine& routine : routines) {
    std::vector<quad128> v(8, {0x1234567800000000, 0x4000400000000000});
    const bool dispatches = routine.computes() && routine.names[0].find('.') == std::string::npos;
    if (routine.arguments != "qqqq" || routine.result != "Q") {
      __orvex_cpu_feature_indicator[0] = dispatches ? 0 : detected;
      auto* const address = entry<void(void*, void*, void*, void*)>(routine.names[0]);
      EXPECT_EQ(what_call_changes(address, &v[0], &v[2], &v[4], &v[6]), "") << routine.names[0];
      EXPECT_EQ(__orvex_cpu_feature_indicator[0], detected) << routine.names[0];
    }
  }
}

// A magnitude's sum or difference is the sum with a number of the first operand's sign, or of the
// other sign: by address, in place, with the same flags.
TEST(QuadMagnitudes, AreTheSumsOfNumbersWithTheirSigns) {
  using BinaryRoutine = void(quad128*, const quad128*, const quad128*);
  auto* const add = entry<BinaryRoutine>("__addq");
  Random random(seed_of(3));
  for (int i = 0; i < 20'000; ++i) {
    const Value a = any_number(random), b = partner(random, a);
    const std::uint64_t mode = random.below(rounding_modes);
    constexpr Value sign = Value{1} << 127;
    const auto sum = [&](BinaryRoutine* routine, Value second) {
      Value r = a;
      const unsigned flags = raised_by(mode, [&] {
        routine(reinterpret_cast<quad128*>(&r), reinterpret_cast<quad128*>(&r),
                reinterpret_cast<quad128*>(&second));
      });
      return std::pair{r, flags};
    };
    if ((b & ~sign) <= Value{0x7FFF} << 112) {
      const Value alike = (b & ~sign) | (a & sign);
      const auto added = sum(add, alike), subtracted = sum(add, alike ^ sign);
      EXPECT_TRUE(sum(quad_add_magnitudes_l, b) == added && sum(quad_add_magnitudes_a, b) == added)
          << paste({a, b}) << mode;
      EXPECT_TRUE(sum(quad_subtract_magnitudes_l, b) == subtracted &&
                  sum(quad_subtract_magnitudes_a, b) == subtracted)
          << paste({a, b}) << mode;
    }
  }
}

TEST(QuadDispatch, NeedsAllFeaturesOfTheFasterVariant) {
  constexpr std::uint64_t needed = 0xEE;  // X87, CMOV, MMX, SSE, SSE2, SSE3
  for (const DispatchingEntry& entry : ksomd::quad::dispatching_entries()) {
    for (std::uint64_t bit = 1; bit <= 0x100; bit <<= 1) {
      EXPECT_STREQ(entry.variant({~bit & 0xFF}), (needed & bit) != 0 ? ".A" : ".L") << bit;
    }
  }
}

// ---- the value type ----

// What loses nothing is implicit, what may is not.
using std::is_convertible_v;
static_assert(is_convertible_v<int, Quad> && is_convertible_v<std::uint64_t, Quad> &&
              is_convertible_v<float, Quad> && is_convertible_v<long double, Quad> &&
              !is_convertible_v<Quad, int> && !is_convertible_v<Quad, double> &&
              !std::is_constructible_v<Quad, bool> && !std::is_constructible_v<Quad, const char*>);
constexpr bool same(const Quad& a, const Quad& b) {
  return std::bit_cast<Value>(a) == std::bit_cast<Value>(b);
}
static_assert(same(INT64_MIN, -9223372036854775808_q) && same(UINT64_MAX, 18446744073709551615_q) &&
              same(-1, -1_q) && same(u'\xFFFF', 65535_q) && same('\0', 0_q) && same(100u, 1e2_q));
static_assert(sizeof(Quad) == 16 && alignof(Quad) == 1 && std::is_trivially_copyable_v<Quad> &&
              std::is_nothrow_invocable_v<std::plus<>, Quad, Quad>);

// The compiler rounds literals as the program would, and writes and reads text.
constexpr bool compiler_writes(const Quad& a, std::string_view expected) {
  char text[ksomd::quad_text_size] = {};
  const char* end = to_chars(text, text + sizeof text, a).ptr;
  return std::string_view(text, end) == expected &&
         same(ksomd::from_string(expected).value_or(42), a);
}
static_assert(compiler_writes(-1.5e300_q, "-1.5e+300") && compiler_writes(0.001_q, "0.001") &&
              compiler_writes(Quad::from_bits(0xFFFF80123456789A, 0xBCDEF0F1E2D3C4B5),
                              "-nan(0x80123456789abcdef0f1e2d3c4b5)"));

template <class... Number>
std::vector<Value> list(const Number&... numbers) {
  return {bits(numbers)...};
}

TEST(QuadValue, ExpressionsAreTheRoutines) {
  const std::hash<Quad> hash;
  Random random(seed_of(1));
  std::set<Value> numbers;
  std::set<std::size_t> hashes;
  for (int i = 0; i < 20'000; ++i) {
    const Value any = any_value(random);
    const Value near = narrowed(random, random.one_of({'d', 'f', 'l', 'j', 'i'}));
    const Value x = random.one_in(2) ? any : near, y = partner(random, x);
    const Quad a = std::bit_cast<Quad>(x), b = std::bit_cast<Quad>(y);
    const quad128 *const p = &a.bits(), *const q = &b.bits();
    const Value magnitude = x & ~sign_bit, sign = y & sign_bit;
    const bool unordered = magnitude > infinity || (y ^ sign) > infinity;
    const auto by = [](auto routine, auto... operands) {
      Quad r;
      routine(&r.bits(), operands...);
      return r;
    };
    const Quad sum = by(__addq, p, q), difference = by(__subq, p, q);
    const Quad product = by(__mulq, p, q), quotient = by(__divq, p, q);
    const auto whole = static_cast<std::int64_t>(pattern(random, 64));
    const auto unsigned_whole = static_cast<std::uint64_t>(whole);
    extended80 wide;
    __qtol(&wide, p);
    std::partial_ordering order = std::partial_ordering::equivalent;
    const unsigned by_equal = raised_by(0, [&] { numbers.insert(a == Quad() ? 0 : x); });
    const unsigned by_order = raised_by(0, [&] { order = a <=> b; });
    hashes.insert(hash(a));
    ASSERT_EQ(
        list(a + b, a - b, a * b, a / b, Quad(a) += b, Quad(a) -= b, Quad(a) *= b, Quad(a) /= b, -a,
             +a, abs(a), copysign(a, b), signbit(a), isnan(a), isinf(a), isfinite(a), bool{a},
             a == b, a != b, (a < b), (a <= b), (a > b), a >= b,
             is_neq(order) && !is_lt(order) && !is_gt(order), is_gt(order) - is_lt(order), by_equal,
             by_order, static_cast<float>(a), static_cast<double>(a), static_cast<long double>(a),
             static_cast<signed char>(a), static_cast<std::int32_t>(a),
             static_cast<std::int64_t>(a), static_cast<std::uint32_t>(a),
             static_cast<std::uint64_t>(a), Quad(__qtof(p)), Quad(__qtod(p)),
             Quad(static_cast<long double>(a)), Quad(whole), Quad(unsigned_whole)),
        list(sum, difference, product, quotient, sum, difference, product, quotient, by(__negq, p),
             x, magnitude, magnitude | sign, x != magnitude, magnitude > infinity,
             magnitude == infinity, magnitude < infinity, magnitude != 0, __eqq(p, q), __neq(p, q),
             __ltq(p, q), __leq(p, q), __gtq(p, q), __geq(p, q), unordered, __compareq(p, q), 0,
             unordered ? mxcsr::invalid : 0, __qtof(p), __qtod(p), wide,
             static_cast<signed char>(__qtoi(p, 0)), __qtoi(p, 0), __qtoj(p, 0), __qtou(p),
             __qtok(p), by(__ftoq, __qtof(p)), by(__dtoq, __qtod(p)), by(__ltoq, &wide),
             by(__jtoq, whole), by(__ktoq, unsigned_whole)))
        << paste({x, y});
  }
  EXPECT_EQ(hashes.size(), numbers.size()) << "the hashes of different numbers";
}

TEST(QuadValue, LimitsAreLimits) {
  using Limits = std::numeric_limits<Quad>;
  using Wide = std::numeric_limits<long double>;  // of the same exponents
  EXPECT_EQ(
      list(1 + Limits::epsilon(), Limits::round_error(), Limits::max(), Limits::lowest(),
           Limits::denorm_min(), Limits::infinity(), Limits::min() * Limits::epsilon(),
           Limits::quiet_NaN(), Limits::max_exponent, Limits::min_exponent, Limits::max_exponent10,
           Limits::min_exponent10, Limits::digits10, Limits::max_digits10),
      list(bits(1_q) + 1, 0.5_q, infinity - 1, (infinity - 1) | sign_bit, Value{1}, infinity,
           Value{1}, ksomd::from_string("nan").value_or(42), Wide::max_exponent, Wide::min_exponent,
           Wide::max_exponent10, Wide::min_exponent10,
           static_cast<int>((Limits::digits - 1) * 0.301029995),
           static_cast<int>(Limits::digits * 0.301029996 + 2)));
  EXPECT_EQ(raised_by(0, [] { static_cast<void>(Limits::signaling_NaN() + 1); }), mxcsr::invalid);
}

TEST(QuadText, StreamsFillLiteralsToTheirWidth) {
  std::ostringstream stream;
  stream << std::setfill('.') << std::setw(6) << 1.5_q << 2_q << std::internal << std::setw(6)
         << -1.5_q << std::setw(4) << 7_q << std::left << std::setw(4) << -7_q << std::internal
         << std::setw(1) << -8_q << std::setprecision(1) << std::fixed << 0.25_q << ' '
         << 1'234.5e-1'0_q << ' ' << 1'000_q << ' ' << 0_q << ' ' << 1e4933_q;
  EXPECT_EQ(stream.str(), "...1.52-..1.5...7-7..-80.25 1.2345e-07 1000 0 inf");
}

// Between commas: the text up to the bar is read, and is what stands behind the space; with a !,
// out of range. Z are 15000 zeros.
TEST(QuadText, ReadsAsFarAsANumberGoes) {
  std::istringstream rows(
      "12|abc 12,.5| 0.5,5.| 5,1.2|.3 1.2,1|e 1,1|e+ 1,1|e- 1,1|e-+2 1,1E+2| 100,1|'0 1,"
      "1e-2|x 0.01,0|x1 0,010| 10,-0| -0,0.0e99999999999| 0,Infinity| inf,inf|init inf,-INF| -inf,"
      "|na 42,nan|(0x0) nan,nan|(0x1 nan,nan|() nan,NaN| nan,nan(0xA)| "
      "nan(0x000000000000000000000000000a),"
      "nan|(0x10777777777777777777777777777) nan,nan(0X1777777777777777777777777777)| "
      "nan(0x1777777777777777777777777777),"
      "| 42,|- 42,|+1 42,| 1 42,|. 42,|e5 42,|--1 42,"
      "1e18446744073709551617| inf!,-1e-18446744073709551617| -0!,1e4294967296| inf!,1Ze-15000| 1,"
      ".Z1e15001| 1,Z1| 1,1.Z1| 1,1e-5| 0.00001,.00000999| 9.99e-06,1e35| 100000000000000000000000"
      "000000000000,1e36| 1e+36,1e99| 1e+99,1e100| 1e+100,1e1000| 1e+1000,9e999| 9e+999,"
      "1e-99| 1e-99,1e-100| 1e-100,1e-999| 1e-999,1e-1000| 1e-1000");
  for (std::string row; std::getline(rows, row, ',');) {
    SCOPED_TRACE(row);
    for (std::size_t at = row.find('Z'); at != std::string::npos; at = row.find('Z')) {
      row.replace(at, 1, 15000, '0');
    }
    const std::size_t bar = row.find('|'), space = row.rfind(' ');
    const std::string text = row.substr(0, bar) + row.substr(bar + 1, space - bar - 1);
    Quad a = 42;
    const auto [end, error] = from_chars(text.data(), text.data() + text.size(), a);
    const bool out_of_range = error == std::errc::result_out_of_range;
    EXPECT_EQ(to_string(a) + (out_of_range ? "!" : ""), row.substr(space + 1));
    EXPECT_EQ(end, text.data() + bar);
    EXPECT_EQ(error == std::errc::invalid_argument, bar == 0);
    EXPECT_EQ(ksomd::from_string(text).has_value(), bar > 0 && bar == text.size());
  }
}

}  // namespace
}  // namespace ksomd::test::quad
