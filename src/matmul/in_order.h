// The order of operations itself, one element after the other: what the kernels do when the result
// overlaps an operand, so that elements of P written on the way are read back as factors. Every
// operand is read again each time it is used.
#pragma once

#include "matmul/blocking.h"
#include "matmul/register_tile.h"

namespace ksomd::matmul {

template <class Element, Letters letters>
inline Element term(const Product<Element>& x, Size i, Size j, Size l) {
  return multiply(x.a[offset<letters.a>(i, l, x.lda)], x.b[offset<letters.b>(l, j, x.ldb)]);
}

// One row block, one depth block, one column.
template <class Element, Letters letters>
void add_column_in_order(const Product<Element>& x, Size j, Size row, Size row_end, Size depth,
                         Size depth_end) {
  if constexpr (letters.a == Layout::t) {
    for (Size i = row; i < row_end; ++i) {
      Element sum = x.p[i + j * x.ldp];
      for (Size l = depth; l < depth_end; ++l) {
        sum = add(sum, term<Element, letters>(x, i, j, l));
      }
      x.p[i + j * x.ldp] = sum;
    }
  } else {
    for (Size l = depth; l < depth_end;) {
      const Size group = depth_end - l >= order_group ? order_group : 1;
      for (Size i = row; i < row_end; ++i) {
        Element sum = x.p[i + j * x.ldp];
        for (Size member = 0; member < group; ++member) {
          sum = add(sum, term<Element, letters>(x, i, j, l + member));
        }
        x.p[i + j * x.ldp] = sum;
      }
      l += group;
    }
  }
}

template <class Element, Letters letters>
void accumulate_in_order(const Product<Element>& x) {
  if constexpr (letters.a == Layout::t && letters.b == Layout::t) {
    for (Size j = 0; j < x.n; ++j) {
      for (Size i = 0; i < x.m; ++i) {
        Element sum{};
        for (Size l = 0; l < x.k; ++l) {
          sum = add(sum, term<Element, letters>(x, i, j, l));
        }
        x.p[i + j * x.ldp] = add(x.p[i + j * x.ldp], sum);
      }
    }
  } else {
    for (Size i = 0; i < x.m; i += order_block) {
      for (Size l = 0; l < x.k; l += order_block) {
        for (Size j = 0; j < x.n; ++j) {
          add_column_in_order<Element, letters>(x, j, i, min(x.m, i + order_block), l,
                                                min(x.k, l + order_block));
        }
      }
    }
  }
}

template <class Element>
void multiply_tile_in_order(const TileCall<Element>& call, Size rows, Size columns) {
  for (Size c = 0; c < columns; ++c) {
    for (Size row = 0; row < rows; ++row) {
      Element& p = call.p[c * call.ldp + row];
      Element sum = call.sums == Sums::resume ? p : Element{};
      for (Size l = 0; l < call.depth; ++l) {
        const Element* a = call.a[l / call.segment] + l % call.segment * call.a_depth;
        const Element* b = call.b[l / call.segment] + l % call.segment * call.b_depth;
        sum = add(sum, multiply(a[row], b[c * call.b_column]));
      }
      if (call.add_zero) {
        sum = add(sum, Element{});
      }
      p = call.sums == Sums::add_old ? add(sum, p) : sum;
    }
  }
}
template void multiply_tile_in_order(const TileCall<ksomd_c4>& call, Size rows, Size columns);
template void multiply_tile_in_order(const TileCall<ksomd_c8>& call, Size rows, Size columns);

}  // namespace ksomd::matmul
