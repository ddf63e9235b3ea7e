// Digests of quad precision: every routine, over fixed operands, in all rounding modes.
#include "ksomd/quad.h"
#include "matrix_digest.h"

namespace ksomd::test {
namespace {

extern "C" {
void product_l(quad128*, const quad128*, const quad128*) __asm__("__mulq.L");
void product_a(quad128*, const quad128*, const quad128*) __asm__("__mulq.A");
void quotient_l(quad128*, const quad128*, const quad128*) __asm__("__divq.L");
void quotient_a(quad128*, const quad128*, const quad128*) __asm__("__divq.A");
}

constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
constexpr std::uint64_t fraction_mask = 0x0000FFFFFFFFFFFF;

// Any pattern: mostly numbers, now and then zeros, subnormals, infinities and NaNs.
quad128 operand(DigestRandom& random) {
  const std::uint64_t sign = random.next() & sign_bit;
  switch (random.below(16)) {
    case 0:
      return {0, sign};
    case 1:
      return {random.next() >> random.below(64), sign | (random.next() & fraction_mask)};
    case 2:
      return {0, sign | 0x7FFF000000000000};
    case 3:
      return {random.next(), sign | 0x7FFF000000000000 | (random.next() & fraction_mask)};
    case 4:
      return {random.next(), random.next()};
    default:
      return {random.next(),
              sign | (16383 - 90 + random.below(180)) << 48 | (random.next() & fraction_mask)};
  }
}

// Runs body(digest, random) `count` times in each mode and prints one digest for all.
template <class Body>
void all_modes(const char* name, int count, Body body) {
  Digest digest;
  for (int mode = 0; mode < rounding_modes; ++mode) {
    DigestRandom random(77);
    for (int i = 0; i < count; ++i) {
      body(digest, random, mode);
    }
  }
  print_digest(std::string("quad.") + name, digest);
}

using Binary = void (*)(quad128*, const quad128*, const quad128*);

void binary(const char* name, Binary routine, int count) {
  all_modes(name, count, [=](Digest& digest, DigestRandom& random, int mode) {
    const quad128 a = operand(random);
    const quad128 b = operand(random);
    quad128 r = {};
    in_mode(digest, mode, [&] { routine(&r, &a, &b); });
    digest.add(r);
  });
}

template <class Result>
void comparison(const char* name, Result (*routine)(const quad128*, const quad128*), int count) {
  all_modes(name, count, [=](Digest& digest, DigestRandom& random, int mode) {
    const quad128 a = operand(random);
    const quad128 b = random.below(4) == 0 ? a : operand(random);
    Result r = 0;
    in_mode(digest, mode, [&] { r = routine(&a, &b); });
    digest.add(r);
  });
}

template <class Convert>
void from_quad(const char* name, int count, Convert convert) {
  all_modes(name, count, [=](Digest& digest, DigestRandom& random, int mode) {
    const quad128 a = operand(random);
    in_mode(digest, mode, [&] { digest.add(convert(a)); });
  });
}

template <class Convert>
void to_quad(const char* name, int count, Convert convert) {
  all_modes(name, count, [=](Digest& digest, DigestRandom& random, int mode) {
    const std::uint64_t bits = random.next() >> random.below(64);
    quad128 r = {};
    in_mode(digest, mode, [&] { convert(&r, bits); });
    digest.add(r);
  });
}

struct Extended {
  std::uint64_t low;
  std::uint16_t high;
};

Extended extended_of(const quad128& a, extended80* (*routine)(extended80*, const quad128*)) {
  extended80 r = {};
  routine(&r, &a);
  return {r.significand, r.sign_exponent};
}

template <class Routine>
auto from_bits(Routine* routine) {
  return [routine](quad128* r, std::uint64_t bits) {
    [&]<class Result, class Integer>(Result (*call)(quad128*, Integer)) {
      call(r, static_cast<Integer>(bits));
    }(routine);
  };
}

using ComplexRoutine = void (*)(cquad128*, const quad128*, const quad128*, const quad128*,
                                const quad128*);

void complex_operation(const char* name, ComplexRoutine routine, int count) {
  all_modes(name, count, [=](Digest& digest, DigestRandom& random, int mode) {
    const quad128 parts[] = {operand(random), operand(random), operand(random), operand(random)};
    cquad128 r = {};
    in_mode(digest, mode, [&] { routine(&r, &parts[0], &parts[1], &parts[2], &parts[3]); });
    digest.add(r);
  });
}

void digest_from_quad(int n) {
  from_quad("qtod", n, [](const quad128& a) { return __qtod(&a); });
  from_quad("qtof", n, [](const quad128& a) { return __qtof(&a); });
  for (int rounding = 0; rounding <= 4; ++rounding) {
    const std::string digit = std::to_string(rounding);
    from_quad(("qtoi" + digit).c_str(), n, [=](const quad128& a) { return __qtoi(&a, rounding); });
    from_quad(("qtoj" + digit).c_str(), n, [=](const quad128& a) { return __qtoj(&a, rounding); });
  }
  from_quad("qtou", n, [](const quad128& a) { return __qtou(&a); });
  from_quad("qtok", n, [](const quad128& a) { return __qtok(&a); });
  Digest digest;
  DigestRandom random(5);
  for (int i = 0; i < n; ++i) {
    const quad128 a = operand(random);
    for (int mode = 0; mode < rounding_modes; ++mode) {
      in_mode(digest, mode, [&] {
        const Extended r = extended_of(a, __qtol);
        digest.add(r.low);
        digest.add(r.high);
      });
    }
  }
  print_digest("quad.qtol", digest);
}

void digest_to_quad(int n) {
  to_quad("itoq", n, from_bits(__itoq));
  to_quad("utoq", n, from_bits(__utoq));
  to_quad("jtoq", n, from_bits(__jtoq));
  to_quad("ktoq", n, from_bits(__ktoq));
  to_quad("ctoq", n, from_bits(a_ctoq));
  to_quad("stoq", n, from_bits(a_stoq));
  to_quad("jtocq", n, [](quad128* r, std::uint64_t bits) {
    cquad128 z;
    a_jtocq(&z, static_cast<std::int64_t>(bits));
    *r = z.re;
  });
  to_quad("dtoq", n,
          [](quad128* r, std::uint64_t bits) { __dtoq(r, __builtin_bit_cast(double, bits * 3)); });
  to_quad("ftoq", n, [](quad128* r, std::uint64_t bits) {
    __ftoq(r, __builtin_bit_cast(float, static_cast<std::uint32_t>(bits)));
  });
  to_quad("ltoq", n, [](quad128* r, std::uint64_t bits) {
    const extended80 x = {bits, static_cast<std::uint16_t>(bits >> 20)};
    __ltoq(r, &x);
  });
}

}  // namespace

void digest_quad(int effort) {
  const int n = 200 * effort;
  binary("add", __addq, n);
  binary("subtract", __subq, n);
  binary("multiply", __mulq, n);
  binary("multiply.L", product_l, n);
  binary("multiply.A", product_a, n);
  binary("divide", __divq, n);
  binary("divide.L", quotient_l, n);
  binary("divide.A", quotient_a, n);
  comparison("eq", __eqq, n);
  comparison("ne", __neq, n);
  comparison("lt", __ltq, n);
  comparison("le", __leq, n);
  comparison("gt", __gtq, n);
  comparison("ge", __geq, n);
  comparison("compare", __compareq, n);
  complex_operation("cadd", __caddq, n);
  complex_operation("csubtract", __csubq, n);
  complex_operation("cmultiply", __cmulq, n);
  complex_operation("cdivide", __cdivq, n);
  digest_from_quad(n);
  digest_to_quad(n);
}

}  // namespace ksomd::test
