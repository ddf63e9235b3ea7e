// The math routines of the complex builtins: results to the bit, errno, and their dispatch.
#include "diag/math.h"

#include <gtest/gtest.h>
#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "cpu/feature_set.h"
#include "support/seed.h"

namespace {

using namespace ksomd::math;

// As every program starts; kept before anything here calls a routine.
const auto first_fmax_slot = __libkso_fmax_slot;
const auto first_fmaxf_slot = __libkso_fmaxf_slot;
const auto first_copysign_slot = __libkso_copysign_slot;
const auto first_copysignf_slot = __libkso_copysignf_slot;
const auto first_logb_slot = __libkso_logb_slot;
const auto first_scalbn_slot = __libkso_scalbn_slot;

constexpr unsigned default_mode = 0x1F80;
constexpr unsigned denormals_are_zero = 0x40;

// The four rounding modes, with and without subnormal operands taken for zero.
std::vector<unsigned> modes() {
  std::vector<unsigned> all;
  for (unsigned rounding = 0; rounding < 4; ++rounding) {
    all.push_back(default_mode | rounding << 13);
    all.push_back(default_mode | rounding << 13 | denormals_are_zero);
  }
  return all;
}

class Mode {
 public:
  explicit Mode(unsigned mxcsr) : saved_(_mm_getcsr()) { _mm_setcsr(mxcsr); }
  ~Mode() { _mm_setcsr(saved_); }
  Mode(const Mode&) = delete;
  Mode& operator=(const Mode&) = delete;

