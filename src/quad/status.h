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
  const std::uint64_t addend =
      inexact ? std::bit_cast<std::uint64_t>(number::smallest_normal) : std::uint64_t{0};
  add_in_mode(number::one, std::bit_cast<double>(addend));
}

// Rounds last + remainder / 2^bits to an integer as the processor rounds a double in the thread's
// mode, `sign` (bit 63) being the sign of the number whose magnitude it is; inexact is raised
// unless remainder is 0. last: 0 or 1, the last bit that is kept. 0 <= remainder < 2^bits.
// The result is 0, 1 or 2.
//
// With p = 2^(52 - bits), the doubles p + remainder / 2^bits and 2^52 - p + last hold their
// operands in the low bits of their significands, and the unit of their sum is 1:
//
//   2^52 - p + last  =  2^51 (1 + (2^52 - 2p + 2 last) / 2^52)
template <int bits>
std::uint64_t round_in_mode(std::uint64_t sign, std::uint64_t last, std::uint64_t remainder) {
  static_assert(bits >= 2 && bits <= 51);
  constexpr std::uint64_t p_exponent = 1023 + 52 - bits;
  constexpr std::uint64_t high_exponent = 1023 + 51;
  constexpr std::uint64_t unit = std::uint64_t{1} << 52;
  constexpr std::uint64_t high = high_exponent * unit + unit - (unit >> (bits - 1));
  const std::uint64_t sum = std::bit_cast<std::uint64_t>(
      add_in_mode(std::bit_cast<double>(sign | (high + 2 * last)),
                  std::bit_cast<double>(sign | p_exponent * unit | remainder)));
  return sum & 3;
}

}  // namespace ksomd::quad
