#include <mpfr.h>

#include <bit>
#include <cfenv>
#include <tuple>

#include "quad/quad_cases.h"

namespace ksomd::test::quad {

__extension__ using Float = __float128;
// The C library's; its header has them for some compilers only.
Float read_float(const char* text, char** end) __asm__("strtof128");
int write_float(char* text, std::size_t size, const char* format, Float x) __asm__("strfromf128");

namespace {

__extension__ using Int128 = __int128;

bool is_nan(Value value) {
  return (value & ~sign_bit) > infinity;
}

// A quiet NaN before a signaling one, then the larger magnitude, then the negative one.
Effect nan_result(Value a, Value b) {
  const auto is_signaling = [](Value value) { return is_nan(value) && (value >> 111 & 1) == 0; };
  const auto rank = [&](Value value) {
    return std::tuple(is_nan(value), !is_signaling(value), value & ~sign_bit, value >> 127);
  };
  const unsigned flags = is_signaling(a) || is_signaling(b) ? mxcsr::invalid : 0;
  return {{(rank(a) > rank(b) ? a : b) | one_bit << 111}, flags};
}

// What the compiler makes of it.
Value computed(char operation, char to, Float a, Float b) {
  const Float r = operation == '+'   ? a + b
                  : operation == '-' ? a - b
                  : operation == '*' ? a * b
                  : operation == '/' ? a / b
                                     : a;
  return to == 'd'   ? bits(static_cast<double>(r))
         : to == 'f' ? bits(static_cast<float>(r))
         : to == 'l' ? bits(static_cast<long double>(r))
                     : bits(r);
}

Effect judged(char operation, char to, Value a, Value b, std::uint64_t mode) {
  Value (*volatile compute)(char, char, Float, Float) = computed;
  Effect effect;
  std::uint16_t x87 = 0;
  effect.flags = raised_by(mode, [&] {
    asm volatile("fnclex");
    effect.parts[0] = compute(operation, to, std::bit_cast<Float>(a), std::bit_cast<Float>(b));
    asm volatile("fnstsw %0" : "=a"(x87));  // overflow and underflow are here
  });
  effect.flags |= x87 & mxcsr::ieee_flags;
  return effect;
}

Effect arithmetic(char operation, const Value (&v)[4], std::uint64_t mode, bool is_complex) {
  unsigned flags = 0;
  const auto step = [&](char one, Value a, Value b) {
    const auto effect = is_nan(a) || is_nan(b) ? nan_result(a, b) : judged(one, 'q', a, b, mode);
    flags |= effect.flags;
    return effect.parts[0];
  };
  const auto product = [&](int i, int k) { return step('*', v[i], v[k]); };
  Value re = 0, im = 0;
  if (!is_complex) {
    re = step(operation, v[0], v[1]);
  } else if (operation == '*') {
    re = step('-', product(0, 2), product(1, 3));
    im = step('+', product(0, 3), product(1, 2));
  } else if (operation == '/') {
    const Value inverse = step('/', Value{bias} << 112, step('+', product(2, 2), product(3, 3)));
    re = step('*', step('+', product(0, 2), product(1, 3)), inverse);
    im = step('*', step('-', product(1, 2), product(0, 3)), inverse);
  } else {
    re = step(operation, v[0], v[2]);
    im = step(operation, v[1], v[3]);
  }
  return {{re, im}, flags};
}

Effect comparison(char operation, Value a, Value b) {
  const Float x = std::bit_cast<Float>(a), y = std::bit_cast<Float>(b);
  const int results[] = {x == y, x != y, x<y, x <= y, x> y, x >= y, (x > y) - (x < y)};
  const std::size_t which = std::string_view("=!<l>g?").find(operation);
  return {{bits(results[which])}, which > 1 && (is_nan(a) || is_nan(b)) ? mxcsr::invalid : 0};
}

Effect to_integer(char to, Value a, std::int32_t rounding) {
  const Float x = std::bit_cast<Float>(a), beyond = std::bit_cast<Float>(Value{bias + 65} << 112);
  const Int128 cut = x > -beyond && x < beyond ? static_cast<Int128>(x) : 2 * Int128{1} << 64;
  const Float doubled = 2 * (x - Float(cut));  // what was cut off
  const bool away = rounding == 1   ? doubled * doubled > 1 || (doubled * doubled == 1 && cut % 2)
                    : rounding == 2 ? x < 0
                    : rounding == 3 ? x > 0
                                    : rounding != 0 && to == 'i';
  const Int128 rounded = cut + (away ? (doubled > 0) - (doubled < 0) : 0);
  const Int128 range = Int128{1} << (8 * Type{to}.size());
  const Int128 lowest = to == 'i' || to == 'j' ? -range / 2 : 0;
  if (rounded >= lowest && rounded < lowest + range) {
    return {{static_cast<Value>(rounded & (range - 1))}, doubled != 0 ? mxcsr::inexact : 0};
  }
  return {{static_cast<Value>(range / 2)}, mxcsr::invalid};  // as NaNs do
}

Effect convert(char from, char to, Value a, std::uint64_t mode, std::int32_t rounding) {
  if (from == to) {
    return {{a}};
  }
  if (floating.find(to) > 3) {
    return to_integer(to, a, rounding);
  }
  const std::size_t width = 8 * Type{from}.size(), format = floating.find(from);
  if (format > 3) {
    const bool negative = from != 'u' && from != 'k' && (a >> (width - 1)) != 0;
    return {{bits(static_cast<Float>(static_cast<Int128>(a - negative * (one_bit << width))))}};
  }
  const int digits = formats[format].digits;
  const Value top = one_bit << (digits - 1), special_bits = (one_bit << (width - 1)) - top;
  if (from == 'l' || (from != 'q' && (a & special_bits) == special_bits)) {  // bits carried over
    const Value field = from == 'l' ? a >> 64 & special : special;
    return {{(a >> (width - 1)) << 127 | field << 112 | (a % top) << (113 - digits)}};
  }
  if (to == 'q') {
    return {{bits(from == 'd' ? Float{std::bit_cast<double>(static_cast<std::uint64_t>(a))}
                              : Float{std::bit_cast<float>(static_cast<std::uint32_t>(a))})}};
  }
  Effect effect = judged(':', to, a, a, mode);
  if (to == 'l' && (effect.flags & mxcsr::inexact) != 0) {  // tiny is what is stored as such
    const bool tiny = (effect.parts[0] >> 64 & special) == 0;
    effect.flags = (effect.flags & ~mxcsr::underflow) | (tiny ? mxcsr::underflow : 0);
  }
  return effect;
}

}  // namespace

Effect expected(const Routine& routine, const Value (&v)[4], std::uint64_t mode) {
  const char operation = routine.operation;
  const Type from = {routine.arguments[0]}, to = {routine.result[0]};
  const bool is_complex = routine.is_complex();
  Effect first, second;
  if (routine.computes()) {
    return arithmetic(operation, v, mode, is_complex);
  }
  if (operation == '~') {
    return {{v[0] ^ sign_bit, is_complex ? v[1] ^ sign_bit : 0}};
  }
  if (operation == 's' || operation == 'o') {
    return {{Value{(v[0] == v[2] && v[1] == v[3]) == (operation == 's')}}};
  }
  if (operation != ':') {
    first = comparison(operation, v[0], v[is_complex ? 2 : 1]);
    second = is_complex ? comparison(operation, v[1], v[3]) : first;
    const Value a = first.parts[0], b = second.parts[0];
    return {{operation == '!' ? a | b : a & b}, first.flags};
  }
  const auto rounding = static_cast<std::int32_t>(routine.arguments == "qm" ? v[1] : 0);
  first = convert(from.part(), to.part(), v[0], mode, rounding);
  if (from.is_pair() && to.is_pair()) {
    second = convert(from.part(), to.part(), v[1], mode, rounding);
  }
  return {{first.parts[0], second.parts[0]}, first.flags | second.flags};
}

std::string rounded_text(Value value, int digits) {
  static char text[12'000];
  const std::string format = "%." + std::to_string(digits - 1) + 'e';
  write_float(text, sizeof text, format.c_str(), std::bit_cast<Float>(value));
  return text;
}

// Of two texts that read back, the nearer one is the one to nearest, unless that does not read
// back: below a power of two, the numbers are closer.
std::string shortest_text(Value value) {
  for (int digits = 1;; ++digits) {
    for (const int mode : {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD}) {
      std::fesetround(mode);
      const std::string text = rounded_text(value, digits);
      std::fesetround(FE_TONEAREST);
      if (read_text(text) == value) {
        return text;
      }
    }
  }
}

std::string middle_text(Value value) {
  constexpr int digits = 11'800;  // none has as many
  static char text[digits + 100];
  mpfr_t middle, half;
  mpfr_inits2(114, middle, half, nullptr);
  mpfr_set_str(middle, rounded_text(value, digits).c_str(), 10, MPFR_RNDN);
  mpfr_set_ui_2exp(half, 1, std::max(field_of(value), 1) - bias - 113, MPFR_RNDN);
  mpfr_add(middle, middle, half, MPFR_RNDN);
  mpfr_snprintf(text, sizeof text, "%.*Re", digits, middle);
  mpfr_clears(middle, half, nullptr);
  return text;
}

Value read_text(const std::string& text) {
  return bits(read_float(text.c_str(), nullptr));
}

}  // namespace ksomd::test::quad
