// Products.
#include "quad/product.h"

#include "quad/dispatch.h"
#include "quad/operation.h"
#include "second_names.h"

namespace ksomd::quad {

[[gnu::cold]] quad128 Product::any(quad128 a, quad128 b) {
  const std::uint64_t sign = (a.high ^ b.high) & sign_bit;
  if (exponent_field(a) == special_exponent || exponent_field(b) == special_exponent) {
    return is_nan(a) || is_nan(b)     ? nan_result(a, b)
           : is_zero(a) || is_zero(b) ? default_nan()
                                      : make_quad(sign | infinity, 0);
  }
  if (is_zero(a) || is_zero(b)) {
    return make_quad(sign, 0);
  }
  const Normalized x = normalize(a);
  const Normalized y = normalize(b);
  return make_quad(round_and_pack<Binary128>(sign, x.exponent + y.exponent - bias + 1,
                                             high_product(x.significand, y.significand)));
}

}  // namespace ksomd::quad

using namespace ksomd::quad;

// Both variants are the same code: the kernel needs baseline instructions only. Programs may name
// either of them.
void quad_multiply_l(quad128* r, const quad128* a, const quad128* b) {
  apply<Product>(r, a, b);
}
void quad_multiply_a(quad128* r, const quad128* a, const quad128* b) {
  apply<Product>(r, a, b);
}

void __mulq(quad128* r, const quad128* a, const quad128* b) {
  if (l_is_known()) [[likely]] {
    return quad_multiply_l(r, a, b);
  }
  return call_variant<multiply_variants>(r, a, b);
}
KSOMD_SECOND_NAMES(__mulq);
