#include "support/quad_oracle.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace ksomd::test {
namespace {

// ---- natural numbers ----------------------------------------------------------------------------

// 32-bit digits, the lowest first, the highest not 0. As many as the sum of the largest and the
// smallest quad needs.
class Natural {
 public:
  Natural() = default;
  Natural(std::uint64_t high, std::uint64_t low) {
    for (const std::uint64_t word : {low, high}) {
      push(static_cast<std::uint32_t>(word));
      push(static_cast<std::uint32_t>(word >> 32));
    }
    trim();
  }
  Natural(const Natural& other) { *this = other; }
  Natural& operator=(const Natural& other) {
    count_ = other.count_;
    std::copy_n(other.digits_, count_, digits_);
    return *this;
  }

  [[nodiscard]] bool is_zero() const { return count_ == 0; }
  [[nodiscard]] bool is_odd() const { return bit(0); }
  [[nodiscard]] bool bit(std::int64_t i) const {
    return (digit(static_cast<std::size_t>(i / 32)) >> (i % 32) & 1) != 0;
  }
  [[nodiscard]] std::int64_t bit_count() const {
    auto count = static_cast<std::int64_t>(count_) * 32;
    while (count > 0 && !bit(count - 1)) {
      --count;
    }
    return count;
  }
  [[nodiscard]] std::uint64_t word(std::size_t i) const {
    return digit(2 * i) | std::uint64_t{digit(2 * i + 1)} << 32;
  }

  [[nodiscard]] Natural shifted_left(std::int64_t distance) const {
    Natural result;
    for (std::int64_t i = 0; i < distance / 32; ++i) {
      result.push(0);
    }
    std::uint64_t carry = 0;
    for (std::size_t i = 0; i <= count_; ++i) {
      carry |= std::uint64_t{digit(i)} << (distance % 32);
      result.push(static_cast<std::uint32_t>(carry));
      carry >>= 32;
    }
    result.trim();
    return result;
  }
  [[nodiscard]] Natural shifted_right(std::int64_t distance) const {
    Natural result;
    for (auto i = static_cast<std::size_t>(distance / 32); i < count_; ++i) {
      const std::uint64_t pair = std::uint64_t{digit(i + 1)} << 32 | digit(i);
      result.push(static_cast<std::uint32_t>(pair >> (distance % 32)));
    }
    result.trim();
    return result;
  }

  friend Natural operator+(const Natural& a, const Natural& b) {
    Natural result;
    std::uint64_t carry = 0;
    for (std::size_t i = 0; i <= std::max(a.count_, b.count_); ++i) {
      carry += std::uint64_t{a.digit(i)} + b.digit(i);
      result.push(static_cast<std::uint32_t>(carry));
      carry >>= 32;
    }
    result.trim();
    return result;
  }
  // a >= b
  friend Natural operator-(const Natural& a, const Natural& b) {
    Natural result;
    std::int64_t carry = 0;
    for (std::size_t i = 0; i < a.count_; ++i) {
      carry += std::int64_t{a.digit(i)} - b.digit(i);
      result.push(static_cast<std::uint32_t>(carry));
      carry >>= 32;
    }
    result.trim();
    return result;
  }
  friend Natural operator*(const Natural& a, const Natural& b) {
    Natural result;
    for (std::size_t i = 0; i < a.count_ + b.count_; ++i) {
      result.push(0);
    }
    for (std::size_t i = 0; i < a.count_; ++i) {
      std::uint64_t carry = 0;
      for (std::size_t j = 0; j < b.count_; ++j) {
        carry += std::uint64_t{a.digits_[i]} * b.digits_[j] + result.digits_[i + j];
        result.digits_[i + j] = static_cast<std::uint32_t>(carry);
        carry >>= 32;
      }
      result.digits_[i + b.count_] = static_cast<std::uint32_t>(carry);
    }
    result.trim();
    return result;
  }
  friend std::strong_ordering operator<=>(const Natural& a, const Natural& b) {
    for (std::size_t i = std::max(a.count_, b.count_); i-- > 0;) {
      if (a.digit(i) != b.digit(i)) {
        return a.digit(i) <=> b.digit(i);
      }
    }
    return std::strong_ordering::equal;
  }
  friend bool operator==(const Natural& a, const Natural& b) { return (a <=> b) == 0; }

 private:
  static constexpr std::size_t capacity = 1100;

  [[nodiscard]] std::uint32_t digit(std::size_t i) const { return i < count_ ? digits_[i] : 0; }
  void push(std::uint32_t digit) {
    if (count_ == capacity) {
      std::abort();
    }
    digits_[count_++] = digit;
  }
  void trim() {
    while (count_ > 0 && digits_[count_ - 1] == 0) {
      --count_;
    }
  }

