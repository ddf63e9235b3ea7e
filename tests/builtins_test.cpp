// The builtins, as they are linked from the archive and as the shared library exports them: long
// division against an independent library, the others by values that only the right one gives.
#include "ksomd/builtins.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/effort.h"
#include "support/guarded_memory.h"
#include "support/long_division.h"
#include "support/seed.h"
#include "support/shared_library.h"

namespace {

using namespace ksomd::test;

#define FOR_EACH_BUILTIN(X) \
  X(__divti3)               \
  X(__udivti3)              \
  X(__udivmodti4)           \
  X(__udivmodei5)           \
  X(__divmodei5) X(__mulsc3) X(__muldc3) X(__mulxc3) X(__divsc3) X(__divdc3) X(__divxc3)

struct Builtins {
#define MEMBER(name) decltype(::name)* name;
  FOR_EACH_BUILTIN(MEMBER)
#undef MEMBER
};

// The linker's, then the shared library's.
class Linked : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
#define MEMBER(name) builtins.name = GetParam() ? exported<decltype(name)>(#name) : name;
    FOR_EACH_BUILTIN(MEMBER)
#undef MEMBER
#define MEMBER(name) ASSERT_NE(builtins.name, nullptr) << #name << " is not exported";
    FOR_EACH_BUILTIN(MEMBER)
#undef MEMBER
  }
  Builtins builtins{};
};

INSTANTIATE_TEST_SUITE_P(Builtins, Linked, testing::Bool(), [](const auto& parameter) {
  return std::string(parameter.param ? "SharedLibrary" : "Archive");
});

// ---- long division ------------------------------------------------------------------------------

constexpr std::uint32_t mark = 0xA5A5A5A5;

bool is_zero(const Words& words) {
  return std::all_of(words.begin(), words.end(), [](std::uint32_t word) { return word == 0; });
}

void check(const Builtins& builtins, const Words& a, const Words& b, bool is_signed,
           bool in_place = false) {
  const std::size_t n = a.size();
  Words expected_quotient(n, ~0u), expected_remainder = a;
  if (!is_zero(b)) {
    divide(a, b, is_signed, expected_quotient, expected_remainder);
  }
  Words dividend = a, divisor = b, quotient(n, ~mark), remainder(n, ~mark);
  for (Words* words : {&dividend, &divisor, &quotient, &remainder}) {
    words->push_back(mark);
  }
  Words& rest = in_place ? dividend : remainder;
  (is_signed ? builtins.__divmodei5 : builtins.__udivmodei5)(
      quotient.data(), rest.data(), dividend.data(), divisor.data(), static_cast<std::uint32_t>(n));
  for (Words* words : {&dividend, &divisor, &quotient, &remainder}) {
    ASSERT_EQ(words->back(), mark) << "a word too many, of " << n;
    words->pop_back();
  }
  ASSERT_EQ(quotient, expected_quotient) << n << " words, signed " << is_signed;
  ASSERT_EQ(rest, expected_remainder) << n << " words, signed " << is_signed;
  ASSERT_EQ(divisor, b) << n << " words, signed " << is_signed;
  if (!in_place) {
    ASSERT_EQ(dividend, a) << n << " words, signed " << is_signed;
  }
}

// Words of random bits, of all ones or zeros, or with one bit, up to a random length.
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

TEST_P(Linked, LongDivision) {
  std::mt19937_64 random(seed_of(3));
  const int rounds = full_length() ? 50000 : GetParam() ? 20 : 400;
  for (std::size_t n = 1; n <= 64; ++n) {
    for (int round = 0; round < rounds; ++round) {
      const Words a = operand(random, n), b = operand(random, n);
      ASSERT_NO_FATAL_FAILURE(check(builtins, a, b, round % 2 != 0, round % 5 == 0));
    }
  }
}

Words words_of(const std::vector<std::uint64_t>& digits) {
  Words words;
  for (const std::uint64_t digit : digits) {
    words.push_back(static_cast<std::uint32_t>(digit));
    words.push_back(static_cast<std::uint32_t>(digit >> 32));
  }
  return words;
}

