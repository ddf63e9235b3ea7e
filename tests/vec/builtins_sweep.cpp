// The builtins against their definitions: integer division of every width, conversions from
// integers, complex multiplication and division.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>
#include <vector>

#include "ksomd/builtins.h"
#include "ksomd/conversion.h"
#include "support/operand.h"
#include "vec/calls.h"

namespace ksomd::test {
namespace {

// ---- division -----------------------------------------------------------------------------------

using Words = std::vector<std::uint32_t>;  // the least significant first

// a * b + c, in as many words as c.
Words combined(const Words& a, const Words& b, Words c) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::uint64_t carry = 0;
    for (std::size_t j = i; j < c.size(); ++j) {
      carry += std::uint64_t{a[i]} * (j - i < b.size() ? b[j - i] : 0) + c[j];
      c[j] = static_cast<std::uint32_t>(carry);
      carry >>= 32;
    }
  }
  return c;
}

Words negated_if(bool negate, const Words& a) {
  return negate ? combined(Words(a.size(), ~0u), a, Words(a.size())) : a;
}

// What quotient and remainder are by definition: a = q * b + r and r < b.
bool is_division(Words a, const Words& b, const Words& q, Words r) {
  const bool below = std::lexicographical_compare(r.rbegin(), r.rend(), b.rbegin(), b.rend());
  a.resize(2 * b.size());
  r.resize(2 * b.size());
  return below && combined(q, b, r) == a;
}

// 64-bit digits at the ends and about the middle of their range, where estimates of quotient digits
// are wrong most often, at any word; others of any kind between them; zeros on top.
Words operand(Random& random, std::size_t count) {
  Words words(count + 2);
  const std::size_t end = random.below(count + 1);
  for (std::size_t j = random.below(2); j < end; j += 2) {
    const std::uint64_t edge = (random.below(2) << 63) + random.below(32) - 16;
    const std::uint64_t half = 0xFFFFFFFF * random.one_of({0ull, 1ull, 1ull << 32});
    const std::uint64_t digit =
        random.one_of({edge, edge, half, random.next() >> random.below(64)});
    words[j] = static_cast<std::uint32_t>(digit);
    words[j + 1] = static_cast<std::uint32_t>(digit >> 32);
  }
  words.resize(count);
  return words;
}

bool divides_wide(const Words& a, const Words& b, const Words& q, const Words& r, bool is_signed) {
  static const auto signed_division = entry<decltype(__udivti3)>("__divti3");
  ksomd_uint128 numbers[4], rest = 0;
  for (int i = 0; const Words* words : {&a, &b, &q, &r}) {
    std::memcpy(&numbers[i++], words->data(), sizeof rest);
  }
  const auto [x, y, quotient, remainder] = numbers;
  return is_signed ? signed_division(x, y) == quotient
                   : KSOMD_ENTRY(__udivti3)(x, y) == quotient &&
                         KSOMD_ENTRY(__udivmodti4)(x, y, nullptr) == quotient &&
                         KSOMD_ENTRY(__udivmodti4)(x, y, &rest) == quotient && rest == remainder;
}

