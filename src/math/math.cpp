// The elementary functions themselves, by the bits of each format.
#include "math/math.h"

#include <emmintrin.h>

#include <bit>
#include <limits>

namespace ksomd::math {
namespace {

constexpr std::int32_t largest_shift = 65536;

// A format's fields, its steps of scaling, and its errors. A value moved `lift` binades up is a
// normal number; from `lost` downward a biased exponent leaves nothing of the value.
struct Binary32 {
  using Value = float;
  using Bits = std::uint32_t;
  static constexpr int fraction_bits = 23;
  static constexpr std::int32_t exponent_mask = 0xFF;
  static constexpr std::int32_t bias = 127;
  static constexpr std::int32_t lift = 25;
  static constexpr std::int32_t lost = -24;
  static constexpr float down = 0x1p-25F;
  static constexpr float huge = 0x1p100F;
  static constexpr float tiny = 0x1p-100F;
  static constexpr bool reports = true;
  static constexpr Error zero_error = Error::LogbfOfZero;
  static constexpr Error overflow = Error::ScalbnfOverflow;
  static constexpr Error underflow = Error::ScalbnfUnderflow;
};

struct Binary64 {
  using Value = double;
  using Bits = std::uint64_t;
  static constexpr int fraction_bits = 52;
  static constexpr std::int32_t exponent_mask = 0x7FF;
  static constexpr std::int32_t bias = 1023;
  static constexpr std::int32_t lift = 55;
  static constexpr std::int32_t lost = -53;
  static constexpr double down = 0x1p-55;
  static constexpr double huge = 0x1p1000;
  static constexpr double tiny = 0x1p-1000;
  static constexpr bool reports = true;
  static constexpr Error zero_error = Error::LogbOfZero;
  static constexpr Error overflow = Error::ScalbnOverflow;
  static constexpr Error underflow = Error::ScalbnUnderflow;
};

// x87 extended: the integer bit, 63 of the significand, is explicit.
struct Extended {
  using Value = long double;
  __extension__ using Bits = unsigned __int128;
  static constexpr int fraction_bits = 64;
  static constexpr std::int32_t exponent_mask = 0x7FFF;
  static constexpr std::int32_t bias = 16383;
  static constexpr std::int32_t lift = 66;
  static constexpr std::int32_t lost = -65;
  static constexpr long double down = 0x1p-66L;
  static constexpr long double huge = 0x1p16000L;
  static constexpr long double tiny = 0x1p-16000L;
  static constexpr bool reports = false;
};

template <class Format>
Format::Bits bits_of(typename Format::Value x) {
  typename Format::Bits bits = 0;
  constexpr std::size_t size = (Format::fraction_bits == 64) ? 10 : sizeof x;
  __builtin_memcpy(&bits, &x, size);
  return bits;
}
template <class Format>
Format::Value value_of(typename Format::Bits bits) {
  typename Format::Value x = 0;
  constexpr std::size_t size = (Format::fraction_bits == 64) ? 10 : sizeof x;
  __builtin_memcpy(&x, &bits, size);
  return x;
}
template <class Format>
constexpr Format::Bits sign_bit() {
  return static_cast<Format::Bits>(Format::exponent_mask + 1) << Format::fraction_bits;
}
template <class Format>
constexpr Format::Bits infinity_bits() {
  auto bits = static_cast<Format::Bits>(Format::exponent_mask) << Format::fraction_bits;
  return Format::fraction_bits == 64 ? bits | std::uint64_t{1} << 63 : bits;
}
template <class Format>
constexpr Format::Bits quiet_bit() {
  constexpr int position = Format::fraction_bits == 64 ? 62 : Format::fraction_bits - 1;
  return typename Format::Bits{1} << position;
}
template <class Format>
Format::Bits magnitude(typename Format::Value x) {
  return bits_of<Format>(x) & (sign_bit<Format>() - 1);
}
template <class Format>
std::int32_t exponent_field(typename Format::Bits bits) {
  return static_cast<std::int32_t>(bits >> Format::fraction_bits) & Format::exponent_mask;
}
template <class Format>
Format::Value with_exponent(typename Format::Value x, std::int32_t field) {
  using Bits = Format::Bits;
  const Bits exponents = static_cast<Bits>(Format::exponent_mask) << Format::fraction_bits;
  return value_of<Format>((bits_of<Format>(x) & ~exponents) | static_cast<Bits>(field)
                                                                  << Format::fraction_bits);
}
template <class Format>
Format::Value quieted(typename Format::Value x) {
  return value_of<Format>(bits_of<Format>(x) | quiet_bit<Format>());
}

template <class Format>
bool is_nan(typename Format::Value x) {
  return magnitude<Format>(x) > infinity_bits<Format>();
}
template <class Format>
bool is_finite(typename Format::Value x) {
  return exponent_field<Format>(bits_of<Format>(x)) != Format::exponent_mask;
}
template <class Format>
std::int32_t infinity_sign(typename Format::Value x) {
  if (magnitude<Format>(x) != infinity_bits<Format>()) {
    return 0;
  }
  return (bits_of<Format>(x) & sign_bit<Format>()) != 0 ? -1 : 1;
}

// By the comparison instruction. A compiler would make the maximum instruction of the operator, and
// that returns zero for a subnormal number where such numbers count as zero.
bool less(float x, float y) {
  return _mm_comilt_ss(_mm_set_ss(x), _mm_set_ss(y)) != 0;
}
bool less(double x, double y) {
  return _mm_comilt_sd(_mm_set_sd(x), _mm_set_sd(y)) != 0;
}
bool less(long double x, long double y) {
  return x < y;
}

template <class Format>
Format::Value larger(typename Format::Value x, typename Format::Value y) {
  if (is_nan<Format>(x)) {
    return is_nan<Format>(y) ? quieted<Format>(x) : y;
  }
  if (is_nan<Format>(y)) {
    return x;
  }
  return less(x, y) ? y : x;
}

template <class Format>
Format::Value with_sign(typename Format::Value x, typename Format::Value y) {
  constexpr auto sign = sign_bit<Format>();
  return value_of<Format>((bits_of<Format>(x) & ~sign) | (bits_of<Format>(y) & sign));
}

// Ways to make a subnormal number normal: its significand, up to where a normal number's begins, in
// a value whose exponent field is still to be set, and that field. By a shift, or by a conversion
// of the fraction from an integer. Neither is an operation on the subnormal number, which the
// thread may have told the processor to take for zero.
template <class Format>
struct ByShift {
  static Format::Value normalize(Format::Value x, std::int32_t& field) {
    using Bits = Format::Bits;
    constexpr int first_bit = Format::fraction_bits == 64 ? 63 : Format::fraction_bits;
    const auto fraction = static_cast<std::uint64_t>(magnitude<Format>(x));
    const int shift = std::countl_zero(fraction) - (63 - first_bit);
    field = 1 - shift;
    const Bits sign = bits_of<Format>(x) & sign_bit<Format>();
    return value_of<Format>(sign | static_cast<Bits>(fraction << shift));
  }
};

struct ByConversion {
  static double normalize(double x, std::int32_t& field) {
    const auto fraction = static_cast<std::int64_t>(magnitude<Binary64>(x));
    const double count = _mm_cvtsd_f64(_mm_cvtsi64_sd(_mm_setzero_pd(), fraction));
    field = exponent_field<Binary64>(bits_of<Binary64>(count)) -
            (Binary64::bias + Binary64::fraction_bits - 1);
    return with_sign<Binary64>(count, x);
  }
};

template <class Format>
void report_zero_exponent() {
  if constexpr (Format::reports) {
    report(Format::zero_error, false);
  }
}

template <class Format, class Normalize>
Format::Value exponent_of(typename Format::Value x) {
  using Value = Format::Value;
  const auto size = magnitude<Format>(x);
  if (size == 0) {
    report_zero_exponent<Format>();
    return -std::numeric_limits<Value>::infinity();
  }
  std::int32_t field = exponent_field<Format>(size);
  if (field == Format::exponent_mask) {
    return is_nan<Format>(x) ? quieted<Format>(x) : value_of<Format>(size);
  }
  if (field == 0) {
    Normalize::normalize(x, field);
  }
  return static_cast<Value>(field - Format::bias);
}

template <class Format, class Normalize>
Format::Value scaled(typename Format::Value x, std::int32_t n) {
  using Value = Format::Value;
  std::int32_t field = exponent_field<Format>(bits_of<Format>(x));
  if (magnitude<Format>(x) == 0 || field == Format::exponent_mask) {
    return x;
  }
  n = n > largest_shift ? largest_shift : n < -largest_shift ? -largest_shift : n;
  const bool subnormal = field == 0;
  if (subnormal) {
    x = Normalize::normalize(x, field);
  }
  field += n;
  if (field >= Format::exponent_mask) {
    const volatile Value huge = with_sign<Format>(Format::huge, x);
    if constexpr (Format::reports) {
      report(Format::overflow, false);
    }
    return huge * Format::huge;
  }
  if (field > 0) {
    return with_exponent<Format>(x, field);
  }
  const bool lost = field <= Format::lost;
  const volatile Value above =
      lost ? with_sign<Format>(Format::tiny, x) : with_exponent<Format>(x, field + Format::lift);
  const Value result = above * (lost ? Format::tiny : Format::down);
  if constexpr (Format::reports) {
    if (lost || (subnormal && n < 0)) {
      report(Format::underflow, magnitude<Format>(result) == 0);
    }
  }
  return result;
}

}  // namespace

namespace general {
double fmax(double x, double y) {
  return larger<Binary64>(x, y);
}
float fmaxf(float x, float y) {
  return larger<Binary32>(x, y);
}
double copysign(double x, double y) {
  return with_sign<Binary64>(x, y);
}
float copysignf(float x, float y) {
  return with_sign<Binary32>(x, y);
}
double logb(double x) {
  return exponent_of<Binary64, ByShift<Binary64>>(x);
}
double scalbn(double x, std::int32_t n) {
  return scaled<Binary64, ByShift<Binary64>>(x, n);
}
}  // namespace general

// The maximum instructions are no help: where subnormal operands count as zero, they return zero
// for them.
namespace vector {
double fmax(double x, double y) {
  const __m128d a = _mm_set_sd(x);
  const __m128d b = _mm_set_sd(y);
  const __m128d a_nan = _mm_cmpunord_sd(a, a);
  const __m128d b_nan = _mm_cmpunord_sd(b, b);
  if (_mm_movemask_pd(_mm_and_pd(a_nan, b_nan)) & 1) {
    return quieted<Binary64>(x);
  }
  const __m128d first = _mm_or_pd(_mm_andnot_pd(a_nan, a), _mm_and_pd(a_nan, b));
  const __m128d second = _mm_or_pd(_mm_andnot_pd(b_nan, b), _mm_and_pd(b_nan, a));
  const __m128d less = _mm_cmplt_sd(first, second);
  return _mm_cvtsd_f64(_mm_or_pd(_mm_and_pd(less, second), _mm_andnot_pd(less, first)));
}
float fmaxf(float x, float y) {
  const __m128 a = _mm_set_ss(x);
  const __m128 b = _mm_set_ss(y);
  const __m128 a_nan = _mm_cmpunord_ss(a, a);
  const __m128 b_nan = _mm_cmpunord_ss(b, b);
  if (_mm_movemask_ps(_mm_and_ps(a_nan, b_nan)) & 1) {
    return quieted<Binary32>(x);
  }
  const __m128 first = _mm_or_ps(_mm_andnot_ps(a_nan, a), _mm_and_ps(a_nan, b));
  const __m128 second = _mm_or_ps(_mm_andnot_ps(b_nan, b), _mm_and_ps(b_nan, a));
  const __m128 less = _mm_cmplt_ss(first, second);
  return _mm_cvtss_f32(_mm_or_ps(_mm_and_ps(less, second), _mm_andnot_ps(less, first)));
}
double copysign(double x, double y) {
  const __m128d sign = _mm_set_sd(-0.0);
  return _mm_cvtsd_f64(
      _mm_or_pd(_mm_andnot_pd(sign, _mm_set_sd(x)), _mm_and_pd(sign, _mm_set_sd(y))));
}
float copysignf(float x, float y) {
  const __m128 sign = _mm_set_ss(-0.0F);
  return _mm_cvtss_f32(
      _mm_or_ps(_mm_andnot_ps(sign, _mm_set_ss(x)), _mm_and_ps(sign, _mm_set_ss(y))));
}
double logb(double x) {
  return exponent_of<Binary64, ByConversion>(x);
}
double scalbn(double x, std::int32_t n) {
  return scaled<Binary64, ByConversion>(x, n);
}
}  // namespace vector
}  // namespace ksomd::math

