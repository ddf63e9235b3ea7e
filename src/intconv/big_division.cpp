// Division of integers of any length, in 64-bit digits.
//
// With n the divisor's digits and s the shift that sets its top bit, the dividend is shifted by s
// in place; the digit pushed out on top is a variable, the `head`. Each step divides the n + 1
// digits
//
//     head  u[j+n-1] ... u[j+1] u[j]        by        v[n-1] ... v[0]
//
// where the invariant is (head, u[j+n-1], ..., u[j+1]) < v, and leaves the remainder in place, its
// top digit the next head. The divisor is shifted as it is read and never written.
#include <cstdint>
#include <cstring>

#include "ksomd/builtins.h"

namespace {

using Digit = std::uint64_t;
__extension__ using TwoDigits = unsigned __int128;

// Digits of an array of words. The top digit of an odd number of words is half a digit.
Digit load(const std::uint32_t* words, std::uint32_t count, std::uint32_t j) {
  Digit digit = words[std::size_t{j} * 2];
  if (j * 2 + 1 < count) {
    digit |= Digit{words[std::size_t{j} * 2 + 1]} << 32;
  }
  return digit;
}

void store(std::uint32_t* words, std::uint32_t count, std::uint32_t j, Digit digit) {
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
  while (count > 0 && words[count - 1] == 0) {
    --count;
  }
  return count / 2 + count % 2;
}

// The quotient digit from the top three digits of the dividend and two of the divisor: right, or
// one too large.
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

// u[j ...] -= quotient * v, with the head on top; whether that went below zero.
bool subtract_product(std::uint32_t* u, std::uint32_t room, std::uint32_t j, const Divisor& v,
                      Digit quotient, Digit head) {
  Digit carry = 0;
  for (std::uint32_t i = 0; i < v.digits; ++i) {
    const TwoDigits product = TwoDigits{quotient} * v[i] + carry;
    const Digit digit = load(u, room, j + i);
    carry = high(product) + (digit < low(product));
    store(u, room, j + i, digit - low(product));
  }
  return head < carry;
}

void add_back(std::uint32_t* u, std::uint32_t room, std::uint32_t j, const Divisor& v) {
  Digit carry = 0;
  for (std::uint32_t i = 0; i < v.digits; ++i) {
    const TwoDigits sum = TwoDigits{load(u, room, j + i)} + v[i] + carry;
    carry = high(sum);
    store(u, room, j + i, low(sum));
  }
}

// Shifts left in place; the digit pushed out.
Digit shift_left(std::uint32_t* u, std::uint32_t room, std::uint32_t digits, unsigned shift) {
  Digit below = 0;
  for (std::uint32_t j = 0; j < digits; ++j) {
    const Digit digit = load(u, room, j);
    store(u, room, j, shifted(digit, below, shift));
    below = digit;
  }
  return shifted(0, below, shift);
}

void divide(std::uint32_t* quotient, std::uint32_t* u, const Divisor& v, std::uint32_t words) {
  const std::uint32_t digits = words / 2 + words % 2;
  const std::uint32_t room = words + words % 2;  // the spare word completes the top digit
  if (words % 2 != 0) {
    u[words] = 0;
  }
  Digit head = shift_left(u, room, digits, v.shift);
  const DigitDivisor top(v[v.digits - 1]);
  const Digit second = v.digits > 1 ? v[v.digits - 2] : 0;
  for (std::uint32_t j = digits; j-- > digits - v.digits + 1;) {
    store(quotient, words, j, 0);
  }
  for (std::uint32_t j = digits - v.digits + 1; j-- > 0;) {
    const Digit u1 = load(u, room, j + v.digits - 1);
    const Digit u0 = v.digits > 1 ? load(u, room, j + v.digits - 2) : 0;
    Digit q = estimate(top, second, head, u1, u0);
    if (subtract_product(u, room, j, v, q, head)) [[unlikely]] {
      --q;
      add_back(u, room, j, v);
    }
    store(quotient, words, j, q);
    head = load(u, room, j + v.digits - 1);
  }
}

void negate(std::uint32_t* words, std::uint32_t count) {
  std::uint64_t carry = 1;
  for (std::uint32_t j = 0; j < count; ++j) {
    carry += ~words[j];
    words[j] = static_cast<std::uint32_t>(carry);
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
  divide(quotient, dividend, {divisor, words, n, shift}, words);
  // The remainder is in the lowest n digits; shift it back. What is above them is zero.
  const std::uint32_t digits = words / 2 + words % 2;
  for (std::uint32_t j = 0; j < digits; ++j) {
    const std::uint32_t room = words + words % 2;
    const Digit digit = j < n ? load(dividend, room, j) : 0;
    const Digit above = j + 1 < n ? load(dividend, room, j + 1) : 0;
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
    negate(dividend, words);
  }
  if (divisor_negative) {
    negate(divisor, words);
  }
  const bool by_zero = significant_digits(divisor, words) == 0;
  __udivmodei5(quotient, remainder, dividend, divisor, words);
  if (dividend_negative != divisor_negative && !by_zero) {
    negate(quotient, words);
  }
  if (dividend_negative) {
    negate(remainder, words);
  }
}
