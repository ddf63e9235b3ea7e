// The elementary functions themselves, by the bits of each format.
#include "math/math.h"

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <limits>

namespace ksomd::math {
namespace {

// A format's fields, and its steps of scaling. A value moved `lift` binades up is a normal number;
// from `lost` downward a biased exponent leaves nothing of the value.
template <class T>
struct Format;
template <>
struct Format<float> {
  using Bits = std::uint32_t;
  static constexpr int exponent_position = 23;
  static constexpr std::int32_t lift = 25;
  static constexpr std::int32_t lost = -24;
  static constexpr float down = 0x1p-25F;
  static constexpr bool reports = true;
};
template <>
struct Format<double> {
  using Bits = std::uint64_t;
  static constexpr int exponent_position = 52;
  static constexpr std::int32_t lift = 55;
  static constexpr std::int32_t lost = -53;
  static constexpr double down = 0x1p-55;
  static constexpr bool reports = true;
};
// x87 extended: the integer bit, 63 of the significand, is explicit, and errno is left alone.
template <>
struct Format<long double> {
  __extension__ using Bits = unsigned __int128;
  static constexpr int exponent_position = 64;
  static constexpr std::int32_t lift = 66;
  static constexpr std::int32_t lost = -65;
  static constexpr long double down = 0x1p-66L;
  static constexpr bool reports = false;
};
template <class T>
using Bits = Format<T>::Bits;

template <class T>
constexpr std::int32_t bias = std::numeric_limits<T>::max_exponent - 1;
template <class T>
constexpr std::int32_t largest_field = 2 * bias<T> + 1;
template <class T>
constexpr int first_fraction_bit = std::numeric_limits<T>::digits - 1;
template <class T>
constexpr Bits<T> exponent_mask =
    static_cast<Bits<T>>(largest_field<T>) << Format<T>::exponent_position;
template <class T>
constexpr Bits<T> sign_bit = exponent_mask<T> + (Bits<T>{1} << Format<T>::exponent_position);
template <class T>
constexpr Bits<T> infinity =
    exponent_mask<T> | (sizeof(T) > 8 ? Bits<T>{1} << first_fraction_bit<T> : Bits<T>{0});

template <class T>
constexpr std::size_t size_of = std::min<std::size_t>(sizeof(T), 10);
template <class T>
Bits<T> bits_of(T x) {
  Bits<T> bits = 0;
  __builtin_memcpy(&bits, &x, size_of<T>);
  return bits;
}
template <class T>
T value_of(Bits<T> bits) {
  T x = 0;
  __builtin_memcpy(&x, &bits, size_of<T>);
  return x;
}
template <class T>
Bits<T> magnitude(T x) {
  return bits_of(x) & (sign_bit<T> - 1);
}
template <class T>
std::int32_t exponent_field(T x) {
  return static_cast<std::int32_t>(magnitude(x) >> Format<T>::exponent_position);
}
template <class T>
T with_exponent(T x, std::int32_t field) {
  return value_of<T>((bits_of(x) & ~exponent_mask<T>) | static_cast<Bits<T>>(field)
                                                            << Format<T>::exponent_position);
}
template <class T>
T with_sign(T x, T y) {
  return value_of<T>(magnitude(x) | (bits_of(y) & sign_bit<T>));
}
template <class T>
T quieted(T x) {
  return value_of<T>(bits_of(x) | Bits<T>{1} << (first_fraction_bit<T> - 1));
}
template <class T>
bool is_nan(T x) {
  return magnitude(x) > infinity<T>;
}
template <class T>
bool is_finite(T x) {
  return exponent_field(x) != largest_field<T>;
}
template <class T>
std::int32_t infinity_sign(T x) {
  return magnitude(x) != infinity<T> ? 0 : (bits_of(x) & sign_bit<T>) != 0 ? -1 : 1;
}

// These are the comparison instructions. Of the operator, a compiler would make the maximum
// instruction, which returns zero for a subnormal number where such numbers count as zero.
bool less(float x, float y) {
  return _mm_comilt_ss(_mm_set_ss(x), _mm_set_ss(y)) != 0;
}
bool less(double x, double y) {
  return _mm_comilt_sd(_mm_set_sd(x), _mm_set_sd(y)) != 0;
}
bool less(long double x, long double y) {
  return x < y;
}

template <class T>
T larger(T x, T y) {
  if (is_nan(x)) {
    return is_nan(y) ? quieted(x) : y;
  }
  return !is_nan(y) && less(x, y) ? y : x;
}

// The same without branches on the order. The barrier keeps the maximum instruction away.
template <class T>
T larger_by_masks(T x, T y) {
  using Vector [[gnu::vector_size(16)]] = T;
  const Vector a = {x};
  const Vector b = {y};
  const auto differ = [](Vector v, Vector w) { return v != w; };
  const auto a_nan = differ(a, a);
  const auto b_nan = differ(b, b);
  if ((a_nan[0] & b_nan[0]) != 0) {
    return quieted(x);
  }
  const Vector first = a_nan ? b : a;
  const Vector second = b_nan ? a : b;
  auto is_less = first < second;
  asm("" : "+x"(is_less));
  return (is_less ? second : first)[0];
}

// Two ways to make a subnormal number normal: its significand, up to where a normal number's
// begins, in a value whose exponent field is still to be set, and that field. Neither is an
// operation on the subnormal number, which the thread may have told the processor to take for zero.
template <class T>
T normalize_by_shift(T x, std::int32_t& field) {
  const auto fraction = static_cast<std::uint64_t>(magnitude(x));
  const int shift = std::countl_zero(fraction) - (63 - first_fraction_bit<T>);
  field = 1 - shift;
  return with_sign(value_of<T>(static_cast<Bits<T>>(fraction) << shift), x);
}
// The fraction is converted from an integer.
double normalize_by_conversion(double x, std::int32_t& field) {
  const auto fraction = static_cast<std::int64_t>(magnitude(x));
  const double count = _mm_cvtsd_f64(_mm_cvtsi64_sd(_mm_setzero_pd(), fraction));
  field = exponent_field(count) - (bias<double> + first_fraction_bit<double> - 1);
  return with_sign(count, x);
}

template <class T>
void report(int error) {
  if constexpr (Format<T>::reports) {
    errno = error;
  }
}

template <class T, auto normalize = normalize_by_shift<T>>
T exponent_of(T x) {
  if (magnitude(x) == 0) {
    report<T>(EDOM);
    return -std::numeric_limits<T>::infinity();
  }
  if (!is_finite(x)) {
    return is_nan(x) ? quieted(x) : value_of<T>(magnitude(x));
  }
  std::int32_t field = exponent_field(x);
  if (field == 0) {
    normalize(x, field);
  }
  return static_cast<T>(field - bias<T>);
}

template <class T, auto normalize = normalize_by_shift<T>>
T scaled(T x, std::int32_t n) {
  using Limits = std::numeric_limits<T>;
  constexpr std::int32_t largest_shift = 65536;
  if (magnitude(x) == 0 || !is_finite(x)) {
    return x;
  }
  std::int32_t field = exponent_field(x);
  const bool subnormal = field == 0;
  if (subnormal) {
    x = normalize(x, field);
  }
  field += std::clamp(n, -largest_shift, largest_shift);
  if (field >= largest_field<T>) {
    const volatile T huge = with_sign(Limits::max(), x);
    report<T>(ERANGE);
    return huge * Limits::max();
  }
  if (field > 0) {
    return with_exponent(x, field);
  }
  // The product is rounded once.
  const bool lost = field <= Format<T>::lost;
  const volatile T above =
      lost ? with_sign(Limits::min(), x) : with_exponent(x, field + Format<T>::lift);
  const T result = above * (lost ? Limits::min() : Format<T>::down);
  if ((lost || (subnormal && n < 0)) && magnitude(result) == 0) {
    report<T>(ERANGE);
  }
  return result;
}

}  // namespace

namespace general {
double fmax(double x, double y) {
  return larger(x, y);
}
float fmaxf(float x, float y) {
  return larger(x, y);
}
double copysign(double x, double y) {
  return with_sign(x, y);
}
float copysignf(float x, float y) {
  return with_sign(x, y);
}
double logb(double x) {
  return exponent_of(x);
}
double scalbn(double x, std::int32_t n) {
  return scaled(x, n);
}
}  // namespace general

namespace vector {
double fmax(double x, double y) {
  return larger_by_masks(x, y);
}
float fmaxf(float x, float y) {
  return larger_by_masks(x, y);
}
double copysign(double x, double y) {
  return __builtin_copysign(x, y);
}
float copysignf(float x, float y) {
  return __builtin_copysignf(x, y);
}
double logb(double x) {
  return exponent_of<double, normalize_by_conversion>(x);
}
double scalbn(double x, std::int32_t n) {
  return scaled<double, normalize_by_conversion>(x, n);
}
}  // namespace vector
}  // namespace ksomd::math

