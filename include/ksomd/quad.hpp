// A value type for C++20 over the quad routines: `ksomd::Quad` is an IEEE 754 binary128 number with
// operators, comparisons, conversions, std::numeric_limits, std::hash and exact decimal text.
//
//   #include <ksomd/quad.hpp>
//   using namespace ksomd::literals;
//   ksomd::Quad third = 1 / 3_q;
//   std::string text = ksomd::to_string(third);         // the shortest text that reads back the
//   same std::optional<ksomd::Quad> same = ksomd::from_string(text);
//
// Header only; arithmetic, comparisons and conversions call the routines of <ksomd/quad.h> and
// round and raise flags as described there, in the thread's MXCSR mode. Text conversions, literals
// and whatever is constexpr use no floating-point state. Nothing throws but the allocation of
// to_string. Distinct objects may be used on any number of threads.
#ifndef KSOMD_QUAD_HPP
#define KSOMD_QUAD_HPP

#include <ksomd/quad.h>

#include <bit>
#include <charconv>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <ksomd/quad_decimal.hpp>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

/// The C++ companions of the C headers.
namespace ksomd {

/// Integers that convert to and from Quad: up to 64 bits, and not bool.
template <class T>
concept QuadInteger = std::integral<T> && !std::same_as<T, bool> && sizeof(T) <= 8;

/// long double, where it is x87's 80-bit format.
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
  /// Exact; a NaN keeps sign and payload. There is none where long double is not x87's format.
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
  /// The order; unordered with a NaN, which raises invalid, as all ordered comparisons do.
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

  /// Whether the sign bit is set, of zeros and NaNs too.
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

/// Room for any text that to_chars writes.
inline constexpr std::size_t quad_text_size = 48;

/// Significant digits from which every number reads back the same.
inline constexpr int quad_round_trip_digits = decimal::max_digits;

/// @cond
namespace decimal {

// Collects text up to the end of the caller's range.
class Writer {
 public:
  constexpr Writer(char* first, char* last) noexcept : next_(first), last_(last) {}
  constexpr void put(char c) noexcept {
    if (next_ == last_) {
      full_ = true;
    } else {
      *next_++ = c;
    }
  }
  constexpr void put(std::string_view text) noexcept {
    for (const char c : text) {
      put(c);
    }
  }
  constexpr void zeros(int count) noexcept {
    for (; count > 0; --count) {
      put('0');
    }
  }
  constexpr std::to_chars_result result() const noexcept {
    return full_ ? std::to_chars_result{last_, std::errc::value_too_large}
                 : std::to_chars_result{next_, std::errc{}};
  }

 private:
  char* next_;
  char* last_;
  bool full_ = false;
};

constexpr std::string_view slice(const Digits& digits, int from, int to) noexcept {
  return {digits.digit + from, static_cast<std::size_t>(to - from)};
}

// d.ddde+12
constexpr void write_scientific(Writer& out, const Digits& digits) noexcept {
  out.put(digits.digit[0]);
  if (digits.count > 1) {
    out.put('.');
    out.put(slice(digits, 1, digits.count));
  }
  const int exponent = digits.point - 1;
  out.put(exponent < 0 ? "e-" : "e+");
  const int magnitude = exponent < 0 ? -exponent : exponent;
  int scale = magnitude >= 1000 ? 1000 : magnitude >= 100 ? 100 : 10;
  for (; scale > 0; scale /= 10) {
    out.put(static_cast<char>('0' + magnitude / scale % 10));
  }
}

// 0.00ddd, dd.ddd or ddd000
constexpr void write_plain(Writer& out, const Digits& digits) noexcept {
  const int before = digits.point < 0              ? 0
                     : digits.point > digits.count ? digits.count
                                                   : digits.point;
  out.put(slice(digits, 0, before));
  out.zeros(digits.point - digits.count);
  if (before == 0) {
    out.put('0');
  }
  if (before < digits.count) {
    out.put('.');
    out.zeros(-digits.point);
    out.put(slice(digits, before, digits.count));
  }
}

// inf, nan, or nan(0x...) with the 112 fraction bits of a NaN that is not the usual one
constexpr void write_special(Writer& out, const quad128& bits) noexcept {
  const std::uint64_t high = bits.high & 0xFFFFFFFFFFFF;
  if ((high | bits.low) == 0) {
    out.put("inf");
    return;
  }
  out.put("nan");
  if (high == 0x800000000000 && bits.low == 0) {
    return;
  }
  out.put("(0x");
  for (int shift = 108; shift >= 0; shift -= 4) {
    const std::uint64_t digit = shift >= 64 ? high >> (shift - 64) : bits.low >> shift;
    out.put("0123456789abcdef"[digit & 15]);
  }
  out.put(')');
}

// count 0: the shortest digits
constexpr std::to_chars_result write(char* first, char* last, const Quad& a, int count) noexcept {
  Writer out(first, last);
  if (signbit(a)) {
    out.put('-');
  }
  const quad128& bits = a.bits();
  if (!isfinite(a)) {
    write_special(out, bits);
    return out.result();
  }
  const int field = static_cast<int>(bits.high >> 48 & 0x7FFF);
  uint128 significand = static_cast<uint128>(bits.high & 0xFFFFFFFFFFFF) << 64 | bits.low;
  const bool uneven = significand == 0 && field > 1;
  if (field != 0) {
    significand |= static_cast<uint128>(1) << 112;
  }
  Digits digits = {{}, count == 0 ? 1 : count, 1};  // of zero
  for (char& digit : digits.digit) {
    digit = '0';
  }
  if (significand != 0) {
    ToDecimal conversion(significand, (field != 0 ? field - 1 : 0) + lowest_exponent, uneven);
    digits = count == 0 ? conversion.shortest() : conversion.rounded(count);
  }
  if (count == 0 && digits.point > -5 && digits.point <= max_digits) {
    write_plain(out, digits);
  } else {
    write_scientific(out, digits);
  }
  return out.result();
}

// Reads what from_chars takes.
class Reader {
 public:
  constexpr Reader(const char* first, const char* last) noexcept : next_(first), last_(last) {}

