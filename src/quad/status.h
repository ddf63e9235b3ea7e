// What quad arithmetic needs of MXCSR: the rounding mode, and the status flags. Each exception is
// raised by one double operation that raises just the wanted flags, and traps if they are unmasked.
#pragma once

#include <emmintrin.h>

#include <bit>
#include <cstdint>
#include <limits>

namespace ksomd::quad {

enum class RoundingMode : std::uint32_t { NearestEven, Down, Up, TowardZero };

inline RoundingMode rounding_mode() {
  return static_cast<RoundingMode>(__builtin_ia32_stmxcsr() >> 13 & 3);
}

namespace number {
inline constexpr double one = 1.0;
inline constexpr double smallest_normal = 0x1p-1022;
inline constexpr double largest = 0x1.fffffffffffffp+1023;
}  // namespace number

// One operation each that the compiler neither evaluates nor drops nor reorders.
inline double add_in_mode(double a, double b) {
  asm volatile("addsd %1, %0" : "+x"(a) : "x"(b));
  return a;
}

inline void multiply_for_flags(double a, double b) {
  asm volatile("mulsd %1, %0" : "+x"(a) : "x"(b));
}

inline void divide_for_flags(double a, double b) {
  asm volatile("divsd %1, %0" : "+x"(a) : "x"(b));
}

inline void raise_invalid() {
  divide_for_flags(0.0, 0.0);
}
inline void raise_divide_by_zero() {
  divide_for_flags(number::one, 0.0);
}
inline void raise_overflow_and_inexact() {
  multiply_for_flags(number::largest, number::largest);
}
inline void raise_underflow_and_inexact() {
  multiply_for_flags(number::smallest_normal, number::smallest_normal);
}

inline void raise_inexact_if(bool inexact) {
  static_assert(std::bit_cast<std::uint64_t>(number::smallest_normal) == std::uint64_t{1} << 52);
  add_in_mode(number::one, std::bit_cast<double>(static_cast<std::uint64_t>(inexact) << 52));
}

// A value as it is, which the compiler must have ready here as written: it would take sums apart,
// moving what is known early behind what comes late.
inline __m128i computed_here(__m128i value) {
  asm("" : "+x"(value));
  return value;
}
inline std::uint64_t computed_here(std::uint64_t value) {
  asm("" : "+r"(value));
  return value;
}

// round_quotient and round_in_mode let the processor round: a double addition does it in the
// thread's mode, ties to even, and raises inexact exactly if it is due. `signed_word` has the sign
// of the number in bit 63; number is its magnitude.

// number / 2^position as an integer, for position = count - uncounted from 1 to 20, and
// number < 2^32.
//
// 2^(52 + position) has units of 2^position, and sums up to its double keep them:
//
//   2^(52 + position) + (2^52 + number)  =  2^position (2^52 + 2^(52 - position) + the integer)
//
// which leaves the low half of the sum's significand to the integer.
template <int uncounted>
[[gnu::always_inline]] inline std::uint64_t round_quotient(std::uint64_t signed_word,
                                                           std::uint32_t number,
                                                           std::uint64_t count) {
  constexpr long long unit_exponent = 1023 + 52;
  const auto constant = [](long long value) { return _mm_set_epi64x(0, value); };
  const __m128i sign =
      _mm_and_si128(computed_here(_mm_cvtsi64_si128(static_cast<long long>(signed_word))),
                    constant(std::numeric_limits<long long>::min()));
  const __m128i small =
      _mm_or_si128(_mm_or_si128(_mm_cvtsi32_si128(static_cast<int>(number)), sign),
                   constant(unit_exponent << 52));
  const __m128i large =
      _mm_add_epi64(_mm_slli_epi64(_mm_cvtsi32_si128(static_cast<int>(count)), 52),
                    computed_here(_mm_or_si128(sign, constant((unit_exponent - uncounted) << 52))));
  __m128d sum = _mm_castsi128_pd(large);
  asm volatile("addsd %1, %0" : "+x"(sum) : "x"(small));
  return static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_castpd_si128(sum)));
}

// number / 2^bits, which is below 2, as an integer: 0, 1 or 2. `sign` is 0 but for bit 63.
//
// With p = 2^(52 - bits), a double between p and 2 p has units of 2^-bits, so that the number goes
// into the low bits of its significand as it is; and the sum with 2^52 - p has units of 1.
//
//   2^52 - p  =  2^51 (1 + (2^52 - 2p) / 2^52)
template <int bits>
std::uint64_t round_in_mode(std::uint64_t sign, std::uint64_t number) {
  static_assert(bits >= 2 && bits <= 50);
  constexpr std::uint64_t unit = std::uint64_t{1} << 52;
  constexpr std::uint64_t p = (1023 + 52 - bits) * unit;
  constexpr std::uint64_t rest = (1023 + 51) * unit + unit - (unit >> (bits - 1));
  const double sum =
      add_in_mode(std::bit_cast<double>(sign | p | number), std::bit_cast<double>(sign | rest));
  return std::bit_cast<std::uint64_t>(sum) & 3;
}

}  // namespace ksomd::quad
