// Text of ksomd::Quad: std::to_chars and std::from_chars for it, strings, streams and literals.
// Included by <ksomd/quad.hpp>.
#ifndef KSOMD_QUAD_TEXT_HPP
#define KSOMD_QUAD_TEXT_HPP

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <ksomd/quad_decimal.hpp>
#include <ksomd/quad_value.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace ksomd {

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

// Writes `a` with `count` significant digits, or with the fewest that suffice if `count` is 0.
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
  Digits digits = {{}, count == 0 ? 1 : count, 1};  // the digits of zero
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

// The parser behind from_chars and the literals. Literals may have separators between digits; the
// compiler has checked their places.
class Reader {
 public:
  constexpr Reader(const char* first, const char* last, bool separators = false) noexcept
      : next_(first), last_(last), separators_(separators) {}

  constexpr const char* position() const noexcept { return next_; }

  // Takes the next character if it is this one, in either case.
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
  // Takes the next digit and returns its value, or -1.
  constexpr int take_digit(int base) noexcept {
    if (separators_) {
      take('\'');
    }
    for (int value = 0; value < base; ++value) {
      if (take("0123456789abcdef"[value])) {
        return value;
      }
    }
    return -1;
  }

  // Reads the significand; false if it has no digit.
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

  // Reads an exponent part, if there is a complete one. A magnitude above a billion counts as a
  // billion.
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

  // Reads what may follow "nan": the fraction bits in parentheses.
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
  bool separators_;
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

// Reads as from_chars does.
constexpr std::errc read(Reader& in, Quad& a) noexcept {
  const bool negative = in.take('-');
  std::errc error{};
  Quad magnitude;
  if (in.take("inf")) {
    in.take("inity");
    magnitude = Quad::from_bits(0x7FFF000000000000, 0);
  } else if (in.take("nan")) {
    magnitude = in.take_payload();
  } else {
    FromDecimal number;
    if (!in.take_significand(number)) {
      return std::errc::invalid_argument;
    }
    const Binary binary = number.finish(in.take_exponent());
    magnitude = pack(binary);
    if (binary.too_large || binary.vanished) {
      error = std::errc::result_out_of_range;
    }
  }
  a = negative ? -magnitude : magnitude;
  return error;
}

// Never defined. A literal that reaches the call does not compile, and the compiler's message shows
// this name.
void q_literal_is_hexadecimal_binary_or_octal_not_decimal();

// A leading zero makes an octal literal, unless a point or an exponent follows.
constexpr bool is_octal(std::string_view literal) noexcept {
  return literal.size() > 1 && literal[0] == '0' &&
         literal.find_first_of(".eE") == std::string_view::npos;
}

}  // namespace decimal
/// @endcond

/// Writes `a` to [first, last) with the fewest significant digits, at most 36, from which
/// from_chars gives `a` again. Of several such texts it is the one nearest to `a`, ties to even.
/// There is no terminator. Numbers from 1e-5 up to below 1e36 are written plainly ("0.001",
/// "1500"), others as "1.5e+300". Infinities are "inf", the usual quiet NaN "nan", other NaNs
/// "nan(0x...)" with their 28 hexadecimal fraction digits; all with "-" if the sign bit is set. The
/// result is as of std::to_chars; quad_text_size characters always suffice.
constexpr std::to_chars_result to_chars(char* first, char* last, const Quad& a) noexcept {
  return decimal::write(first, last, a, 0);
}

/// Writes `a` as "d.ddde+12" with exactly `digits` significant digits, 1 to 36, rounded to nearest
/// with ties to even. All else is as above. Other values of `digits` give
/// std::errc::invalid_argument.
constexpr std::to_chars_result to_chars(char* first, char* last, const Quad& a,
                                        int digits) noexcept {
  if (digits < 1 || digits > quad_round_trip_digits) {
    return {first, std::errc::invalid_argument};
  }
  return decimal::write(first, last, a, digits);
}

/// Reads a number from the start of [first, last): "-" or nothing, then decimal digits with or
/// without a point and an exponent ("12", ".5", "1.25e-300"), "inf", "infinity", "nan" or
/// "nan(0x...)", in either case. There may be any number of digits; they are rounded once, to
/// nearest with ties to even. The result is as of std::from_chars: the end of what was read. If
/// nothing was read, `a` is untouched and the error is std::errc::invalid_argument. A number that
/// rounds to infinity, or a number other than zero that rounds to zero, is stored as such, with
/// std::errc::result_out_of_range.
constexpr std::from_chars_result from_chars(const char* first, const char* last, Quad& a) noexcept {
  decimal::Reader in(first, last);
  const std::errc error = decimal::read(in, a);
  return {error == std::errc::invalid_argument ? first : in.position(), error};
}

/// The shortest text of `a`, as to_chars writes it.
inline std::string to_string(const Quad& a) {
  char text[quad_text_size] = {};
  return {text, to_chars(text, text + sizeof text, a).ptr};
}

/// The number that `text` as a whole stands for, read as by from_chars; one that is out of range
/// counts. Nothing if `text` is not a number.
constexpr std::optional<Quad> from_string(std::string_view text) noexcept {
  Quad a;
  const char* last = text.data() + text.size();
  const std::from_chars_result result = from_chars(text.data(), last, a);
  if (result.ec == std::errc::invalid_argument || result.ptr != last) {
    return std::nullopt;
  }
  return a;
}

/// Writes the shortest text, filled to the stream's width as std::left, right and internal say; the
/// stream's precision and notation are ignored. For programs that include the ostream header.
template <class Traits>
std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& stream,
                                             const Quad& a) {
  char text[quad_text_size] = {};
  const char* begin = text;
  const char* end = to_chars(text, text + sizeof text, a).ptr;
  const auto width = stream.width();
  if ((stream.flags() & stream.adjustfield) == stream.internal && *begin == '-' && width > 1) {
    stream.width(0);
    stream << *begin++;  // the fill follows the sign
    stream.width(width - 1);
  }
  return stream << std::basic_string_view<char, Traits>(begin,
                                                        static_cast<std::size_t>(end - begin));
}

/// `using namespace ksomd::literals` gives 0.1_q.
inline namespace literals {

/// A decimal literal, with digit separators or without, correctly rounded by the compiler.
/// Hexadecimal, binary and octal ones do not compile.
consteval Quad operator""_q(const char* text) {
  const std::string_view literal = text;
  const char* last = literal.data() + literal.size();
  decimal::Reader in(literal.data(), last, true);
  Quad a;
  if (decimal::is_octal(literal) || decimal::read(in, a) == std::errc::invalid_argument ||
      in.position() != last) {
    decimal::q_literal_is_hexadecimal_binary_or_octal_not_decimal();
  }
  return a;
}

}  // namespace literals

}  // namespace ksomd

#endif
