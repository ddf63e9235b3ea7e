// Conversions and comparisons.
#include <gtest/gtest.h>

#include <bit>

#include "support/effort.h"
#include "support/quad_cases.h"
#include "support/quad_compiler.h"

using namespace ksomd::test;

namespace {

constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;

// Every exponent with fractions of all zeros and all ones, every exponent from `first` to `last`
// with all patterns and with a tie below `kept` fraction bits, odd and even.
std::vector<Bits> numbers_of_every_exponent(std::uint64_t first, std::uint64_t last, int kept) {
  std::vector<Bits> values = boundary_values();
  std::vector<Bits> patterns = fraction_patterns();
  const int below = 112 - kept;
  const auto bit = [](int i) {
    return i >= 64 ? Bits{std::uint64_t{1} << (i - 64), 0} : Bits{0, std::uint64_t{1} << i};
  };
  const Bits half = bit(below - 1);
  const Bits odd = bit(below);
  patterns.push_back(half);
  patterns.push_back({half.high | odd.high, half.low | odd.low});
  for (std::uint64_t field = 0; field <= 0x7FFF; ++field) {
    const std::size_t count = field < first || field > last ? 3 : patterns.size();
    for (std::size_t i = 0; i < count; ++i) {
      values.push_back({((field + i) & 1) << 63 | field << 48 | patterns[i].high, patterns[i].low});
    }
  }
  return values;
}

// Exponents from `first` to `last` with fractions that end in every way below bit `kept` of the
// fraction, counted from the top: exact, a tie, just off either; all ones above it or not.
std::vector<Bits> around_last_bit(std::uint64_t first, std::uint64_t last, int lowest_kept,
                                  int highest_kept) {
  std::vector<Bits> values;
  for (std::uint64_t field = first; field <= last; ++field) {
    for (int kept = lowest_kept; kept <= highest_kept; ++kept) {
      const int below = 112 - kept;
      const auto shift_left = [](Bits bits, int n) {
        return n >= 64  ? Bits{bits.low << (n - 64), 0}
               : n == 0 ? bits
                        : Bits{bits.high << n | bits.low >> (64 - n), bits.low << n};
      };
      const Bits half = below == 0 ? Bits{0, 0} : shift_left({0, 1}, below - 1);
      for (const Bits& above : {Bits{0, 0}, shift_left({0, 1}, below),
                                shift_left({~std::uint64_t{0}, ~std::uint64_t{0}}, below)}) {
        for (const std::int64_t off : {-1, 0, 1}) {
          for (const Bits& tail : {Bits{0, 0}, half}) {
            Bits sum = {above.high | tail.high, above.low | tail.low};
            sum.low += static_cast<std::uint64_t>(off);
            sum.high += off < 0 && sum.low == ~std::uint64_t{0} ? ~std::uint64_t{0} : 0;
            sum.high &= 0x0000FFFFFFFFFFFF;
            values.push_back({field << 48 | sum.high, sum.low});
            values.push_back({sign_bit | field << 48 | sum.high, sum.low});
          }
        }
      }
    }
  }
  return values;
}

// ---- to floating-point types --------------------------------------------------------------------

struct Narrowing {
  const char* name;
  Bits (*routine)(const quad128*);
  Outcome (*oracle)(Bits, Mode);
  compiler::Operation in_compiler;
  bool (*is_nan)(Bits);
};

Bits to_double(const quad128* a) {
  return {0, std::bit_cast<std::uint64_t>(__qtod(a))};
}
Bits to_float(const quad128* a) {
  return {0, std::bit_cast<std::uint32_t>(__qtof(a))};
}

// Only ten bytes may be written.
Bits to_extended_by(extended80* (*routine)(extended80*, const quad128*), const quad128* a) {
  unsigned char memory[16];
  std::memset(memory, 0xA5, sizeof memory);
  auto* result = reinterpret_cast<extended80*>(memory + 3);
  EXPECT_EQ(routine(result, a), result);
  EXPECT_EQ(memory[2], 0xA5);
  EXPECT_EQ(memory[13], 0xA5);
  return {result->sign_exponent, result->significand};
}
Bits to_extended(const quad128* a) {
  return to_extended_by(__qtol, a);
}
Bits to_extended_by_x87(const quad128* a) {
  return to_extended_by(a_qtol, a);
}

constexpr Narrowing narrowings[] = {
    {"to double", to_double, oracle::to_double, compiler::Operation::ToDouble,
     [](Bits x) { return x.low << 1 > std::uint64_t{0x7FF} << 53; }},
    {"to float", to_float, oracle::to_float, compiler::Operation::ToFloat,
     [](Bits x) { return x.low << 33 > std::uint64_t{0xFF} << 56; }},
    {"to 80 bits", to_extended, oracle::to_extended, compiler::Operation::ToExtended,
     [](Bits x) { return (x.high & 0x7FFF) == 0x7FFF && x.low << 1 != 0; }},
    {"to 80 bits by x87", to_extended_by_x87, oracle::to_extended, compiler::Operation::ToExtended,
     [](Bits x) { return (x.high & 0x7FFF) == 0x7FFF && x.low << 1 != 0; }},
};

Outcome run_narrowing(const Narrowing& narrowing, Bits a, Mode mode, unsigned more_bits) {
  const quad128 operand = quad(a);
  Bits result = {};
  const unsigned flags = flags_of(mode, more_bits, [&] { result = narrowing.routine(&operand); });
  return {result, flags};
}

bool check_narrowing(const Narrowing& narrowing, Bits a, Mode mode) {
  const Outcome expected = narrowing.oracle(a, mode);
  if (compiler::available()) {
    Outcome second = compiler::run(narrowing.in_compiler, a, a, mode);
    // The compiler's 80-bit result is tiny by IEEE's rule; ours is if it stays subnormal.
    const bool extended = narrowing.in_compiler == compiler::Operation::ToExtended;
    if (extended && (expected.bits.high & 0x7FFF) == 1) {
      second.flags &= ~flag::underflow;
    }
    const bool nans = narrowing.is_nan(second.bits) && narrowing.is_nan(expected.bits);
    if (second.flags != expected.flags || (!nans && second.bits != expected.bits)) {
      ADD_FAILURE() << "the oracles disagree: " << a << ' ' << narrowing.name << ' ' << mode
                    << "\n  " << second << "\n  " << expected;
      return false;
    }
  }
  const unsigned more_bits =
      (a.low & 3) != 0 ? 0 : mxcsr::flush_to_zero | mxcsr::denormals_are_zero;
  const Outcome actual = run_narrowing(narrowing, a, mode, more_bits);
  if (actual != expected) {
    ADD_FAILURE() << a << ' ' << narrowing.name << ' ' << mode << "\n  gives    " << actual
                  << "\n  expected " << expected;
    return false;
  }
  return true;
}

TEST(QuadConversion, ToFloatingPointAtEveryExponent) {
  const struct {
    std::uint64_t first, last;
    int kept;
  } ranges[] = {{0x3FFF - 1080, 0x3FFF + 1025, 52},
                {0x3FFF - 155, 0x3FFF + 129, 23},
                {0, 0x7FFF, 63},
                {0, 0x7FFF, 63}};
  static_assert(std::size(ranges) == std::size(narrowings));
  for (std::size_t i = 0; i < std::size(narrowings); ++i) {
    const auto& range = ranges[i];
    for (const Bits& value : numbers_of_every_exponent(range.first, range.last, range.kept)) {
      for (const Mode mode : all_modes) {
        ASSERT_TRUE(check_narrowing(narrowings[i], value, mode));
      }
    }
  }
}

// Where the narrower formats begin and end, and where their subnormal numbers lose bit after bit.
TEST(QuadConversion, ToFloatingPointAboutEveryLastBit) {
  const struct {
    const Narrowing& narrowing;
    std::uint64_t first, last;
    int lowest_kept, highest_kept;
  } ranges[] = {{narrowings[0], 0x3FFF + 1022, 0x3FFF + 1024, 51, 53},
                {narrowings[0], 0x3FFF - 1024, 0x3FFF - 1021, 50, 53},
                {narrowings[0], 0x3FFF - 1076, 0x3FFF - 1024, 0, 4},
                {narrowings[1], 0x3FFF + 126, 0x3FFF + 128, 22, 24},
                {narrowings[1], 0x3FFF - 128, 0x3FFF - 125, 20, 24},
                {narrowings[1], 0x3FFF - 151, 0x3FFF - 128, 0, 23},
                {narrowings[2], 0, 3, 62, 64},
                {narrowings[2], 0x7FFC, 0x7FFE, 62, 64},
                {narrowings[2], 0x3FFE, 0x3FFF, 61, 112}};
  for (const auto& range : ranges) {
    for (const Bits& value :
         around_last_bit(range.first, range.last, range.lowest_kept, range.highest_kept)) {
      for (const Mode mode : all_modes) {
        ASSERT_TRUE(check_narrowing(range.narrowing, value, mode));
      }
    }
  }
}

TEST(QuadConversion, ToFloatingPointRandom) {
  const int count = full_length() ? 1000000 : compiler::available() ? 60000 : 10000;
  for (const Narrowing& narrowing : narrowings) {
    const std::uint64_t lowest =
        narrowing.in_compiler == compiler::Operation::ToDouble  ? 0x3FFF - 1090
        : narrowing.in_compiler == compiler::Operation::ToFloat ? 0x3FFF - 160
                                                                : 0;
    Random random(41);
    for (int i = 0; i < count; ++i) {
      show_progress(narrowing.name, static_cast<std::uint64_t>(i),
                    static_cast<std::uint64_t>(count));
      const Bits value = random.with_exponent(lowest + random.below(2 * (0x3FFF - lowest)));
      ASSERT_TRUE(check_narrowing(narrowing, value, all_modes[i % 4])) << "case " << i;
    }
  }
}

// ---- to integers --------------------------------------------------------------------------------

oracle::IntegerRounding rounding_of(int mode, oracle::IntegerRounding otherwise) {
  using enum oracle::IntegerRounding;
  switch (mode) {
    case KSOMD_ROUND_TOWARD_ZERO:
      return TowardZero;
    case KSOMD_ROUND_NEAREST_EVEN:
      return NearestEven;
    case KSOMD_ROUND_DOWN:
      return Down;
    case KSOMD_ROUND_UP:
      return Up;
    default:
      return otherwise;
  }
}

bool check_integer(const char* name, Bits a, const Outcome& actual, const Outcome& expected) {
  if (actual == expected) {
    return true;
  }
  ADD_FAILURE() << a << ' ' << name << "\n  gives    " << actual << "\n  expected " << expected;
  return false;
}

bool check_integers(Bits a, Mode mxcsr_mode) {
  const quad128 operand = quad(a);
  std::uint64_t result = 0;
  for (const int mode : {0, 1, 2, 3, 4, -1, 257}) {
    unsigned flags = flags_of(mxcsr_mode, 0,
                              [&] { result = static_cast<std::uint32_t>(__qtoi(&operand, mode)); });
    const auto away = rounding_of(mode, oracle::IntegerRounding::AwayFromZero);
    const auto toward_zero = rounding_of(mode, oracle::IntegerRounding::TowardZero);
    if (!check_integer("to int32", a, {{0, result}, flags}, oracle::to_signed(a, 32, away))) {
      return false;
    }
    flags = flags_of(mxcsr_mode, 0,
                     [&] { result = static_cast<std::uint64_t>(__qtoj(&operand, mode)); });
    if (!check_integer("to int64", a, {{0, result}, flags},
                       oracle::to_signed(a, 64, toward_zero))) {
      return false;
    }
  }
  unsigned flags = flags_of(mxcsr_mode, 0, [&] { result = __qtou(&operand); });
  if (!check_integer("to uint32", a, {{0, result}, flags}, oracle::to_unsigned(a, 32))) {
    return false;
  }
  flags = flags_of(mxcsr_mode, 0, [&] { result = __qtok(&operand); });
  return check_integer("to uint64", a, {{0, result}, flags}, oracle::to_unsigned(a, 64));
}

TEST(QuadConversion, ToIntegers) {
  std::vector<Bits> values = boundary_values();
  for (std::uint64_t field = 0x3FFF - 70; field <= 0x3FFF + 66; ++field) {
    const int integer_bits = static_cast<int>(field) - 0x3FFF;
    const int lowest = std::max(integer_bits - 2, 0);
    const auto more = around_last_bit(field, field, lowest, lowest + 3);
    values.insert(values.end(), more.begin(), more.end());
  }
  Random random(43);
  for (int i = 0; i < 3000; ++i) {
    values.push_back(random.with_exponent(0x3FFF - 4 + random.below(72)));
    values.push_back(random.any());
  }
  // 2^31 and 2^63 with their neighbours, in halves.
  for (const std::uint64_t exponent : {31u, 32u, 63u, 64u}) {
    for (int halves = -4; halves <= 4; ++halves) {
      const Bits power = {(0x3FFF + exponent) << 48, 0};
      const std::uint64_t magnitude = static_cast<std::uint64_t>(std::abs(halves));
      Bits distance = oracle::from_integer(halves < 0, magnitude);
      distance = oracle::multiply(distance, {0x3FFE000000000000, 0}, Mode::NearestEven).bits;
      const Bits sum = oracle::add(power, distance, Mode::NearestEven).bits;
      values.push_back(sum);
      values.push_back({sum.high | sign_bit, sum.low});
    }
  }
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_TRUE(check_integers(values[i], all_modes[i % 4]));
    if (compiler::available() && !oracle::is_nan(values[i])) {
      using enum compiler::Operation;
      const auto toward_zero = oracle::IntegerRounding::TowardZero;
      const std::pair<compiler::Operation, Outcome> rows[] = {
          {ToInt32, oracle::to_signed(values[i], 32, toward_zero)},
          {ToInt64, oracle::to_signed(values[i], 64, toward_zero)},
          {ToUint32, oracle::to_unsigned(values[i], 32)},
          {ToUint64, oracle::to_unsigned(values[i], 64)}};
      for (const auto& [operation, expected] : rows) {
        if ((expected.flags & flag::invalid) == 0) {  // out of range, each has its own answer
          ASSERT_EQ(compiler::run(operation, values[i], values[i], all_modes[i % 4]), expected)
              << values[i];
        }
      }
    }
  }
}

