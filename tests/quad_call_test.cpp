// The calling convention, from hand-written assembler, and what only a caller can see: traps, and
// the choice of the variant.
#include "support/quad_call.h"

#include <gtest/gtest.h>

#include "cpu/feature_set.h"
#include "support/child_process.h"
#include "support/quad_cases.h"

using namespace ksomd::test;

namespace {

constexpr std::uint64_t garbage = 0xDEADBEEFDEADBEEF;

// Windows counts positions over both kinds of registers, the System V convention each kind alone.
#ifdef _WIN32
constexpr std::size_t second_vector = 1;
#else
constexpr std::size_t second_vector = 0;
#endif

template <class Routine>
Call make_call(Routine* routine) {
  return {reinterpret_cast<void (*)()>(routine),
          {garbage, garbage, garbage, garbage, garbage},
          {garbage, garbage},
          0,
          0,
          0};
}

template <class... Address>
Call call_with(auto* routine, Address*... addresses) {
  Call call = make_call(routine);
  std::size_t i = 0;
  ((call.integers[i++] = reinterpret_cast<std::uint64_t>(addresses)), ...);
  return call;
}

void run(Call& call) {
  ksomd_quad_call(&call);
  EXPECT_EQ(call.preserved, 1u);
}

const quad128 two_and_a_half = {0, 0x4000400000000000};
const quad128 four = {0, 0x4001000000000000};

TEST(QuadCall, ArithmeticResultAddressFirst) {
  const struct {
    BinaryRoutine routine;
    std::uint64_t high;
  } rows[] = {{__addq, 0x4001A00000000000},
              {__subq, 0xBFFF800000000000},
              {__mulq, 0x4002400000000000},
              {__divq, 0x3FFE400000000000}};
  for (const auto& row : rows) {
    quad128 result = {garbage, garbage};
    Call call = call_with(row.routine, &result, &two_and_a_half, &four);
    run(call);
    EXPECT_EQ(bits_of(result), (Bits{row.high, 0}));
  }
}

// Five addresses: the last goes over the stack on Windows.
TEST(QuadCall, ComplexPartsByAddress) {
  cquad128 result;
  const quad128 one_half = {0, 0x3FFE000000000000};
  const quad128 zero = {0, 0};
  Call call = call_with(__cmulq, &result, &two_and_a_half, &zero, &four, &one_half);
  run(call);
  EXPECT_EQ(bits_of(result.re), (Bits{0x4002400000000000, 0}));
  EXPECT_EQ(bits_of(result.im), (Bits{0x3FFF400000000000, 0}));
}

TEST(QuadCall, FloatingPointByPosition) {
  constexpr std::uint64_t double_bits = 0x4004000000000000;  // 2.5
  constexpr std::uint64_t float_bits = 0x40200000;
  quad128 result;
  cquad128 complex_result;
  const auto second_argument = [&](Call call, std::uint64_t bits) {
    call.vectors[second_vector] = bits;
    run(call);
  };
  second_argument(call_with(__dtoq, &result), double_bits);
  EXPECT_EQ(bits_of(result), bits_of(two_and_a_half));
  second_argument(call_with(a_ftoq, &result), float_bits | garbage << 32);
  EXPECT_EQ(bits_of(result), bits_of(two_and_a_half));
  second_argument(call_with(a_dtocq, &complex_result), double_bits);
  EXPECT_EQ(bits_of(complex_result.re), bits_of(two_and_a_half));
  second_argument(call_with(a_ftocq, &complex_result), float_bits | garbage << 32);
  EXPECT_EQ(bits_of(complex_result.re), bits_of(two_and_a_half));

  Call to_double = call_with(__qtod, &two_and_a_half);
  run(to_double);
  EXPECT_EQ(to_double.vector_result, double_bits);
  Call to_float = call_with(a_cqtof, &two_and_a_half);
  run(to_float);
  EXPECT_EQ(static_cast<std::uint32_t>(to_float.vector_result), float_bits);
}

// Only the low bits of a register that carries a narrower integer count.
TEST(QuadCall, Integers) {
  quad128 result;
  cquad128 complex_result;
  const auto second_argument = [](Call call, std::uint64_t bits) {
    call.integers[1] = bits;
    run(call);
    return call.integer_result;
  };
  const auto address = reinterpret_cast<std::uint64_t>(&result);
  const Bits minus_three = {0xC000800000000000, 0};
  constexpr std::uint64_t high_garbage = garbage << 32;
  EXPECT_EQ(second_argument(call_with(__itoq, &result), high_garbage | 0xFFFFFFFD), address);
  EXPECT_EQ(bits_of(result), minus_three);
  EXPECT_EQ(second_argument(call_with(__jtoq, &result), ~std::uint64_t{2}), address);
  EXPECT_EQ(bits_of(result), minus_three);
  EXPECT_EQ(second_argument(call_with(__utoq, &result), high_garbage | 3), address);
  EXPECT_EQ(bits_of(result), (Bits{0x4000800000000000, 0}));
  EXPECT_EQ(second_argument(call_with(__ktoq, &result), 3), address);
  EXPECT_EQ(bits_of(result), (Bits{0x4000800000000000, 0}));
  second_argument(call_with(a_ctoq, &result), garbage << 8 | 0xFD);
  EXPECT_EQ(bits_of(result), minus_three);
  second_argument(call_with(a_stoq, &result), garbage << 16 | 0xFFFD);
  EXPECT_EQ(bits_of(result), minus_three);
  second_argument(call_with(a_chtocq, &complex_result), garbage << 8 | 0xFD);
  EXPECT_EQ(bits_of(complex_result.re), minus_three);
  second_argument(call_with(a_stocq, &complex_result), garbage << 16 | 0xFFFD);
  EXPECT_EQ(bits_of(complex_result.re), minus_three);

  const auto rounded = second_argument(call_with(__qtoi, &two_and_a_half),
                                       high_garbage | std::uint64_t{KSOMD_ROUND_UP});
  EXPECT_EQ(static_cast<std::uint32_t>(rounded), 3u);
  Call equal = call_with(__eqq, &two_and_a_half, &two_and_a_half);
  run(equal);
  EXPECT_EQ(static_cast<std::uint32_t>(equal.integer_result), 1u);
}

TEST(QuadCall, EightyBitsReturnTheirAddress) {
  for (const auto routine : {__qtol, a_qtol}) {
    extended80 result;
    Call call = call_with(routine, &result, &two_and_a_half);
    run(call);
    EXPECT_EQ(call.integer_result, reinterpret_cast<std::uint64_t>(&result));
    EXPECT_EQ(result.significand, 0xA000000000000000);
    EXPECT_EQ(result.sign_exponent, 0x4000);
  }
}

// Whatever the indicator says, results are the same; an empty one is filled.
TEST(QuadCall, EntriesReadTheIndicator) {
  std::uint64_t& indicator = __orvex_cpu_feature_indicator[0];
  const std::uint64_t detected = ksomd::feature_word();
  Random random(83);
  for (int i = 0; i < 4000; ++i) {
    const Bits a = random.any();
    const Bits b = random.partner(a);
    const std::uint64_t words[] = {0, 1, detected, detected & ~(std::uint64_t{1} << (1 + i % 7))};
    indicator = words[i % 4];
    const Mode mode = all_modes[i / 4 % 4];
    const Outcome sum = run(__addq, a, b, mode);
    indicator = words[i % 4];
    const Outcome difference = run(__subq, a, b, mode);
    indicator = words[i % 4];
    const Outcome product = run(__mulq, a, b, mode);
    indicator = words[i % 4];
    const Outcome quotient = run(__divq, a, b, mode);
    EXPECT_NE(indicator, 0u);
    indicator = detected;
    ASSERT_EQ(sum, oracle::add(a, b, mode)) << a << ", " << b << ' ' << mode;
    ASSERT_EQ(difference, oracle::subtract(a, b, mode)) << a << ", " << b << ' ' << mode;
    ASSERT_EQ(product, oracle::multiply(a, b, mode)) << a << ", " << b << ' ' << mode;
    ASSERT_EQ(quotient, oracle::divide(a, b, mode)) << a << ", " << b << ' ' << mode;
  }
}

// Neither the x87 unit's rounding nor its precision counts; its control and status words stay.
TEST(QuadCall, X87ControlWordPlaysNoPart) {
  const auto run_all = [](Bits a, Bits b, Mode mode) {
    struct Results {
      quad128 arithmetic[4];
      quad128 from_extended[2];
      extended80 extended[2];
      double as_double;
      float as_float;
      std::int64_t integers[4];
      unsigned flags;
    } results;
    std::memset(&results, 0, sizeof results);
    const quad128 x = quad(a);
    const quad128 y = quad(b);
    results.flags = flags_of(mode, 0, [&] {
      __addq(&results.arithmetic[0], &x, &y);
      __subq(&results.arithmetic[1], &x, &y);
      __mulq(&results.arithmetic[2], &x, &y);
      __divq(&results.arithmetic[3], &x, &y);
      __qtol(&results.extended[0], &x);
      a_qtol(&results.extended[1], &x);
      __ltoq(&results.from_extended[0], &results.extended[0]);
      a_ltoq(&results.from_extended[1], &results.extended[0]);
      results.as_double = __qtod(&x);
      results.as_float = __qtof(&x);
      for (int rounding = 0; rounding < 4; ++rounding) {
        results.integers[rounding] = __qtoj(&x, rounding);
      }
    });
    return std::string(reinterpret_cast<const char*>(&results), sizeof results);
  };
  constexpr std::uint16_t all_masked = 0x003F;
  constexpr std::uint16_t usual = 0x037F;
  Random random(89);
  for (int i = 0; i < 2000; ++i) {
    const Bits a =
        i % 2 == 0 ? random.any() : random.with_exponent(0x3FFF - 140 + random.below(280));
    const Bits b = random.partner(a);
    const Mode mode = all_modes[i % 4];
    const std::string expected = run_all(a, b, mode);
    for (unsigned rounding_and_precision = 0; rounding_and_precision < 16;
         ++rounding_and_precision) {
      const auto control = static_cast<std::uint16_t>(all_masked | rounding_and_precision << 8);
      asm volatile("fnclex\n\tfldcw %0" : : "m"(control));
      const bool same = run_all(a, b, mode) == expected;
      struct {
        std::uint16_t control, unused0, status, unused1, tag, unused2[9];
      } environment;
      asm volatile("fnstenv %0\n\tfldcw %1" : "=m"(environment) : "m"(usual));
      ASSERT_TRUE(same) << a << ", " << b << ' ' << mode << " with " << control;
      ASSERT_EQ(environment.control & ~0x40, control & ~0x40);
      ASSERT_EQ(environment.status & 0xFF, 0) << a << ", " << b;
      ASSERT_EQ(environment.tag, 0xFFFF);
    }
  }
}

// An exception that MXCSR does not mask traps; masked ones do not.
constexpr Bits largest = {0x7FFEFFFFFFFFFFFF, ~std::uint64_t{0}};
const struct {
  const char* name;
  BinaryRoutine routine;
  Bits a, b;
  unsigned flags;
} trapping[] = {
    {"invalid", __subq, {0x7FFF000000000000, 0}, {0x7FFF000000000000, 0}, flag::invalid},
    {"divide by zero", __divq, one, {0, 0}, flag::divide_by_zero},
    {"overflow", __addq, largest, largest, flag::overflow | flag::inexact},
    {"underflow", __mulq, {0, 1}, {0, 1}, flag::underflow | flag::inexact},
    {"inexact", __addq, one, {0, 1}, flag::inexact},
};

KSOMD_CHILD(quad_trap) {
  const auto& row = trapping[std::stoul(arguments[0])];
  const unsigned unmasked = static_cast<unsigned>(std::stoul(arguments[1]));
  const quad128 a = quad(row.a);
  const quad128 b = quad(row.b);
  quad128 result;
  __builtin_ia32_ldmxcsr(mxcsr::all_masked & ~(unmasked << 7));
  row.routine(&result, &a, &b);
  __builtin_ia32_ldmxcsr(mxcsr::all_masked);
  return 0;
}

TEST(QuadCall, UnmaskedExceptionsTrap) {
  for (std::size_t i = 0; i < std::size(trapping); ++i) {
    // Each flag that is due alone, and all the others at once.
    std::vector<unsigned> masks = {flag::all & ~trapping[i].flags};
    for (unsigned due = trapping[i].flags; due != 0; due &= due - 1) {
      masks.push_back(due & (0 - due));
    }
    for (const unsigned unmasked : masks) {
      const bool traps = (trapping[i].flags & unmasked) != 0;
      const ChildResult child =
          run_child("quad_trap", {std::to_string(i), std::to_string(unmasked)});
      EXPECT_EQ(child.ending == Ending::Exit && child.status == 0, !traps)
          << trapping[i].name << " with " << unmasked << " unmasked";
    }
  }
}

}  // namespace
