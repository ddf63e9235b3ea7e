#define MPFR_WANT_FLOAT128
#ifdef __clang__  // GCC and the C library agree on both names
#define _Float128 __float128
#endif
#include "quad/quad_judge.h"

#include <mpfr.h>

#include <cstring>
#include <tuple>

#include "ksomd/quad.h"
#include "quad/quad_operands.h"

namespace ksomd::test::quad {
namespace {

using enum Operation;
__extension__ using Float = __float128;
__extension__ using Int128 = __int128;

template <class To>
To as(const Value& value) {
  To to{};
  std::memcpy(static_cast<void*>(&to), &value, std::min(sizeof to, sizeof value));
  return to;
}
template <class Number>
Value value_of(Number number, std::size_t size = sizeof(Number)) {
  Value value;
  std::memcpy(static_cast<void*>(&value), &number, size);
  return value;
}

struct Format {
  unsigned fraction, sign;  // the width of the fraction, the place of the sign
};
constexpr std::string_view floating = "qdfl";
constexpr Format formats[] = {{112, 127}, {52, 63}, {23, 31}, {63, 79}};

bool is_nan(const Value& value) {
  return (value.bits() & ~sign_bit) > infinity;
}
bool is_signaling(const Value& value) {
  return is_nan(value) && (value.bits() >> 111 & 1) == 0;
}

// A quiet NaN before a signaling one, then the larger magnitude, then the negative one.
Effect nan_result(const Value& a, const Value& b) {
  const auto rank = [](const Value& value) {
    const Uint128 magnitude = value.bits() & ~sign_bit;
    return std::tuple(is_nan(value), !is_signaling(value), magnitude, value.bits() >> 127);
  };
  const unsigned flags = is_signaling(a) || is_signaling(b) ? mxcsr::invalid : 0;
  return {{(rank(a) > rank(b) ? a : b).bits() | one_bit << 111, {}}, flags};
}

// What the compiler makes of it.
Value computed(Operation operation, char to, Float a, Float b) {
  switch (operation) {
    case Add:
      return value_of(a + b);
    case Subtract:
      return value_of(a - b);
    case Multiply:
      return value_of(a * b);
    case Divide:
      return value_of(a / b);
    default:
      return to == 'd'   ? value_of(static_cast<double>(a))
             : to == 'f' ? value_of(static_cast<float>(a))
                         : value_of(static_cast<long double>(a), 10);
  }
}

Effect judged(Operation operation, char to, const Value& a, const Value& b, std::uint64_t mode) {
  Value (*volatile compute)(Operation, char, Float, Float) = computed;
  const Float x = as<Float>(a), y = as<Float>(b);
  Effect effect;
  std::uint16_t x87 = 0;
  effect.flags = raised_by(mode, [&] {
    asm volatile("fnclex");
    effect.parts[0] = compute(operation, to, x, y);
    asm volatile("fnstsw %0" : "=a"(x87));  // overflow and underflow are here
  });
  effect.flags |= x87 & mxcsr::ieee_flags;
  return effect;
}

Effect arithmetic(Operation operation, const Value& a, const Value& b, std::uint64_t mode) {
  return is_nan(a) || is_nan(b) ? nan_result(a, b) : judged(operation, 'q', a, b, mode);
}

Effect complex_arithmetic(Operation operation, const Value (&v)[4], std::uint64_t mode) {
  Effect all;
  const auto step = [&](Operation one, const Value& a, const Value& b) {
    const Effect effect = arithmetic(one, a, b, mode);
    all.flags |= effect.flags;
    return effect.parts[0];
  };
  if (operation == Add || operation == Subtract) {
    all.parts[0] = step(operation, v[0], v[2]);
    all.parts[1] = step(operation, v[1], v[3]);
  } else if (operation == Multiply) {
    all.parts[0] = step(Subtract, step(Multiply, v[0], v[2]), step(Multiply, v[1], v[3]));
    all.parts[1] = step(Add, step(Multiply, v[0], v[3]), step(Multiply, v[1], v[2]));
  } else {
    const Value norm = step(Add, step(Multiply, v[2], v[2]), step(Multiply, v[3], v[3]));
    const Value inverse = step(Divide, static_cast<Uint128>(bias) << 112, norm);
    const Value re = step(Add, step(Multiply, v[0], v[2]), step(Multiply, v[1], v[3]));
    const Value im = step(Subtract, step(Multiply, v[1], v[2]), step(Multiply, v[0], v[3]));
    all.parts[0] = step(Multiply, re, inverse);
    all.parts[1] = step(Multiply, im, inverse);
  }
  return all;
}

Effect comparison(Operation operation, const Value& a, const Value& b) {
  const Float x = as<Float>(a), y = as<Float>(b);
  const bool unordered = is_nan(a) || is_nan(b);
  const int results[] = {x == y, x != y, x<y, x <= y, x> y, x >= y, (x > y) - (x < y)};
  const int result = results[static_cast<int>(operation) - static_cast<int>(Equal)];
  const bool quiet = operation == Equal || operation == NotEqual;
  return {{value_of(result), {}}, unordered && !quiet ? mxcsr::invalid : 0};
}

Effect to_integer(char to, const Value& a, std::int32_t rounding) {
  const auto width = static_cast<unsigned>(8 * size_of(to));
  const bool is_signed = to == 'i' || to == 'j';
  const Effect out_of_range = {{one_bit << (width - 1), {}}, mxcsr::invalid};
  if ((a.bits() & ~sign_bit) >= static_cast<Uint128>(bias + 65) << 112) {  // NaNs too
    return out_of_range;
  }
  const Float x = as<Float>(a);
  auto integer = static_cast<Int128>(x);
  const Float rest = x - static_cast<Float>(integer), magnitude = rest < 0 ? -rest : rest;
  const bool odd = (integer & 1) != 0, inexact = rest != 0;
  const bool away = rounding == KSOMD_ROUND_TOWARD_ZERO ? false
                    : rounding == KSOMD_ROUND_NEAREST_EVEN
                        ? (odd ? magnitude >= 0.5 : magnitude > 0.5)
                    : rounding == KSOMD_ROUND_DOWN ? rest < 0
                    : rounding == KSOMD_ROUND_UP   ? rest > 0
                                                   : to == 'i' && inexact;
  integer += away ? (rest < 0 ? -1 : 1) : 0;
  const Int128 limit = static_cast<Int128>(1) << (is_signed ? width - 1 : width);
  if (integer >= limit || integer < (is_signed ? -limit : 0)) {
    return out_of_range;
  }
  return {{static_cast<Uint128>(integer) & ((one_bit << width) - 1), {}},
          inexact ? mxcsr::inexact : 0};
}

// Bits of one format in another: of NaNs and infinities, and of 80-bit numbers of any kind.
Effect carried_over(char from, char to, const Value& a) {
  const Format source = formats[floating.find(from)], target = formats[floating.find(to)];
  const Uint128 fraction = a.bits() & ((one_bit << source.fraction) - 1);
  const bool narrows = target.fraction < source.fraction;
  const Uint128 kept = narrows ? fraction >> (source.fraction - target.fraction)
                               : fraction << (target.fraction - source.fraction);
  const Uint128 sign = (a.bits() >> source.sign) << target.sign;
  const Uint128 top = (one_bit << target.sign) - (one_bit << target.fraction);
  const Uint128 field = from == 'l' ? (a.bits() >> 64 & special) << 112 : top;
  const Uint128 quiet = narrows && fraction != 0 ? one_bit << (target.fraction - 1) : 0;
  return {{sign | field | quiet | kept, {}}, narrows && is_signaling(a) ? mxcsr::invalid : 0};
}

Effect convert(char from, char to, const Value& a, std::uint64_t mode, std::int32_t rounding) {
  if (from == to) {
    return {{a, {}}, 0};
  }
  if (floating.find(to) == std::string_view::npos) {
    return to_integer(to, a, rounding);
  }
  if (floating.find(from) == std::string_view::npos) {
    const auto width = static_cast<unsigned>(8 * size_of(from));
    const bool negative = from != 'u' && from != 'k' && (a.bits() >> (width - 1)) != 0;
    const auto x = static_cast<Int128>(a.bits() - (negative ? one_bit << width : 0));
    return {{value_of(static_cast<Float>(x)), {}}, 0};
  }
  const Format source = formats[floating.find(from)];
  const Uint128 top = (one_bit << source.sign) - (one_bit << source.fraction);
  if (from == 'l' || (a.bits() & top) == top) {
    return carried_over(from, to, a);
  }
  if (to == 'q') {
    const Float x = from == 'd' ? Float{as<double>(a)} : Float{as<float>(a)};
    return {{value_of(x), {}}, 0};
  }
  Effect effect = judged(Convert, to, a, a, mode);
  if (to == 'l' && (effect.flags & mxcsr::inexact) != 0) {  // tiny is what is stored as such
    const bool tiny = (effect.parts[0].high & special) == 0;
    effect.flags = (effect.flags & ~mxcsr::underflow) | (tiny ? mxcsr::underflow : 0);
  }
  return effect;
}

}  // namespace

Effect expected(const Routine& routine, const Value (&v)[4], const Circumstances& circumstances) {
  const Operation operation = routine.operation;
  const bool is_complex = routine.is_complex();
  const std::uint64_t mode = circumstances.mode;
  if (operation <= Divide) {
    return is_complex ? complex_arithmetic(operation, v, mode)
                      : arithmetic(operation, v[0], v[1], mode);
  }
  if (operation == Negate) {
    return {{v[0].bits() ^ sign_bit, is_complex ? v[1].bits() ^ sign_bit : 0}, 0};
  }
  if (operation == SameBits || operation == OtherBits) {
    const bool same = v[0] == v[2] && v[1] == v[3];
    return {{value_of(same == (operation == SameBits)), {}}, 0};
  }
  if (operation != Convert) {
    const Effect re = comparison(operation, v[0], v[is_complex ? 2 : 1]);
    const Uint128 im =
        is_complex ? comparison(operation, v[1], v[3]).parts[0].bits() : re.parts[0].bits();
    return {{operation == NotEqual ? re.parts[0].bits() | im : re.parts[0].bits() & im, {}},
            re.flags};
  }
  const char from = routine.arguments[0], to = routine.result[0];
  const auto part = [&](const Value& value) {
    const auto one = [](char type) {
      return is_pair(type) ? static_cast<char>(type | 0x20) : type;
    };
    return convert(one(from), one(to), value, mode,
                   routine.arguments[1] == 'm' ? circumstances.rounding : 0);
  };
  Effect effect = part(v[0]);
  if (is_pair(from) && is_pair(to)) {
    const Effect second = part(v[1]);
    effect.parts[1] = second.parts[0];
    effect.flags |= second.flags;
  }
  return effect;
}

// ---- text ---------------------------------------------------------------------------------------

namespace {

struct Real {
  mpfr_t x;
  explicit Real(int digits, const Value& value = {}) {
    mpfr_init2(x, digits);
    mpfr_set_float128(x, as<Float>(value), MPFR_RNDN);
  }
  ~Real() { mpfr_clear(x); }
  Real(const Real&) = delete;
  Real& operator=(const Real&) = delete;

