// What quad arithmetic needs of MXCSR: the rounding mode and the status flags. A double operation
// raises each exception: it raises just the wanted flags, and traps if they are unmasked.
#pragma once

#include <emmintrin.h>

#include <cstdint>
#include <limits>

#include "ksomd/quad.h"

namespace ksomd::quad {

// The modes by the numbers that callers of the conversions to integers give them. Only those
// conversions round away from zero.
enum class RoundingMode : std::uint32_t {
  TowardZero = KSOMD_ROUND_TOWARD_ZERO,
  NearestEven = KSOMD_ROUND_NEAREST_EVEN,
  Down = KSOMD_ROUND_DOWN,
  Up = KSOMD_ROUND_UP,
  AwayFromZero
};

// The thread's mode. MXCSR counts from NearestEven to Up, and then TowardZero.
inline RoundingMode rounding_mode() {
  return static_cast<RoundingMode>(((__builtin_ia32_stmxcsr() >> 13) + 1) & 3);
}

// Whether a magnitude is rounded up that is odd or even and followed by fraction / 2^64. Raises
// nothing.
inline bool rounds_up(RoundingMode mode, std::uint64_t sign, bool odd, std::uint64_t fraction) {
  constexpr std::uint64_t half = std::uint64_t{1} << 63;
  if (mode == RoundingMode::NearestEven) {
    return fraction > half || (fraction == half && odd);
  }
  const RoundingMode away = sign != 0 ? RoundingMode::Down : RoundingMode::Up;
  return fraction != 0 && (mode == away || mode == RoundingMode::AwayFromZero);
}

namespace number {
inline constexpr double one = 1.0;
inline constexpr double smallest_normal = 0x1p-1022;
inline constexpr double largest = 0x1.fffffffffffffp+1023;
}  // namespace number

// Optimisation barrier: keeps the compiler from re-associating across this value.
inline __m128i computed_here(__m128i value) {
  asm("" : "+x"(value));
  return value;
}
inline std::uint64_t computed_here(std::uint64_t value) {
  asm("" : "+r"(value));
  return value;
}

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

// Has no branch: a mixture of exact and inexact operands would mispredict it.
inline void raise_inexact_if(bool inexact) {
  static constexpr double addends[] = {0.0, number::smallest_normal};
  add_in_mode(number::one, addends[computed_here(std::uint64_t{inexact})]);
}

// number / 2^position as an integer, for position = count - uncounted from 1 to 20 and
// number < 2^32. Bit 63 of signed_word is the sign of the number; number is its magnitude.
//
// The processor rounds: a double addition does it in the thread's mode, ties to even, and raises
// inexact exactly if it is due.
//
// 2^(52 + position) has units of 2^position, and so have sums up to its double:
//
//   2^(52 + position) + (2^52 + number)  =  2^position (2^52 + 2^(52 - position) + the integer)
//
// The low half of the sum's significand is the integer.
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

}  // namespace ksomd::quad
