// The order of operations itself, one element after the other: what the kernels do when the result
// overlaps an operand, so that elements of P written on the way are read back as factors. Every
// operand is read again each time it is used.
#pragma once

#include "matmul/blocking.h"
#include "matmul/reference/small.h"

namespace ksomd::matmul {

// P(i, j) += the products for l from `l` to `l_end`.
template <class Element>
KSOMD_INLINE void add_in_order(const Product<Element>& x, Size i, Size j, Size l, Size l_end) {
  Element& p = *x.p.at(i, j);
  Element sum = p;
  for (; l < l_end; ++l) {
    sum = add(sum, multiply(*x.a.at(i, l), *x.b.at(l, j)));
  }
  p = sum;
}

// One row block, one depth block, one column.
template <class Element>
void add_column_in_order(const Product<Element>& x, Size j, Size row, Size row_end, Size l,
                         Size depth_end) {
  while (l < depth_end) {
    const Size left = depth_end - l;
    const Size group = x.a.layout == Layout::t ? left : left >= order_group ? order_group : 1;
    for (Size i = row; i < row_end; ++i) {
      add_in_order(x, i, j, l, l + group);
    }
    l += group;
  }
}

template <class Element>
void accumulate_in_order(Product<Element> x) {
  if (x.a.layout == Layout::t && x.b.layout == Layout::t) {
    multiply_small(x, {Start::zero, Finish::add_old});
    return;
  }
  for (Size i = 0; i < x.m; i += order_block) {
    for (Size l = 0; l < x.k; l += order_block) {
      for (Size j = 0; j < x.n; ++j) {
        add_column_in_order(x, j, i, min(x.m, i + order_block), l, min(x.k, l + order_block));
      }
    }
  }
}

// A register tile again, one element after the other. Complex tiles are, where a sum came out as
// NaN in both parts.
template <class Element>
void multiply_tile_in_order(const TileCall<Element>& call, Size rows, Size columns) {
  for (Size c = 0; c < columns; ++c) {
    for (Size row = 0; row < rows; ++row) {
      Element& p = call.p.start[c * call.p.leading + row];
      Element sum = call.sums.start == Start::old ? p : Element{};
      for (Size l = 0; l < call.depth; ++l) {
        const Size s = l / call.piece_depth;
        const Size step = l % call.piece_depth;
        const Element* a = call.a.piece[s] + step * call.a.depth_step;
        const Element* b = call.b.piece[s] + step * call.b.depth_step;
        sum = add(sum, multiply(a[row], b[c * call.b.column_step]));
      }
      if (call.sums.finish != Finish::store) {
        sum = add(sum, call.sums.finish == Finish::add_old ? p : Element{});
      }
      p = sum;
    }
  }
}
template void multiply_tile_in_order(const TileCall<ksomd_c4>& call, Size rows, Size columns);
template void multiply_tile_in_order(const TileCall<ksomd_c8>& call, Size rows, Size columns);

}  // namespace ksomd::matmul
