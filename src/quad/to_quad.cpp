// Conversions to quad, which are all exact, and negation.
#include "quad/to_quad.h"

#include "second_names.h"

using namespace ksomd::quad;

void __dtoq(quad128* r, double x) {
  *r = widen(x);
}
KSOMD_SECOND_NAMES(__dtoq);
void __ftoq(quad128* r, float x) {
  *r = widen(x);
}
KSOMD_SECOND_NAMES(__ftoq);

void __ltoq(quad128* r, const extended80* x) {
  const std::uint64_t significand = x->significand;
  const std::uint64_t sign_exponent = x->sign_exponent;
  *r = make_quad(sign_exponent << 48 | significand << 1 >> 16, significand << 49);
}

quad128* __itoq(quad128* r, std::int32_t x) {
  *r = widen_integer(x);
  return r;
}
KSOMD_SECOND_NAMES(__itoq);
quad128* __jtoq(quad128* r, std::int64_t x) {
  *r = widen_integer(x);
  return r;
}
KSOMD_SECOND_NAMES(__jtoq);

quad128* __utoq(quad128* r, std::uint32_t x) {
  *r = widen_magnitude(0, x);
  return r;
}
quad128* __ktoq(quad128* r, std::uint64_t x) {
  *r = widen_magnitude(0, x);
  return r;
}

void __negq(quad128* r, const quad128* a) {
  *r = make_quad(a->high ^ sign_bit, a->low);
}
KSOMD_SECOND_NAMES(__negq);