using namespace ksomd::math;

double __libkso_fabs(double x) {
  return value_of<Binary64>(magnitude<Binary64>(x));
}
float __libkso_fabsf(float x) {
  return value_of<Binary32>(magnitude<Binary32>(x));
}
long double __libkso_fmaxl(long double x, long double y) {
  return larger<Extended>(x, y);
}
float __libkso_logbf(float x) {
  return exponent_of<Binary32, ByShift<Binary32>>(x);
}
long double __libkso_logbl(long double x) {
  return exponent_of<Extended, ByShift<Extended>>(x);
}
float __libkso_scalbnf(float x, std::int32_t n) {
  return scaled<Binary32, ByShift<Binary32>>(x, n);
}
long double __libkso_scalbnl(long double x, std::int32_t n) {
  return scaled<Extended, ByShift<Extended>>(x, n);
}
std::int32_t __libkso_isfinite(double x) {
  return is_finite<Binary64>(x);
}
std::int32_t __libkso_isfinitef(float x) {
  return is_finite<Binary32>(x);
}
std::int32_t __libkso_isfinitel(long double x) {
  return is_finite<Extended>(x);
}
std::int32_t __libkso_isnan(double x) {
  return is_nan<Binary64>(x);
}
std::int32_t __libkso_isnanf(float x) {
  return is_nan<Binary32>(x);
}
std::int32_t __libkso_isnanl(long double x) {
  return is_nan<Extended>(x);
}
std::int32_t __libkso_isinf(double x) {
  return infinity_sign<Binary64>(x);
}
std::int32_t __libkso_isinff(float x) {
  return infinity_sign<Binary32>(x);
}
std::int32_t __libkso_isinfl(long double x) {
  return infinity_sign<Extended>(x);
}
