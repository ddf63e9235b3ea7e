// Comparisons.
//
// Numbers of both signs are ordered like the integers that sign and magnitude make: magnitudes
// count up from +0 and -magnitudes down from it, so that -0 and +0 meet at 0.
#include "quad/format.h"
#include "second_names.h"

using namespace ksomd::quad;

namespace {

struct Operand {
  std::uint64_t high;
  std::uint64_t low;
};

inline Operand load(const quad128* a) {
  return {a->high, a->low};
}

inline bool unordered(Operand a, Operand b) {
  return is_nan(a.high, a.low) || is_nan(b.high, b.low);
}

// Two's complement of a magnitude below 2^127.
__extension__ using Int128 = __int128;
inline Int128 ordinal(Operand a) {
  const Uint128 magnitude = make_uint128(a.high & magnitude_bits, a.low);
  const Uint128 mask = -static_cast<Uint128>(a.high >> 63);
  return static_cast<Int128>((magnitude ^ mask) - mask);
}

inline bool equal(Operand a, Operand b) {
  const bool same = ((a.high ^ b.high) | (a.low ^ b.low)) == 0;
  const bool zeros = (((a.high | b.high) & magnitude_bits) | a.low | b.low) == 0;
  return !unordered(a, b) && (same || zeros);
}

// holds(ordinal of a, ordinal of b); 0 and invalid for a NaN.
template <class Relation>
[[gnu::always_inline]] inline std::int32_t compare(const quad128* a_address,
                                                   const quad128* b_address, Relation holds) {
  const Operand a = load(a_address);
  const Operand b = load(b_address);
  if (unordered(a, b)) [[unlikely]] {
    raise_invalid();
    return 0;
  }
  return holds(ordinal(a), ordinal(b));
}

}  // namespace

std::int32_t __eqq(const quad128* a, const quad128* b) {
  return equal(load(a), load(b));
}
KSOMD_SECOND_NAMES(__eqq);
std::int32_t __neq(const quad128* a, const quad128* b) {
  return !equal(load(a), load(b));
}
KSOMD_SECOND_NAMES(__neq);

std::int32_t __ltq(const quad128* a, const quad128* b) {
  return compare(a, b, [](Int128 x, Int128 y) { return x < y; });
}
KSOMD_SECOND_NAMES(__ltq);
std::int32_t __leq(const quad128* a, const quad128* b) {
  return compare(a, b, [](Int128 x, Int128 y) { return x <= y; });
}
KSOMD_SECOND_NAMES(__leq);
std::int32_t __gtq(const quad128* a, const quad128* b) {
  return compare(a, b, [](Int128 x, Int128 y) { return y < x; });
}
KSOMD_SECOND_NAMES(__gtq);
std::int32_t __geq(const quad128* a, const quad128* b) {
  return compare(a, b, [](Int128 x, Int128 y) { return y <= x; });
}
KSOMD_SECOND_NAMES(__geq);
std::int32_t __compareq(const quad128* a, const quad128* b) {
  return compare(a, b, [](Int128 x, Int128 y) { return (y < x ? 1 : 0) - (x < y ? 1 : 0); });
}
KSOMD_SECOND_NAMES(__compareq);