// Random digits hardly ever make the estimate of a quotient digit wrong by two, nor the subtraction
// go below zero: that is a matter of 1 in 2^63. These digits, at the ends of their range and at its
// middle, do so all the time. Without the top word the digits are cut in the middle.
TEST_P(Linked, DivisionWithWrongEstimates) {
  constexpr std::uint64_t half = std::uint64_t{1} << 63;
  constexpr std::uint64_t patterns[] = {0, 1, half - 1, half, ~std::uint64_t{1}, ~std::uint64_t{0}};
  constexpr std::size_t count = std::size(patterns);
  const std::size_t step = GetParam() ? 97 : 1;
  for (std::size_t i = 0; i < count * count * count * count; i += step) {
    const Words a =
        words_of({patterns[i % count], patterns[i / count % count],
                  patterns[i / count / count % count], patterns[i / count / count / count]});
    for (std::size_t j = 0; j < count * count * count; ++j) {
      const Words b = words_of(
          {patterns[j % count], patterns[j / count % count], patterns[j / count / count], 0});
      ASSERT_NO_FATAL_FAILURE(check(builtins, a, b, false));
    }
  }
}

// Multiples of a divisor just above the middle of a digit's range: the quotient by the reciprocal
// is one too small, and leaves the divisor itself as the remainder.
TEST_P(Linked, DivisionOfMultiples) {
  constexpr std::uint64_t half = std::uint64_t{1} << 63;
  for (std::uint64_t above = 0; above < 16; ++above) {
    for (std::uint64_t below = 0; below < 16; ++below) {
      for (std::uint64_t delta = 0; delta < 3; ++delta) {
        const auto product = static_cast<ksomd_uint128>(half + above) * (half - below);
        const auto dividend = product + delta - 1;
        const Words a = words_of(
            {static_cast<std::uint64_t>(dividend), static_cast<std::uint64_t>(dividend >> 64)});
        ASSERT_NO_FATAL_FAILURE(check(builtins, a, words_of({half + above, 0}), false));
        ASSERT_NO_FATAL_FAILURE(check(builtins, a, words_of({half - below, 0}), false));
      }
    }
  }
}

