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

  // The order wants the sum of all products formed apart from P.
  static constexpr bool sums_apart = letters.a == Layout::t && letters.b == Layout::t;
  static constexpr Size tile_rows = Tiling::rows;
  static constexpr Size depth_limit = Tiling::depth_limit;
  static constexpr Size row_block =
      round_up(a_block_bytes / (depth_limit * sizeof(Element)), tile_rows);
  static constexpr Size column_block =
      round_up(b_block_bytes / (depth_limit * sizeof(Element)), Tiling::columns);

  // No extent is zero, and P overlaps neither operand.
  static void multiply(const Product<Element>& x, Sums sums) {
    if (sums_apart && sums == Sums::resume) {
      add_apart(x);
    } else if (sums == Sums::on_cleared) {
      multiply(x, Sums::overwrite, sums_apart);
    } else {
      multiply(x, sums, false);
    }
  }

  // The sums are added to zero last if `add_zero`; they are not formed apart from P.
  static void multiply(const Product<Element>& x, Sums sums, bool add_zero) {
    if (letters.a == Layout::n && x.n < Rows::columns_worth_packing) {
      as_is(x, sums, add_zero);
    } else {
      in_panels(x, sums, add_zero);
    }
  }

 private:
  static Call call_at(const Product<Element>& x, Size i, Size j, Size l, Size depth, Sums sums,
                      bool add_zero) {
    constexpr bool b_as_is = letters.b == Layout::n;
    Call call{};
    call.segment = Tiling::segment;
    call.b_depth = b_as_is ? 1 : x.ldb;
    call.b_column = b_as_is ? x.ldb : 1;
    call.p = x.p + i + j * x.ldp;
    call.ldp = x.ldp;
    call.depth = depth;
    call.sums = l != 0 ? Sums::resume : sums;
    call.add_zero = add_zero && l + depth == x.k;
    Tiling::set_segments(call, call.b, x.b + offset<letters.b>(l, j, x.ldb), call.b_depth);
    return call;
  }

  // A block of op(A) stays in the second-level cache while all columns pass by.
  static void as_is(const Product<Element>& x, Sums sums, bool add_zero) {
    for (Size i = 0; i < x.m; i += row_block) {
      const Size rows = min(row_block, x.m - i);
      for (Size l = 0; l < x.k; l += depth_limit) {
        Call call = call_at(x, i, 0, l, min(depth_limit, x.k - l), sums, add_zero);
        call.a_depth = x.lda;
        Tiling::set_segments(call, call.a, x.a + i + l * x.lda, x.lda);
        each_group<Tiling::columns>(call, rows, x.n);
      }
    }
  }

  // All columns, all rows.
  template <Size C>
  static void each_group(Call& call, Size rows, Size columns) {
    const bool copies = rows >= tiles_worth_packing * tile_rows &&
                        call.b_depth * sizeof(Element) >= stride_worth_packing;
    for (; columns >= C; columns -= C) {
      if (letters.b == Layout::t && copies) {
        with_columns<C>(call, rows);
      } else {
        Tiling::template down<Source::in_place, C>(call, rows);
      }
      Tiling::advance(call, call.b, C * call.b_column);
      call.p += C * call.ldp;
    }
    if constexpr (C > 1) {
      if (columns != 0) {
        each_group<C / 2>(call, rows, columns);
      }
    }
  }

  // Columns of op(B) that are stored across the depth are copied before all rows pass by.
  template <Size C>
  static void with_columns(Call call, Size rows) {
    if constexpr (letters.b == Layout::t) {
      with_columns<C, 0>(call, rows);
    }
  }

  // Piece s of the copy lies in this frame, the others in those of the calls from here on.
  template <Size C, Size s>
  [[gnu::noinline]] static void with_columns(Call& call, Size rows) {
    alignas(64) Element piece[Tiling::segment * C];
    static_assert(sizeof piece <= segment_bytes);
    const Size depth = min(Tiling::segment, call.depth - s * Tiling::segment);
    for (Size l = 0; l < depth; ++l) {
      for (Size c = 0; c < C; ++c) {
        piece[l * C + c] = call.b[s][l * call.b_depth + c];
      }
    }
    call.b[s] = piece;
    if constexpr (s + 1 < Tiling::segments) {
      if (call.depth > (s + 1) * Tiling::segment) {
        with_columns<C, s + 1>(call, rows);
        return;
      }
    }
    call.b_depth = C;
    Tiling::template down<Source::in_place, C>(call, rows);
  }

  // A tile's rows of op(A) are copied into a panel. One block of op(B) stays in the second-level
  // cache while all rows pass by.
  static void in_panels(const Product<Element>& x, Sums sums, bool add_zero) {
    for (Size j = 0; j < x.n; j += column_block) {
      const Size columns = min(column_block, x.n - j);
      for (Size l = 0; l < x.k; l += depth_limit) {
        const Size depth = min(depth_limit, x.k - l);
        for (Size i = 0; i < x.m;) {
          const Size rows = Tiling::rows_of_tile(x.m - i);
          Call call = call_at(x, i, j, l, depth, sums, add_zero);
          call.a_depth = tile_rows;
          with_panel<0>(call, x.a + offset<letters.a>(i, l, x.lda), x.lda, rows, columns);
          i += rows;
        }
      }
    }
  }

  // Piece s of the panel lies in this frame, the others in those of the calls from here on.
  template <Size s>
  [[gnu::noinline]] static void with_panel(Call& call, const Element* source, Size leading,
                                           Size rows, Size columns) {
    alignas(64) Element piece[Tiling::segment * tile_rows];
    const Size depth = min(Tiling::segment, call.depth - s * Tiling::segment);
    Panel<Rows, letters.a == Layout::n>::pack(source, leading, rows, depth, piece, tile_rows);
    call.a[s] = piece;
    if constexpr (s + 1 < Tiling::segments) {
      if (call.depth > (s + 1) * Tiling::segment) {
        with_panel<s + 1>(call, source + offset<letters.a>(0, Tiling::segment, leading), leading,
                          rows, columns);
        return;
      }
    }
    Tiling::across(call, rows, columns);
  }

  // The sum of all products is formed apart from P and added to it last: P's old values wait.
  static void add_apart(const Product<Element>& x) {
    constexpr Size columns_at_once = segment_bytes / sizeof(Element) / tile_rows;
    Element old[columns_at_once * tile_rows];
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
                  Sums::overwrite, false);
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
