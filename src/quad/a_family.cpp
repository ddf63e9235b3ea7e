// The members of the a_ family that are more than second names: conversions from short integers,
// through the x87 unit, and to and from complex quads.
#include "quad/to_quad.h"
#include "second_names.h"

using namespace ksomd::quad;

namespace {

// Callers need not extend a short integer to the register that carries it, which the compiler
// would otherwise rely on.
std::int32_t extend(std::int8_t x) {
  std::int32_t wide;
  asm("movsbl %b1, %0" : "=r"(wide) : "q"(x));
  return wide;
}
std::int32_t extend(std::int16_t x) {
  std::int32_t wide;
  asm("movswl %w1, %0" : "=r"(wide) : "r"(x));
  return wide;
}

// A load into the x87 unit and a store from it.
void pass_through_x87(extended80* to, const extended80* from) {
  asm volatile("fldt %1\n\tfstpt %0" : "=m"(*to) : "m"(*from) : "st");
}

constexpr quad128 zero = {0, 0};

}  // namespace

void a_ctoq(quad128* r, std::int8_t x) {
  *r = widen_integer(extend(x));
}
void a_stoq(quad128* r, std::int16_t x) {
  *r = widen_integer(extend(x));
}

void a_ltoq(quad128* r, const extended80* x) {
  extended80 value;
  pass_through_x87(&value, x);
  __ltoq(r, &value);
}

extended80* a_qtol(extended80* r, const quad128* a) {
  extended80 value;
  __qtol(&value, a);
  pass_through_x87(r, &value);
  return r;
}

void a_cqtoq(quad128* r, const cquad128* x) {
  *r = x->re;
}

std::int32_t a_cqtoi(const cquad128* x) {
  return __qtoi(&x->re, KSOMD_ROUND_TOWARD_ZERO);
}
KSOMD_SECOND_NAMES(a_cqtoi);
std::int64_t a_cqtoj(const cquad128* x) {
  return __qtoj(&x->re, KSOMD_ROUND_TOWARD_ZERO);
}

namespace {

// Two floats or doubles in memory, of any alignment.
template <class Float>
struct [[gnu::packed]] Pair {
  Float re;
  Float im;
};

template <class Float>
void store_pair(Float* r, Float re, Float im) {
  *reinterpret_cast<Pair<Float>*>(r) = {re, im};
}

// The result may overlay the operand.
template <class Float>
void widen_pair(cquad128* r, const Float* x) {
  const Pair<Float> pair = *reinterpret_cast<const Pair<Float>*>(x);
  *r = {widen(pair.re), widen(pair.im)};
}

}  // namespace

void a_cqtoc(float* r, const cquad128* x) {
  const float re = __qtof(&x->re);
  const float im = __qtof(&x->im);
  store_pair(r, re, im);
}
void a_cqtocd(double* r, const cquad128* x) {
  const double re = __qtod(&x->re);
  const double im = __qtod(&x->im);
  store_pair(r, re, im);
}

void a_qtocq(cquad128* r, const quad128* x) {
  *r = {*x, zero};
}

void a_dtocq(cquad128* r, double x) {
  *r = {widen(x), zero};
}
void a_ftocq(cquad128* r, float x) {
  *r = {widen(x), zero};
}
void a_itocq(cquad128* r, std::int32_t x) {
  *r = {widen_integer(x), zero};
}
void a_jtocq(cquad128* r, std::int64_t x) {
  *r = {widen_integer(x), zero};
}
void a_stocq(cquad128* r, std::int16_t x) {
  a_itocq(r, extend(x));
}
void a_chtocq(cquad128* r, std::int8_t x) {
  a_itocq(r, extend(x));
}

void a_cdtocq(cquad128* r, const double* x) {
  widen_pair(r, x);
}
void a_ctocq(cquad128* r, const float* x) {
  widen_pair(r, x);
}
