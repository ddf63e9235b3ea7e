// Exact conversion between binary128 and decimal, by integers of any length. Included by
// <ksomd/quad_text.hpp>, which has what programs call; nothing here depends on the library.
//
// Both directions divide one long integer by another, digit by digit:
//
//   to decimal      m * 2^e = 0.d1 d2 d3 ... * 10^k     digits of base 10; the shortest sequence as
//                                                       in Steele and White, "How to print
//                                                       floating-point numbers accurately", 1990
//   from decimal    N * 10^p = h0.h1 h2 ... * 2^x       digits of base 16, then one rounding
//
// Integers live on the stack; nothing allocates. Everything is constexpr and reads no rounding
// mode.
#ifndef KSOMD_QUAD_DECIMAL_HPP
#define KSOMD_QUAD_DECIMAL_HPP

#include <bit>
#include <cstddef>
#include <cstdint>

/// @cond
namespace ksomd::decimal {

__extension__ using uint128 = unsigned __int128;

// A natural number, the least significant word first; no leading zero words.
template <std::size_t Capacity>
class Natural {
 public:
  constexpr explicit Natural(uint128 value) noexcept {
    while (value != 0) {
      push(static_cast<std::uint64_t>(value));
      value >>= 64;
    }
  }
  constexpr Natural(const Natural& other) noexcept : size_(other.size_) {
    for (int i = 0; i < size_; ++i) {
      words_[i] = other.words_[i];
    }
  }
  Natural& operator=(const Natural&) = delete;
  ~Natural() = default;

  constexpr bool is_zero() const noexcept { return size_ == 0; }

  constexpr int bit_length() const noexcept {
    return size_ == 0 ? 0 : 64 * size_ - std::countl_zero(words_[size_ - 1]);
  }

  // *this = *this * factor + addend
  constexpr void multiply(std::uint64_t factor, std::uint64_t addend = 0) noexcept {
    std::uint64_t carry = addend;
    for (int i = 0; i < size_; ++i) {
      const uint128 product = static_cast<uint128>(words_[i]) * factor + carry;
      words_[i] = static_cast<std::uint64_t>(product);
      carry = static_cast<std::uint64_t>(product >> 64);
    }
    if (carry != 0) {
      push(carry);
    }
  }

  constexpr void multiply_by_power_of_five(int exponent) noexcept {
    constexpr std::uint64_t five_to_27 = 7450580596923828125;
    for (; exponent >= 27; exponent -= 27) {
      multiply(five_to_27);
    }
    std::uint64_t rest = 1;
    for (; exponent > 0; --exponent) {
      rest *= 5;
    }
    multiply(rest);
  }

  constexpr void shift_left(int count) noexcept {
    if (size_ == 0) {
      return;
    }
    multiply(std::uint64_t{1} << count % 64);
    const int whole = count / 64;
    for (int i = size_ - 1; i >= 0 && whole > 0; --i) {
      words_[i + whole] = words_[i];
    }
    for (int i = 0; i < whole; ++i) {
      words_[i] = 0;
    }
    size_ += whole;
  }

  constexpr void add(const Natural& other) noexcept {
    while (size_ < other.size_) {
      push(0);
    }
    std::uint64_t carry = 0;
    for (int i = 0; i < size_; ++i) {
      const uint128 sum = static_cast<uint128>(words_[i]) + other.word(i) + carry;
      words_[i] = static_cast<std::uint64_t>(sum);
      carry = static_cast<std::uint64_t>(sum >> 64);
    }
    if (carry != 0) {
      push(carry);
    }
  }

  // -1, 0, 1: less than, equal to, greater than `other`.
  constexpr int compare(const Natural& other) const noexcept {
    if (size_ != other.size_) {
      return size_ < other.size_ ? -1 : 1;
    }
    for (int i = size_ - 1; i >= 0; --i) {
      if (words_[i] != other.words_[i]) {
        return words_[i] < other.words_[i] ? -1 : 1;
      }
    }
    return 0;
  }

  // How far to shift a divisor for take_digit: its top word then is at least 2^59, below 2^60.
  constexpr int normalizing_shift() const noexcept { return (60 - bit_length() % 64 + 64) % 64; }

  // Divides by a normalized divisor and returns the quotient, which is below 16; *this becomes the
  // remainder. The estimate from the top words is the quotient or one less.
  constexpr unsigned take_digit(const Natural& divisor) noexcept {
    if (size_ < divisor.size_) {
      return 0;
    }
    const int top = size_ - 1;
    std::uint64_t digit = words_[top] / (divisor.words_[top] + 1);
    subtract_multiple(divisor, digit);
    if (compare(divisor) >= 0) {
      subtract_multiple(divisor, 1);
      ++digit;
    }
    return static_cast<unsigned>(digit);
  }

 private:
  constexpr std::uint64_t word(int i) const noexcept { return i < size_ ? words_[i] : 0; }
  constexpr void push(std::uint64_t word) noexcept { words_[size_++] = word; }