// ---- to quad ------------------------------------------------------------------------------------

// What to_quad(result) stores, on memory of any content; no flag may be up afterwards.
template <class Convert>
Bits widened(Convert convert) {
  quad128 result = {0x5555555555555555, 0x5555555555555555};
  EXPECT_EQ(flags_of(Mode::Up, 0, [&] { convert(&result); }), 0u);
  return bits_of(result);
}

// The compiler's opinion, where there is one.
void expect_of_compiler(compiler::Source source, Bits narrow, Bits wide) {
  if (compiler::available()) {
    ASSERT_EQ(compiler::widen(source, narrow), wide) << narrow;
  }
}

void check_double(std::uint64_t bits) {
  const Bits wide = widened([&](quad128* r) { __dtoq(r, std::bit_cast<double>(bits)); });
  ASSERT_EQ(wide, oracle::from_double(bits)) << std::hex << bits;
  if (!oracle::is_nan(wide)) {
    expect_of_compiler(compiler::Source::Double, {0, bits}, wide);
    ASSERT_EQ(run_narrowing(narrowings[0], wide, Mode::Up, 0), (Outcome{{0, bits}, 0}));
  }
}

void check_float(std::uint32_t bits) {
  const Bits wide = widened([&](quad128* r) { __ftoq(r, std::bit_cast<float>(bits)); });
  ASSERT_EQ(wide, oracle::from_float(bits)) << std::hex << bits;
  if (!oracle::is_nan(wide)) {
    ASSERT_EQ(run_narrowing(narrowings[1], wide, Mode::Up, 0), (Outcome{{0, bits}, 0}));
  }
}

