// Conversions to quad, which are all exact, and negation.
#include "quad/to_quad.h"

#include "quad/format.h"
#include "second_names.h"

using namespace ksomd::quad;

void __dtoq(quad128* r, double x) {
  widen<double>(r, x);
}
KSOMD_SECOND_NAMES(__dtoq);
void __ftoq(quad128* r, float x) {
  widen<float>(r, x);
}
KSOMD_SECOND_NAMES(__ftoq);

void __ltoq(quad128* r, const extended80* x) {
  const std::uint64_t significand = x->significand;
  const std::uint64_t sign_exponent = x->sign_exponent;
  store(r, sign_exponent << 48 | significand << 1 >> 16, significand << 49);
}

quad128* __itoq(quad128* r, std::int32_t x) {
  return integer_to_quad(r, x);
}
KSOMD_SECOND_NAMES(__itoq);
quad128* __jtoq(quad128* r, std::int64_t x) {
  return integer_to_quad(r, x);
}
KSOMD_SECOND_NAMES(__jtoq);

quad128* __utoq(quad128* r, std::uint32_t x) {
  return magnitude_to_quad(r, 0, x);
}
quad128* __ktoq(quad128* r, std::uint64_t x) {
  return magnitude_to_quad(r, 0, x);
}

void __negq(quad128* r, const quad128* a) {
  store(r, a->high ^ sign_bit, a->low);
}
KSOMD_SECOND_NAMES(__negq);