  std::size_t count_ = 0;
  std::uint32_t digits_[capacity];
};

// Bit by bit.
struct Division {
  Natural quotient;
  Natural remainder;
};
Division divide_naturals(const Natural& a, const Natural& b) {
  Division result;
  const Natural one(0, 1);
  for (std::int64_t i = a.bit_count(); i-- > 0;) {
    result.remainder = result.remainder.shifted_left(1) + (a.bit(i) ? one : Natural());
    result.quotient = result.quotient.shifted_left(1);
    if (result.remainder >= b) {
      result.remainder = result.remainder - b;
      result.quotient = result.quotient + one;
    }
  }
  return result;
}

// ---- formats and rounding -----------------------------------------------------------------------

struct Format {
  int precision;  // bits of a significand, the leading one included
  int min_exponent;
  int max_exponent;
  bool tiny_if_result_is;  // underflow depends on the result, not on one of unbounded exponent
};
constexpr Format binary128 = {113, -16382, 16383, false};
constexpr Format binary64 = {53, -1022, 1023, false};
constexpr Format binary32 = {24, -126, 127, false};
constexpr Format extended = {64, -16382, 16383, true};

// Above magnitude * 2^exponent, and below the next multiple of 2^exponent, if `more`.
struct Exact {
  bool negative;
  Natural magnitude;
  std::int64_t exponent;
  bool more = false;
};

struct Rounded {
  Natural magnitude;
  bool inexact;
};

bool goes_up(Mode mode, bool negative, bool odd, int against_half, bool inexact) {
  switch (mode) {
    case Mode::NearestEven:
      return against_half > 0 || (against_half == 0 && odd);
    case Mode::Down:
      return inexact && negative;
    case Mode::Up:
      return inexact && !negative;
    default:
      return false;
  }
}

// To a multiple of 2^unit.
Rounded round_to_unit(const Exact& x, std::int64_t unit, Mode mode) {
  const std::int64_t distance = unit - x.exponent;
  if (distance <= 0) {
    if (x.more) {
      std::abort();  // too few bits were asked of a division
    }
    return {x.magnitude.shifted_left(-distance), false};
  }
  const Natural kept = x.magnitude.shifted_right(distance);
  const Natural rest = x.magnitude - kept.shifted_left(distance);
  const Natural half = Natural(0, 1).shifted_left(distance - 1);
  const bool inexact = x.more || !rest.is_zero();
  const int against_half = rest > half || (rest == half && x.more) ? 1 : rest == half ? 0 : -1;
  const bool up = goes_up(mode, x.negative, kept.is_odd(), against_half, inexact);
  return {up ? kept + Natural(0, 1) : kept, inexact};
}

struct Number {
  enum class Kind { Infinite, Finite } kind;
  Natural significand;
  std::int64_t unit;  // value = significand * 2^unit
  unsigned flags;
};

// x is not 0.
Number round_to_format(const Exact& x, const Format& format, Mode mode) {
  const std::int64_t lowest_unit = format.min_exponent - format.precision + 1;
  const std::int64_t unit = x.exponent + x.magnitude.bit_count() - format.precision;
  const Rounded unbounded = round_to_unit(x, unit, mode);
  const std::int64_t exponent = unit + unbounded.magnitude.bit_count() - 1;
  if (exponent > format.max_exponent) {
    const bool infinite = goes_up(mode, x.negative, true, 1, true);
    const Natural ones = Natural(0, 1).shifted_left(format.precision) - Natural(0, 1);
    return {infinite ? Number::Kind::Infinite : Number::Kind::Finite, ones,
            format.max_exponent - format.precision + 1, flag::overflow | flag::inexact};
  }
  const Rounded result = round_to_unit(x, std::max(unit, lowest_unit), mode);
  bool tiny = exponent < format.min_exponent;
  if (format.tiny_if_result_is) {
    tiny = unit < lowest_unit && result.magnitude.bit_count() < format.precision;
  }
  unsigned flags = result.inexact ? flag::inexact : 0;
  if (tiny && result.inexact) {
    flags |= flag::underflow;
  }
  return {Number::Kind::Finite, result.magnitude, std::max(unit, lowest_unit), flags};
}

// Exponent field and significand, leading one included, of a finite result.
struct Fields {
  std::uint64_t exponent;
  Natural significand;
};
Fields fields_of(Number number, const Format& format) {
  if (number.significand.bit_count() > format.precision) {
    number.significand = number.significand.shifted_right(1);
    ++number.unit;
  }
  const bool subnormal = number.significand.bit_count() < format.precision;
  const std::int64_t field =
      number.unit + format.precision - 1 - format.min_exponent + (subnormal ? 0 : 1);
  return {static_cast<std::uint64_t>(field), number.significand};
}

// ---- quad values --------------------------------------------------------------------------------

constexpr std::uint64_t fraction_mask = 0x0000FFFFFFFFFFFF;
constexpr std::uint64_t quiet = 0x0000800000000000;
constexpr Bits default_nan = {0xFFFF800000000000, 0};

bool negative(Bits a) {
  return (a.high >> 63) != 0;
}
std::uint64_t field(Bits a) {
  return a.high >> 48 & 0x7FFF;
}
bool is_infinite(Bits a) {
  return field(a) == 0x7FFF && (a.high & fraction_mask) == 0 && a.low == 0;
}
bool is_zero(Bits a) {
  return a.high << 1 == 0 && a.low == 0;
}
Bits infinite(bool minus) {
  return {minus ? 0xFFFF000000000000 : 0x7FFF000000000000, 0};
}
Bits zero(bool minus) {
  return {minus ? 0x8000000000000000 : 0, 0};
}
Bits negated(Bits a) {
  return {a.high ^ 0x8000000000000000, a.low};
}

Exact exact(Bits a) {
  const std::uint64_t hidden = field(a) != 0 ? fraction_mask + 1 : 0;
  const auto exponent = static_cast<std::int64_t>(std::max<std::uint64_t>(field(a), 1));
  return {negative(a), Natural((a.high & fraction_mask) | hidden, a.low), exponent - 16383 - 112};
}

Outcome to_quad(const Exact& x, Mode mode) {
  const Number number = round_to_format(x, binary128, mode);
  if (number.kind == Number::Kind::Infinite) {
    return {infinite(x.negative), number.flags};
  }
  const Fields fields = fields_of(number, binary128);
  return {
      {zero(x.negative).high | fields.exponent << 48 | (fields.significand.word(1) & fraction_mask),
       fields.significand.word(0)},
      number.flags};
}

Outcome nan_result(Bits a, Bits b) {
  const unsigned flags = oracle::is_signaling(a) || oracle::is_signaling(b) ? flag::invalid : 0;
  // Rank: NaN at all, quiet, magnitude, sign.
  const auto rank = [](Bits x) {
    const bool nan = oracle::is_nan(x);
    return std::vector<std::uint64_t>{nan, nan && !oracle::is_signaling(x), x.high << 1 >> 1, x.low,
                                      x.high >> 63};
  };
  const Bits chosen = rank(a) >= rank(b) ? a : b;
  return {{chosen.high | quiet, chosen.low}, flags};
}

// The bits of a narrower interchange format.
Outcome to_narrow(Bits a, const Format& format, Mode mode) {
  const int fraction_width = format.precision - 1;
  const int special = 2 * format.max_exponent + 1;
  const int width = format.precision == 53 ? 64 : 32;
  const std::uint64_t sign = std::uint64_t{negative(a)} << (width - 1);
  const std::uint64_t infinity = static_cast<std::uint64_t>(special) << fraction_width;
  if (oracle::is_nan(a)) {
    const std::uint64_t top = a.high << 16 | a.low >> 48;
    const std::uint64_t fraction = top >> (64 - fraction_width) | std::uint64_t{1}
                                                                      << (fraction_width - 1);
    return {{0, sign | infinity | fraction}, oracle::is_signaling(a) ? flag::invalid : 0};
  }
  if (is_infinite(a)) {
    return {{0, sign | infinity}, 0};
  }
  if (is_zero(a)) {
    return {{0, sign}, 0};
  }
  const Number number = round_to_format(exact(a), format, mode);
  if (number.kind == Number::Kind::Infinite) {
    return {{0, sign | infinity}, number.flags};
  }
  const Fields fields = fields_of(number, format);
  const std::uint64_t fraction =
      fields.significand.word(0) & ((std::uint64_t{1} << fraction_width) - 1);
  return {{0, sign | fields.exponent << fraction_width | fraction}, number.flags};
}

// A double or float, by its bits.
Bits from_narrow(std::uint64_t bits, int width, const Format& format) {
  const int fraction_width = format.precision - 1;
  const bool minus = (bits >> (width - 1) & 1) != 0;
  const std::uint64_t fraction = bits & ((std::uint64_t{1} << fraction_width) - 1);
  const auto special = static_cast<std::uint64_t>(2 * format.max_exponent + 1);
  const std::uint64_t exponent = bits >> fraction_width & special;
  if (exponent == special) {
    const Natural placed = Natural(0, fraction).shifted_left(112 - fraction_width);
    return {infinite(minus).high | placed.word(1), placed.word(0)};
  }
  const std::uint64_t hidden = exponent != 0 ? std::uint64_t{1} << fraction_width : 0;
  const Exact value = {minus, Natural(0, fraction | hidden),
                       static_cast<std::int64_t>(std::max<std::uint64_t>(exponent, 1)) -
                           format.max_exponent - fraction_width};
  return value.magnitude.is_zero() ? zero(minus) : to_quad(value, Mode::TowardZero).bits;
}

}  // namespace

