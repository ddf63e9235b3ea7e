// Plain loops: for products with so few elements that every vector would be an incomplete one, and
// wherever an element's products are all summed before P is read.
#pragma once

#include "matmul/reference/arithmetic.h"

namespace ksomd::matmul {

template <class Element>
KSOMD_INLINE void multiply_small(const Product<Element>& x, Sums sums) {
  for (Size j = 0; j < x.n; ++j) {
    for (Size i = 0; i < x.m; ++i) {
      Element& p = *x.p.at(i, j);
      Element sum = sums.start == Start::old ? p : Element{};
#pragma clang loop unroll(disable)
      for (Size l = 0; l < x.k; ++l) {
        sum = add(sum, multiply(*x.a.at(i, l), *x.b.at(l, j)));
      }
      if (sums.finish != Finish::store) {
        sum = add(sums.finish == Finish::add_old ? p : Element{}, sum);
      }
      p = sum;
    }
  }
}

}  // namespace ksomd::matmul