TEST(QuadConversion, FromDoubles) {
  Random random(47);
  for (std::uint64_t exponent = 0; exponent < 0x800; ++exponent) {
    for (const std::uint64_t fraction :
         {std::uint64_t{0}, std::uint64_t{1}, ~std::uint64_t{0} >> 12, std::uint64_t{1} << 51,
          (std::uint64_t{1} << 51) - 1, random.next() >> 12,
          random.next() >> (12 + exponent % 52)}) {
      check_double(exponent << 52 | fraction);
      check_double(sign_bit | exponent << 52 | fraction);
    }
  }
  for (int shift = 0; shift < 52; ++shift) {
    check_double(std::uint64_t{1} << shift);
  }
}

// Every float at full length: by the compiler all, by the exact oracle some, and back again.
TEST(QuadConversion, FromFloats) {
  constexpr std::uint64_t block = 1 << 16;
  constexpr std::uint64_t end = std::uint64_t{1} << 32;
  const std::uint64_t step = full_length() ? 1 : 100003;
  std::vector<quad128> wide(block);
  for (std::uint64_t first = 0; first < end; first += block * step) {
    show_progress("floats", first, end);
    const auto narrow = [&](std::uint64_t i) {
      return static_cast<std::uint32_t>(first + i * step);
    };
    const std::uint64_t count = std::min(block, (end - first + step - 1) / step);
    const unsigned flags = flags_of(Mode::Up, 0, [&] {
      for (std::uint64_t i = 0; i < count; ++i) {
        __ftoq(&wide[i], std::bit_cast<float>(narrow(i)));
      }
    });
    ASSERT_EQ(flags, 0u);
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint32_t bits = narrow(i);
      const Bits result = bits_of(wide[i]);
      if ((bits & 0x7FFFFFFF) > 0x7F800000) {  // a NaN: its fraction moved
        ASSERT_EQ(result, (Bits{std::uint64_t{bits >> 31} << 63 | std::uint64_t{0x7FFF} << 48 |
                                    std::uint64_t{bits & 0x7FFFFF} << 25,
                                0}));
        continue;
      }
      if (compiler::available() && compiler::widen(compiler::Source::Float, {0, bits}) != result) {
        FAIL() << std::hex << bits << " gives " << result;
      }
      if (std::bit_cast<std::uint32_t>(__qtof(&wide[i])) != bits) {
        FAIL() << std::hex << bits << " comes back as another";
      }
      if (step != 1 || bits % 4096 == 0) {
        check_float(bits);
      }
    }
  }
}

