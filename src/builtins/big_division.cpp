// Division of integers of any length, in 64-bit digits.
//
// Let n be the number of the divisor's digits, and s the shift that sets its top bit. The dividend
// is shifted by s on its way into the remainder's memory. The digit pushed out on top is the
// `head`, a variable. Each step divides the n + 1 digits
//
//     head  u[j+n-1] ... u[j+1] u[j]        by        v[n-1] ... v[0]
//
// where the invariant is (head, u[j+n-1], ..., u[j+1]) < v, and leaves the remainder in place, its
// top digit the next head. Dividend and divisor are never written.
//
// An odd number of words is extended at the low end by a word of zeros, in dividend and divisor
// alike. The quotient stays the same, and that word of every remainder is zero, so it needs no
// memory.
//
//     digit     2        1        0
//     words  [4] [3]  [2] [1]  [0]  0
#include <cstdint>
#include <cstring>

#include "ksomd/builtins.h"

namespace {

using Digit = std::uint64_t;
__extension__ using TwoDigits = unsigned __int128;

// Digit j of `count` words.
Digit load(const std::uint32_t* words, std::uint32_t count, std::uint32_t j) {
  if (count % 2 == 0) [[likely]] {
    return words[std::size_t{j} * 2] | Digit{words[std::size_t{j} * 2 + 1]} << 32;
  }
  const Digit high = Digit{words[std::size_t{j} * 2]} << 32;
  return j == 0 ? high : high | words[std::size_t{j} * 2 - 1];
}

void store(std::uint32_t* words, std::uint32_t count, std::uint32_t j, Digit digit) {
  if (count % 2 == 0) [[likely]] {
    words[std::size_t{j} * 2] = static_cast<std::uint32_t>(digit);
    words[std::size_t{j} * 2 + 1] = static_cast<std::uint32_t>(digit >> 32);
    return;
  }
  if (j != 0) {
    words[std::size_t{j} * 2 - 1] = static_cast<std::uint32_t>(digit);
  }
  words[std::size_t{j} * 2] = static_cast<std::uint32_t>(digit >> 32);
}

// Stores a digit of the quotient. An odd number of words is extended at the high end.
void store_quotient(std::uint32_t* words, std::uint32_t count, std::uint32_t j, Digit digit) {
  words[std::size_t{j} * 2] = static_cast<std::uint32_t>(digit);
  if (j * 2 + 1 < count) {
    words[std::size_t{j} * 2 + 1] = static_cast<std::uint32_t>(digit >> 32);
  }
}

constexpr Digit high(TwoDigits a) {
  return static_cast<Digit>(a >> 64);
}
constexpr Digit low(TwoDigits a) {
  return static_cast<Digit>(a);
}
constexpr TwoDigits join(Digit top, Digit bottom) {
  return TwoDigits{top} << 64 | bottom;
}
// The upper digit of (top, bottom) << shift.
constexpr Digit shifted(Digit top, Digit bottom, unsigned shift) {
  return shift == 0 ? top : top << shift | bottom >> (64 - shift);
}

// Divides two digits by one whose top bit is set, by its reciprocal: Moeller and Granlund,
// "Improved division by invariant integers", IEEE Transactions on Computers 60 (2011), algorithm 4.
class DigitDivisor {
 public:
  explicit DigitDivisor(Digit divisor)
      : divisor_(divisor), reciprocal_(low(join(~divisor, ~Digit{0}) / divisor)) {}

  struct Result {
    Digit quotient;
    Digit remainder;
  };
  // Requires top < divisor.
  Result divide(Digit top, Digit bottom) const {
    const TwoDigits estimate = TwoDigits{reciprocal_} * top + join(top, bottom);
    Digit quotient = high(estimate) + 1;
    Digit remainder = bottom - quotient * divisor_;
    if (remainder > low(estimate)) {
      --quotient;
      remainder += divisor_;
    }
    if (remainder >= divisor_) [[unlikely]] {
      ++quotient;
      remainder -= divisor_;
    }
    return {quotient, remainder};
  }
  Digit divisor() const { return divisor_; }

 private:
  Digit divisor_;
  Digit reciprocal_;
};

// The divisor, shifted so that its top bit is set.
struct Divisor {
  const std::uint32_t* words;
  std::uint32_t count;
  std::uint32_t digits;
  unsigned shift;

