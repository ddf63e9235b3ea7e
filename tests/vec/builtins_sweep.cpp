// The builtins against their definitions: integer division of every width, conversions from
// integers, complex multiplication and division.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
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

// Words at the ends and about the middle of their range, where estimates of quotient digits are
// wrong most often; others of any kind between them; zeros on top.
Words operand(Random& random, std::size_t count) {
  Words words(count);
  const std::size_t used = random.below(count + 1);
  std::ranges::generate_n(words.begin(), static_cast<std::ptrdiff_t>(used), [&] {
    const auto edge = random.one_of({0u, 0u, ~0u, ~0u, 1u << 31, ~0u >> 1});
    const auto near = static_cast<std::uint32_t>(random.below(32)) - 16;
    const auto any = static_cast<std::uint32_t>(random.next()) >> random.below(32);
    return random.one_of({edge, edge, edge + near, any});
  });
  return words;
}

ksomd_uint128 wide(const Words& words) {
  ksomd_uint128 number;
  std::memcpy(&number, words.data(), sizeof number);
  return number;
}

// The operands lie at pages that fault; the remainder may take the dividend's place.
TEST(BuiltinsSweep, Division) {
  static Operand memory[4] = {Operand(512), Operand(512), Operand(512), Operand(512)};
  decltype(__udivmodei5)* const routines[] = {KSOMD_ENTRY(__udivmodei5), KSOMD_ENTRY(__divmodei5)};
  const auto divide_signed = entry<decltype(__udivti3)>("__divti3");
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
    const Place where = random.one_of({Place::AtStart, Place::AtEnd});
    std::uint32_t* p[4];
    for (int i = 0; i < 4; ++i) {
      p[i] = memory[i].place_values<std::uint32_t>(n, where);
      std::ranges::copy(i == 3 ? b : a, p[i]);
    }
    std::uint32_t* const remainder = p[in_place ? 2 : 1];
    routines[is_signed](p[0], remainder, p[2], p[3], static_cast<std::uint32_t>(n));
    const Words q(p[0], p[0] + n), r(remainder, remainder + n);
    sweep.results(q.data(), 4 * n);
    sweep.results(r.data(), 4 * n);
    bool right = std::ranges::all_of(memory, &Operand::intact) &&
                 std::equal(p[3], p[3] + n, &b[0]) &&
                 std::equal(p[2], p[2] + n, in_place ? &r[0] : &a[0]);
    if (b == zero) {
      right &= r == a && q == Words(n, ~0u);
    } else if (Sweep::proving()) {
      const bool a_sign = is_signed && a.back() >> 31 != 0;
      const bool b_sign = is_signed && b.back() >> 31 != 0;
      right &= is_division(negated_if(a_sign, a), negated_if(b_sign, b),
                           negated_if(a_sign != b_sign, q), negated_if(a_sign, r));
    }
    if (n == 4 && b != zero) {
      const ksomd_uint128 x = wide(a), y = wide(b), quotient = wide(q);
      ksomd_uint128 rest = 0;
      right &= is_signed
                   ? divide_signed(x, y) == quotient
                   : KSOMD_ENTRY(__udivti3)(x, y) == quotient &&
                         KSOMD_ENTRY(__udivmodti4)(x, y, nullptr) == quotient &&
                         KSOMD_ENTRY(__udivmodti4)(x, y, &rest) == quotient && rest == wide(r);
    }
    ASSERT_TRUE(right) << testing::PrintToString(std::vector{a, b, q, r}) << ", signed "
                       << is_signed << ", in place " << in_place;
  }
}

// ---- conversions --------------------------------------------------------------------------------

