// What the quad tests share: operands, and calls under a rounding mode with their flags.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "support/effort.h"
#include "support/quad_oracle.h"
#include "support/seed.h"

namespace ksomd::test {

// ---- calls --------------------------------------------------------------------------------------

namespace mxcsr {
inline constexpr unsigned all_masked = 0x1F80;
inline constexpr unsigned denormals_are_zero = 1u << 6;
inline constexpr unsigned flush_to_zero = 1u << 15;
}  // namespace mxcsr

// Runs call() in a mode, with more MXCSR bits set (flags already up, flush-to-zero), and returns
// the flags that are up afterwards. Everything else in MXCSR must stay as it was.
template <class Call>
unsigned flags_of(Mode mode, unsigned more_bits, Call call) {
  const unsigned before = mxcsr::all_masked | static_cast<unsigned>(mode) << 13 | more_bits;
  __builtin_ia32_ldmxcsr(before);
  call();
  const unsigned after = __builtin_ia32_stmxcsr();
  __builtin_ia32_ldmxcsr(mxcsr::all_masked);
  if ((after & ~flag::all) != (before & ~flag::all)) {
    ADD_FAILURE() << "MXCSR was " << before << ", is " << after;
  }
  return after & flag::all;
}

using BinaryRoutine = void (*)(quad128*, const quad128*, const quad128*);

inline Outcome run(BinaryRoutine routine, Bits a, Bits b, Mode mode, unsigned more_bits = 0) {
  const quad128 x = quad(a);
  const quad128 y = quad(b);
  quad128 result = {0x5555555555555555, 0x5555555555555555};
  const unsigned flags = flags_of(mode, more_bits, [&] { routine(&result, &x, &y); });
  return {bits_of(result), flags};
}

// ---- operands -----------------------------------------------------------------------------------

inline constexpr Bits one = {0x3FFF000000000000, 0};

// Both signs of every value where something changes.
inline std::vector<Bits> boundary_values() {
  constexpr std::uint64_t ones = ~std::uint64_t{0};
  const Bits positive[] = {
      {0, 0},  // zero
      {0, 1},  // smallest subnormals
      {0, 2},
      {0, 3},
      {0, std::uint64_t{1} << 63},  // subnormals about the word boundary
      {1, 0},
      {0x00007FFFFFFFFFFF, ones},  // largest subnormals
      {0x0000FFFFFFFFFFFF, ones - 1},
      {0x0000FFFFFFFFFFFF, ones},
      {0x0001000000000000, 0},  // smallest normals
      {0x0001000000000000, 1},
      {0x0001FFFFFFFFFFFF, ones},
      {0x0002000000000000, 0},
      {0x1FFF000000000000, 0},  // squares at the edge of the range
      {0x1FFF800000000001, 12345},
      {0x3F8E000000000000, 0},  // 2^-113
      {0x3FFE000000000000, 0},  // 1/2
      {0x3FFEFFFFFFFFFFFF, ones - 1},
      {0x3FFEFFFFFFFFFFFF, ones},  // below 1
      {0x3FFF000000000000, 0},     // 1
      {0x3FFF000000000000, 1},
      {0x3FFF800000000000, 0},
      {0x4000000000000000, 0},  // 2
      {0x4000800000000000, 0},  // 3
      {0x4002400000000000, 0},  // 10
      {0x406F000000000000, 1},  // 2^112 + 1
      {0x5FFF000000000000, 0},
      {0x5FFF123456789ABC, 0xDEF0123456789ABC},
      {0x7FFDFFFFFFFFFFFF, ones},
      {0x7FFE000000000000, 0},  // largest power of two
      {0x7FFEFFFFFFFFFFFF, ones - 1},
      {0x7FFEFFFFFFFFFFFF, ones},  // largest finite
      {0x7FFF000000000000, 0},     // infinity
      {0x7FFF800000000000, 0},     // quiet NaNs
      {0x7FFF800000000000, 1},
      {0x7FFFC00000000000, 0},
      {0x7FFFFFFFFFFFFFFF, ones},
      {0x7FFF000000000000, 1},  // signaling NaNs
      {0x7FFF000000000001, 0},
      {0x7FFF400000000000, 0},
      {0x7FFF7FFFFFFFFFFF, ones},
  };
  std::vector<Bits> values;
  for (const Bits& value : positive) {
    values.push_back(value);
    values.push_back({value.high | std::uint64_t{1} << 63, value.low});
  }
  return values;
}

// Significands with long runs and few bits.
inline std::vector<Bits> fraction_patterns() {
  constexpr std::uint64_t ones = ~std::uint64_t{0};
  constexpr std::uint64_t top = 0x0000FFFFFFFFFFFF;
  return {{0, 0},
          {0, 1},
          {top, ones},
          {top, ones - 1},
          {0x0000800000000000, 0},
          {0x00007FFFFFFFFFFF, ones},
          {0, ones},
          {top, 0},
          {1, 0},
          {0x0000555555555555, 0x5555555555555555},
          {0x0000AAAAAAAAAAAA, 0xAAAAAAAAAAAAAAAA},
          {0x0000C0FFEE123456, 0x89ABCDEF01234567}};
}

class Random {
 public:
  explicit Random(std::uint32_t seed) : state_(seed_of(seed)) {}