// The operands lie at pages that fault; the remainder may take the dividend's place.
TEST(BuiltinsSweep, Division) {
  static Operand memory[4] = {Operand(512), Operand(512), Operand(512), Operand(512)};
  decltype(__udivmodei5)* const routines[] = {KSOMD_ENTRY(__udivmodei5), KSOMD_ENTRY(__divmodei5)};
  Sweep sweep("vec.division");
  Random& random = sweep.random;
  routines[0](nullptr, nullptr, nullptr, nullptr, 0);
  routines[1](nullptr, nullptr, nullptr, nullptr, 0);
  for ([[maybe_unused]] const auto round : sweep.rounds(4000, 400'000)) {
    const std::size_t n = random.one_in(4) ? 4 : 1 + random.below(random.one_in(9) ? 64 : 9);
    const Words zero(n), b = operand(random, n);
    Words a = operand(random, n);
    if (random.one_in(4)) {  // close to a multiple of the divisor
      a = combined(a, b, zero);
      a[0] += static_cast<std::uint32_t>(random.below(3)) - 1;
    }
    const bool is_signed = random.one_in(2), in_place = random.one_in(4);
    const bool a_sign = is_signed && a.back() >> 31 != 0, b_sign = is_signed && b.back() >> 31 != 0;
    const Place where = random.one_of({Place::AtStart, Place::AtEnd});
    Words words[] = {Words(n, 77), Words(n, 77), a, b};
    std::uint32_t* p[4];
    for (int i = 0; i < 4; ++i) {
      p[i] = memory[i].place_values<std::uint32_t>(n, where);
      std::ranges::copy(words[i], p[i]);
    }
    routines[is_signed](p[0], p[in_place ? 2 : 1], p[2], p[3], static_cast<std::uint32_t>(n));
    bool right = true;
    for (int i = 0; i < 4; ++i) {
      const int from = i == 1 && in_place ? 2 : i;
      words[i].assign(p[from], p[from] + n);
      right &= memory[i].intact();
    }
    const auto& [q, r, dividend, divisor] = words;
    sweep.results(q.data(), 4 * n);
    sweep.results(r.data(), 4 * n);
    right &= divisor == b && dividend == (in_place ? r : a);
    if (b == zero) {
      right &= r == a && q == Words(n, ~0u);
    } else {
      right &=
          !Sweep::proving() || is_division(negated_if(a_sign, a), negated_if(b_sign, b),
                                           negated_if(a_sign != b_sign, q), negated_if(a_sign, r));
      right &= n != 4 || divides_wide(a, b, q, r, is_signed);
    }
    ASSERT_TRUE(right) << testing::PrintToString(words) << " of " << testing::PrintToString(a)
                       << ", signed " << is_signed << ", in place " << in_place;
  }
}

// ---- conversions --------------------------------------------------------------------------------

// The x87 format holds every 64-bit integer; its rounding is the oracle. Floats are made of the
// rounded doubles.
template <class T, class Integer>
void check_conversion(Sweep& sweep, T (*convert)(const Integer*)) {
  static Operand memory(64);
  Random& random = sweep.random;
  const auto bit = [&] { return std::uint64_t{1} << random.below(64); };
  const std::uint64_t few_bits = bit() + bit() + (bit() & random.next()) + random.below(5) - 2;
  const auto value = static_cast<Integer>(
      random.one_of({few_bits, 0 - few_bits, random.next(), random.next() >> random.below(64)}));
  unsigned char* const bytes = memory.place(8, random.one_in(2) ? Place::AtEnd : Place::AtStart,
                                            random.below(2) * random.below(9));
  std::memcpy(bytes, &value, sizeof value);
  const auto* const place = reinterpret_cast<const Integer*>(bytes);
  const std::uint64_t mode = random.below(rounding_modes);
  volatile double rounded = 0;
  T result = 0, expected = 0;
  const unsigned flags = raised_by(mode, [&] { result = convert(place); });
  const unsigned expected_flags = raised_by_both(mode, [&] {
    rounded = static_cast<double>(static_cast<long double>(value));
    expected = static_cast<T>(rounded);
  });
  sweep.result(result, flags);
  ASSERT_TRUE(std::memcmp(&result, &expected, sizeof result) == 0 && flags == expected_flags)
      << value << " mode " << mode << ": " << result << ", not " << expected << "; flags " << flags;
}

TEST(BuiltinsSweep, Conversions) {
  Sweep sweep("vec.conversions");
  for ([[maybe_unused]] const auto round : sweep.rounds(3000, 200'000)) {
    check_conversion(sweep, KSOMD_ENTRY(__cvti64todp_sse2));
    check_conversion(sweep, KSOMD_ENTRY(__cvti64tosp_sse2));
    check_conversion(sweep, KSOMD_ENTRY(__cvtu64todp_sse2));
    check_conversion(sweep, KSOMD_ENTRY(__cvtu64tosp_sse2));
    ASSERT_FALSE(HasFatalFailure());
  }
}

// ---- complex arithmetic -------------------------------------------------------------------------

// The plain formulas, each step rounded, and where both parts are NaN the recovery of infinities of
// ISO/IEC 9899, Annex G. An infinity has a direction: 1 for an infinite part and 0 for another.
template <class T>
T direction(T part) {
  return std::copysign(T(std::isinf(part)), part);
}

template <class T>
constexpr T infinity = std::numeric_limits<T>::infinity();

template <class T>
std::pair<T, T> product(T factor, T a, T b, T c, T d) {
  return {factor * (a * c - b * d), factor * (a * d + b * c)};
}

// By the conjugate.
template <class T>
std::pair<T, T> conjugate_product(T factor, T a, T b, T c, T d) {
  return {factor * (a * c + b * d), factor * (b * c - a * d)};
}

template <class T>
[[gnu::noinline]] void multiply(T a, T b, T c, T d, std::pair<T, T>& result) {
  result = product(T{1}, a, b, c, d);
  const bool first = std::isinf(a) || std::isinf(b), second = std::isinf(c) || std::isinf(d);
  const bool overflow =
      std::isinf(a * c) || std::isinf(b * d) || std::isinf(a * d) || std::isinf(b * c);
  const auto boxed = [](T part, bool infinite) {
    part = infinite ? direction(part) : part;
    return std::isnan(part) ? std::copysign(T{0}, part) : part;
  };
  if (std::isnan(result.first) && std::isnan(result.second) && (first || second || overflow)) {
    result =
        product(infinity<T>, boxed(a, first), boxed(b, first), boxed(c, second), boxed(d, second));
  }
}

// The divisor is scaled to about 1 first.
template <class T>
[[gnu::noinline]] void divide(T a, T b, T c, T d, std::pair<T, T>& result) {
  const bool first = std::isinf(a) || std::isinf(b), second = std::isinf(c) || std::isinf(d);
  const T exponent = std::logb(std::fmax(std::fabs(c), std::fabs(d)));
  const int shift = std::isfinite(exponent) ? -static_cast<int>(exponent) : 0;
  c = std::scalbn(c, shift);
  d = std::scalbn(d, shift);
  const T norm = c * c + d * d;
  const auto [re, im] = conjugate_product(T{1}, a, b, c, d);
  result = {std::scalbn(re / norm, shift), std::scalbn(im / norm, shift)};
  if (!std::isnan(result.first) || !std::isnan(result.second)) {
    return;
  }
  if (norm == 0 && (!std::isnan(a) || !std::isnan(b))) {
    result = {std::copysign(infinity<T>, c) * a, std::copysign(infinity<T>, c) * b};
  } else if (first && std::isfinite(c) && std::isfinite(d)) {
    result = conjugate_product(infinity<T>, direction(a), direction(b), c, d);
  } else if (second && std::isfinite(a) && std::isfinite(b)) {
    result = conjugate_product(T{0}, a, b, direction(c), direction(d));
  }
}

template <class T>
T any_part(Random& random, std::uint64_t kind) {
  using L = std::numeric_limits<T>;
  const T special = random.one_of(
      {T{0}, T{1}, L::infinity(), L::quiet_NaN(), L::max(), L::min(), L::denorm_min()});
  const T number = static_cast<T>(random.number()) + L::epsilon() * static_cast<T>(random.number());
  const int edge = random.one_of(
      {L::max_exponent, L::max_exponent / 2, 0, L::min_exponent / 2, L::min_exponent});
  const T scaled = std::ldexp(number, edge + static_cast<int>(random.below(90)) - 45);
  return random.one_of({T{1}, T{-1}}) * (kind == 0 ? special : kind == 1 ? number : scaled);
}

// One kind of number in all parts, but for one part. All NaNs are alike.
template <class T, class Routine>
void check_complex(const char* name, Routine* routine,
                   void (*define)(T, T, T, T, std::pair<T, T>&)) {
  Sweep sweep(name);
  for ([[maybe_unused]] const auto round : sweep.rounds(3000, 150'000)) {
    const std::uint64_t mode = sweep.random.below(rounding_modes);
    const std::uint64_t kind = sweep.random.below(3), odd = sweep.random.below(12);
    T parts[4];
    for (std::uint64_t i = 0; i < 4; ++i) {
      parts[i] = any_part<T>(sweep.random, i == odd ? 0 : kind);
    }
    const auto [a, b, c, d] = parts;
    std::pair<T, T> expected, result;
    errno = 77;
    raised_by_both(mode, [&] {
      const auto value = routine(a, b, c, d);
      result = {__real__ value, __imag__ value};
    });
    ASSERT_EQ(errno, 77);
    raised_by_both(mode, [&] { define(a, b, c, d, expected); });
    for (auto [part, wanted] :
         {std::pair{result.first, expected.first}, {result.second, expected.second}}) {
      part = std::isnan(part) ? 77 : part;
      wanted = std::isnan(wanted) ? 77 : wanted;
      constexpr std::size_t size = std::min<std::size_t>(sizeof(T), 10);
      sweep.results(&part, size);
      ASSERT_EQ(std::memcmp(&part, &wanted, size), 0)
          << std::hexfloat << a << ", " << b << ", " << c << ", " << d << ", mode " << mode << ": "
          << part << " and not " << wanted;
    }
  }
}

TEST(BuiltinsSweep, ComplexProductsAndQuotients) {
  check_complex<float>("vec.mulsc3", KSOMD_ENTRY(__mulsc3), multiply);
  check_complex<double>("vec.muldc3", KSOMD_ENTRY(__muldc3), multiply);
  check_complex<long double>("vec.mulxc3", KSOMD_ENTRY(__mulxc3), multiply);
  check_complex<float>("vec.divsc3", KSOMD_ENTRY(__divsc3), divide);
  check_complex<double>("vec.divdc3", KSOMD_ENTRY(__divdc3), divide);
  check_complex<long double>("vec.divxc3", KSOMD_ENTRY(__divxc3), divide);
}

}  // namespace
}  // namespace ksomd::test
