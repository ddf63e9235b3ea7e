// What quad arithmetic needs of MXCSR: the rounding mode, and the status flags. Each exception is
// raised by one double operation that raises just the wanted flags, and traps if they are unmasked.
#pragma once

#include <bit>
#include <cstdint>

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

// Rounds a number below 2, given in units of 2^-bits, to an integer as the processor rounds a
// double in the thread's mode, `sign` (bit 63) being the sign of the number whose magnitude it is;
// ties go to even. Inexact is raised unless it is 0 or 1. The result is 0, 1 or 2.
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
