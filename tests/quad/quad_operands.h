// Operands at which something changes: edges of exponents, patterns of significands, cancellation,
// ties and what lies next to them.
#pragma once

#include <algorithm>

#include "quad/quad_routines.h"

namespace ksomd::test::quad {

inline constexpr int bias = 16383;
inline constexpr int special = 0x7FFF;
inline constexpr Uint128 one_bit = 1;
inline constexpr Uint128 sign_bit = one_bit << 127;
inline constexpr Uint128 infinity = static_cast<Uint128>(special) << 112;

// A number below 2^width: random, few bits, a run of ones, or next to such.
inline Uint128 pattern(Random& random, unsigned width) {
  const auto bits = [&] { return static_cast<Uint128>(random.next()) << 64 | random.next(); };
  const auto power = [&] { return one_bit << random.below(width + 1); };
  const Uint128 mask = (one_bit << width) - 1;
  switch (random.below(8)) {
    case 0:
      return (power() - power()) & mask;
    case 1:
      return ((power() - power()) ^ power()) & mask;
    case 2:
      return bits() & mask & ~(power() - 1);  // zeros at the end
    case 3:
      return (bits() | (power() - 1)) & mask;  // ones at the end
    case 4:
      return (bits() & (power() - 1)) ^ (random.one_in(2) ? mask : 0);  // at the start
    case 5:
      return (random.below(2) - random.below(3)) & mask;
    default:
      return bits() & mask;
  }
}

inline Uint128 any_sign(Random& random) {
  return random.one_in(2) ? sign_bit : 0;
}

// 1.fraction * 2^(field - bias), subnormal or 0 for fields below 1; none above the largest.
inline Value number(Random& random, int field, Uint128 fraction) {
  field = std::min(field, special - 1);
  if (field < 1) {
    return any_sign(random) | (one_bit << 112 | fraction) >> std::min(1 - field, 120);
  }
  return any_sign(random) | static_cast<Uint128>(static_cast<unsigned>(field)) << 112 | fraction;
}

inline int within(Random& random, int distance) {
  return static_cast<int>(random.below(2 * static_cast<unsigned>(distance) + 1)) - distance;
}
inline int field_of(const Value& value) {
  return static_cast<int>(value.high >> 48) & special;
}

inline Value any_number(Random& random) {
  constexpr int edges[] = {0, -112, bias, 2 * bias, bias / 2 + 1, bias + bias / 2 + 1};
  int field = random.one_of(edges) + within(random, 3);
  if (random.one_in(2)) {
    field = random.one_in(2) ? bias + within(random, 130) : static_cast<int>(random.below(special));
  }
  return number(random, field, pattern(random, 112));
}

inline Value any_value(Random& random) {
  switch (random.below(24)) {
    case 0:
      return any_sign(random);
    case 1:
      return any_sign(random) | infinity;
    case 2:
      return any_sign(random) | infinity | pattern(random, 112);
    default:
      return any_number(random);
  }
}

// A second operand whose sum, product or quotient with `a` lies at an edge.
inline Value partner(Random& random, const Value& a) {
  const int field = field_of(a);
  const int sums[] = {field, field, bias - field, 3 * bias - field, field + bias, field - bias};
  switch (random.below(8)) {
    case 0:
      return any_value(random);
    case 1:  // nearly equal, or next to it by an exponent
      return (a.bits() ^ pattern(random, static_cast<unsigned>(random.below(113)))) +
             (static_cast<Uint128>(random.below(3)) << 112) + (random.one_in(2) ? sign_bit : 0);
    case 2:
      return a.bits() ^ any_sign(random);
    default:
      return number(random, random.one_of(sums) + within(random, random.one_in(2) ? 3 : 130),
                    pattern(random, 112));
  }
}

// Operands whose product or quotient is as close to a tie or to a number of the format as can be,
// or there: their low bits follow from one another modulo a power of two.
inline void make_hard(Random& random, Operation operation, Value& a, Value& b) {
  constexpr Uint128 lowest = one_bit << 112;
  const auto any_field = [&] { return bias + within(random, 100); };
  const Uint128 divisor = lowest | pattern(random, 48) << 64 | random.next() | 1;
  Uint128 inverse = divisor;  // modulo 2^128; each step doubles the bits that are right
  for (int bits = 3; bits < 128; bits *= 2) {
    inverse *= 2 - divisor * inverse;
  }
  Uint128 other = 0;
  if (operation == Operation::Multiply) {
    while (other < lowest) {  // divisor * other ends in a half and few units, or in these
      const Uint128 half = one_bit << random.one_of({111, 112, 127});
      other = (half + (random.one_in(2) ? random.below(3) : random.below(128)) - 1) * inverse &
              (2 * lowest - 1);
    }
  } else {
    // other / divisor is quotient + rest / divisor, in units of half a last place.
    Uint128 quotient = 0;
    bool above = false;
    while (quotient < 2 * lowest) {
      above = random.one_in(2);
      const Uint128 rest = 1 + random.below(60);
      quotient = (above ? -rest : rest) * inverse & (4 * lowest - 1);
    }
    for (int i = 0; i < 114; ++i) {
      other = (other + ((quotient >> i & 1) != 0 ? divisor : 0)) >> 1;
    }
    for (other += above ? 1 : 0; other < lowest; other *= 2) {
    }
  }
  a = number(random, any_field(), other - lowest);
  b = number(random, any_field(), divisor - lowest);
}

// A number for a conversion to `to`: at the edges of its range, and what is cut off is nothing,
// little, next to a half, a half, or nearly one unit.
inline Value narrowed(Random& random, char to) {
  constexpr struct {
    char type;
    int digits, lowest, largest;  // exponents of the lowest and highest bits
  } formats[] = {{'d', 53, -1074, 1023}, {'f', 24, -149, 127}, {'l', 64, -16445, 16383}};
  int digits = 113, lowest = 0, largest = random.one_in(2) ? 31 : 63;
  for (const auto& format : formats) {
    if (format.type == to) {
      digits = format.digits, lowest = format.lowest, largest = format.largest;
    }
  }
  int exponent = random.one_of({0, lowest, lowest + digits - 1, largest}) + within(random, 3);
  if (random.one_in(2)) {
    exponent =
        lowest - 3 + static_cast<int>(random.below(static_cast<unsigned>(largest - lowest) + 8));
  }
  const auto kept = static_cast<unsigned>(std::clamp(exponent - lowest + 1, 0, digits));
  const unsigned cut = 113 - kept;
  const Uint128 unit = one_bit << cut;
  const Uint128 tails[] = {
      0, 1, unit / 2 - 1, unit / 2, unit / 2 + 1, unit - 1, pattern(random, cut)};
  const Uint128 significand = pattern(random, kept) << cut | (random.one_of(tails) & (unit - 1));
  return number(random, exponent + bias, significand & ((one_bit << 112) - 1));
}

// The bits of a number of type `from`, for a conversion to `to`.
inline Value source(Random& random, char from, char to) {
  const auto any_field = [&](unsigned largest) -> Uint128 {
    const Uint128 edges[] = {0, 1, largest / 2, largest - 1, largest};
    return random.one_in(2) ? random.one_of(edges) : random.below(largest + 1);
  };
  switch (from) {
    case 'q':
      return to == 'q' || random.one_in(16) ? any_value(random) : narrowed(random, to);
    case 'd':
      return (random.below(2) << 11 | any_field(2047)) << 52 | pattern(random, 52);
    case 'f':
      return (random.below(2) << 8 | any_field(255)) << 23 | pattern(random, 23);
    case 'l':
      return (random.below(2) << 15 | any_field(0x7FFF)) << 64 | pattern(random, 64);
    default:
      return pattern(random, 8 * static_cast<unsigned>(size_of(from)));
  }
}

}  // namespace ksomd::test::quad
