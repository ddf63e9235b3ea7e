// Bit by bit, where no library is at hand.
#include "support/long_division.h"

namespace {

using ksomd::test::Words;

bool below(const Words& a, const Words& b) {
  for (std::size_t j = a.size(); j-- > 0;) {
    if (a[j] != b[j]) {
      return a[j] < b[j];
    }
  }
  return false;
}

void negate(Words& a) {
  bool carry = true;
  for (std::uint32_t& word : a) {
    word = ~word + carry;
    carry = carry && word == 0;
  }
}

Words magnitude(Words a, bool negative) {
  if (negative) {
    negate(a);
  }
  return a;
}

}  // namespace

void ksomd::test::divide(const Words& a, const Words& b, bool is_signed, Words& quotient,
                         Words& remainder) {
  const bool a_negative = is_signed && a.back() >> 31 != 0;
  const bool b_negative = is_signed && b.back() >> 31 != 0;
  Words dividend = magnitude(a, a_negative), divisor = magnitude(b, b_negative);
  quotient.assign(a.size(), 0);
  remainder.assign(a.size() + 1, 0);
  divisor.push_back(0);
  for (std::size_t bit = 32 * a.size(); bit-- > 0;) {
    std::uint32_t in = dividend[bit / 32] >> bit % 32 & 1;
    for (std::uint32_t& word : remainder) {
      const std::uint32_t out = word >> 31;
      word = word << 1 | in;
      in = out;
    }
    if (!below(remainder, divisor)) {
      std::uint64_t borrow = 0;
      for (std::size_t j = 0; j < remainder.size(); ++j) {
        const std::uint64_t difference = std::uint64_t{remainder[j]} - divisor[j] - borrow;
        remainder[j] = static_cast<std::uint32_t>(difference);
        borrow = difference >> 63;
      }
      quotient[bit / 32] |= std::uint32_t{1} << bit % 32;
    }
  }
  remainder.pop_back();
  quotient = magnitude(quotient, a_negative != b_negative);
  remainder = magnitude(remainder, a_negative);
}