TEST_P(Linked, DivisionWithOddWords) {
  constexpr std::uint32_t patterns[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
  constexpr std::size_t count = std::size(patterns);
  const auto words = [&](std::size_t code, std::size_t n) {
    Words result(n);
    for (std::uint32_t& word : result) {
      word = patterns[code % count];
      code /= count;
    }
    return result;
  };
  for (std::size_t n = 1; n <= 3; ++n) {
    const auto codes = static_cast<std::size_t>(std::pow(count, n));
    for (std::size_t i = 0; i < codes; ++i) {
      for (std::size_t j = 0; j < codes; ++j) {
        ASSERT_NO_FATAL_FAILURE(check(builtins, words(i, n), words(j, n), false));
        ASSERT_NO_FATAL_FAILURE(check(builtins, words(i, n), words(j, n), true));
      }
    }
  }
}

TEST_P(Linked, DivisionOfNoWords) {
  builtins.__udivmodei5(nullptr, nullptr, nullptr, nullptr, 0);
  builtins.__divmodei5(nullptr, nullptr, nullptr, nullptr, 0);
}

// ---- 128-bit integers ---------------------------------------------------------------------------

using Unsigned = ksomd_uint128;
using Signed = ksomd_int128;

Words words_of(Unsigned a) {
  return words_of({static_cast<std::uint64_t>(a), static_cast<std::uint64_t>(a >> 64)});
}

TEST_P(Linked, WideIntegers) {
  std::mt19937_64 random(8);
  const auto number = [&] {
    const Unsigned bits = static_cast<Unsigned>(random()) << 64 | random();
    return bits >> random() % 128;
  };
  for (int i = 0; i < 20000; ++i) {
    const Unsigned a = number(), b = i % 16 == 0 ? a : number() | 1;
    if (b == 0) {
      continue;
    }
    Words quotient, remainder;
    Unsigned rest = 0;
    divide(words_of(a), words_of(b), false, quotient, remainder);
    ASSERT_EQ(words_of(builtins.__udivti3(a, b)), quotient);
    ASSERT_EQ(words_of(builtins.__udivmodti4(a, b, &rest)), quotient);
    ASSERT_EQ(words_of(rest), remainder);
    ASSERT_EQ(words_of(builtins.__udivmodti4(a, b, nullptr)), quotient);
    const auto negative = static_cast<Signed>(i % 2 == 0 ? a : 0 - a);
    const auto divisor = static_cast<Signed>(i % 4 < 2 ? b : 0 - b);
    divide(words_of(static_cast<Unsigned>(negative)), words_of(static_cast<Unsigned>(divisor)),
           true, quotient, remainder);
    ASSERT_EQ(words_of(static_cast<Unsigned>(builtins.__divti3(negative, divisor))), quotient);
  }
}

// ---- complex arithmetic -------------------------------------------------------------------------

template <class T>
struct Complex {
  T re, im;
  bool is_infinite() const { return std::isinf(re) || std::isinf(im); }
  bool is_finite() const { return std::isfinite(re) && std::isfinite(im); }
  bool is_zero() const { return re == 0 && im == 0; }
  bool is_nonzero() const { return is_finite() ? !is_zero() : is_infinite(); }
};

template <class Value>
auto parts(Value value) {
  using T = decltype(__real__ value);
  return Complex<std::remove_cvref_t<T>>{__real__ value, __imag__ value};
}

// Equal, sign of zero included; or both NaN.
template <class T>
bool same(T a, T b) {
  return (std::isnan(a) && std::isnan(b)) || (a == b && std::signbit(a) == std::signbit(b));
}

// What Annex G of the C standard promises for infinities and zeros, and the plain formula where it
// gives a number. A dividend whose parts add up to an infinity is taken for one.
template <class T, class Multiply, class Divide>
void check_special(Multiply multiply, Divide divide) {
  using Limits = std::numeric_limits<T>;
  const std::array<T, 10> values = {0,
                                    -T{0},
                                    1,
                                    -3,
                                    Limits::infinity(),
                                    -Limits::infinity(),
                                    Limits::quiet_NaN(),
                                    Limits::max(),
                                    Limits::min(),
                                    -Limits::denorm_min()};
  for (const T ar : values) {
    for (const T ai : values) {
      for (const T br : values) {
        for (const T bi : values) {
          const Complex<T> a = {ar, ai}, b = {br, bi};
          const auto text = [&] {
            return testing::Message()
                   << '(' << ar << ", " << ai << ") and (" << br << ", " << bi << ')';
          };
          const Complex<T> product = parts(multiply(ar, ai, br, bi));
          const T re = ar * br - ai * bi;
          const T im = ar * bi + ai * br;
          if ((a.is_infinite() && b.is_nonzero()) || (b.is_infinite() && a.is_nonzero())) {
            ASSERT_TRUE(product.is_infinite()) << text();
          } else if (!std::isnan(re) || !std::isnan(im)) {
            ASSERT_TRUE(same(product.re, re) && same(product.im, im)) << text();
          }
          const Complex<T> quotient = parts(divide(ar, ai, br, bi));
          if ((a.is_infinite() && b.is_finite()) || (a.is_nonzero() && b.is_zero())) {
            ASSERT_TRUE(quotient.is_infinite()) << text();
          } else if (std::isfinite(ar + ai) && std::isfinite(ar - ai) && b.is_infinite()) {
            ASSERT_TRUE(quotient.is_zero()) << text();
          }
        }
      }
    }
  }
}

// Products exact; quotients of exact products, to the last bits. Powers of two far out show that
// divisors are scaled.
template <class T, class Multiply, class Divide>
void check_values(Multiply multiply, Divide divide) {
  std::mt19937_64 random(2);
  const auto number = [&] { return static_cast<T>(static_cast<int>(random() % 2001) - 1000); };
  for (int i = 0; i < 20000; ++i) {
    const T ar = number(), ai = number(), br = number(), bi = number() + T{0.5};
    const Complex<T> product = parts(multiply(ar, ai, br, bi));
    ASSERT_EQ(product.re, ar * br - ai * bi);
    ASSERT_EQ(product.im, ar * bi + ai * br);
    const int far = std::numeric_limits<T>::max_exponent - 30;
    const int scale = static_cast<int>(random() % static_cast<unsigned>(2 * far)) - far;
    const Complex<T> quotient =
        parts(divide(std::ldexp(product.re, scale), std::ldexp(product.im, scale),
                     std::ldexp(br, scale), std::ldexp(bi, scale)));
    const T tolerance = 8 * std::numeric_limits<T>::epsilon() * (std::abs(ar) + std::abs(ai));
    ASSERT_NEAR(quotient.re, ar, tolerance) << ar << ' ' << ai << ' ' << br << ' ' << bi;
    ASSERT_NEAR(quotient.im, ai, tolerance) << ar << ' ' << ai << ' ' << br << ' ' << bi;
  }
}

TEST_P(Linked, ComplexFloat) {
  check_special<float>(builtins.__mulsc3, builtins.__divsc3);
  check_values<float>(builtins.__mulsc3, builtins.__divsc3);
}

TEST_P(Linked, ComplexDouble) {
  check_special<double>(builtins.__muldc3, builtins.__divdc3);
  check_values<double>(builtins.__muldc3, builtins.__divdc3);
}

TEST_P(Linked, ComplexExtended) {
  check_special<long double>(builtins.__mulxc3, builtins.__divxc3);
  check_values<long double>(builtins.__mulxc3, builtins.__divxc3);
}

}  // namespace
