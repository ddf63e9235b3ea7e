// Integer conversions against exact rounding in integers, in the four rounding modes.
#include "ksomd/conversion.h"

#include <gtest/gtest.h>
#include <immintrin.h>

#include <bit>
#include <cstring>
#include <random>

#include "support/seed.h"

namespace {

// The magnitude rounded to `bits` significant ones, in a mode of MXCSR: nearest, down, up, zero.
unsigned __int128 rounded(unsigned __int128 magnitude, bool negative, int bits, unsigned mode,
                          bool& inexact) {
  int length = 0;
  while (length < 128 && magnitude >> length != 0) {
    ++length;
  }
  if (length <= bits) {
    return magnitude;
  }
  const int drop = length - bits;
  const unsigned __int128 unit = static_cast<unsigned __int128>(1) << drop;
  const unsigned __int128 rest = magnitude & (unit - 1);
  unsigned __int128 result = magnitude - rest;
  inexact |= rest != 0;
  const bool odd = (result & unit) != 0;
  const bool away = mode == 0   ? rest > unit / 2 || (rest == unit / 2 && odd)
                    : mode == 1 ? negative && rest != 0
                    : mode == 2 ? !negative && rest != 0
                                : false;
  return away ? result + unit : result;
}

// Bits of a number with at most 53 (24) significant bits.
double exact_double(unsigned __int128 magnitude, bool negative) {
  if (magnitude == 0) {
    return 0;
  }
  int length = 0;
  while (magnitude >> length != 0) {
    ++length;
  }
  const auto fraction = static_cast<std::uint64_t>(magnitude << (128 - length) >> 75);
  return std::bit_cast<double>(std::uint64_t{negative} << 63 |
                               static_cast<std::uint64_t>(1022 + length) << 52 |
                               (fraction & 0xFFFFFFFFFFFFF));
}

void check(std::uint64_t value, unsigned mode, std::size_t offset) {
  char memory[16];
  std::memcpy(memory + offset, &value, sizeof value);
  const auto* as_signed = reinterpret_cast<const std::int64_t*>(memory + offset);
  const auto* as_unsigned = reinterpret_cast<const std::uint64_t*>(memory + offset);
  for (const bool is_signed : {false, true}) {
    const bool negative = is_signed && value >> 63 != 0;
    const std::uint64_t magnitude = negative ? 0 - value : value;
    bool double_inexact = false;
    const auto first = rounded(magnitude, negative, 53, mode, double_inexact);
    bool float_inexact = double_inexact;
    const auto second = rounded(first, negative, 24, mode, float_inexact);
    const unsigned saved = _mm_getcsr();
    _mm_setcsr(0x1F80 | mode << 13);
    volatile double d = is_signed ? __cvti64todp_sse2(as_signed) : __cvtu64todp_sse2(as_unsigned);
    const unsigned double_flags = _mm_getcsr() & 63;
    _mm_setcsr(0x1F80 | mode << 13);
    volatile float f = is_signed ? __cvti64tosp_sse2(as_signed) : __cvtu64tosp_sse2(as_unsigned);
    const unsigned float_flags = _mm_getcsr() & 63;
    _mm_setcsr(saved);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(double{d}),
              std::bit_cast<std::uint64_t>(exact_double(first, negative)))
        << value << " signed " << is_signed << " mode " << mode;
    ASSERT_EQ(std::bit_cast<std::uint32_t>(float{f}),
              std::bit_cast<std::uint32_t>(static_cast<float>(exact_double(second, negative))))
        << value << " signed " << is_signed << " mode " << mode;
    ASSERT_EQ(double_flags, double_inexact ? 32u : 0u) << value << " mode " << mode;
    ASSERT_EQ(float_flags, float_inexact ? 32u : 0u) << value << " mode " << mode;
  }
}

TEST(Conversion, ExactRounding) {
  for (unsigned mode = 0; mode < 4; ++mode) {
    for (int bit = 0; bit < 64; ++bit) {
      for (int other = 0; other < 64; ++other) {
        for (std::uint64_t delta = 0; delta < 5; ++delta) {
          const std::uint64_t value = (1ull << bit) + (1ull << other) + delta - 2;
          ASSERT_NO_FATAL_FAILURE(check(value, mode, delta));
        }
      }
    }
  }
  std::mt19937_64 random(ksomd::test::seed_of(6));
  for (unsigned i = 0; i < 1000000; ++i) {
    ASSERT_NO_FATAL_FAILURE(check(random() >> random() % 64, i % 4, i % 8));
  }
}

TEST(Conversion, FloatsRoundTwice) {
  const std::uint64_t value = 0x1000001000000001;
  EXPECT_EQ(__cvtu64tosp_sse2(&value), 0x1p60F);
}

}  // namespace