  Digit operator[](std::uint32_t j) const {
    return shifted(load(words, count, j), j == 0 ? 0 : load(words, count, j - 1), shift);
  }
};

std::uint32_t significant_digits(const std::uint32_t* words, std::uint32_t count) {
  const std::uint32_t below = count % 2;
  while (count > 0 && words[count - 1] == 0) {
    --count;
  }
  return count == 0 ? 0 : (count + below + 1) / 2;
}

// The quotient digit from the top three digits of the dividend and two of the divisor. It is right,
// or one too large.
Digit estimate(const DigitDivisor& top, Digit second, Digit head, Digit u1, Digit u0) {
  Digit quotient = ~Digit{0};
  Digit remainder = u1;
  if (head < top.divisor()) [[likely]] {
    const auto [q, r] = top.divide(head, u1);
    quotient = q;
    remainder = r;
  } else {  // head = divisor
    if (__builtin_add_overflow(remainder, head, &remainder)) {
      return quotient;
    }
  }
  while (TwoDigits{quotient} * second > join(remainder, u0)) {
    --quotient;
    if (__builtin_add_overflow(remainder, top.divisor(), &remainder)) {
      break;
    }
  }
  return quotient;
}

// u[j ...] -= quotient * v, with the head on top. Returns whether the result is negative.
bool subtract_product(std::uint32_t* u, std::uint32_t words, std::uint32_t j, const Divisor& v,
                      Digit quotient, Digit head) {
  Digit carry = 0;
  for (std::uint32_t i = 0; i < v.digits; ++i) {
    const TwoDigits product = TwoDigits{quotient} * v[i] + carry;
    const Digit digit = load(u, words, j + i);
    carry = high(product) + (digit < low(product));
    store(u, words, j + i, digit - low(product));
  }
  return head < carry;
}

void add_back(std::uint32_t* u, std::uint32_t words, std::uint32_t j, const Divisor& v) {
  Digit carry = 0;
  for (std::uint32_t i = 0; i < v.digits; ++i) {
    const TwoDigits sum = TwoDigits{load(u, words, j + i)} + v[i] + carry;
    carry = high(sum);
    store(u, words, j + i, low(sum));
  }
}

// u = source << shift. Returns the digit pushed out.
Digit shift_left(std::uint32_t* u, const std::uint32_t* source, std::uint32_t words,
                 std::uint32_t digits, unsigned shift) {
  Digit below = 0;
  for (std::uint32_t j = 0; j < digits; ++j) {
    const Digit digit = load(source, words, j);
    store(u, words, j, shifted(digit, below, shift));
    below = digit;
  }
  return shifted(0, below, shift);
}

// Leaves the remainder, shifted, in the v.digits lowest digits of u.
void divide(std::uint32_t* quotient, std::uint32_t* u, const std::uint32_t* dividend,
            const Divisor& v, std::uint32_t words) {
  const std::uint32_t digits = words / 2 + words % 2;
  Digit head = shift_left(u, dividend, words, digits, v.shift);
  const DigitDivisor top(v[v.digits - 1]);
  const Digit second = v.digits > 1 ? v[v.digits - 2] : 0;
  for (std::uint32_t j = digits; j-- > digits - v.digits + 1;) {
    store_quotient(quotient, words, j, 0);
  }
  for (std::uint32_t j = digits - v.digits + 1; j-- > 0;) {
    const Digit u1 = load(u, words, j + v.digits - 1);
    const Digit u0 = v.digits > 1 ? load(u, words, j + v.digits - 2) : 0;
    Digit q = estimate(top, second, head, u1, u0);
    if (subtract_product(u, words, j, v, q, head)) [[unlikely]] {
      --q;
      add_back(u, words, j, v);
    }
    store_quotient(quotient, words, j, q);
    head = load(u, words, j + v.digits - 1);
  }
}

void negate(std::uint32_t* result, const std::uint32_t* words, std::uint32_t count) {
  std::uint64_t carry = 1;
  for (std::uint32_t j = 0; j < count; ++j) {
    carry += ~words[j];
    result[j] = static_cast<std::uint32_t>(carry);
    carry >>= 32;
  }
}

bool is_negative(const std::uint32_t* words, std::uint32_t count) {
  return words[count - 1] >> 31 != 0;
}

}  // namespace

void __udivmodei5(uint32_t* quotient, uint32_t* remainder, uint32_t* dividend, uint32_t* divisor,
                  uint32_t words) {
  if (words == 0) {
    return;
  }
  const std::size_t size = std::size_t{words} * sizeof(uint32_t);
  const std::uint32_t n = significant_digits(divisor, words);
  if (n == 0) {
    std::memset(quotient, 0xFF, size);
    std::memmove(remainder, dividend, size);
    return;
  }
  const auto shift = static_cast<unsigned>(__builtin_clzll(load(divisor, words, n - 1)));
  divide(quotient, remainder, dividend, {divisor, words, n, shift}, words);
  const std::uint32_t digits = words / 2 + words % 2;
  for (std::uint32_t j = 0; j < digits; ++j) {
    const Digit digit = j < n ? load(remainder, words, j) : 0;
    const Digit above = j + 1 < n ? load(remainder, words, j + 1) : 0;
    store(remainder, words, j, low(join(above, digit) >> shift));
  }
}

void __divmodei5(uint32_t* quotient, uint32_t* remainder, uint32_t* dividend, uint32_t* divisor,
                 uint32_t words) {
  if (words == 0) {
    return;
  }
  const bool dividend_negative = is_negative(dividend, words);
  const bool divisor_negative = is_negative(divisor, words);
  if (dividend_negative) {
    negate(remainder, dividend, words);
    dividend = remainder;
  }
  if (divisor_negative) {
    negate(divisor, divisor, words);
  }
  const bool by_zero = significant_digits(divisor, words) == 0;
  __udivmodei5(quotient, remainder, dividend, divisor, words);
  if (dividend_negative != divisor_negative && !by_zero) {
    negate(quotient, quotient, words);
  }
  if (dividend_negative) {
    negate(remainder, remainder, words);
  }
  if (divisor_negative) {
    negate(divisor, divisor, words);
  }
}
