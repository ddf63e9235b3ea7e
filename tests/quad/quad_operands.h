// Operands at which something changes: edges of exponents, patterns of significands, cancellation,
// ties and what lies next to them. No expression draws twice from the random source: compilers
// differ in the order.
#pragma once

#include <algorithm>

#include "quad/quad_routines.h"

namespace ksomd::test::quad {

inline constexpr int bias = 16383;
inline constexpr int special = 0x7FFF;
inline constexpr Uint128 one_bit = 1;
inline constexpr Uint128 sign_bit = one_bit << 127;
inline constexpr Uint128 infinity = static_cast<Uint128>(special) << 112;

// A number below 2^width: few bits, runs of ones or zeros, next to such, or random.
inline Uint128 pattern(Random& random, unsigned width) {
  const auto power = [&] { return one_bit << random.below(width + 1); };
  const std::uint64_t kind = random.below(14), high = random.next(), low = random.next();
  const Uint128 p = power(), q = power(), r = power();
  const Uint128 bits = static_cast<Uint128>(high) << 64 | low, below = p - 1;
  const Uint128 made[] = {
      p - q, (p - q) ^ r, bits & ~below, bits & ~below, bits | below, bits | ~below, bits & below,
      0,     1,           ~one_bit,      below,         ~Uint128{0},  bits,          bits};
  return made[kind] & ((one_bit << width) - 1);
}

inline int within(Random& random, int distance) {
  return static_cast<int>(random.below(2 * static_cast<unsigned>(distance) + 1)) - distance;
}

// 1.fraction * 2^(field - bias) of any sign, subnormal or 0 for fields below 1; never infinite.
inline Value number(Random& random, int field, Uint128 fraction) {
  const Uint128 sign = random.one_in(2) ? sign_bit : 0;
  if (field < 1) {
    return sign | (one_bit << 112 | fraction) >> std::min(1 - field, 120);
  }
  return sign | static_cast<Uint128>(std::min(field, special - 1)) << 112 | fraction;
}
inline Value number(Random& random, int field) {
  return number(random, field, pattern(random, 112));
}
inline int field_of(const Value& value) {
  return static_cast<int>(value.high >> 48) & special;
}

inline Value any_number(Random& random) {
  const int edge = random.one_of({0, -112, bias, 2 * bias, bias / 2 + 1, bias + bias / 2 + 1});
  const int fields[] = {edge + within(random, 3), edge + within(random, 3),
                        bias + within(random, 130), within(random, bias) + bias};
  return number(random, random.one_of(fields));
}

inline Value any_value(Random& random) {
  const Uint128 payload = pattern(random, 112), sign = random.one_in(2) ? sign_bit : 0;
  const Value specials[] = {sign, sign | infinity, sign | infinity | payload};
  return random.one_in(8) ? random.one_of(specials) : any_number(random);
}

// A second operand whose sum, product or quotient with `a` lies at an edge.
inline Value partner(Random& random, const Value& a) {
  const int field = field_of(a), near = within(random, random.one_in(2) ? 3 : 130);
  const int fields[] = {field, field, bias - field, 3 * bias - field, field + bias, field - bias};
  const auto differing = static_cast<unsigned>(random.below(113));
  Uint128 close = a.bits() ^ pattern(random, differing);
  close += static_cast<Uint128>(random.below(3)) << 112;
  close ^= random.one_in(2) ? sign_bit : 0;
  switch (random.below(8)) {
    case 0:
      return any_value(random);
    case 1:
      return close;
    case 2:
      return a.bits() ^ (close & sign_bit);
    default:
      return number(random, random.one_of(fields) + near);
  }
}

// Operands whose product or quotient is as close to a tie or to a number of the format as can be,
// or there: their low bits follow from one another modulo a power of two.
inline void make_hard(Random& random, Operation operation, Value& a, Value& b) {
  constexpr Uint128 lowest = one_bit << 112;
  Uint128 divisor = pattern(random, 48) << 64;
  divisor |= lowest | random.next() | 1;
  Uint128 inverse = divisor;  // modulo 2^128; each step doubles the bits that are right
  for (int bits = 3; bits < 128; bits *= 2) {
    inverse *= 2 - divisor * inverse;
  }
  Uint128 other = 0, quotient = 0;
  while (operation == Operation::Multiply && other < lowest) {
    // divisor * other ends in a half and few units, or in these.
    const Uint128 half = one_bit << random.one_of({111, 112, 127});
    const Uint128 units = random.below(random.one_in(2) ? 3 : 128);
    other = (half + units - 1) * inverse & (2 * lowest - 1);
  }
  while (operation == Operation::Divide && quotient < 2 * lowest) {
    // other / divisor is quotient + rest / divisor, in units of half a last place.
    const bool above = random.one_in(2);
    const Uint128 rest = 1 + random.below(60);
    quotient = (above ? -rest : rest) * inverse & (4 * lowest - 1);
    other = 0;
    for (int i = 0; i < 114; ++i) {
      other = (other + ((quotient >> i & 1) != 0 ? divisor : 0)) >> 1;
    }
    other += above ? 1 : 0;
  }
  while (other < lowest) {
    other *= 2;
  }
  a = number(random, bias + within(random, 100), other - lowest);
  b = number(random, bias + within(random, 100), divisor - lowest);
}

// A number for a conversion to `to`: at the edges of its range, and what is cut off is nothing,
// little, next to a half, a half, or nearly one unit.
inline Value narrowed(Random& random, char to) {
  // Digits, and the exponents of the lowest and highest bits.
  int digits = 113, lowest = 0, largest = random.one_in(2) ? 31 : 63;
  if (to == 'd') {
    digits = 53, lowest = -1074, largest = 1023;
  } else if (to == 'f') {
    digits = 24, lowest = -149, largest = 127;
  } else if (to == 'l') {
    digits = 64, lowest = -16445, largest = 16383;
  }
  const int edge = random.one_of({0, lowest, lowest + digits - 1, largest}) - 3;
  const bool at_edge = random.one_in(2);
  const auto span = static_cast<unsigned>(at_edge ? 7 : largest - lowest + 7);
  const int exponent = (at_edge ? edge : lowest - 3) + static_cast<int>(random.below(span));
  const auto kept = static_cast<unsigned>(std::clamp(exponent - lowest + 1, 0, digits));
  const unsigned cut = 113 - kept;
  const Uint128 unit = one_bit << cut, significand = pattern(random, kept) << cut;
  const Uint128 tails[] = {
      0, 1, unit / 2 - 1, unit / 2, unit / 2 + 1, unit - 1, pattern(random, cut)};
  const Uint128 tail = random.one_of(tails) & (unit - 1);
  return number(random, exponent + bias, (significand | tail) & ((one_bit << 112) - 1));
}

// The bits of a number of type `from`, for a conversion to `to`.
inline Value source(Random& random, char from, char to) {
  if (from == 'q') {
    return to == 'q' || random.one_in(16) ? any_value(random) : narrowed(random, to);
  }
  const unsigned largest = from == 'd' ? 2047 : from == 'f' ? 255 : 0x7FFF;
  const unsigned width = from == 'd' ? 52 : from == 'f' ? 23 : 64;
  const Uint128 sign = random.one_in(2) ? largest + 1 : 0, any = random.below(largest + 1);
  const Uint128 field = random.one_of<Uint128>({0, 1, largest / 2, largest, any, any, any, any});
  if (from == 'd' || from == 'f' || from == 'l') {
    return (sign | field) << width | pattern(random, width);
  }
  return pattern(random, static_cast<unsigned>(8 * size_of(from)));
}

}  // namespace ksomd::test::quad
