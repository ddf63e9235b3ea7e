// Quotients.
#include "quad/quotient.h"

#include "quad/dispatch.h"
#include "quad/operation.h"
#include "second_names.h"

namespace ksomd::quad {

[[gnu::cold]] quad128 Quotient::any(quad128 a, quad128 b) {
  const std::uint64_t sign = (a.high ^ b.high) & sign_bit;
  if (is_nan(a) || is_nan(b)) {
    return nan_result(a, b);
  }
  const bool a_infinite = exponent_field(a) == special_exponent;
  const bool b_infinite = exponent_field(b) == special_exponent;
  if ((is_zero(a) && is_zero(b)) || (a_infinite && b_infinite)) {
    return default_nan();
  }
  if (is_zero(a) || b_infinite) {
    return make_quad(sign, 0);
  }
  if (a_infinite || is_zero(b)) {
    if (!a_infinite) {
      raise_divide_by_zero();
    }
    return make_quad(sign | infinity, 0);
  }
  const Normalized n = normalize(a);
  const Normalized d = normalize(b);
  return make_quad(round_and_pack<Binary128>(sign, n.exponent - d.exponent + bias + 1,
                                             divide_significands(n.significand, d.significand)));
}

}  // namespace ksomd::quad

using namespace ksomd::quad;

// Both variants are the same code: the kernel needs baseline instructions only. Programs may name
// either of them.
void quad_divide_l(quad128* r, const quad128* a, const quad128* b) {
  apply<Quotient>(r, a, b);
}
void quad_divide_a(quad128* r, const quad128* a, const quad128* b) {
  apply<Quotient>(r, a, b);
}

void __divq(quad128* r, const quad128* a, const quad128* b) {
  if (l_is_known()) [[likely]] {
    return quad_divide_l(r, a, b);
  }
  return call_variant<divide_variants>(r, a, b);
}
KSOMD_SECOND_NAMES(__divq);