  constexpr void subtract_multiple(const Natural& other, std::uint64_t factor) noexcept {
    std::uint64_t carry = 0;
    for (int i = 0; i < size_; ++i) {
      const uint128 product = static_cast<uint128>(other.word(i)) * factor + carry;
      const auto low = static_cast<std::uint64_t>(product);
      carry = static_cast<std::uint64_t>(product >> 64) + (words_[i] < low ? 1 : 0);
      words_[i] -= low;
    }
    while (size_ > 0 && words_[size_ - 1] == 0) {
      --size_;
    }
  }

  int size_ = 0;
  std::uint64_t words_[Capacity];
};

constexpr int bit_length(uint128 x) noexcept {
  const auto high = static_cast<std::uint64_t>(x >> 64);
  return high != 0 ? 128 - std::countl_zero(high)
                   : 64 - std::countl_zero(static_cast<std::uint64_t>(x));
}

// The exponent of the lowest bit of the smallest subnormal number.
inline constexpr int lowest_exponent = -16494;
inline constexpr int significand_bits = 113;
// This many significant digits tell every number from its neighbours.
inline constexpr int max_digits = 36;

// ---- to decimal ---------------------------------------------------------------------------------

// 0.d1 d2 ... * 10^point, as characters.
struct Digits {
  char digit[max_digits + 1];
  int count;
  int point;
};

// The number as r / s, and the distances to the middles between it and its neighbours: m / s below,
// and the same above, or twice that if `uneven`.
class ToDecimal {
 public:
  // The number significand * 2^exponent. `uneven` says that it is a power of two, whose neighbour
  // below is closer than the one above.
  constexpr ToDecimal(uint128 significand, int exponent, bool uneven) noexcept
      : r_(significand), s_(1), m_(1), uneven_(uneven), even_(significand % 2 == 0) {
    // log10(2) * 2^32. The estimate of the point is one more than the floor of
    // log10(2^floor(log2)).
    constexpr std::int64_t log10_2 = 1292913986;
    point_ = static_cast<int>((exponent + bit_length(significand) - 1) * log10_2 >> 32) + 1;
    int r_shift = exponent + (uneven ? 2 : 1);
    int s_shift = uneven ? 2 : 1;
    int m_shift = exponent;
    if (point_ > 0) {
      s_.multiply_by_power_of_five(point_);
      s_shift += point_;
    } else {
      r_.multiply_by_power_of_five(-point_);
      m_.multiply_by_power_of_five(-point_);
      r_shift -= point_;
      m_shift -= point_;
    }
    const int common = m_shift < s_shift ? m_shift : s_shift;
    s_.shift_left(s_shift - common);
    const int normalizing = s_.normalizing_shift();
    s_.shift_left(normalizing);
    r_.shift_left(r_shift - common + normalizing);
    m_.shift_left(m_shift - common + normalizing);
  }

  // The shortest sequence that reads back as this number; of several such, the one nearest to the
  // number, ties to even.
  constexpr Digits shortest() noexcept {
    start(reaches_above());
    Digits result = {{}, 0, point_};
    for (;;) {
      const unsigned digit = next();
      const int below = r_.compare(m_);
      const bool stop_below = below < 0 || (below == 0 && even_);
      const bool stop_above = reaches_above();
      if (stop_below || stop_above) {
        append(result, digit + (stop_above && (!stop_below || rounds_up(digit)) ? 1 : 0));
        return result;
      }
      append(result, digit);
    }
  }

  // Exactly `count` digits, correctly rounded, ties to even.
  constexpr Digits rounded(int count) noexcept {
    start(r_.compare(s_) >= 0);
    Digits result = {{}, 0, point_};
    unsigned digit = 0;
    for (int i = 0; i < count; ++i) {
      digit = next();
      append(result, digit);
    }
    if (rounds_up(digit)) {
      increment(result);
    }
    return result;
  }

 private:
  using Integer = Natural<200>;  // at most 113 + 4966 log2(5) bits, and the normalizing shift

  static constexpr void append(Digits& digits, unsigned digit) noexcept {
    digits.digit[digits.count++] = static_cast<char>('0' + digit);
  }
  static constexpr void increment(Digits& digits) noexcept {
    int i = digits.count - 1;
    for (; i >= 0 && digits.digit[i] == '9'; --i) {
      digits.digit[i] = '0';
    }
    if (i >= 0) {
      ++digits.digit[i];
    } else {
      digits.digit[0] = '1';
      ++digits.point;
    }
  }

  // Corrects the estimate of the point, which may be one too low.
  constexpr void start(bool too_low) noexcept {
    if (too_low) {
      ++point_;
      s_.multiply(10);
      const int normalizing = s_.normalizing_shift();
      s_.shift_left(normalizing);
      r_.shift_left(normalizing);
      m_.shift_left(normalizing);
    }
  }
  constexpr unsigned next() noexcept {
    r_.multiply(10);
    m_.multiply(10);
    return r_.take_digit(s_);
  }