// The x87 format holds every 64-bit integer; its rounding is the oracle. Floats are made of the
// rounded doubles.
TEST(BuiltinsSweep, Conversions) {
  static Operand memory(64);
  Sweep sweep("vec.conversions");
  Random& random = sweep.random;
  const auto bit = [&] { return std::uint64_t{1} << random.below(64); };
  const auto check = [&]<class T, class Integer>(T (*convert)(const Integer*)) {
    const std::uint64_t high = bit(), low = bit(), any = random.next() >> random.below(64);
    const std::uint64_t few_bits = high + low + (bit() & any) + random.below(5) - 2;
    const auto value = static_cast<Integer>(random.one_of({few_bits, 0 - few_bits, any}));
    const Place where = random.one_of({Place::AtEnd, Place::AtStart});
    auto* const place = memory.place(sizeof value, where, random.below(2) * 3);
    std::memcpy(place, &value, sizeof value);
    const std::uint64_t mode = random.below(rounding_modes);
    volatile double rounded = 0;
    T result = 0, expected = 0;
    const auto call = [&] { result = convert(reinterpret_cast<const Integer*>(place)); };
    const auto define = [&] {
      rounded = static_cast<double>(static_cast<long double>(value));
      expected = static_cast<T>(rounded);
    };
    const unsigned flags = raised_by(mode, call), expected_flags = raised_by_both(mode, define);
    sweep.result(result, flags);
    ASSERT_TRUE(std::memcmp(&result, &expected, sizeof result) == 0 && flags == expected_flags)
        << value << " mode " << mode << ": " << result << ", not " << expected << "; " << flags;
  };
  for ([[maybe_unused]] const auto round : sweep.rounds(3000, 200'000)) {
    check(KSOMD_ENTRY(__cvti64todp_sse2));
    check(KSOMD_ENTRY(__cvti64tosp_sse2));
    check(KSOMD_ENTRY(__cvtu64todp_sse2));
    check(KSOMD_ENTRY(__cvtu64tosp_sse2));
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
using Complex = std::pair<T, T>;

template <class T>
Complex<T> product(T factor, T a, T b, T c, T d) {
  return {factor * (a * c - b * d), factor * (a * d + b * c)};
}

// By the conjugate.
template <class T>
Complex<T> conjugate_product(T factor, T a, T b, T c, T d) {
  return {factor * (a * c + b * d), factor * (b * c - a * d)};
}

template <class T>
bool is_infinite(T a, T b) {
  return std::isinf(a) || std::isinf(b);
}

template <class T>
[[gnu::noinline]] void multiply(T a, T b, T c, T d, Complex<T>& result) {
  result = product(T{1}, a, b, c, d);
  const bool first = is_infinite(a, b), second = is_infinite(c, d);
  const bool overflow = is_infinite(a * c, b * d) || is_infinite(a * d, b * c);
  const auto boxed = [](T part, bool infinite) {
    part = infinite ? direction(part) : part;
    return std::isnan(part) ? std::copysign(T{0}, part) : part;
  };
  if (std::isnan(result.first) && std::isnan(result.second) && (first || second || overflow)) {
    result =
        product(T(HUGE_VAL), boxed(a, first), boxed(b, first), boxed(c, second), boxed(d, second));
  }
}

// The divisor is scaled to about 1 first.
template <class T>
[[gnu::noinline]] void divide(T a, T b, T c, T d, Complex<T>& result) {
  const bool first = is_infinite(a, b), second = is_infinite(c, d);
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
    result = {std::copysign(T(HUGE_VAL), c) * a, std::copysign(T(HUGE_VAL), c) * b};
  } else if (first && std::isfinite(c) && std::isfinite(d)) {
    result = conjugate_product(T(HUGE_VAL), direction(a), direction(b), c, d);
  } else if (second && std::isfinite(a) && std::isfinite(b)) {
    result = conjugate_product(T{0}, a, b, direction(c), direction(d));
  }
}

// One kind of number in all parts, but for one part. All NaNs are alike.
template <class T>
void check_complex(Sweep& sweep, auto* routine, void (*define)(T, T, T, T, Complex<T>&)) {
  const std::uint64_t mode = sweep.random.below(rounding_modes);
  const std::uint64_t kind = sweep.random.below(3), odd = sweep.random.below(12);
  T parts[4];
  for (std::uint64_t i = 0; i < 4; ++i) {
    parts[i] = any_number<T>(sweep.random, i == odd ? 0 : kind);
  }
  const auto [a, b, c, d] = parts;
  Complex<T> expected, result;
  errno = 77;
  raised_by_both(mode, [&] {
    const auto value = routine(a, b, c, d);
    result = {__real__ value, __imag__ value};
  });
  ASSERT_EQ(errno, 77);
  raised_by_both(mode, [&] { define(a, b, c, d, expected); });
  for (const auto part : {&Complex<T>::first, &Complex<T>::second}) {
    const T got = std::isnan(result.*part) ? 77 : result.*part;
    const T wanted = std::isnan(expected.*part) ? 77 : expected.*part;
    constexpr std::size_t size = std::min<std::size_t>(sizeof(T), 10);
    sweep.results(&got, size);
    ASSERT_EQ(std::memcmp(&got, &wanted, size), 0)
        << std::hexfloat << a << ", " << b << ", " << c << ", " << d << ", mode " << mode << ": "
        << got << " and not " << wanted;
  }
}

TEST(BuiltinsSweep, ComplexProductsAndQuotients) {
  Sweep sweep("vec.complex");
  for ([[maybe_unused]] const auto round : sweep.rounds(3000, 150'000)) {
    check_complex<float>(sweep, KSOMD_ENTRY(__mulsc3), multiply);
    check_complex<double>(sweep, KSOMD_ENTRY(__muldc3), multiply);
    check_complex<long double>(sweep, KSOMD_ENTRY(__mulxc3), multiply);
    check_complex<float>(sweep, KSOMD_ENTRY(__divsc3), divide);
    check_complex<double>(sweep, KSOMD_ENTRY(__divdc3), divide);
    check_complex<long double>(sweep, KSOMD_ENTRY(__divxc3), divide);
    ASSERT_FALSE(HasFatalFailure());
  }
}

}  // namespace
}  // namespace ksomd::test
