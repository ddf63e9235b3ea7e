// Division of long integers against an independent library; the other builtins by telling values.
#include "ksomd/builtins.h"

#include <gmp.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "support/seed.h"

namespace {

using Words = std::vector<std::uint32_t>;

void check(const Words& a, const Words& b, bool is_signed) {
  const std::size_t n = a.size();
  const auto value = [&](const Words& words, mpz_t z) {
    mpz_import(z, n, -1, 4, 0, 0, words.data());
    if (is_signed && words.back() >> 31 != 0) {
      mpz_t top;
      mpz_init(top);
      mpz_setbit(top, 32 * n);
      mpz_sub(z, z, top);
      mpz_clear(top);
    }
  };
  mpz_t x, y, q, r;
  mpz_inits(x, y, q, r, nullptr);
  value(a, x);
  value(b, y);
  const bool by_zero = mpz_sgn(y) == 0;
  if (by_zero) {
    mpz_set_si(q, -1);
    mpz_set(r, x);
  } else {
    mpz_tdiv_qr(q, r, x, y);
  }
  Words dividend = a, divisor = b, quotient(n + 1, 0xA5A5A5A5), remainder(n + 1, 0xA5A5A5A5);
  dividend.push_back(0xDEADBEEF);
  (is_signed ? __divmodei5 : __udivmodei5)(quotient.data(), remainder.data(), dividend.data(),
                                           divisor.data(), static_cast<std::uint32_t>(n));
  ASSERT_EQ(quotient[n], 0xA5A5A5A5);
  ASSERT_EQ(remainder[n], 0xA5A5A5A5);
  if (!is_signed) {
    ASSERT_EQ(divisor, b);
  }
  const auto words_of = [&](mpz_t z) {
    mpz_fdiv_r_2exp(z, z, 32 * n);
    Words words(n + 1, 0);
    mpz_export(words.data(), nullptr, -1, 4, 0, 0, z);
    words.resize(n);
    return words;
  };
  quotient.pop_back();
  remainder.pop_back();
  ASSERT_EQ(quotient, words_of(q)) << n << " words, signed " << is_signed;
  ASSERT_EQ(remainder, words_of(r)) << n << " words, signed " << is_signed;
  mpz_clears(x, y, q, r, nullptr);
}

// Words of random bits, of all ones or zeros, or with one bit: these make the estimate of a
// quotient digit wrong by one and two, and the subtraction go below zero.
Words operand(std::mt19937_64& random, std::size_t n) {
  Words words(n);
  const std::size_t length = random() % (n + 1);
  for (std::size_t j = 0; j < length; ++j) {
    switch (random() % 6) {
      case 0:
        words[j] = ~0u;
        break;
      case 1:
        break;
      case 2:
        words[j] = 1u << random() % 32;
        break;
      case 3:
        words[j] = 0x80000000;
        break;
      default:
        words[j] = static_cast<std::uint32_t>(random());
    }
  }
  if (random() % 3 == 0) {
    words[n - 1] |= 0x80000000;
  }
  return words;
}

TEST(BigDivision, AgainstIndependentLibrary) {
  std::mt19937_64 random(ksomd::test::seed_of(3));
  for (std::size_t n = 1; n <= 64; ++n) {
    for (int round = 0; round < 2000; ++round) {
      const Words a = operand(random, n), b = operand(random, n);
      ASSERT_NO_FATAL_FAILURE(check(a, b, round % 2 != 0));
    }
  }
}

TEST(Builtins, WideIntegers) {
  using U = unsigned __int128;
  const U a = static_cast<U>(0x123456789ABCDEF0) << 64 | 0x0FEDCBA987654321;
  U remainder = 0;
  const U b = static_cast<U>(3) << 64 | 7;
  const U quotient = __udivmodti4(a, b, &remainder);
  EXPECT_TRUE(quotient * b + remainder == a && remainder < b && quotient != 0);
  EXPECT_TRUE(__udivti3(a, b) == quotient);
  EXPECT_TRUE(__divti3(-static_cast<__int128>(a), static_cast<__int128>(b)) ==
              -static_cast<__int128>(quotient));
}

template <class Multiply, class Divide, class Real>
void check_complex(Multiply multiply, Divide divide, Real one) {
  auto p = multiply(one, 2 * one, 3 * one, 4 * one);
  EXPECT_EQ(__real__ p, -5 * one);
  EXPECT_EQ(__imag__ p, 10 * one);
  p = divide(-5 * one, 10 * one, 3 * one, 4 * one);
  EXPECT_EQ(__real__ p, one);
  EXPECT_EQ(__imag__ p, 2 * one);
  const Real infinity = std::numeric_limits<Real>::infinity();
  const Real nan = std::numeric_limits<Real>::quiet_NaN();
  p = multiply(infinity, nan, one, one);
  EXPECT_TRUE(std::isinf(__real__ p));
  p = divide(one, one, Real{0}, Real{0});
  EXPECT_TRUE(std::isinf(__real__ p));
  p = divide(one, one, infinity, infinity);
  EXPECT_EQ(__real__ p, Real{0});
  // A divisor whose square overflows and one whose square vanishes: they are scaled.
  for (const Real size : {std::numeric_limits<Real>::max() / 2, std::numeric_limits<Real>::min()}) {
    p = divide(size, Real{0}, size, Real{0});
    EXPECT_EQ(__real__ p, one);
  }
}

TEST(Builtins, Complex) {
  check_complex(__mulsc3, __divsc3, 1.0F);
  check_complex(__muldc3, __divdc3, 1.0);
  check_complex(__mulxc3, __divxc3, 1.0L);
}

}  // namespace
