// The value type of <ksomd/quad.hpp>: ksomd::Quad, its limits and its hash. Included from there.
#ifndef KSOMD_QUAD_VALUE_HPP
#define KSOMD_QUAD_VALUE_HPP

#include <ksomd/quad.h>

#include <bit>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ksomd/quad_decimal.hpp>
#include <limits>
#include <type_traits>

/// The C++ companions of the C headers.
namespace ksomd {

/// Integers that convert to and from Quad: up to 64 bits, and not bool.
template <class T>
concept QuadInteger = std::integral<T> && !std::same_as<T, bool> && sizeof(T) <= 8;

/// long double, if it is x87's 80-bit format.
template <class T>
concept QuadExtended = std::same_as<T, long double> && std::numeric_limits<T>::digits == 64;

/// An IEEE 754 binary128 number: the 16 bytes of quad128, with its alignment of 1.
class Quad {
 public:
  /// +0.
  constexpr Quad() noexcept = default;
  /// The number with these bits.
  constexpr Quad(const quad128& bits) noexcept : bits_{bits.low, bits.high} {}
  /// The number with these bits; `high` has sign, exponent and the upper 48 fraction bits.
  static constexpr Quad from_bits(std::uint64_t high, std::uint64_t low) noexcept {
    return Quad(quad128{low, high});
  }

  /// Exact.
  template <QuadInteger T>
  constexpr Quad(T x) noexcept {
    if (std::is_constant_evaluated()) {
      bits_ = integer_bits(x);
    } else if constexpr (std::is_signed_v<T>) {
      __jtoq(&bits_, x);
    } else {
      __ktoq(&bits_, x);
    }
  }
  /// Exact; a NaN keeps sign and payload.
  Quad(float x) noexcept { __ftoq(&bits_, x); }
  /// Exact; a NaN keeps sign and payload.
  Quad(double x) noexcept { __dtoq(&bits_, x); }
  /// Exact; a NaN keeps sign and payload. Exists only if long double is x87's format.
  template <QuadExtended T>
  Quad(T x) noexcept {
    extended80 bytes;
    std::memcpy(&bytes, &x, sizeof bytes);
    __ltoq(&bits_, &bytes);
  }

  /// Rounded in the MXCSR mode, with the IEEE flags.
  explicit operator float() const noexcept { return __qtof(&bits_); }
  /// Rounded in the MXCSR mode, with the IEEE flags.
  explicit operator double() const noexcept { return __qtod(&bits_); }
  /// Rounded in the MXCSR mode, with the IEEE flags.
  template <QuadExtended T>
  explicit operator T() const noexcept {
    extended80 bytes;
    __qtol(&bytes, &bits_);
    T x = 0;
    std::memcpy(&x, &bytes, sizeof bytes);
    return x;
  }
  /// Toward zero. A number out of the range of int, unsigned int or a 64-bit T, or a NaN, raises
  /// invalid and gives the most negative value (signed) or the highest bit alone (unsigned). Types
  /// below 32 bits get the low bits of the 32-bit result.
  template <QuadInteger T>
  explicit operator T() const noexcept {
    if constexpr (std::is_signed_v<T>) {
      if constexpr (sizeof(T) == 8) {
        return static_cast<T>(__qtoj(&bits_, KSOMD_ROUND_TOWARD_ZERO));
      } else {
        return static_cast<T>(__qtoi(&bits_, KSOMD_ROUND_TOWARD_ZERO));
      }
    } else if constexpr (sizeof(T) == 8) {
      return static_cast<T>(__qtok(&bits_));
    } else {
      return static_cast<T>(__qtou(&bits_));
    }
  }
  /// False for +0 and -0, true for all else, NaNs too.
  explicit constexpr operator bool() const noexcept { return (bits_.high << 1 | bits_.low) != 0; }

  /// The structure that the library's routines take.
  constexpr const quad128& bits() const noexcept { return bits_; }
  /// The structure that the library's routines write.
  constexpr quad128& bits() noexcept { return bits_; }