// ---- the operations -----------------------------------------------------------------------------

namespace oracle {

bool is_nan(Bits a) {
  return field(a) == 0x7FFF && ((a.high & fraction_mask) != 0 || a.low != 0);
}
bool is_signaling(Bits a) {
  return is_nan(a) && (a.high & quiet) == 0;
}

Outcome add(Bits a, Bits b, Mode mode) {
  if (is_nan(a) || is_nan(b)) {
    return nan_result(a, b);
  }
  if (is_infinite(a) && is_infinite(b) && negative(a) != negative(b)) {
    return {default_nan, flag::invalid};
  }
  if (is_infinite(a) || is_infinite(b)) {
    return {is_infinite(a) ? a : b, 0};
  }
  if (is_zero(a) && is_zero(b) && negative(a) == negative(b)) {
    return {a, 0};
  }
  Exact x = exact(a);
  Exact y = exact(b);
  const std::int64_t unit = std::min(x.exponent, y.exponent);
  x.magnitude = x.magnitude.shifted_left(x.exponent - unit);
  y.magnitude = y.magnitude.shifted_left(y.exponent - unit);
  if (x.magnitude < y.magnitude) {
    std::swap(x, y);
  }
  const Natural magnitude =
      x.negative == y.negative ? x.magnitude + y.magnitude : x.magnitude - y.magnitude;
  if (magnitude.is_zero()) {
    return {zero(mode == Mode::Down), 0};
  }
  return to_quad({x.negative, magnitude, unit}, mode);
}

Outcome subtract(Bits a, Bits b, Mode mode) {
  return is_nan(a) || is_nan(b) ? nan_result(a, b) : add(a, negated(b), mode);
}

Outcome multiply(Bits a, Bits b, Mode mode) {
  const bool minus = negative(a) != negative(b);
  if (is_nan(a) || is_nan(b)) {
    return nan_result(a, b);
  }
  if ((is_zero(a) && is_infinite(b)) || (is_infinite(a) && is_zero(b))) {
    return {default_nan, flag::invalid};
  }
  if (is_infinite(a) || is_infinite(b)) {
    return {infinite(minus), 0};
  }
  if (is_zero(a) || is_zero(b)) {
    return {zero(minus), 0};
  }
  const Exact x = exact(a);
  const Exact y = exact(b);
  return to_quad({minus, x.magnitude * y.magnitude, x.exponent + y.exponent}, mode);
}

Outcome divide(Bits a, Bits b, Mode mode) {
  const bool minus = negative(a) != negative(b);
  if (is_nan(a) || is_nan(b)) {
    return nan_result(a, b);
  }
  if ((is_zero(a) && is_zero(b)) || (is_infinite(a) && is_infinite(b))) {
    return {default_nan, flag::invalid};
  }
  if (is_infinite(a)) {
    return {infinite(minus), 0};
  }
  if (is_zero(a) || is_infinite(b)) {
    return {zero(minus), 0};
  }
  if (is_zero(b)) {
    return {infinite(minus), flag::divide_by_zero};
  }
  // So that the quotient has at least 116 bits.
  const Exact x = exact(a);
  const Exact y = exact(b);
  const std::int64_t more_bits = y.magnitude.bit_count() - x.magnitude.bit_count() + 116;
  const std::int64_t shift = std::max<std::int64_t>(more_bits, 0);
  const auto [quotient, remainder] = divide_naturals(x.magnitude.shifted_left(shift), y.magnitude);
  return to_quad({minus, quotient, x.exponent - y.exponent - shift, !remainder.is_zero()}, mode);
}

Outcome to_double(Bits a, Mode mode) {
  return to_narrow(a, binary64, mode);
}
Outcome to_float(Bits a, Mode mode) {
  return to_narrow(a, binary32, mode);
}

Outcome to_extended(Bits a, Mode mode) {
  const std::uint64_t sign = std::uint64_t{negative(a)} << 15;
  constexpr std::uint64_t integer_bit = std::uint64_t{1} << 63;
  if (is_nan(a)) {
    const std::uint64_t payload = (a.high & fraction_mask) << 15 | a.low >> 49;
    return {{sign | 0x7FFF, payload | integer_bit | integer_bit >> 1},
            is_signaling(a) ? flag::invalid : 0};
  }
  if (is_infinite(a)) {
    return {{sign | 0x7FFF, integer_bit}, 0};
  }
  if (is_zero(a)) {
    return {{sign, 0}, 0};
  }
  const Number number = round_to_format(exact(a), extended, mode);
  if (number.kind == Number::Kind::Infinite) {
    return {{sign | 0x7FFF, integer_bit}, number.flags};
  }
  const Fields fields = fields_of(number, extended);
  return {{sign | fields.exponent, fields.significand.word(0)}, number.flags};
}

Outcome to_signed(Bits a, int width, IntegerRounding rounding) {
  const std::uint64_t indefinite = std::uint64_t{1} << (width - 1);
  const std::uint64_t mask = ~std::uint64_t{0} >> (64 - width);
  if (is_nan(a) || is_infinite(a)) {
    return {{0, indefinite}, flag::invalid};
  }
  const Exact x = exact(a);
  Rounded rounded = round_to_unit(x, 0, Mode::TowardZero);
  switch (rounding) {
    case IntegerRounding::TowardZero:
      break;
    case IntegerRounding::NearestEven:
      rounded = round_to_unit(x, 0, Mode::NearestEven);
      break;
    case IntegerRounding::Down:
      rounded = round_to_unit(x, 0, Mode::Down);
      break;
    case IntegerRounding::Up:
      rounded = round_to_unit(x, 0, Mode::Up);
      break;
    case IntegerRounding::AwayFromZero:
      rounded = round_to_unit(x, 0, x.negative ? Mode::Down : Mode::Up);
      break;
  }
  const Natural limit = Natural(0, indefinite - (x.negative ? 0 : 1));
  if (rounded.magnitude > limit) {
    return {{0, indefinite}, flag::invalid};
  }
  const std::uint64_t magnitude = rounded.magnitude.word(0);
  return {{0, (x.negative ? 0 - magnitude : magnitude) & mask},
          rounded.inexact ? flag::inexact : 0};
}

Outcome to_unsigned(Bits a, int width) {
  const std::uint64_t indefinite = std::uint64_t{1} << (width - 1);
  if (is_nan(a) || is_infinite(a)) {
    return {{0, indefinite}, flag::invalid};
  }
  const Exact x = exact(a);
  const Rounded rounded = round_to_unit(x, 0, Mode::TowardZero);
  if (rounded.magnitude.bit_count() > width || (x.negative && !rounded.magnitude.is_zero())) {
    return {{0, indefinite}, flag::invalid};
  }
  return {{0, rounded.magnitude.word(0)}, rounded.inexact ? flag::inexact : 0};
}

Bits from_double(std::uint64_t bits) {
  return from_narrow(bits, 64, binary64);
}
Bits from_float(std::uint32_t bits) {
  return from_narrow(bits, 32, binary32);
}
Bits from_integer(bool minus, std::uint64_t magnitude) {
  return magnitude == 0 ? zero(false)
                        : to_quad({minus, Natural(0, magnitude), 0}, Mode::TowardZero).bits;
}

std::strong_ordering compare(Bits a, Bits b) {
  if (is_zero(a) && is_zero(b)) {
    return std::strong_ordering::equal;
  }
  if (negative(a) != negative(b)) {
    return negative(a) ? std::strong_ordering::less : std::strong_ordering::greater;
  }
  const auto magnitudes = Natural(a.high << 1 >> 1, a.low) <=> Natural(b.high << 1 >> 1, b.low);
  return negative(a) ? 0 <=> magnitudes : magnitudes;
}

}  // namespace oracle

std::ostream& operator<<(std::ostream& stream, const Bits& bits) {
  char text[40];
  std::snprintf(text, sizeof text, "%016llX'%016llX", static_cast<unsigned long long>(bits.high),
                static_cast<unsigned long long>(bits.low));
  return stream << text;
}

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  static constexpr const char* names[] = {"invalid",  "denormal",  "divide-by-zero",
                                          "overflow", "underflow", "inexact"};
  stream << outcome.bits;
  for (unsigned i = 0; i < 6; ++i) {
    if ((outcome.flags >> i & 1) != 0) {
      stream << ' ' << names[i];
    }
  }
  return stream;
}

std::ostream& operator<<(std::ostream& stream, Mode mode) {
  static constexpr const char* names[] = {"to nearest", "down", "up", "toward zero"};
  return stream << names[static_cast<unsigned>(mode)];
}

}  // namespace ksomd::test
