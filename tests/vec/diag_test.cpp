// The constant-propagation check, and the math routines of the complex builtins with their
// dispatch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "ksomd/builtins.h"
#include "ksomd/diagnostics.h"
#include "math/math.h"
#include "support/child_process.h"
#include "vec/calls.h"

namespace ksomd::test {
namespace {

// ---- the constant-propagation check -------------------------------------------------------------

constexpr std::uint64_t one = std::uint64_t{1} << 32, top = std::uint64_t{1} << 63;
constexpr std::uint64_t nan32 = 0x7FC00000, nan64 = 0x7FF8000000000000;

const struct Row {
  int kind;
  std::uint32_t type;
  std::uint64_t first, second;
  std::string substitution, values;
} rows[] = {
    {1, 0, 5, 7, "RETURN", "I32 5 != 7"},
    {0, 0, 0xFFFFFFFF, 0x1FFFFFFFE, "FORMAL", "I32 ffffffff != fffffffe"},
    {2, 1, 0xFFFFFFFF, 1, "GLOBAL", "SI32 -1 != 1"},
    {3, 1, 0x7FFFFFFF, 0x80000000, "unknown", "SI32 2147483647 != -2147483648"},
    {0, 2, 0x13FC00000, 0x2C0000000, "FORMAL", "F32 1.500000 != -2.000000"},
    {0, 2, nan32, nan32, "FORMAL", "F32 nan != nan"},
    {-1, 3, top, top - 1, "unknown", "I64 0:80000000 != ffffffff:7fffffff"},
    {0, 3, one + 9, 9, "FORMAL", "I64 9:1 != 9:0"},
    {0, 4, 0xFFFFFFFE00000002, one + 2, "FORMAL", "SI64 2:-2 != 2:1"},
    {1, 5, 0x430C6BF526340000, top + 1, "RETURN", "F64 1000000000000000.000000 != -0.000000"},
    {2, 5, nan64, nan64, "GLOBAL", "F64 nan != nan"},
    {0, 6, 1, 1, "", ""},
    {0, ~0u, 1, 1, "", ""},
};

KSOMD_CHILD(check_constants) {
  const auto check = KSOMD_ENTRY(_IPO_Check_CP);
  for (std::uint32_t type = 0; type < 6; ++type) {  // equal, all or the lower half; -0 and +0
    check(0, type, one + 9, type < 2 ? 9 : one + 9);
    check(0, type, type == 2 ? top >> 32 : type == 5 ? top : 0, 0);
  }
  const Row& row = rows[std::stoul(arguments[0])];
  check(row.kind, row.type, row.first, row.second);
  return 0;
}

TEST(ConstantCheck, MismatchesAreReportedAndAbort) {
  ASSERT_NE(KSOMD_ENTRY(_IPO_Check_CP), nullptr);
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const std::string report = rows[i].type > 5
                                   ? "Bad second argument\n"
                                   : "Constant propagation error (" + rows[i].substitution +
                                         " substitution):\n\t" + rows[i].values + '\n';
    const ChildResult child = run_child("check_constants", {std::to_string(i)});
    EXPECT_EQ(child.ending, Ending::Abort) << report;
    EXPECT_EQ(child.output, text_mode(report));
  }
}

// ---- math routines ------------------------------------------------------------------------------

using namespace ksomd::math;

ksomd_uint128 bits_of(auto x) {
  ksomd_uint128 bits = 0;
  std::memcpy(&bits, &x, std::min<std::size_t>(sizeof x, 10));
  return bits;
}

// A NaN added to itself is quiet. A compiler's maximum instruction would return zero for subnormal
// operands that count as zero.
template <class T>
T define_larger(T x, T y) {
  const volatile bool less = x < y;
  return std::isnan(x) ? std::isnan(y) ? x + x : y : std::isnan(y) || !less ? x : y;
}

template <class T>
T define_exponent(T x) {
  const bool zero = bits_of(std::fabs(x)) == 0;
  const auto exponent = zero ? -HUGE_VALL : std::logb(static_cast<long double>(x));
  errno = zero && sizeof(T) <= 8 ? EDOM : 0;
  return std::isnan(x) ? x + x : static_cast<T>(exponent);
}

// In the x87 format, to which subnormal operands are numbers in any mode and whose range holds
// every product of the others: the one rounding is that of the conversion.
template <class T>
T define_scaling(T x, std::int32_t n) {
  errno = 0;
  if (bits_of(std::fabs(x)) == 0 || !std::isfinite(x)) {
    return x;
  }
  using L = std::numeric_limits<T>;
  constexpr int range = sizeof(T) <= 8 ? 5'000 : 40'000;
  const long double wide = x;
  const auto result = static_cast<T>(std::scalbn(wide, std::clamp(n, -range, range)));
  const std::int64_t exponent = std::int64_t{std::ilogb(wide)} + n + 1;
  const bool judged =
      exponent <= 2 - L::max_exponent - L::digits || (std::fabs(wide) < L::min() && n < 0);
  const bool error = exponent > L::max_exponent || (judged && bits_of(std::fabs(result)) == 0);
  errno = error && sizeof(T) <= 8 ? ERANGE : 0;
  return result;
}

constexpr auto define_sign = [](auto x, auto y) { return std::copysign(x, y); };
constexpr auto define_magnitude = [](auto x) { return std::fabs(x); };
constexpr auto define_finite = [](auto x) { return int{std::isfinite(x)}; };
constexpr auto define_nan = [](auto x) { return int{std::isnan(x)}; };
constexpr auto define_infinite = [](auto x) {
  return std::isinf(x) ? std::signbit(x) ? -1 : 1 : 0;
};

// To each switch of the algorithm and to either side, or far.
template <class T>
int shift_of(Random& random, T x) {
  using L = std::numeric_limits<T>;
  const int least = L::min_exponent - L::digits, middle = least + L::digits / 2;
  const int far = random.one_of({0, 1, 65535, 65536, 65537, -65536, -65537, INT_MAX, INT_MIN});
  const int near = random.one_of({L::max_exponent, L::min_exponent, middle, least}) - 5 +
                   static_cast<int>(random.below(9));
  return random.one_in(4) || x == 0 || !std::isfinite(x) ? far : near - std::ilogb(x);
}

// Bits, errors, and flags against the definition's: flags of numbers only, for how it looks at a
// NaN is an implementation's choice.
template <class T>
void check(Sweep& sweep, auto... routines) {
  Random& random = sweep.random;
  const T x = any_number<T>(random, random.below(8)), other = any_number<T>(random, 2);
  const T y = random.one_of({x, -x, other, other, std::numeric_limits<T>::quiet_NaN()});
  const int n = shift_of(random, x);
  const std::uint64_t mode = random.below(rounding_modes);
  const unsigned more = random.one_in(2) ? mxcsr::denormals_are_zero : 0;
  const auto results_of = [&](auto larger, auto sign, auto exponent, auto scale, auto... of_bits) {
    std::vector<ksomd_uint128> r(10);
    const auto call = [&] {
      errno = 0;
      r = {bits_of(larger(x, y)), bits_of(sign(x, y)),
           bits_of(exponent(x)),  bits_of(std::exchange(errno, 0)),
           bits_of(scale(x, n)),  bits_of(errno),
           bits_of(of_bits(x))...};
    };
    const unsigned flags = raised_by_both(mode, call, more);
    r.push_back(std::isnan(x) || std::isnan(y) ? 0 : flags);
    return r;
  };
  const auto results = results_of(routines...);
  sweep.results(results.data(), results.size() * sizeof results[0]);
  ASSERT_EQ(results,
            results_of(define_larger<T>, define_sign, define_exponent<T>, define_scaling<T>,
                       define_magnitude, define_finite, define_nan, define_infinite))
      << std::hexfloat << x << ", " << y << ", " << n << ", mode " << mode << ", MXCSR " << more;
}

// First calls choose among the implementations.
TEST(Math, ResultsFlagsAndErrors) {
#define KSOMD_REST(suffix) __libkso_isfinite##suffix, __libkso_isnan##suffix, __libkso_isinf##suffix
  const std::uint64_t own = feature_word();
  Sweep sweep("vec.math");
  for (const auto round : sweep.rounds(10'000, 600'000)) {
    __orvex_cpu_feature_indicator[0] = round % 2 == 0 ? own : 1;
    __libkso_fmax_slot = __libkso_copysign_slot = nullptr;
    __libkso_fmaxf_slot = __libkso_copysignf_slot = nullptr;
    __libkso_logb_slot = nullptr;
    __libkso_scalbn_slot = nullptr;
    check<double>(sweep, __libkso_fmax, __libkso_copysign, __libkso_logb, __libkso_scalbn,
                  __libkso_fabs, KSOMD_REST());
    check<float>(sweep, __libkso_fmaxf, __libkso_copysignf, __libkso_logbf, __libkso_scalbnf,
                 __libkso_fabsf, KSOMD_REST(f));
    check<long double>(sweep, __libkso_fmaxl, define_sign, __libkso_logbl, __libkso_scalbnl,
                       define_magnitude, KSOMD_REST(l));
    ASSERT_FALSE(HasFatalFailure());
  }
  __orvex_cpu_feature_indicator[0] = own;
}

// SSE3, or all that some later generation brought.
TEST(MathDispatch, TakesTheVectorVariantFromSse3On) {
  const std::vector<int> generations[] = {{7},          {8}, {9}, {10}, {16}, {13, 18, 19, 20, 23},
                                          {43, 44, 48}, {92}};
  for (const std::vector<int>& bits : generations) {
    for (const int missing : bits) {
      FeatureSet all = {}, fewer = {};
      for (const int bit : bits) {
        all[bit / 64] |= std::uint64_t{1} << bit % 64;
        fewer[bit / 64] |= std::uint64_t{bit != missing} << bit % 64;
      }
      for (const auto& [name, variant] : dispatching_entries()) {
        EXPECT_STREQ(variant(all), "vector") << name << ' ' << missing;
        EXPECT_STREQ(variant(fewer), "general") << name << ' ' << missing;
      }
    }
  }
}

}  // namespace
}  // namespace ksomd::test
