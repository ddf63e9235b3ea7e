// The routines of the family, operands at which something changes (edges of exponents, patterns of
// significands, cancellation, ties and what lies next to them), and what ought to come of them.
#pragma once

#include <algorithm>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "support/sweep.h"

namespace ksomd::test::quad {

__extension__ using Value =
    unsigned __int128;  // the bits of a number of any type, zeros above them

// Types have the letters that the names give them, and capital ones for pairs in memory:
//   q quad   l 80 bits   d double   f float   j, k int64, uint64   i, u int32, uint32
//   s int16   c int8   Q, D, F two quads, doubles, floats   m a rounding mode
struct Type {
  char letter;
  bool is_pair() const { return letter < 'a'; }
  char part() const { return static_cast<char>(letter | 0x20); }
  bool in_memory() const { return letter == 'q' || letter == 'l' || is_pair(); }
  bool in_vector() const { return letter == 'd' || letter == 'f'; }
  unsigned size() const {
    constexpr unsigned sizes[] = {1, 2, 4, 4, 4, 8, 8, 4, 8, 10, 16, 8, 16, 32};
    return sizes[std::string_view("csiumjkfdlqFDQ").find(letter)];
  }
};

struct Routine {
  // + - * / and ~ (negated)   = ! < l > g ? (the relations, __leq and __geq as letters; the order)
  // s o (same bits, others)   : (converted)
  char operation;
  std::string result, arguments;  // & behind a result: its address is returned
  std::vector<std::string> names;
  std::vector<const void*> entries;