  /// Correctly rounded sum.
  friend Quad operator+(const Quad& a, const Quad& b) noexcept { return call(__addq, a, b); }
  /// Correctly rounded difference.
  friend Quad operator-(const Quad& a, const Quad& b) noexcept { return call(__subq, a, b); }
  /// Correctly rounded product.
  friend Quad operator*(const Quad& a, const Quad& b) noexcept { return call(__mulq, a, b); }
  /// Correctly rounded quotient.
  friend Quad operator/(const Quad& a, const Quad& b) noexcept { return call(__divq, a, b); }
  /// Inverts the sign bit, whatever the operand is; no flag.
  friend constexpr Quad operator-(const Quad& a) noexcept {
    return from_bits(a.bits_.high ^ sign_bit, a.bits_.low);
  }
  /// The operand itself.
  friend constexpr Quad operator+(const Quad& a) noexcept { return a; }

  /// *this + b.
  Quad& operator+=(const Quad& b) noexcept { return *this = *this + b; }
  /// *this - b.
  Quad& operator-=(const Quad& b) noexcept { return *this = *this - b; }
  /// *this * b.
  Quad& operator*=(const Quad& b) noexcept { return *this = *this * b; }
  /// *this / b.
  Quad& operator/=(const Quad& b) noexcept { return *this = *this / b; }

  /// Whether the numbers are equal: +0 and -0 are, a NaN equals nothing. No flag.
  friend bool operator==(const Quad& a, const Quad& b) noexcept {
    return __eqq(&a.bits_, &b.bits_) != 0;
  }
  /// The order of two numbers. With a NaN it is unordered and invalid is raised, as in all ordered
  /// comparisons.
  friend std::partial_ordering operator<=>(const Quad& a, const Quad& b) noexcept {
    const std::int32_t order = __compareq(&a.bits_, &b.bits_);
    if (order != 0) {
      return order < 0 ? std::partial_ordering::less : std::partial_ordering::greater;
    }
    return a == b ? std::partial_ordering::equivalent : std::partial_ordering::unordered;
  }
  /// False if either is a NaN, with invalid raised.
  friend bool operator<(const Quad& a, const Quad& b) noexcept {
    return __ltq(&a.bits_, &b.bits_) != 0;
  }
  /// False if either is a NaN, with invalid raised.
  friend bool operator<=(const Quad& a, const Quad& b) noexcept {
    return __leq(&a.bits_, &b.bits_) != 0;
  }
  /// False if either is a NaN, with invalid raised.
  friend bool operator>(const Quad& a, const Quad& b) noexcept {
    return __gtq(&a.bits_, &b.bits_) != 0;
  }
  /// False if either is a NaN, with invalid raised.
  friend bool operator>=(const Quad& a, const Quad& b) noexcept {
    return __geq(&a.bits_, &b.bits_) != 0;
  }

  /// Whether the sign bit is set, also in zeros and NaNs.
  friend constexpr bool signbit(const Quad& a) noexcept { return (a.bits_.high & sign_bit) != 0; }
  /// Whether a is a NaN, quiet or signaling; no flag.
  friend constexpr bool isnan(const Quad& a) noexcept {
    return a.exponent_field() == exponent_mask && a.has_fraction();
  }
  /// Whether a is an infinity.
  friend constexpr bool isinf(const Quad& a) noexcept {
    return a.exponent_field() == exponent_mask && !a.has_fraction();
  }
  /// Whether a is a number: neither infinite nor a NaN.
  friend constexpr bool isfinite(const Quad& a) noexcept {
    return a.exponent_field() != exponent_mask;
  }
  /// a with the sign bit cleared; no flag.
  friend constexpr Quad abs(const Quad& a) noexcept {
    return from_bits(a.bits_.high & ~sign_bit, a.bits_.low);
  }
  /// a with the sign bit of `sign`; no flag.
  friend constexpr Quad copysign(const Quad& a, const Quad& sign) noexcept {
    return from_bits((a.bits_.high & ~sign_bit) | (sign.bits_.high & sign_bit), a.bits_.low);
  }

 private:
  static constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
  static constexpr std::uint64_t exponent_mask = 0x7FFF;
  static constexpr std::uint64_t fraction_mask = 0xFFFFFFFFFFFF;

  constexpr std::uint64_t exponent_field() const noexcept {
    return bits_.high >> 48 & exponent_mask;
  }
  constexpr bool has_fraction() const noexcept {
    return ((bits_.high & fraction_mask) | bits_.low) != 0;
  }