 private:
  unsigned saved_;
};

struct Binary64 {
  using Value = double;
  using Bits = std::uint64_t;
  static constexpr int fraction_bits = 52;
  static constexpr int bias = 1023;
  static constexpr int lost = -53;
};
struct Binary32 {
  using Value = float;
  using Bits = std::uint32_t;
  static constexpr int fraction_bits = 23;
  static constexpr int bias = 127;
  static constexpr int lost = -24;
};

template <class F>
constexpr int lowest_exponent = 1 - F::bias - F::fraction_bits;  // of the smallest subnormal
template <class F>
constexpr auto infinity = static_cast<F::Bits>(2 * F::bias + 1) << F::fraction_bits;
template <class F>
constexpr auto sign = static_cast<F::Bits>(2 * F::bias + 2) << F::fraction_bits;

// A number as an integer times a power of two.
struct Exact {
  std::uint64_t significand;
  int exponent;
  int leading() const { return exponent + 63 - std::countl_zero(significand); }
};

template <class F>
Exact exact(typename F::Bits bits) {
  const auto fraction = bits & ((typename F::Bits{1} << F::fraction_bits) - 1);
  const auto field = static_cast<int>((bits & ~sign<F>) >> F::fraction_bits);
  if (field == 0) {
    return {fraction, lowest_exponent<F>};
  }
  return {fraction | std::uint64_t{1} << F::fraction_bits, field - F::bias - F::fraction_bits};
}

// A positive number rounded to the format, overflow aside; `away`: toward larger magnitudes.
template <class F>
F::Bits rounded(Exact x, bool nearest, bool away) {
  const int unit = std::max(x.leading() - F::fraction_bits, lowest_exponent<F>);
  const int drop = unit - x.exponent;
  std::uint64_t kept = drop <= 0 ? x.significand << -drop : drop < 64 ? x.significand >> drop : 0;
  if (drop > 0) {
    const std::uint64_t half = drop <= 64 ? std::uint64_t{1} << (drop - 1) : 0;
    const std::uint64_t rest = drop < 64 ? x.significand & ((half << 1) - 1) : x.significand;
    const bool to_even = half != 0 && (rest > half || (rest == half && (kept & 1) != 0));
    kept += nearest ? to_even : (away && rest != 0);
  }
  const auto steps = static_cast<std::uint64_t>(unit - lowest_exponent<F>) << F::fraction_bits;
  return static_cast<F::Bits>(kept + (kept >> F::fraction_bits != 0 ? steps : 0));
}

struct Scaled {
  std::uint64_t bits;
  int error;
};

template <class F>
Scaled scaled(typename F::Bits bits, int n, unsigned rounding) {
  const typename F::Bits magnitude = bits & ~sign<F>;
  if (magnitude == 0 || magnitude >= infinity<F>) {
    return {bits, 0};
  }
  const bool negative = bits != magnitude;
  const bool nearest = rounding == 0;
  const bool away = rounding == (negative ? 1u : 2u);
  Exact x = exact<F>(magnitude);
  x.exponent += std::clamp(n, -100000, 100000);
  const std::uint64_t signed_zero = negative ? sign<F> : 0;
  if (x.leading() > F::bias) {
    return {signed_zero | (infinity<F> - (nearest || away ? 0 : 1)), ERANGE};
  }
  const auto result = rounded<F>(x, nearest, away);
  const int field = x.leading() + F::bias;
  const bool subnormal = magnitude >> F::fraction_bits == 0;
  const bool reported = field <= F::lost || (field <= 0 && subnormal && n < 0);
  return {signed_zero | result, reported && result == 0 ? ERANGE : 0};
}

// Every exponent field with telling fractions, every subnormal's leading bit; both signs.
template <class F>
std::vector<typename F::Bits> numbers() {
  using Bits = F::Bits;
  const Bits ones = (Bits{1} << F::fraction_bits) - 1;
  std::mt19937_64 random(ksomd::test::seed_of(9));
  std::vector<Bits> all;
  const auto add = [&](Bits bits) {
    all.push_back(bits);
    all.push_back(bits | sign<F>);
  };
  for (int field = 0; field <= 2 * F::bias + 1; ++field) {
    const Bits exponent = static_cast<Bits>(field) << F::fraction_bits;
    for (const Bits fraction :
         {Bits{0}, Bits{1}, ones, ones / 2 + 1, ones / 2, static_cast<Bits>(random() & ones)}) {
      add(exponent | fraction);
    }
  }
  for (int bit = 0; bit < F::fraction_bits; ++bit) {
    add(Bits{1} << bit);
    add((Bits{2} << bit) - 1);
    add(Bits{1} << bit | static_cast<Bits>(random() & ((Bits{1} << bit) - 1)));
  }
  return all;
}

// Every number × the shifts that take it to each switch of the algorithm and to either side.
template <class F, class Scale>
void check_scaling(Scale scale) {
  using Value = F::Value;
  for (const unsigned mode : modes()) {
    for (const auto bits : numbers<F>()) {
      std::vector<int> shifts = {0, 1, -1, 65535, 65536, 65537, -65536, -65537, INT_MAX, INT_MIN};
      const auto magnitude = bits & ~sign<F>;
      const int field = magnitude == 0 ? 0 : exact<F>(magnitude).leading() + F::bias;
      for (const int target :
           {2 * F::bias + 1, 1, 0, -1, F::lost, F::lost / 2, -F::fraction_bits + 1}) {
        for (const int delta : {-1, 0, 1}) {
          shifts.push_back(target + delta - field);
        }
      }
      for (const int n : shifts) {
        const Scaled expected = scaled<F>(bits, n, mode >> 13 & 3);
        typename F::Bits result;
        errno = 0;
        {
          const Mode in_force(mode);
          const Value value = scale(std::bit_cast<Value>(bits), n);
          result = std::bit_cast<typename F::Bits>(value);
        }
        ASSERT_EQ(result, expected.bits)
            << std::hex << bits << std::dec << " by " << n << std::hex << ", MXCSR " << mode;
        ASSERT_EQ(errno, expected.error)
            << std::hex << bits << std::dec << " by " << n << std::hex << ", MXCSR " << mode;
      }
    }
  }
}

TEST(Math, Scaling) {
  check_scaling<Binary64>(general::scalbn);
  check_scaling<Binary64>(vector::scalbn);
  check_scaling<Binary64>(__libkso_scalbn);
  check_scaling<Binary32>(__libkso_scalbnf);
}

template <class F, class Logb>
void check_exponent(Logb logb) {
  using Value = F::Value;
  for (const unsigned mode : modes()) {
    for (const auto bits : numbers<F>()) {
      const auto magnitude = bits & ~sign<F>;
      errno = 0;
      typename F::Bits result;
      {
        const Mode in_force(mode);
        const Value value = logb(std::bit_cast<Value>(bits));
        result = std::bit_cast<typename F::Bits>(value);
      }
      const auto quiet = typename F::Bits{1} << (F::fraction_bits - 1);
      const auto expected =
          magnitude == 0            ? infinity<F> | sign<F>
          : magnitude > infinity<F> ? bits | quiet
          : magnitude == infinity<F>
              ? magnitude
              : std::bit_cast<typename F::Bits>(static_cast<Value>(exact<F>(magnitude).leading()));
      ASSERT_EQ(result, expected) << std::hex << bits << ", MXCSR " << mode;
      ASSERT_EQ(errno, magnitude == 0 ? EDOM : 0) << std::hex << bits;
    }
  }
}

TEST(Math, Exponent) {
  check_exponent<Binary64>(general::logb);
  check_exponent<Binary64>(vector::logb);
  check_exponent<Binary64>(__libkso_logb);
  check_exponent<Binary32>(__libkso_logbf);
}

// The larger, by the bits: as signed integers after the sign's bits are turned over. Subnormals
// that count as zero equal each other and zero.
template <class F>
F::Bits larger(typename F::Bits x, typename F::Bits y, bool no_subnormals) {
  using Bits = F::Bits;
  using Signed = std::make_signed_t<Bits>;
  const auto is_nan = [](Bits bits) { return (bits & ~sign<F>) > infinity<F>; };
  if (is_nan(x)) {
    return is_nan(y) ? x | Bits{1} << (F::fraction_bits - 1) : y;
  }
  if (is_nan(y)) {
    return x;
  }
  const auto rank = [&](Bits bits) {
    const Bits magnitude = bits & ~sign<F>;
    const bool zero = no_subnormals && magnitude >> F::fraction_bits == 0;
    const auto size = zero ? Signed{0} : static_cast<Signed>(magnitude);
    return bits == magnitude ? size : static_cast<Signed>(-size);
  };
  return rank(x) < rank(y) ? y : x;
}

template <class F, class Fmax, class Copysign>
void check_pairs(Fmax fmax, Copysign copysign) {
  using Value = F::Value;
  const auto all = numbers<F>();
  std::mt19937_64 random(ksomd::test::seed_of(4));
  for (unsigned i = 0; i < 200000; ++i) {
    const auto x = all[random() % all.size()];
    const auto y = i % 4 == 0   ? x
                   : i % 4 == 1 ? x ^ sign<F>
                   : i % 4 == 2 ? all[random() % 12]  // zero and subnormal
                                : all[random() % all.size()];
    for (const unsigned mode : {default_mode, default_mode | denormals_are_zero}) {
      typename F::Bits maximum, signed_x;
      {
        const Mode in_force(mode);
        const Value a = fmax(std::bit_cast<Value>(x), std::bit_cast<Value>(y));
        const Value b = copysign(std::bit_cast<Value>(x), std::bit_cast<Value>(y));
        maximum = std::bit_cast<typename F::Bits>(a);
        signed_x = std::bit_cast<typename F::Bits>(b);
      }
      ASSERT_EQ(maximum, larger<F>(x, y, mode != default_mode))
          << std::hex << x << ' ' << y << ", MXCSR " << mode;
      ASSERT_EQ(signed_x, (x & ~sign<F>) | (y & sign<F>)) << std::hex << x << ' ' << y;
    }
  }
}

TEST(Math, LargerAndSign) {
  check_pairs<Binary64>(general::fmax, general::copysign);
  check_pairs<Binary64>(vector::fmax, vector::copysign);
  check_pairs<Binary64>(__libkso_fmax, __libkso_copysign);
  check_pairs<Binary32>(general::fmaxf, general::copysignf);
  check_pairs<Binary32>(vector::fmaxf, vector::copysignf);
  check_pairs<Binary32>(__libkso_fmaxf, __libkso_copysignf);
}

template <class F, class Fabs, class Isfinite, class Isnan, class Isinf>
void check_classes(Fabs fabs, Isfinite isfinite, Isnan isnan, Isinf isinf) {
  using Value = F::Value;
  for (const auto bits : numbers<F>()) {
    const auto value = std::bit_cast<Value>(bits);
    const auto magnitude = bits & ~sign<F>;
    const Value absolute = fabs(value);
    ASSERT_EQ(std::bit_cast<typename F::Bits>(absolute), magnitude) << std::hex << bits;
    ASSERT_EQ(isfinite(value), magnitude < infinity<F> ? 1 : 0) << std::hex << bits;
    ASSERT_EQ(isnan(value), magnitude > infinity<F> ? 1 : 0) << std::hex << bits;
    ASSERT_EQ(isinf(value), magnitude != infinity<F> ? 0 : bits == magnitude ? 1 : -1);
  }
}

TEST(Math, Classes) {
  check_classes<Binary64>(__libkso_fabs, __libkso_isfinite, __libkso_isnan, __libkso_isinf);
  check_classes<Binary32>(__libkso_fabsf, __libkso_isfinitef, __libkso_isnanf, __libkso_isinff);
}

TEST(Math, ExtendedClasses) {
  constexpr std::uint64_t one = std::uint64_t{1} << 63;
  struct Row {
    std::uint16_t head;  // sign and exponent
    std::uint64_t significand;
    int finite, nan, infinite;
  };
  const Row rows[] = {
      {0x0000, 0, 1, 0, 0},
      {0x8000, 0, 1, 0, 0},
      {0x0000, 1, 1, 0, 0},
      {0x0000, one, 1, 0, 0},
      {0x3FFF, one, 1, 0, 0},
      {0xFFFE, ~0ull, 1, 0, 0},
      {0x7FFF, one, 0, 0, 1},
      {0xFFFF, one, 0, 0, -1},
      {0x7FFF, one | 1, 0, 1, 0},
      {0xFFFF, one | 1, 0, 1, 0},
      {0x7FFF, 3 * (one / 2), 0, 1, 0},
  };
  for (const Row& row : rows) {
    long double x = 0;
    std::memcpy(&x, &row.significand, 8);
    std::memcpy(reinterpret_cast<char*>(&x) + 8, &row.head, 2);
    EXPECT_EQ(__libkso_isfinitel(x), row.finite) << std::hex << row.head << ' ' << row.significand;
    EXPECT_EQ(__libkso_isnanl(x), row.nan) << std::hex << row.head << ' ' << row.significand;
    EXPECT_EQ(__libkso_isinfl(x), row.infinite) << std::hex << row.head << ' ' << row.significand;
  }
}

// The extended forms, against the platform's; they leave errno alone.
TEST(Math, Extended) {
  std::mt19937_64 random(ksomd::test::seed_of(5));
  for (int i = 0; i < 200000; ++i) {
    const int exponent = i % 4 == 0 ? -16445 + static_cast<int>(random() % 70)
                                    : static_cast<int>(random() % 32700) - 16380;
    const long double x = std::ldexp(static_cast<long double>(random() | 1) * 0x1p-63L, exponent);
    const int n = i % 2 == 0 ? -16390 - exponent - static_cast<int>(random() % 70)
                             : 16384 - exponent - static_cast<int>(random() % 4);
    errno = 0;
    const long double result = __libkso_scalbnl(-x, n);
    const long double binary_exponent = __libkso_logbl(x);
    ASSERT_EQ(errno, 0);
    ASSERT_EQ(result, std::scalbn(-x, n)) << x << ' ' << n;
    ASSERT_EQ(binary_exponent, std::logb(x)) << x;
    ASSERT_EQ(__libkso_fmaxl(x, result), std::fmax(x, result));
    ASSERT_EQ(__libkso_fmaxl(NAN, result), result);
    ASSERT_EQ(__libkso_fmaxl(result, NAN), result);
  }
  ASSERT_EQ(__libkso_logbl(0), -HUGE_VALL);
  ASSERT_EQ(__libkso_logbl(-HUGE_VALL), HUGE_VALL);
  ASSERT_EQ(__libkso_scalbnl(-HUGE_VALL, -40000), -HUGE_VALL);
  ASSERT_EQ(__libkso_scalbnl(0, 40000), 0);
}

TEST(Math, Errors) {
  struct Row {
    Error error;
    int of_zero, otherwise;
  };
  const Row rows[] = {{Error{151}, EDOM, EDOM},     {Error{152}, EDOM, EDOM},
                      {Error{176}, ERANGE, ERANGE}, {Error{177}, ERANGE, 0},
                      {Error{178}, ERANGE, ERANGE}, {Error{179}, ERANGE, 0},
                      {Error{150}, 0, 0},           {Error{180}, 0, 0}};
  EXPECT_EQ(EDOM, 33);
  EXPECT_EQ(ERANGE, 34);
  for (const Row& row : rows) {
    errno = 0;
    report(row.error, true);
    EXPECT_EQ(errno, row.of_zero) << static_cast<int>(row.error);
    errno = 0;
    report(row.error, false);
    EXPECT_EQ(errno, row.otherwise) << static_cast<int>(row.error);
  }
}

TEST(Math, Levels) {
  const std::pair<std::vector<int>, std::uint32_t> rows[] = {
      {{0}, 1},           {{0, 1}, 2},
      {{5}, 3},           {{6}, 4},
      {{7}, 5},           {{8}, 6},
      {{9}, 7},           {{10}, 8},
      {{16}, 9},          {{13, 18, 19, 20, 23}, 10},
      {{43, 44, 48}, 11}, {{92}, 12},
      {{1, 43, 44}, 2},   {{1, 43, 48}, 2},
      {{1, 44, 48}, 2},   {{16, 13, 18, 19, 20}, 9},
      {{2, 3, 4}, 1},     {{1, 5, 6, 7, 8, 9, 10, 13, 16, 18, 19, 20, 23, 43, 44, 48, 92}, 12}};
  for (const auto& [features, level] : rows) {
    ksomd::FeatureSet set = {0, 0};
    for (const int bit : features) {
      set[bit / 64] |= std::uint64_t{1} << bit % 64;
    }
    EXPECT_EQ(level_of(set), level);
  }
  for (const int missing : {13, 18, 19, 20, 23}) {
    ksomd::FeatureSet set = {1u << 1, 0};
    for (const int bit : {13, 18, 19, 20, 23}) {
      set[0] |= std::uint64_t{bit != missing} << bit;
    }
    EXPECT_EQ(level_of(set), 2u) << missing;
  }
}

// The slots as the process starts with them, and its level not yet known.
void forget_choices() {
  __libkso_fmax_slot = first_fmax_slot;
  __libkso_fmaxf_slot = first_fmaxf_slot;
  __libkso_copysign_slot = first_copysign_slot;
  __libkso_copysignf_slot = first_copysignf_slot;
  __libkso_logb_slot = first_logb_slot;
  __libkso_scalbn_slot = first_scalbn_slot;
  __libkso_math_level = {};
}

void expect_slots_of_level(std::uint32_t level) {
  const bool second = level >= 5;
  EXPECT_EQ(__libkso_fmax_slot, second ? vector::fmax : general::fmax) << level;
  EXPECT_EQ(__libkso_fmaxf_slot, second ? vector::fmaxf : general::fmaxf) << level;
  EXPECT_EQ(__libkso_copysign_slot, second ? vector::copysign : general::copysign) << level;
  EXPECT_EQ(__libkso_copysignf_slot, second ? vector::copysignf : general::copysignf) << level;
  EXPECT_EQ(__libkso_logb_slot, second ? vector::logb : general::logb) << level;
  EXPECT_EQ(__libkso_scalbn_slot, second ? vector::scalbn : general::scalbn) << level;
}

bool results_are_right() {
  return __libkso_fmax(2, 3) == 3 && __libkso_fmaxf(4, -5) == 4 && __libkso_copysign(6, -7) == -6 &&
         __libkso_copysignf(-8, 9) == 8 && __libkso_logb(1024) == 10 && __libkso_scalbn(3, 4) == 48;
}

TEST(Dispatch, EachLevelInstallsItsImplementations) {
  for (std::uint32_t level = 1; level <= 13; ++level) {
    forget_choices();
    __libkso_math_level = {level, 1};
    EXPECT_TRUE(results_are_right());
    expect_slots_of_level(level);
    EXPECT_TRUE(results_are_right());
  }
}

TEST(Dispatch, FirstCallFindsTheProcessorsLevel) {
  forget_choices();
  EXPECT_TRUE(results_are_right());
  const ksomd::FeatureSet features = {ksomd::feature_word(), __orvex_cpu_feature_indicator[1]};
  EXPECT_EQ(__libkso_math_level.level, level_of(features));
  EXPECT_EQ(__libkso_math_level.started, 1u);
  expect_slots_of_level(level_of(features));
}

// A thread that reads an old slot value runs the resolver again: what is there stays.
TEST(Dispatch, FilledSlotStaysAsItIs) {
  forget_choices();
  __libkso_math_level = {12, 1};
  __libkso_logb_slot = general::logb;
  EXPECT_EQ(first_logb_slot(8), 3);
  EXPECT_EQ(__libkso_logb_slot, general::logb);
}

// Nobody leaves before the level is there, however long its finder takes.
TEST(Dispatch, OthersWaitForTheLevel) {
  LevelState state = {0, 1};
  std::atomic<int> returned = 0;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      wrong += process_level(state) != 7;
      ++returned;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(returned, 0);
  __atomic_store_n(&state.level, 7, __ATOMIC_RELEASE);
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST(Dispatch, RacingFirstUsersAgree) {
  for (int round = 0; round < 100; ++round) {
    forget_choices();
    std::atomic<bool> go = false;
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        while (!go) {
          std::this_thread::yield();
        }
        right += results_are_right();
      });
    }
    go = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
    ASSERT_EQ(right, 4);
    expect_slots_of_level(__libkso_math_level.level);
  }
}

}  // namespace