struct Extended {
  std::uint16_t sign_exponent;
  std::uint64_t significand;
};

// Denormals, pseudo-denormals, unnormals, normals, infinities and NaNs, their integer bit set or
// not: the bits below it are what counts.
TEST(QuadConversion, FromEightyBits) {
  Random random(53);
  const auto check = [](Extended x, void (*routine)(quad128*, const extended80*)) {
    unsigned char memory[16];
    auto* operand = reinterpret_cast<extended80*>(memory + 5);
    *operand = {x.significand, x.sign_exponent};
    const Bits wide = widened([&](quad128* r) { routine(r, operand); });
    const std::uint64_t below = x.significand & ~sign_bit;
    ASSERT_EQ(wide, (Bits{std::uint64_t{x.sign_exponent} << 48 | below >> 15, below << 49}))
        << std::hex << x.sign_exponent << ' ' << x.significand;
    const bool normal_integer_bit = (x.significand >> 63 != 0) == ((x.sign_exponent & 0x7FFF) != 0);
    if (!oracle::is_nan(wide) && normal_integer_bit) {
      ASSERT_EQ(run_narrowing(narrowings[2], wide, Mode::Up, 0),
                (Outcome{{x.sign_exponent, x.significand}, 0}));
      expect_of_compiler(compiler::Source::Extended, {x.sign_exponent, x.significand}, wide);
    }
  };
  for (unsigned exponent = 0; exponent <= 0xFFFF; ++exponent) {
    const std::uint64_t significands[] = {
        0, 1, sign_bit, sign_bit | 1, sign_bit >> 1, ~std::uint64_t{0}, ~sign_bit, random.next()};
    for (const std::uint64_t significand : significands) {
      check({static_cast<std::uint16_t>(exponent), significand}, __ltoq);
      check({static_cast<std::uint16_t>(exponent), significand}, a_ltoq);
    }
  }
}

