// The packed double-precision product of the wide variants.
//
// Per element the order is that of the exported tile kernels: the tail chunk overwrites P, the full
// chunks follow and add their sums to it. A panel holds a tile's rows of op(A), or columns of
// op(B), for each l of a chunk; in place of the products of the padding, zero is added to the sums
// once.
#pragma once

#include "matmul/portable.h"

namespace ksomd::matmul {

template <class Rows, Letters letters>
struct PackedPanels {
  using Element = Rows::Element;
  using Tiling = Tiles<Rows>;
  static constexpr Size block_rows = round_down(row_chunk, Tiling::rows);

  static void multiply(const Product<Element>& x, const PanelMemory& memory,
                       Size columns_per_pass) {
    const Size tail = tail_depth(x.k);
    const Size columns = round_down(x.n, tile);
    // One chunk, a few rows: the portable kernel sums in the same order, and packs less.
    if (x.k <= depth_chunk && x.m <= row_chunk) {
      Product<Element> whole_tiles = x;
      whole_tiles.m = round_down(x.m, tile);
      whole_tiles.n = columns;
      Portable<Rows, letters>::multiply(whole_tiles, Sums::overwrite, tail != padded_depth(tail));
      return;
    }
    for (Size j = 0; j < columns; j += columns_per_pass) {
      const Size count = min(columns - j, columns_per_pass);
      chunk(x, memory, x.k - tail, tail, j, count, Sums::overwrite);
      for (Size l = 0; l < x.k - tail; l += depth_chunk) {
        chunk(x, memory, l, depth_chunk, j, count, Sums::add_old);
      }
    }
  }

 private:
  static void chunk(const Product<Element>& x, const PanelMemory& memory, Size l, Size depth,
                    Size j, Size columns, Sums sums) {
    const Size rows = round_down(x.m, tile);
    const bool b_as_is = letters.b == Layout::n && rows <= rows_as_is;
    if (!b_as_is) {
      pack_b(x, l, depth, j, columns, memory.b);
    }
    for (Size i = 0; i < rows; i += block_rows) {
      const Size count = min(block_rows, rows - i);
      pack_a(x, i, count, l, depth, memory.a);
      TileCall<Element> call{};
      call.a[0] = memory.a;
      call.segment = Tiling::segment;
      call.p = x.p + i + j * x.ldp;
      call.ldp = x.ldp;
      call.depth = depth;
      call.sums = sums;
      call.add_zero = depth != padded_depth(depth);
      if (b_as_is) {
        each_panel<Source::in_place, Tiling::columns>(call, x.b + l + j * x.ldb, x.ldb, count,
                                                      columns);
      } else {
        each_panel<Source::panels, Tiling::columns>(call, memory.b, depth, count, columns);
      }
    }
  }

  // All columns, all rows: one group of columns after the other, whose starts in op(B) are
  // `b_column` values apart per column.
  template <Source source, Size C>
  static void each_panel(TileCall<Element>& call, const Element* b, Size b_column, Size rows,
                         Size columns) {
    call.b_depth = source == Source::panels ? C : 1;
    call.b_column = source == Source::panels ? 1 : b_column;
    for (; columns >= C; columns -= C) {
      Tiling::set_segments(call, call.b, b, call.b_depth);
      Tiling::template down<Source::panels, C>(call, rows);
      b += C * b_column;
      call.p += C * call.ldp;
    }
    if constexpr (C > 1) {
      if (columns != 0) {
        each_panel<source, C / 2>(call, b, b_column, rows, columns);
      }
    }
  }

  static void pack_a(const Product<Element>& x, Size i, Size rows, Size l, Size depth,
                     Element* panel) {
    for (Size row = 0; row < rows;) {
      const Size count = Tiling::rows_of_tile(rows - row);
      Panel<Rows, letters.a == Layout::n>::pack(x.a + offset<letters.a>(i + row, l, x.lda), x.lda,
                                                count, depth, panel, count);
      panel += count * depth;
      row += count;
    }
  }

  template <Size C = Tiling::columns>
  static void pack_b(const Product<Element>& x, Size l, Size depth, Size j, Size columns,
                     Element* panel) {
    for (; columns >= C; columns -= C, j += C, panel += C * depth) {
      Panel<Rows, letters.b == Layout::t>::pack(x.b + offset<letters.b>(l, j, x.ldb), x.ldb, C,
                                                depth, panel, C);
    }
    if constexpr (C > 1) {
      if (columns != 0) {
        pack_b<C / 2>(x, l, depth, j, columns, panel);
      }
    }
  }
};

}  // namespace ksomd::matmul