  static Quad call(void (*routine)(quad128*, const quad128*, const quad128*), const Quad& a,
                   const Quad& b) noexcept {
    Quad result;
    routine(&result.bits_, &a.bits_, &b.bits_);
    return result;
  }

  template <class T>
  static constexpr quad128 integer_bits(T x) noexcept {
    const bool negative = x < 0;
    const auto wide = static_cast<std::uint64_t>(x);
    const std::uint64_t magnitude = negative ? 0 - wide : wide;
    if (magnitude == 0) {
      return {0, 0};
    }
    const int leading = std::countl_zero(magnitude);
    const decimal::uint128 fraction = static_cast<decimal::uint128>(magnitude)
                                      << (leading + 49);  // the leading bit falls into bit 112
    const auto exponent = static_cast<std::uint64_t>(16383 + 63 - leading);
    return {static_cast<std::uint64_t>(fraction),
            (static_cast<std::uint64_t>(fraction >> 64) & fraction_mask) | exponent << 48 |
                (negative ? sign_bit : 0)};
  }

  quad128 bits_ = {0, 0};
};

}  // namespace ksomd

/// @cond
// The format's limits.
template <>
class std::numeric_limits<ksomd::Quad> {
 public:
  static constexpr bool is_specialized = true;
  static constexpr bool is_signed = true;
  static constexpr bool is_integer = false;
  static constexpr bool is_exact = false;
  static constexpr bool has_infinity = true;
  static constexpr bool has_quiet_NaN = true;
  static constexpr bool has_signaling_NaN = true;
  static constexpr bool is_iec559 = true;
  static constexpr bool is_bounded = true;
  static constexpr bool is_modulo = false;
  static constexpr bool traps = false;
  static constexpr bool tinyness_before = false;
  static constexpr std::float_round_style round_style = std::round_to_nearest;
  static constexpr std::float_denorm_style has_denorm = std::denorm_present;
  static constexpr bool has_denorm_loss = false;
  static constexpr int radix = 2;
  static constexpr int digits = 113;
  static constexpr int digits10 = 33;
  static constexpr int max_digits10 = 36;
  static constexpr int min_exponent = -16381;
  static constexpr int max_exponent = 16384;
  static constexpr int min_exponent10 = -4931;
  static constexpr int max_exponent10 = 4932;

  static constexpr ksomd::Quad min() noexcept { return bits(0x0001000000000000, 0); }
  static constexpr ksomd::Quad max() noexcept {
    return bits(0x7FFEFFFFFFFFFFFF, ~std::uint64_t{0});
  }
  static constexpr ksomd::Quad lowest() noexcept { return -max(); }
  static constexpr ksomd::Quad epsilon() noexcept { return bits(0x3F8F000000000000, 0); }
  static constexpr ksomd::Quad round_error() noexcept { return bits(0x3FFE000000000000, 0); }
  static constexpr ksomd::Quad infinity() noexcept { return bits(0x7FFF000000000000, 0); }
  static constexpr ksomd::Quad quiet_NaN() noexcept { return bits(0x7FFF800000000000, 0); }
  static constexpr ksomd::Quad signaling_NaN() noexcept { return bits(0x7FFF400000000000, 0); }
  static constexpr ksomd::Quad denorm_min() noexcept { return bits(0, 1); }

 private:
  static constexpr ksomd::Quad bits(std::uint64_t high, std::uint64_t low) noexcept {
    return ksomd::Quad::from_bits(high, low);
  }
};

// Equal numbers have equal hashes: +0 and -0 too. No flag is raised.
template <>
struct std::hash<ksomd::Quad> {
  std::size_t operator()(const ksomd::Quad& a) const noexcept {
    const quad128& bits = a.bits();
    if (!a) {
      return 0;
    }
    std::uint64_t mixed = (bits.high ^ bits.low >> 32) * 0x9E3779B97F4A7C15;
    mixed = (mixed ^ mixed >> 32 ^ bits.low) * 0xBF58476D1CE4E5B9;
    return mixed ^ mixed >> 29;
  }
};

/// @endcond

#endif
