// The product and the sum of two elements, each rounded by itself.
//
// A complex product is the plain formula (ac - bd) + i(ad + bc). Where both of its parts are NaN,
// the multiplication builtins of the compiler's run-time library recover infinities as ISO/IEC
// 9899, Annex G, asks. This is the one place that names them. They raise exceptions in vector lanes
// that hold nothing of the product; so they are called for the recovery only, which restores the
// flags.
#pragma once

#include "ksomd/builtins.h"
#include "matmul/contract.h"

namespace ksomd::matmul {

inline auto annex_g_product(ksomd_c4 x, ksomd_c4 y) {
  return __mulsc3(x.re, x.im, y.re, y.im);
}

inline auto annex_g_product(ksomd_c8 x, ksomd_c8 y) {
  return __muldc3(x.re, x.im, y.re, y.im);
}

template <class Element>
[[gnu::noinline]] Element recovered_product(Element x, Element y) {
  constexpr unsigned all_masked = 0x1F80;
  const unsigned before = __builtin_ia32_stmxcsr();
  __builtin_ia32_ldmxcsr(before | all_masked);
  const auto product = annex_g_product(x, y);
  const Element result = {__real__ product, __imag__ product};
  __builtin_ia32_ldmxcsr(before);
  return result;
}

template <class Element>
KSOMD_INLINE Element multiply(Element x, Element y) {
  if constexpr (is_complex<Element>) {
    const Element plain = {x.re * y.re - x.im * y.im, x.re * y.im + x.im * y.re};
    if (__builtin_isunordered(plain.re, plain.re) && __builtin_isunordered(plain.im, plain.im))
        [[unlikely]] {
      return recovered_product(x, y);
    }
    return plain;
  } else {
    return x * y;
  }
}

template <class Element>
KSOMD_INLINE Element add(Element x, Element y) {
  if constexpr (is_complex<Element>) {
    return {x.re + y.re, x.im + y.im};
  } else {
    return x + y;
  }
}

}  // namespace ksomd::matmul