  std::uint64_t next() {  // splitmix64
    std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return z ^ z >> 31;
  }
  std::uint64_t below(std::uint64_t limit) { return next() % limit; }

  // A fraction of random bits, or of few ones or few zeros.
  Bits fraction() {
    constexpr std::uint64_t mask = 0x0000FFFFFFFFFFFF;
    Bits bits = {next(), next()};
    const std::uint64_t kind = below(4);
    if (kind >= 2) {
      bits = {next() & next() & next() & next(), next() & next() & next() & next()};
      if (below(2) == 0) {
        bits.low = below(2) == 0 ? 0 : bits.low;
      }
    }
    if (kind == 3) {
      bits = {~bits.high, ~bits.low};
    }
    return {bits.high & mask, bits.low};
  }
  Bits with_exponent(std::uint64_t field) {
    const Bits f = fraction();
    return {(next() & std::uint64_t{1} << 63) | field << 48 | f.high, f.low};
  }

  // Any finite number; now and then near an end of the range, or infinite or NaN.
  Bits any() {
    switch (below(8)) {
      case 0:
        return with_exponent(below(130));
      case 1:
        return with_exponent(0x7FFF - below(130));
      default:
        return with_exponent(below(0x7FFF));
    }
  }
  // A second operand, its exponent such that the sum, product or quotient with `a` is interesting.
  Bits partner(Bits a) {
    const auto field = static_cast<std::int64_t>(a.high >> 48 & 0x7FFF);
    const auto jitter = static_cast<std::int64_t>(below(260)) - 130;
    std::int64_t other = 0;
    switch (below(8)) {
      case 0:  // product about the smallest normal number
        other = 16383 - field + jitter;
        break;
      case 1:  // product about the largest number
        other = 16383 + 0x7FFE - field + jitter;
        break;
      case 2:  // quotient about the smallest normal number
        other = field + 16382 + jitter;
        break;
      case 3:  // quotient about the largest number
        other = field - 16383 + jitter;
        break;
      case 4:
        return any();
      case 5: {  // nearly equal: long cancellation
        Bits near = a;
        near.low ^= below(2) == 0 ? 0 : next() >> below(64);
        near.high ^= (next() & std::uint64_t{1} << 63) | (below(4) == 0 ? below(4) : 0);
        near.high += below(8) == 0 ? std::uint64_t{1} << 48 : 0;
        return near;
      }
      default:  // overlapping
        other = field + jitter;
        break;
    }
    if (other < 0 || other > 0x7FFE) {
      return any();
    }
    return with_exponent(static_cast<std::uint64_t>(other));
  }

 private:
  std::uint64_t state_;
};

// ---- length -------------------------------------------------------------------------------------

// Says at full length how far a long loop is.
inline void show_progress(const char* what, std::uint64_t done, std::uint64_t of) {
  if (full_length() && of >= 16 && done % (of / 16) == 0) {
    std::printf("  %s: %llu of %llu\n", what, static_cast<unsigned long long>(done),
                static_cast<unsigned long long>(of));
    std::fflush(stdout);
  }
}

}  // namespace ksomd::test