  std::string text(int digits, mpfr_rnd_t rounding) const {
    char text[13000];
    mpfr_snprintf(text, sizeof text, "%.*R*e", digits - 1, rounding, x);
    return text;
  }
};

}  // namespace

std::string rounded_text(const Value& value, int digits) {
  return Real(113, value).text(digits, MPFR_RNDN);
}

// Of two texts that read back, the nearer one is the one to nearest, unless that does not read
// back: below a power of two, the numbers are closer.
std::string shortest_text(const Value& value) {
  const Real real(113, value);
  for (int digits = 1;; ++digits) {
    for (const mpfr_rnd_t rounding : {MPFR_RNDN, MPFR_RNDD, MPFR_RNDU}) {
      if (const std::string text = real.text(digits, rounding); read_text(text) == value) {
        return text;
      }
    }
  }
}

std::string middle_text(const Value& value) {
  Real real(114, value), half(2);
  mpfr_set_ui_2exp(half.x, 1, std::max(field_of(value), 1) - bias - 113, MPFR_RNDN);
  mpfr_add(real.x, real.x, half.x, MPFR_RNDN);
  return real.text(11800, MPFR_RNDN);  // none has as many
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
  return value_of(mpfr_get_float128(real.x, MPFR_RNDN));
}

}  // namespace ksomd::test::quad
