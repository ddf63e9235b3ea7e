// The portable kernels: P += op(A) * op(B), or P = op(A) * op(B), for every element type and
// layout.
//
// Everything here is a member of a template over the vector type, so that no two variants of the
// library share an instantiation.
#pragma once

#include "matmul/tiling.h"

namespace ksomd::matmul {

template <class Rows, Letters letters>
struct Portable {
  using Element = Rows::Element;
  using Call = TileCall<Element>;
  using Tiling = Tiles<Rows>;

  static constexpr Size tile_rows = Tiling::rows;
  static constexpr Size panel_elements = panel_bytes / sizeof(Element);
  static constexpr Size panel_depth =
      round_down(panel_elements / tile_rows, Panel<Rows, false>::side);
  static constexpr Size row_block =
      round_up(a_block_bytes / (depth_block * sizeof(Element)), tile_rows);

  // No extent is zero, and P overlaps neither operand.
  static void multiply(const Product<Element>& x, Sums sums) {
    if constexpr (letters.a == Layout::n) {
      if (x.n >= Rows::columns_worth_packing) {
        in_panels(x, sums);
      } else {
        as_is(x, sums);
      }
    } else if (letters.b == Layout::t && sums == Sums::resume) {
      sum_apart(x);
    } else {
      in_panels(x, sums);
    }
  }

  static Call call_at(const Product<Element>& x, Size i, Size j, Size l, Size depth, Sums sums) {
    constexpr bool b_as_is = letters.b == Layout::n;
    return {x.a + offset<letters.a>(i, l, x.lda),
            x.lda,
            x.b + offset<letters.b>(l, j, x.ldb),
            b_as_is ? 1 : x.ldb,
            b_as_is ? x.ldb : 1,
            x.p + i + j * x.ldp,
            x.ldp,
            depth,
            l == 0 ? sums : Sums::resume,
            0};
  }

  // A block of op(A) stays in the second-level cache while all columns pass by.
  static void as_is(const Product<Element>& x, Sums sums) {
    for (Size i = 0; i < x.m; i += row_block) {
      const Size rows = min(row_block, x.m - i);
      for (Size l = 0; l < x.k; l += depth_block) {
        const Size depth = min(depth_block, x.k - l);
        Tiling::template each_column<Source::in_place>(call_at(x, i, 0, l, depth, sums), rows, x.n);
      }
    }
  }

  // Small blocks of op(A) are copied into a panel: for each l, a tile's rows. One block of op(B),
  // and the rows of P that it serves, stay in the second-level cache while all rows pass by.
  static void in_panels(const Product<Element>& x, Sums sums) {
    alignas(64) Element panel[panel_elements];
    for (Size j = 0; j < x.n; j += column_block) {
      const Size columns = min(column_block, x.n - j);
      for (Size l = 0; l < x.k; l += depth_block) {
        const Size depth_end = min(x.k, l + depth_block);
        for (Size i = 0; i < x.m;) {
          const Size rows = Tiling::rows_of_tile(x.m - i);
          for (Size start = l; start < depth_end; start += panel_depth) {
            Call call = call_at(x, i, j, start, min(panel_depth, depth_end - start), sums);
            Panel<Rows, letters.a == Layout::n>::pack(call.a, x.lda, rows, call.depth, panel,
                                                      tile_rows);
            call.a = panel;
            call.a_depth = tile_rows;
            Tiling::across(call, rows, columns);
          }
          i += rows;
        }
      }
    }
  }

  // The sum of all products is formed apart from P and added to it last: P's old values wait.
  static void sum_apart(const Product<Element>& x) {
    Element old[panel_elements];
    constexpr Size columns_at_once = panel_elements / tile_rows;
    for (Size j = 0; j < x.n; j += columns_at_once) {
      const Size columns = min(columns_at_once, x.n - j);
      for (Size i = 0; i < x.m; i += tile_rows) {
        const Size rows = min(tile_rows, x.m - i);
        Element* p = x.p + i + j * x.ldp;
        for (Size c = 0; c < columns; ++c) {
          for (Size row = 0; row < rows; ++row) {
            old[c * tile_rows + row] = p[c * x.ldp + row];
          }
        }
        in_panels({x.a + offset<letters.a>(i, 0, x.lda), x.b + offset<letters.b>(0, j, x.ldb), p,
                   rows, columns, x.k, x.lda, x.ldb, x.ldp},
                  Sums::overwrite);
        for (Size c = 0; c < columns; ++c) {
          for (Size row = 0; row < rows; ++row) {
            p[c * x.ldp + row] = add(old[c * tile_rows + row], p[c * x.ldp + row]);
          }
        }
      }
    }
  }
};

}  // namespace ksomd::matmul