  // Whether r / s is so close below 1 that 1 stands for it.
  constexpr bool reaches_above() const noexcept {
    Integer sum = r_;
    sum.add(m_);
    if (uneven_) {
      sum.add(m_);
    }
    const int above = sum.compare(s_);
    return above > 0 || (above == 0 && even_);
  }
  // Whether the remainder after this digit rounds it up: to nearest, ties to even.
  constexpr bool rounds_up(unsigned digit) const noexcept {
    Integer twice = r_;
    twice.multiply(2);
    const int half = twice.compare(s_);
    return half > 0 || (half == 0 && digit % 2 != 0);
  }

  Integer r_;
  Integer s_;
  Integer m_;
  bool uneven_;
  bool even_;
  int point_ = 0;
};

// ---- from decimal -------------------------------------------------------------------------------

// significand * 2^exponent with a significand below 2^113. too_large: the number is above the
// largest one, and the significand means nothing. vanished: a number other than zero became zero.
struct Binary {
  uint128 significand;
  int exponent;
  bool too_large;
  bool vanished;
};

// Rounds q * 2^exponent to nearest, ties to even. q has more than 113 bits; `sticky` adds a
// fraction to it that is above 0 and below 1.
constexpr Binary round(uint128 q, int exponent, bool sticky) noexcept {
  int target = exponent + bit_length(q) - significand_bits;
  target = target < lowest_exponent ? lowest_exponent : target;
  const int drop = target - exponent;
  uint128 kept = 0;
  if (drop < 128) {
    const uint128 half = static_cast<uint128>(1) << (drop - 1);
    kept = q >> drop;
    const bool more = sticky || (q & (half - 1)) != 0;
    if ((q & half) != 0 && (more || kept % 2 != 0)) {
      ++kept;
    }
  }
  if (bit_length(kept) > significand_bits) {
    kept >>= 1;
    ++target;
  }
  return {kept, target, target + significand_bits > 16384, kept == 0};
}

// A decimal number that is read digit by digit.
class FromDecimal {
 public:
  constexpr void digit(unsigned value, bool behind_point) noexcept {
    if (count_ == 0 && value == 0) {  // leading zeros
      power_ -= behind_point ? 1 : 0;
      return;
    }
    if (count_ == kept_digits) {
      truncated_ = truncated_ || value != 0;
      power_ += behind_point ? 0 : 1;
      return;
    }
    ++count_;
    power_ -= behind_point ? 1 : 0;
    chunk_ = chunk_ * 10 + value;
    chunk_scale_ *= 10;
    if (chunk_scale_ == ten_to_19) {
      flush();
    }
  }

  // The number times 10^exponent.
  constexpr Binary finish(std::int64_t exponent) noexcept {
    flush();
    if (count_ == 0) {
      return {0, lowest_exponent, false, false};
    }
    const std::int64_t power = power_ + exponent;
    if (count_ + power > 4934) {  // at least 10^4934
      return {0, 0, true, false};
    }
    if (count_ + power < -4966) {  // below 10^-4966, less than half of the least subnormal
      return {0, lowest_exponent, false, true};
    }
    return divide(static_cast<int>(power));
  }

 private:
  using Integer = Natural<640>;  // 11600 digits are 38535 bits, 5^16566 is 38466
  // The middle between two neighbours has at most 11564 significant digits.
  static constexpr int kept_digits = 11600;
  static constexpr std::uint64_t ten_to_19 = 10000000000000000000U;

  constexpr void flush() noexcept {
    number_.multiply(chunk_scale_, chunk_);
    chunk_ = 0;
    chunk_scale_ = 1;
  }

  // number * 10^power, as 29 hexadecimal digits h0 h1 ... h28 and a remainder.
  constexpr Binary divide(int power) noexcept {
    constexpr int more_digits = 28;
    Integer divisor(1);
    if (power >= 0) {
      number_.multiply_by_power_of_five(power);
    } else {
      divisor.multiply_by_power_of_five(-power);
    }
    // The quotient is below 2^above; h0 below 8.
    const int above = number_.bit_length() - divisor.bit_length() + 1;
    const int exponent = above - 3;
    divisor.shift_left(exponent > 0 ? exponent : 0);
    number_.shift_left(exponent < 0 ? -exponent : 0);
    const int normalizing = divisor.normalizing_shift();
    divisor.shift_left(normalizing);
    number_.shift_left(normalizing);
    uint128 quotient = number_.take_digit(divisor);
    for (int i = 0; i < more_digits; ++i) {
      number_.multiply(16);
      quotient = quotient << 4 | number_.take_digit(divisor);
    }
    return round(quotient, exponent + power - 4 * more_digits, truncated_ || !number_.is_zero());
  }

  Integer number_{0};
  std::uint64_t chunk_ = 0;
  std::uint64_t chunk_scale_ = 1;
  int count_ = 0;
  std::int64_t power_ = 0;
  bool truncated_ = false;
};

}  // namespace ksomd::decimal
/// @endcond

#endif