  constexpr const char* position() const noexcept { return next_; }

  // The next character, if it is this one, in either case.
  constexpr bool take(char lower) noexcept {
    if (next_ != last_ &&
        (*next_ == lower || (lower >= 'a' && lower <= 'z' && *next_ == lower - 'a' + 'A'))) {
      ++next_;
      return true;
    }
    return false;
  }
  constexpr bool take(std::string_view lower) noexcept {
    const char* start = next_;
    for (const char c : lower) {
      if (!take(c)) {
        next_ = start;
        return false;
      }
    }
    return true;
  }
  // The value of the next digit, or -1.
  constexpr int take_digit(int base) noexcept {
    for (int value = 0; value < base; ++value) {
      if (take("0123456789abcdef"[value])) {
        return value;
      }
    }
    return -1;
  }

  // The significand; false if it has no digit.
  constexpr bool take_significand(FromDecimal& number) noexcept {
    bool any = false;
    bool behind_point = false;
    for (;;) {
      const char* before = next_;
      const int value = take_digit(10);
      if (value >= 0) {
        number.digit(static_cast<unsigned>(value), behind_point);
        any = true;
      } else if (!behind_point && take('.')) {
        behind_point = true;
      } else {
        next_ = before;
        return any;
      }
    }
  }

  // An exponent part, if there is a whole one; magnitudes beyond a billion count as that.
  constexpr std::int64_t take_exponent() noexcept {
    const char* start = next_;
    if (take('e')) {
      const bool negative = take('-');
      if (!negative) {
        take('+');
      }
      std::int64_t exponent = take_digit(10);
      if (exponent >= 0) {
        for (int value = take_digit(10); value >= 0; value = take_digit(10)) {
          exponent = exponent > 100000000 ? 1000000000 : exponent * 10 + value;
        }
        return negative ? -exponent : exponent;
      }
    }
    next_ = start;
    return 0;
  }

  // What may follow "nan": the fraction bits in parentheses.
  constexpr Quad take_payload() noexcept {
    const Quad usual = Quad::from_bits(0x7FFF800000000000, 0);
    const char* start = next_;
    uint128 fraction = 0;
    if (take("(0x")) {
      int count = 0;
      for (int value = take_digit(16); value >= 0; value = take_digit(16), ++count) {
        fraction = fraction << 4 | static_cast<unsigned>(value);
      }
      if (count <= 28 && fraction != 0 && take(')')) {
        return Quad::from_bits(0x7FFF000000000000 | static_cast<std::uint64_t>(fraction >> 64),
                               static_cast<std::uint64_t>(fraction));
      }
    }
    next_ = start;
    return usual;
  }

