// Quad operations by exact integers of any length, the obvious slow way: the value of the operation
// is formed exactly, and rounded by the definition of the mode. Shares nothing with the library.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <vector>

#include "ksomd/quad.h"

namespace ksomd::test {

// As in MXCSR.
namespace flag {
inline constexpr unsigned invalid = 1;
inline constexpr unsigned denormal = 2;
inline constexpr unsigned divide_by_zero = 4;
inline constexpr unsigned overflow = 8;
inline constexpr unsigned underflow = 16;
inline constexpr unsigned inexact = 32;
inline constexpr unsigned all = 63;
}  // namespace flag

enum class Mode : unsigned { NearestEven, Down, Up, TowardZero };
inline constexpr Mode all_modes[] = {Mode::NearestEven, Mode::Down, Mode::Up, Mode::TowardZero};

// The bits of a quad, or of anything narrower in `low` alone; 80-bit values have sign and exponent
// in `high`.
struct Bits {
  std::uint64_t high;
  std::uint64_t low;
  bool operator==(const Bits&) const = default;
};

struct Outcome {
  Bits bits;
  unsigned flags;
  bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Bits& bits);
std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);
std::ostream& operator<<(std::ostream& stream, Mode mode);

inline quad128 quad(Bits bits) {
  return {bits.low, bits.high};
}
inline Bits bits_of(const quad128& a) {
  return {a.high, a.low};
}

namespace oracle {

Outcome add(Bits a, Bits b, Mode mode);
Outcome subtract(Bits a, Bits b, Mode mode);
Outcome multiply(Bits a, Bits b, Mode mode);
Outcome divide(Bits a, Bits b, Mode mode);

Outcome to_double(Bits a, Mode mode);
Outcome to_float(Bits a, Mode mode);
Outcome to_extended(Bits a, Mode mode);

// How a number becomes an integer.
enum class IntegerRounding { TowardZero, NearestEven, Down, Up, AwayFromZero };
Outcome to_signed(Bits a, int width, IntegerRounding rounding);
Outcome to_unsigned(Bits a, int width);

Bits from_double(std::uint64_t bits);
Bits from_float(std::uint32_t bits);
Bits from_integer(bool negative, std::uint64_t magnitude);

bool is_nan(Bits a);
bool is_signaling(Bits a);
// Of numbers, not NaNs.
std::strong_ordering compare(Bits a, Bits b);

}  // namespace oracle
}  // namespace ksomd::test