using namespace ksomd::math;

double __libkso_fabs(double x) {
  return value_of<double>(magnitude(x));
}
float __libkso_fabsf(float x) {
  return value_of<float>(magnitude(x));
}
long double __libkso_fmaxl(long double x, long double y) {
  return larger(x, y);
}
float __libkso_logbf(float x) {
  return exponent_of(x);
}
long double __libkso_logbl(long double x) {
  return exponent_of(x);
}
float __libkso_scalbnf(float x, std::int32_t n) {
  return scaled(x, n);
}
long double __libkso_scalbnl(long double x, std::int32_t n) {
  return scaled(x, n);
}
std::int32_t __libkso_isfinite(double x) {
  return is_finite(x);
}
std::int32_t __libkso_isfinitef(float x) {
  return is_finite(x);
}
std::int32_t __libkso_isfinitel(long double x) {
  return is_finite(x);
}
std::int32_t __libkso_isnan(double x) {
  return is_nan(x);
}
std::int32_t __libkso_isnanf(float x) {
  return is_nan(x);
}
std::int32_t __libkso_isnanl(long double x) {
  return is_nan(x);
}
std::int32_t __libkso_isinf(double x) {
  return infinity_sign(x);
}
std::int32_t __libkso_isinff(float x) {
  return infinity_sign(x);
}
std::int32_t __libkso_isinfl(long double x) {
  return infinity_sign(x);
}