 private:
  const char* next_;
  const char* last_;
};

constexpr Quad pack(const Binary& number) noexcept {
  if (number.too_large) {
    return Quad::from_bits(0x7FFF000000000000, 0);
  }
  const auto high = static_cast<std::uint64_t>(number.significand >> 64);
  const bool normal = high >> 48 != 0;
  const auto field = static_cast<std::uint64_t>(number.exponent - lowest_exponent + 1);
  return Quad::from_bits(normal ? (high & 0xFFFFFFFFFFFF) | field << 48 : high,
                         static_cast<std::uint64_t>(number.significand));
}

}  // namespace decimal
/// @endcond

/// Writes `a` to [first, last) with the fewest significant digits, at most 36, from which
/// from_chars gives `a` again, the nearest such text to it. No terminator. Numbers from 1e-5 up to
/// below 1e36 are written plainly ("0.001", "1500"), others as "1.5e+300". Infinities are "inf",
/// the usual quiet NaN "nan", other NaNs "nan(0x...)" with their 28 hexadecimal fraction digits;
/// all with "-" if the sign bit is set. Result as of std::to_chars; quad_text_size characters
/// always suffice.
constexpr std::to_chars_result to_chars(char* first, char* last, const Quad& a) noexcept {
  return decimal::write(first, last, a, 0);
}

/// Writes `a` as "d.ddde+12" with exactly `digits` significant digits, 1 to 36, rounded to nearest
/// with ties to even; the rest as above. Other values of `digits`: std::errc::invalid_argument.
constexpr std::to_chars_result to_chars(char* first, char* last, const Quad& a,
                                        int digits) noexcept {
  if (digits < 1 || digits > quad_round_trip_digits) {
    return {first, std::errc::invalid_argument};
  }
  return decimal::write(first, last, a, digits);
}

/// Reads a number from the start of [first, last): "-" or nothing, then decimal digits with or
/// without a point and an exponent ("12", ".5", "1.25e-300"), "inf", "infinity", "nan" or
/// "nan(0x...)", in either case. Any number of digits; rounded once, to nearest with ties to even.
/// Result as of std::from_chars: the end of what was read, and std::errc::invalid_argument with
/// `a` untouched if that is nothing. A number that rounds to infinity, or to zero without being
/// zero, is stored so, with std::errc::result_out_of_range.
constexpr std::from_chars_result from_chars(const char* first, const char* last, Quad& a) noexcept {
  decimal::Reader in(first, last);
  const bool negative = in.take('-');
  std::errc error{};
  Quad magnitude;
  if (in.take("inf")) {
    in.take("inity");
    magnitude = Quad::from_bits(0x7FFF000000000000, 0);
  } else if (in.take("nan")) {
    magnitude = in.take_payload();
  } else {
    decimal::FromDecimal number;
    if (!in.take_significand(number)) {
      return {first, std::errc::invalid_argument};
    }
    const decimal::Binary binary = number.finish(in.take_exponent());
    magnitude = decimal::pack(binary);
    if (binary.too_large || binary.vanished) {
      error = std::errc::result_out_of_range;
    }
  }
  a = negative ? -magnitude : magnitude;
  return {in.position(), error};
}

/// The shortest text of `a`, as to_chars writes it.
inline std::string to_string(const Quad& a) {
  char text[quad_text_size] = {};
  return {text, to_chars(text, text + sizeof text, a).ptr};
}

/// The number that the whole of `text` is, as from_chars reads it, out of range included; nothing
/// if it is not a number.
constexpr std::optional<Quad> from_string(std::string_view text) noexcept {
  Quad a;
  const char* last = text.data() + text.size();
  const std::from_chars_result result = from_chars(text.data(), last, a);
  if (result.ec == std::errc::invalid_argument || result.ptr != last) {
    return std::nullopt;
  }
  return a;
}

/// Writes the shortest text; the stream's width and fill count, its precision and notation do not.
/// For programs that include the ostream header.
template <class Traits>
std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& stream,
                                             const Quad& a) {
  char text[quad_text_size] = {};
  const char* end = to_chars(text, text + sizeof text, a).ptr;
  return stream << std::basic_string_view<char, Traits>(text, static_cast<std::size_t>(end - text));
}

/// `using namespace ksomd::literals` gives 0.1_q.
inline namespace literals {

/// A decimal literal, correctly rounded by the compiler. Text that is no number does not compile.
consteval Quad operator""_q(const char* text) {
  return from_string(text).value();  // NOLINT(bugprone-unchecked-optional-access)
}

}  // namespace literals

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
    return static_cast<std::size_t>(mixed ^ mixed >> 29);
  }
};

/// @endcond

#endif
