// How the tests of this folder make their calls, and with which numbers.
#pragma once

#include <cmath>
#include <limits>

#include "support/entry.h"
#include "support/sweep.h"

// The exported routine of a name that is an identifier; looked up once.
#define KSOMD_ENTRY(name)                                                      \
  ([] {                                                                        \
    static const auto routine = ::ksomd::test::entry<decltype(::name)>(#name); \
    return routine;                                                            \
  }())

namespace ksomd::test {

// As raised_by, with the x87 unit in the same mode and its flags among the result's: modes and
// flags have the same numbers in both.
template <class Call>
unsigned raised_by_both(std::uint64_t mode, Call call, unsigned more = 0) {
  constexpr std::uint16_t nearest = 0x37F;
  const auto control = static_cast<std::uint16_t>(nearest | mode << 10);
  std::uint16_t status = 0;
  __asm__ volatile("fnclex\n fldcw %0" : : "m"(control) : "memory");
  const unsigned sse = raised_by(mode, call, more);
  __asm__ volatile("fnstsw %0\n fldcw %1" : "=m"(status) : "m"(nearest) : "memory");
  return (sse | status) & mxcsr::ieee_flags;
}

// Of either sign: a special value (kind 0), a number about 1 (kind 1), or one about an end of the
// range, its middle, or half-way between them. Fractions are at their ends, halves, or any.
template <class T>
T any_number(Random& random, std::uint64_t kind) {
  using L = std::numeric_limits<T>;
  const T any = static_cast<T>(random.next()) * T(0x1p-64), last = L::epsilon(), half = T(0.5);
  const T fraction = random.one_of({T{0}, last, 1 - last, half, half + last, any, any, any});
  const int least = L::min_exponent - L::digits, most = L::max_exponent;
  const int edge = random.one_of({most, most / 2, 0, L::min_exponent / 2, L::min_exponent, least});
  const int exponent = static_cast<int>(random.below(90)) - 45;
  const T special = random.one_of({T{0}, L::infinity(), L::quiet_NaN(), L::signaling_NaN(),
                                   L::max(), L::min(), L::denorm_min()});
  const T number = std::ldexp(1 + fraction, kind == 1 ? exponent / 16 : edge + exponent);
  const T result = kind == 0 ? special : number;
  return random.one_in(2) ? result : -result;
}

}  // namespace ksomd::test