TEST(QuadConversion, FromIntegers) {
  std::vector<std::uint64_t> values = {0, 1, 2, 3, ~std::uint64_t{0}};
  Random random(59);
  for (int shift = 0; shift < 64; ++shift) {
    const std::uint64_t power = std::uint64_t{1} << shift;
    for (const std::uint64_t value : {power, power - 1, power + 1, 0 - power, 1 - power,
                                      random.next() >> shift, 0 - (random.next() >> shift)}) {
      values.push_back(value);
    }
  }
  const auto expect_integer = [](std::int64_t value, auto convert) {
    const bool minus = value < 0;
    const auto bits = static_cast<std::uint64_t>(value);
    ASSERT_EQ(widened(convert), oracle::from_integer(minus, minus ? 0 - bits : bits)) << value;
  };
  const auto returning = [](auto routine, auto value) {
    return [=](quad128* r) { EXPECT_EQ(routine(r, value), r); };
  };
  for (const std::uint64_t value : values) {
    const auto i64 = static_cast<std::int64_t>(value);
    const auto i32 = static_cast<std::int32_t>(value);
    const auto i16 = static_cast<std::int16_t>(value);
    const auto i8 = static_cast<std::int8_t>(value);
    const auto u32 = static_cast<std::uint32_t>(value);
    expect_integer(i64, returning(__jtoq, i64));
    expect_integer(i32, returning(__itoq, i32));
    expect_integer(u32, returning(__utoq, u32));
    expect_integer(i16, [&](quad128* r) { a_stoq(r, i16); });
    expect_integer(i8, [&](quad128* r) { a_ctoq(r, i8); });
    ASSERT_EQ(widened(returning(__ktoq, value)), oracle::from_integer(false, value));
    using enum compiler::Source;
    for (const auto& [source, wide] : {std::pair{Int64, widened(returning(__jtoq, i64))},
                                       {Int32, widened(returning(__itoq, i32))},
                                       {Uint32, widened(returning(__utoq, u32))},
                                       {Uint64, widened(returning(__ktoq, value))}}) {
      expect_of_compiler(source, {0, value}, wide);
    }
    // And back.
    const quad128 wide = quad(oracle::from_integer(false, value));
    ASSERT_EQ(__qtok(&wide), value);
  }
}

