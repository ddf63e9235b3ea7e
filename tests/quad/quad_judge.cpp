#define MPFR_WANT_FLOAT128
#ifdef __clang__  // GCC and the C library agree on both names
#define _Float128 __float128
#endif
#include <mpfr.h>

#include <bit>
#include <tuple>

#include "quad/quad_cases.h"

namespace ksomd::test::quad {
namespace {

__extension__ using Float = __float128;
__extension__ using Int128 = __int128;

bool is_nan(Value value) {
  return (value & ~sign_bit) > infinity;
}
bool is_signaling(Value value) {
  return is_nan(value) && (value >> 111 & 1) == 0;
}

// A quiet NaN before a signaling one, then the larger magnitude, then the negative one.
Effect nan_result(Value a, Value b) {
  const auto rank = [](Value value) {
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

Effect arithmetic(char operation, Value a, Value b, std::uint64_t mode) {
  return is_nan(a) || is_nan(b) ? nan_result(a, b) : judged(operation, 'q', a, b, mode);
}

Effect complex_arithmetic(char operation, const Value (&v)[4], std::uint64_t mode) {
  unsigned flags = 0;
  const auto step = [&](char one, Value a, Value b) {
    const Effect effect = arithmetic(one, a, b, mode);
    flags |= effect.flags;
    return effect.parts[0];
  };
  const auto product = [&](int i, int k) { return step('*', v[i], v[k]); };
  Value re = 0, im = 0;
  if (operation == '*') {
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

struct Real {
  mpfr_t x;
  explicit Real(int digits, Value value = 0) {
    mpfr_init2(x, digits);
    mpfr_set_float128(x, std::bit_cast<Float>(value), MPFR_RNDN);
  }
  ~Real() { mpfr_clear(x); }
  Real(const Real&) = delete;
  Real& operator=(const Real&) = delete;

  std::string text(const char* format, int precision) const {
    char text[13000];
    mpfr_snprintf(text, sizeof text, format, precision, x);
    return text;
  }
};

Effect to_integer(char to, Value a, std::int32_t rounding) {
  const mpfr_rnd_t modes[] = {MPFR_RNDZ, MPFR_RNDN, MPFR_RNDD, MPFR_RNDU,
                              to == 'i' ? MPFR_RNDA : MPFR_RNDZ};
  Real r(113, a);
  const int inexact = mpfr_rint(r.x, r.x, modes[std::min(static_cast<unsigned>(rounding), 4u)]);
  const Float x = mpfr_get_float128(r.x, MPFR_RNDN);
  const bool is_signed = to == 'i' || to == 'j';
  const Value highest = one_bit << (8 * Type{to}.size() - 1);
  if (x >= (is_signed ? -Float(highest) : 0) && x < Float(is_signed ? highest : 2 * highest)) {
    return {{static_cast<Value>(static_cast<Int128>(x)) & (2 * highest - 1)},
            inexact != 0 ? mxcsr::inexact : 0};
  }
  return {{highest}, mxcsr::invalid};  // as NaNs do
}

// Bits of one format in another: of NaNs and infinities, and of 80-bit numbers of any kind.
Effect carried_over(char from, char to, Value a) {
  const char other = to == 'q' ? from : to;
  const int digits = formats[floating.find(other)].digits;
  const unsigned sign = 8 * Type{other}.size() - 1;
  const Value fraction = a & (hidden_bit - 1), top = one_bit << (digits - 1);
  if (to == 'q') {
    const Value field = from == 'l' ? a >> 64 & special : special;
    return {{(a >> sign) << 127 | field << 112 | (a % top) << (113 - digits)}};
  }
  const Value quiet = fraction != 0 ? top / 2 : 0;
  return {{(a >> 127) << sign | ((one_bit << sign) - top) | quiet | fraction >> (113 - digits)},
          is_signaling(a) ? mxcsr::invalid : 0};
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
  const Value top = (one_bit << (width - 1)) - (one_bit << (formats[format].digits - 1));
  if (from == 'l' || (a & top) == top) {
    return carried_over(from, to, a);
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

Effect expected(const Routine& routine, const Value (&v)[4], std::uint64_t mode,
                std::int32_t rounding) {
  const char operation = routine.operation;
  const Type from = {routine.arguments[0]}, to = {routine.result[0]};
  const bool is_complex = routine.is_complex();
  if (routine.computes()) {
    return is_complex ? complex_arithmetic(operation, v, mode)
                      : arithmetic(operation, v[0], v[1], mode);
  }
  if (operation == '~') {
    return {{v[0] ^ sign_bit, is_complex ? v[1] ^ sign_bit : 0}};
  }
  if (operation == 's' || operation == 'o') {
    return {{Value{(v[0] == v[2] && v[1] == v[3]) == (operation == 's')}}};
  }
  if (operation != ':') {
    const Effect re = comparison(operation, v[0], v[is_complex ? 2 : 1]);
    const Effect im = is_complex ? comparison(operation, v[1], v[3]) : re;
    const Value a = re.parts[0], b = im.parts[0];
    return {{operation == '!' ? a | b : a & b}, re.flags};
  }
  rounding = routine.arguments == "qm" ? rounding : 0;
  Effect effect = convert(from.part(), to.part(), v[0], mode, rounding);
  if (from.is_pair() && to.is_pair()) {
    const Effect second = convert(from.part(), to.part(), v[1], mode, rounding);
    effect.parts[1] = second.parts[0];
    effect.flags |= second.flags;
  }
  return effect;
}

std::string rounded_text(Value value, int digits) {
  return Real(113, value).text("%.*Re", digits - 1);
}

// Of two texts that read back, the nearer one is the one to nearest, unless that does not read
// back: below a power of two, the numbers are closer.
std::string shortest_text(Value value) {
  const Real real(113, value);
  for (int digits = 1;; ++digits) {
    for (const char* const format : {"%.*RNe", "%.*RDe", "%.*RUe"}) {
      const std::string text = real.text(format, digits - 1);
      if (read_text(text) == value) {
        const int exponent = std::stoi(text.substr(text.find('e') + 1));
        Real nearest(300);
        mpfr_strtofr(nearest.x, text.c_str(), nullptr, 10, MPFR_RNDN);
        return exponent < -5 || exponent >= 36
                   ? text
                   : nearest.text("%.*Rf", std::max(digits - 1 - exponent, 0));
      }
    }
  }
}

std::string middle_text(Value value) {
  Real real(114, value), half(2);
  mpfr_set_ui_2exp(half.x, 1, std::max(field_of(value), 1) - bias - 113, MPFR_RNDN);
  mpfr_add(real.x, real.x, half.x, MPFR_RNDN);
  return real.text("%.*Re", 11800);  // none has as many
}

Value read_text(const std::string& text) {
  const mpfr_exp_t emin = mpfr_get_emin(), emax = mpfr_get_emax();
  Real real(113);
  mpfr_set_emin(-16493);
  mpfr_set_emax(16384);
  const int error = mpfr_strtofr(real.x, text.c_str(), nullptr, 10, MPFR_RNDN);
  mpfr_subnormalize(real.x, error, MPFR_RNDN);
  mpfr_set_emin(emin);
  mpfr_set_emax(emax);
  return bits(mpfr_get_float128(real.x, MPFR_RNDN));
}

}  // namespace ksomd::test::quad
