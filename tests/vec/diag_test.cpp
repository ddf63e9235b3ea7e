// The constant-propagation check, and the math routines of the complex builtins with their
// dispatch.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "cpu/feature_set.h"
#include "ksomd/builtins.h"
#include "ksomd/diagnostics.h"
#include "math/math.h"
#include "support/child_process.h"
#include "vec/calls.h"

namespace ksomd::test {
namespace {

// ---- the constant-propagation check -------------------------------------------------------------

constexpr std::uint64_t one = std::uint64_t{1} << 32, top = std::uint64_t{1} << 63;
const std::string bad = "Bad second argument\n", returns = "returned\n";

const struct Row {
  int kind;
  std::uint32_t type;
  std::uint64_t first, second;
  std::string report;
} rows[] = {
    {1, 0, 5, 7, "RETURN\tI32 5 != 7"},
    {0, 0, 0xFFFFFFFF, 0x1FFFFFFFE, "FORMAL\tI32 ffffffff != fffffffe"},
    {0, 0, one + 9, 9, returns},
    {2, 1, 0xFFFFFFFF, 1, "GLOBAL\tSI32 -1 != 1"},
    {3, 1, 0x7FFFFFFF, 0x80000000, "unknown\tSI32 2147483647 != -2147483648"},
    {0, 1, one + 9, 9, returns},
    {0, 2, 0x13FC00000, 0x2C0000000, "FORMAL\tF32 1.500000 != -2.000000"},
    {0, 2, 0x7FC00000, 0x7FC00000, "FORMAL\tF32 nan != nan"},
    {0, 2, 0x80000000, one, returns},  // -0 and +0
    {0, 3, one + 2, one + 3, "FORMAL\tI64 2:1 != 3:1"},
    {-1, 3, top, top - 1, "unknown\tI64 0:80000000 != ffffffff:7fffffff"},
    {0, 3, one + 9, 9, "FORMAL\tI64 9:1 != 9:0"},
    {0, 3, one + 9, one + 9, returns},
    {0, 4, 0xFFFFFFFE00000002, 0x1FFFFFFFD, "FORMAL\tSI64 2:-2 != -3:1"},
    {0, 4, one + 9, 9, "FORMAL\tSI64 9:1 != 9:0"},
    {0, 4, one + 9, one + 9, returns},
    {1, 5, 0x430C6BF526340000, top + 1, "RETURN\tF64 1000000000000000.000000 != -0.000000"},
    {2, 5, 0x7FF8000000000000, 0x7FF8000000000000, "GLOBAL\tF64 nan != nan"},
    {0, 5, top, 0, returns},
    {0, 6, 1, 1, bad},
    {0, ~0u, 1, 1, bad},
};

std::string text(const Row& row) {
  const std::size_t tab = row.report.find('\t');
  return tab > row.report.size() ? row.report
                                 : "Constant propagation error (" + row.report.substr(0, tab) +
                                       " substitution):\n" + row.report.substr(tab) + '\n';
}

// All rows, and then one that nothing saves from its end.
KSOMD_CHILD(check_constants) {
  const auto check = [](const Row& row) {
    KSOMD_ENTRY(_IPO_Check_CP)(row.kind, row.type, row.first, row.second);
  };
  for (const Row& row : rows) {
    std::printf("%s", aborts([&] { check(row); }) ? "" : returns.c_str());
  }
  check(rows[std::stoul(arguments[0])]);
  return 0;
}

TEST(ConstantCheck, MismatchesAreReportedAndAbort) {
  std::string all;
  for (const Row& row : rows) {
    all += text(row);
  }
  for (const std::size_t last : {std::size_t{0}, std::size(rows) - 1}) {
    const ChildResult child = run_child("check_constants", {std::to_string(last)});
    EXPECT_EQ(child.ending, Ending::Abort);
    EXPECT_EQ(child.output, text_mode(all + text(rows[last])));
  }
}

// ---- math routines ------------------------------------------------------------------------------

using namespace ksomd::math;

template <class T>
using Limits = std::numeric_limits<T>;

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
  constexpr int range = sizeof(T) <= 8 ? 5'000 : 40'000;
  const long double wide = x;
  const auto result = static_cast<T>(std::scalbn(wide, std::clamp(n, -range, range)));
  const std::int64_t exponent = std::int64_t{std::ilogb(wide)} + n + 1;
  const bool judged = exponent <= 2 - Limits<T>::max_exponent - Limits<T>::digits ||
                      (std::fabs(wide) < Limits<T>::min() && n < 0);
  const bool error =
      exponent > Limits<T>::max_exponent || (judged && bits_of(std::fabs(result)) == 0);
  errno = error && sizeof(T) <= 8 ? ERANGE : 0;
  return result;
}

template <class T>
struct Routines {
  T (*larger)(T, T) = define_larger;
  T (*with_sign)(T, T) = [](T x, T y) { return std::copysign(x, y); };
  T (*exponent)(T) = define_exponent;
  T (*scale)(T, std::int32_t) = define_scaling;
  T (*magnitude)(T) = [](T x) { return std::fabs(x); };
  int (*is_finite)(T) = [](T x) { return int{std::isfinite(x)}; };
  int (*is_nan)(T) = [](T x) { return int{std::isnan(x)}; };
  int (*infinite)(T) = [](T x) { return !std::isinf(x) ? 0 : std::signbit(x) ? -1 : 1; };
};

// Any exponent, telling fractions; often subnormal, at times infinite, NaN or zero.
template <class T>
T operand(Random& random) {
  using L = Limits<T>;
  const T any = static_cast<T>(random.next() >> 11) * T(0x1p-53), last = L::epsilon(),
          fraction = random.one_of({T{0}, last, 1 - last, T(0.5), T(0.5) + last, any});
  const auto least = L::min_exponent - L::digits,
             exponents = random.one_in(4) ? L::digits : L::max_exponent - least;
  const int exponent = least + static_cast<int>(random.below(static_cast<unsigned>(exponents)));
  const T special = random.one_of({L::infinity(), L::quiet_NaN(), L::signaling_NaN(), T{0}}),
          result = random.one_in(8) ? special : std::ldexp(1 + fraction, exponent);
  return random.one_in(2) ? result : -result;
}

// To each switch of the algorithm and to either side, or far.
template <class T>
int shift_of(Random& random, T x) {
  using L = Limits<T>;
  const int middle = L::min_exponent - L::digits / 2, least = L::min_exponent - L::digits,
            far = random.one_of({0, 1, -1, 65535, 65536, 65537, -65536, -65537, INT_MAX, INT_MIN});
  const int near = random.one_of({L::max_exponent, L::min_exponent, middle, least}) - 5;
  return random.one_in(4) || x == 0 || !std::isfinite(x)
             ? far
             : near + static_cast<int>(random.below(9)) - std::ilogb(x);
}

// Bits, errors, and flags against the definition's: flags of numbers only, for how it looks at a
// NaN is an implementation's choice.
template <class T>
void check(Sweep& sweep, std::initializer_list<Routines<T>> implementations) {
  Random& random = sweep.random;
  const T x = operand<T>(random), other = operand<T>(random),
          y = random.one_of({x, -x, other, other});
  const int n = shift_of(random, x);
  const std::uint64_t mode = random.below(rounding_modes);
  const unsigned more = random.one_in(2) ? mxcsr::denormals_are_zero : 0;
  const auto results_of = [&](const Routines<T>& routines) {
    std::array<ksomd_uint128, 9> r{};
    const unsigned flags = raised_by_both(
        mode,
        [&] {
          errno = 0;
          r = {bits_of(routines.larger(x, y)),
               bits_of(routines.with_sign(x, y)),
               bits_of(routines.magnitude(x)),
               bits_of(routines.is_finite(x)),
               bits_of(routines.is_nan(x)),
               bits_of(routines.infinite(x)),
               bits_of(routines.exponent(x)),
               bits_of(std::exchange(errno, 0)),
               bits_of(routines.scale(x, n)) + (ksomd_uint128{static_cast<unsigned>(errno)} << 90)};
        },
        more);
    return std::pair{r, std::isnan(x) || std::isnan(y) ? 0 : flags};
  };
  const auto [expected, flags] = results_of({});
  for (const Routines<T>& routines : implementations) {
    const auto [results, raised] = results_of(routines);
    sweep.result(results, raised);
    const auto wrong = std::ranges::mismatch(results, expected).in1 - results.begin();
    ASSERT_TRUE(wrong == 9 && raised == flags)
        << "implementation " << &routines - implementations.begin() << ", result " << wrong << ": "
        << std::hexfloat << x << ", " << y << " and " << n << ", mode " << mode << ", MXCSR "
        << more;
  }
}

TEST(Math, ResultsFlagsAndErrors) {
#define KSOMD_REST(suffix) \
  __libkso_fabs##suffix, __libkso_isfinite##suffix, __libkso_isnan##suffix, __libkso_isinf##suffix
  Sweep sweep("vec.math");
  for ([[maybe_unused]] const auto round : sweep.rounds(5000, 300'000)) {
    check<double>(sweep,
                  {{general::fmax, general::copysign, general::logb, general::scalbn, KSOMD_REST()},
                   {vector::fmax, vector::copysign, vector::logb, vector::scalbn, KSOMD_REST()}});
    check<float>(
        sweep,
        {{general::fmaxf, general::copysignf, __libkso_logbf, __libkso_scalbnf, KSOMD_REST(f)},
         {vector::fmaxf, vector::copysignf, __libkso_logbf, __libkso_scalbnf, KSOMD_REST(f)}});
    const Routines<long double> own;
    check<long double>(
        sweep, {{__libkso_fmaxl, own.with_sign, __libkso_logbl, __libkso_scalbnl, own.magnitude,
                 __libkso_isfinitel, __libkso_isnanl, __libkso_isinfl}});
    ASSERT_FALSE(HasFatalFailure());
  }
}

// ---- dispatch -----------------------------------------------------------------------------------

// SSE3, or all that some later generation brought: among few features, or most.
TEST(MathDispatch, TakesTheVectorVariantFromSse3On) {
  const std::vector<int> any_of[] = {{7},          {8}, {9}, {10}, {16}, {13, 18, 19, 20, 23},
                                     {43, 44, 48}, {92}};
  Random random(seed_of(2));
  for (int i = 0; i < 50'000; ++i) {
    const bool few = random.one_in(2);
    FeatureSet features = {0, 0};
    for (std::size_t bit = 0; bit < 128; ++bit) {
      features[bit / 64] |= std::uint64_t{random.one_in(few ? 12 : 4) == few} << bit % 64;
    }
    const auto is_there = [&](int bit) { return (features[bit / 64] >> bit % 64 & 1) != 0; };
    const bool vector = std::ranges::any_of(
        any_of, [&](const auto& bits) { return std::ranges::all_of(bits, is_there); });
    for (const DispatchingEntry& entry : dispatching_entries()) {
      ASSERT_STREQ(entry.variant(features), vector ? "vector" : "general")
          << entry.name << std::hex << ' ' << features[0] << ' ' << features[1];
    }
  }
}

using Address = void (*)();
struct Slot {
  Address *slot, general, vector;
};
#define KSOMD_SLOT(name)                                                                          \
  {reinterpret_cast<Address*>(&__libkso_##name##_slot), reinterpret_cast<Address>(general::name), \
   reinterpret_cast<Address>(vector::name)}
const Slot slots[] = {KSOMD_SLOT(fmax),      KSOMD_SLOT(fmaxf), KSOMD_SLOT(copysign),
                      KSOMD_SLOT(copysignf), KSOMD_SLOT(logb),  KSOMD_SLOT(scalbn)};

TEST(MathDispatch, RacingFirstCallsFillTheSlots) {
  const std::uint64_t own = feature_word();
  for (int round = 0; round < 40; ++round) {
    const bool with_sse3 = round % 2 != 0;
    __orvex_cpu_feature_indicator[0] = with_sse3 ? own : 1;
    for (const Slot& row : slots) {
      *row.slot = nullptr;
    }
    std::atomic<int> wrong = 0;
    const auto use = [&] {
      wrong += __libkso_fmax(2, 3) != 3 || __libkso_fmaxf(4, -5) != 4 ||
               __libkso_copysign(6, -7) != -6 || __libkso_copysignf(-8, 9) != 8 ||
               __libkso_logb(1024) != 10 || __libkso_scalbn(3, 4) != 48;
    };
    std::thread first(use), second(use);
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
    for (const Slot& row : slots) {
      EXPECT_EQ(*row.slot, with_sse3 ? row.vector : row.general);
    }
  }
  __orvex_cpu_feature_indicator[0] = own;
}

}  // namespace
}  // namespace ksomd::test