// ---- comparisons and negation -------------------------------------------------------------------

TEST(QuadComparison, EveryPair) {
  std::vector<Bits> values = boundary_values();
  Random random(61);
  for (int i = 0; i < 60; ++i) {
    values.push_back(random.any());
    values.push_back({values.back().high, values.back().low ^ sign_bit >> random.below(64)});
  }
  using Comparison = std::int32_t (*)(const quad128*, const quad128*);
  const struct {
    Comparison routine;
    bool quiet;
    int less, equal, greater, unordered;
  } rows[] = {
      {__eqq, true, 0, 1, 0, 0},        {__neq, true, 1, 0, 1, 1},      {__ltq, false, 1, 0, 0, 0},
      {__leq, false, 1, 1, 0, 0},       {__gtq, false, 0, 0, 1, 0},     {__geq, false, 0, 1, 1, 0},
      {__compareq, false, -1, 0, 1, 0}, {compareq, false, -1, 0, 1, 0},
  };
  for (const auto& row : rows) {
    for (const Bits& a : values) {
      for (const Bits& b : values) {
        const quad128 x = quad(a);
        const quad128 y = quad(b);
        int actual = 77;
        const unsigned flags = flags_of(Mode::Up, 0, [&] { actual = row.routine(&x, &y); });
        const bool unordered = oracle::is_nan(a) || oracle::is_nan(b);
        const auto order = unordered ? std::strong_ordering::equal : oracle::compare(a, b);
        if (compiler::available() && !unordered) {
          ASSERT_EQ(compiler::compare(a, b) <=> 0, order) << a << ", " << b;
        }
        const int expected = unordered   ? row.unordered
                             : order < 0 ? row.less
                             : order > 0 ? row.greater
                                         : row.equal;
        ASSERT_EQ(actual, expected) << "row " << &row - rows << ": " << a << ", " << b;
        ASSERT_EQ(flags, unordered && !row.quiet ? flag::invalid : 0u) << a << ", " << b;
      }
    }
  }
}

TEST(QuadConversion, Negation) {
  for (const Bits& a : boundary_values()) {
    quad128 value = quad(a);
    EXPECT_EQ(flags_of(Mode::Down, 0, [&] { __negq(&value, &value); }), 0u);
    EXPECT_EQ(bits_of(value), (Bits{a.high ^ sign_bit, a.low}));
  }
}

}  // namespace
