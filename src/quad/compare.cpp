// Comparisons.
//
// Numbers of both signs are ordered like integers: a positive number like its magnitude, a negative
// one like minus its magnitude. So -0 and +0 are equal.
#include "quad/format.h"
#include "second_names.h"

using namespace ksomd::quad;

namespace {

bool unordered(quad128 a, quad128 b) {
  return is_nan(a) || is_nan(b);
}

// The sign and the magnitude, which is below 2^127, as an integer in two's complement.
Int128 ordinal(quad128 a) {
  const Uint128 mask = -static_cast<Uint128>(a.high >> 63);
  return static_cast<Int128>((magnitude(a) ^ mask) - mask);
}

bool equal(quad128 a, quad128 b) {
  const bool same = ((a.high ^ b.high) | (a.low ^ b.low)) == 0;
  const bool zeros = (((a.high | b.high) & magnitude_bits) | a.low | b.low) == 0;
  return !unordered(a, b) && (same || zeros);
}

// holds(ordinal of a, ordinal of b); 0 and invalid for a NaN.
template <class Relation>
[[gnu::always_inline]] inline std::int32_t compare(quad128 a, quad128 b, Relation holds) {
  if (unordered(a, b)) [[unlikely]] {
    raise_invalid();
    return 0;
  }
  return holds(ordinal(a), ordinal(b));
}

}  // namespace

std::int32_t __eqq(const quad128* a, const quad128* b) {
  return equal(*a, *b);
}
KSOMD_SECOND_NAMES(__eqq);
std::int32_t __neq(const quad128* a, const quad128* b) {
  return !equal(*a, *b);
}
KSOMD_SECOND_NAMES(__neq);

std::int32_t __ltq(const quad128* a, const quad128* b) {
  return compare(*a, *b, [](Int128 x, Int128 y) { return x < y; });
}
KSOMD_SECOND_NAMES(__ltq);
std::int32_t __leq(const quad128* a, const quad128* b) {
  return compare(*a, *b, [](Int128 x, Int128 y) { return x <= y; });
}
KSOMD_SECOND_NAMES(__leq);
std::int32_t __gtq(const quad128* a, const quad128* b) {
  return compare(*a, *b, [](Int128 x, Int128 y) { return y < x; });
}
KSOMD_SECOND_NAMES(__gtq);
std::int32_t __geq(const quad128* a, const quad128* b) {
  return compare(*a, *b, [](Int128 x, Int128 y) { return y <= x; });
}
KSOMD_SECOND_NAMES(__geq);
std::int32_t __compareq(const quad128* a, const quad128* b) {
  return compare(*a, *b, [](Int128 x, Int128 y) { return (y < x ? 1 : 0) - (x < y ? 1 : 0); });
}
KSOMD_SECOND_NAMES(__compareq);