  bool computes() const { return std::string_view("+-*/").find(operation) < 4; }
  bool is_complex() const {  // computing or comparing with four parts
    return operation != ':' && (result == "Q" || arguments.size() == 4);
  }
};
extern const std::vector<Routine> routines;

struct Format {
  int digits, lowest, largest;  // the exponents of the lowest and the highest bit
};
constexpr std::string_view floating = "qdfl";
constexpr Format formats[] = {
    {113, -16494, 16383}, {53, -1074, 1023}, {24, -149, 127}, {64, -16445, 16383}};
constexpr int bias = 16383, special = 0x7FFF;  // fields of exponents
constexpr Value one_bit = 1, sign_bit = one_bit << 127, hidden_bit = one_bit << 112;
constexpr Value infinity = Value{special} << 112;

template <class Number>
Value bits(const Number& number) {
  Value value = 0;
  std::memcpy(&value, &number, std::is_same_v<Number, long double> ? 10 : sizeof number);
  return value;
}

// What repeats a failure.
inline std::string paste(std::initializer_list<Value> values) {
  std::ostringstream out;
  for (const Value value : values) {
    out << std::hex << " Value{0x" << static_cast<std::uint64_t>(value >> 64) << "} << 64 | 0x"
        << static_cast<std::uint64_t>(value) << ',';
  }
  return out.str();
}

struct Effect {
  Value parts[2] = {};
  unsigned flags = 0;
  bool operator==(const Effect&) const = default;
};

// ---- operands -----------------------------------------------------------------------------------

// A number below 2^width: few bits, runs of ones or zeros, next to such, or random.
inline Value pattern(Random& random, unsigned width) {
  const auto power = [&] { return one_bit << random.below(width + 1); };
  const std::uint64_t kind = random.below(14), high = random.next(), low = random.next();
  const Value p = power(), q = power(), r = power(), any = Value{high} << 64 | low, below = p - 1;
  const Value made[] = {
      p - q, (p - q) ^ r, any & ~below, any & ~below, any | below, any | ~below, any & below,
      0,     1,           ~one_bit,     below,        ~Value{0},   any,          any};
  return made[kind] & ((one_bit << width) - 1);
}

inline int within(Random& random, int distance) {
  return static_cast<int>(random.below(2 * static_cast<unsigned>(distance) + 1)) - distance;
}

// 1.fraction * 2^(field - bias) of any sign, subnormal or 0 for fields below 1; never infinite.
inline Value number(Random& random, int field, Value fraction) {
  const Value sign = random.one_in(2) ? sign_bit : 0;
  const auto kept = static_cast<unsigned>(std::min(field, special - 1));
  return sign | (field < 1 ? (hidden_bit | fraction) >> std::min(1 - field, 120)
                           : Value{kept} << 112 | fraction);
}
inline Value number(Random& random, int field) {
  return number(random, field, pattern(random, 112));
}
inline int field_of(Value value) {
  return static_cast<int>(value >> 112) & special;
}

inline Value any_number(Random& random) {
  const int edge = random.one_of({0, -112, bias, 2 * bias, bias / 2 + 1, bias + bias / 2 + 1});
  const int near = edge + within(random, 3), middle = bias + within(random, 130);
  return number(random, random.one_of({near, near, middle, within(random, bias) + bias}));
}

inline Value any_value(Random& random) {
  const Value payload = pattern(random, 112), sign = random.one_in(2) ? sign_bit : 0;
  const Value specials[] = {sign, sign | infinity, sign | infinity | payload};
  return random.one_in(8) ? random.one_of(specials) : any_number(random);
}

// A second operand whose sum, product or quotient with `a` lies at an edge.
inline Value partner(Random& random, Value a) {
  const int field = field_of(a), near = within(random, random.one_in(2) ? 3 : 130);
  const int fields[] = {field, field, bias - field, 3 * bias - field, field + bias, field - bias};
  Value close = pattern(random, static_cast<unsigned>(random.below(113))) ^ a;
  close += random.below(3) * hidden_bit;
  close ^= random.one_in(2) ? sign_bit : 0;
  const std::uint64_t kind = random.below(8);
  return kind == 0   ? any_value(random)
         : kind == 1 ? close
         : kind == 2 ? a ^ (close & sign_bit)
         : kind == 3 ? a
                     : number(random, random.one_of(fields) + near);
}

// Operands whose product is as close to a tie or to a number of the format as can be, or there:
// what their low bits are follows from one another modulo a power of two.
inline void make_hard(Random& random, Value& a, Value& b) {
  const Value top = pattern(random, 48) << 64, factor = hidden_bit | top | random.next() | 1;
  Value inverse = factor, other = 0;  // modulo 2^128; each step doubles the bits that are right
  for (int bits = 3; bits < 128; bits *= 2) {
    inverse *= 2 - factor * inverse;
  }
  while (other < hidden_bit) {
    const Value half = one_bit << random.one_of({111, 112, 127});
    other = (half + random.below(128) - 1) * inverse & (2 * hidden_bit - 1);
  }
  a = number(random, bias + within(random, 100), other - hidden_bit);
  b = number(random, bias + within(random, 100), factor - hidden_bit);
}

// A number for a conversion to `to`: at the edges of its range, and what is cut off is nothing,
// little, next to a half, a half, or nearly one unit.
inline Value narrowed(Random& random, char to) {
  const std::size_t known = floating.find(to);
  const auto [digits, lowest, largest] =
      known < 4 ? formats[known] : Format{113, 0, random.one_in(2) ? 31 : 63};
  const int edge = random.one_of({0, lowest, lowest + digits - 1, largest});
  const int middle = (lowest + largest) / 2, inside = within(random, (largest - lowest) / 2 + 4);
  const int exponent = random.one_in(2) ? edge + within(random, 3) : middle + inside;
  const auto kept = static_cast<unsigned>(std::clamp(exponent - lowest + 1, 0, digits));
  const unsigned cut = 113 - kept;
  const Value unit = one_bit << cut, significand = pattern(random, kept) << cut;
  const Value tails[] = {
      0, 1, unit / 2 - 1, unit / 2, unit / 2 + 1, unit - 1, pattern(random, cut)};
  const Value tail = random.one_of(tails) & (unit - 1);
  return number(random, exponent + bias, (significand | tail) & (hidden_bit - 1));
}

// The bits of a number of type `from`, for a conversion to `to`.
inline Value source(Random& random, char from, char to) {
  if (from == 'q') {
    return to == 'q' || random.one_in(16) ? any_value(random) : narrowed(random, to);
  }
  if (floating.find(from) > 3) {
    return pattern(random, 8 * Type{from}.size());
  }
  const unsigned largest = from == 'd' ? 2047 : from == 'f' ? 255 : 0x7FFF;
  const unsigned width = from == 'd' ? 52 : from == 'f' ? 23 : 64;
  const Value sign = random.one_in(2) ? largest + 1 : 0, any = random.below(largest + 1);
  const Value field = random.one_of<Value>({0, 1, largest / 2, largest, any, any, any, any});
  return (sign | field) << width | pattern(random, width);
}

// ---- what ought to come of them -----------------------------------------------------------------
// By the compiler's own quad type, whose run-time library rounds in all modes and raises flags, and
// by the C library's texts.

#ifdef _WIN32
constexpr bool has_judge = false;  // there is neither
#else
constexpr bool has_judge = true;
#endif

Effect expected(const Routine& routine, const Value (&operands)[4], std::uint64_t mode);

// Of finite numbers: the text d.ddde+12 of so many digits, or the shortest, and the exact text of
// the middle between a positive number and the next.
std::string rounded_text(Value value, int digits);
std::string shortest_text(Value value);
std::string middle_text(Value value);
// The number nearest to a text.
Value read_text(const std::string& text);

}  // namespace ksomd::test::quad
