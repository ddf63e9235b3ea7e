// The portable kernels: P += op(A) * op(B), or P = op(A) * op(B), for every element type and
// layout.
//
// Everything here is a member of a template over the vector type, so that no two variants of the
// library share an instantiation.
#pragma once

#include "matmul/block_transpose.h"
#include "matmul/register_tile.h"

namespace ksomd::matmul {

// Tiles along the rows, and along the columns, of a product.
template <class Rows>
struct Tiles {
  using Element = Rows::Element;
  using Call = TileCall<Element>;
  static constexpr Size width = Rows::width;
  static constexpr Size vectors = Rows::shape.vectors;
  static constexpr Size columns = Rows::shape.columns;
  static constexpr Size rows = vectors * width;

  // One group of columns, C of them, all rows: op(A) is read where it is stored.
  template <Size C>
  static void down(Call call, Size row_count) {
    for (; row_count >= rows; row_count -= rows) {
      Tile<Rows>::template run<vectors, C, false>(call);
      call.a += rows;
      call.p += rows;
    }
    const Size left = row_count / width;
    if constexpr (vectors > 1) {
      if (left != 0) {
        fewer_vectors<vectors - 1, C>(call, left);
        call.a += left * width;
        call.p += left * width;
      }
    }
    call.part = row_count % width;
    if (call.part != 0) {
      Tile<Rows>::template run<1, C, true>(call);
    }
  }

  template <Size V, Size C>
  KSOMD_INLINE static void fewer_vectors(const Call& call, Size count) {
    if constexpr (V > 1) {
      if (count < V) {
        fewer_vectors<V - 1, C>(call, count);
        return;
      }
    }
    Tile<Rows>::template run<V, C, false>(call);
  }

  // One group of rows, all columns.
  template <Size V, bool part, Size C = columns>
  static void across(Call call, Size column_count) {
    for (; column_count >= C; column_count -= C) {
      prefetch_next<C>(call);
      Tile<Rows>::template run<V, C, part>(call);
      call.b += C * call.b_column;
      call.p += C * call.ldp;
    }
    if constexpr (C > 1) {
      if (column_count != 0) {
        across<V, part, C / 2>(call, column_count);
      }
    }
  }

  // Asks for what the tile after this one reads: with a leading dimension of some kilobytes its
  // lines share few cache sets, and no hardware prefetcher follows such strides.
  template <Size C>
  KSOMD_INLINE static void prefetch_next(const Call& call) {
    constexpr Size line = 64;
    for (Size c = C; c < 2 * C; ++c) {
      const char* p = reinterpret_cast<const char*>(call.p + c * call.ldp);
      for (Size byte = 0; byte < rows * sizeof(Element); byte += line) {
        __builtin_prefetch(p + byte, 1);
      }
      __builtin_prefetch(p + rows * sizeof(Element) - 1, 1);
      if (call.b_depth == 1) {
        const char* b = reinterpret_cast<const char*>(call.b + c * call.b_column);
        for (Size byte = 0; byte < call.depth * sizeof(Element); byte += line) {
          __builtin_prefetch(b + byte);
        }
      }
    }
  }

  // At most `rows` rows, all columns.
  template <Size V = vectors>
  static void across_rows(const Call& call, Size row_count, Size column_count) {
    if (row_count == V * width) {
      across<V, false>(call, column_count);
    } else if constexpr (V > 1) {
      across_rows<V - 1>(call, row_count, column_count);
    } else {
      across<1, true>(call, column_count);
    }
  }
};

template <class Rows, Letters letters>
struct Portable {
  using Element = Rows::Element;
  using Call = TileCall<Element>;
  using Tiling = Tiles<Rows>;
  using Block = BlockTranspose<typename Rows::Shuffles, sizeof(Element)>;

  static constexpr Size tile_rows = Tiling::rows;
  static constexpr Size panel_elements = panel_bytes / sizeof(Element);
  static constexpr Size panel_depth = round_down(panel_elements / tile_rows, Block::side);
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
        columns_as_is<Tiling::columns>(x, call_at(x, i, 0, l, depth, sums), rows, x.n);
      }
    }
  }

  template <Size C>
  static void columns_as_is(const Product<Element>& x, Call call, Size rows, Size columns) {
    for (; columns >= C; columns -= C) {
      Tiling::template down<C>(call, rows);
      call.b += C * call.b_column;
      call.p += C * call.ldp;
    }
    if constexpr (C > 1) {
      if (columns != 0) {
        columns_as_is<C / 2>(x, call, rows, columns);
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
          const Size left = x.m - i;
          const Size rows = left >= tile_rows     ? tile_rows
                            : left >= Rows::width ? round_down(left, Rows::width)
                                                  : left;
          for (Size start = l; start < depth_end; start += panel_depth) {
            Call call = call_at(x, i, j, start, min(panel_depth, depth_end - start), sums);
            pack(call.a, x.lda, rows, call.depth, panel, tile_rows);
            call.a = panel;
            call.a_depth = tile_rows;
            call.part = rows;
            Tiling::across_rows(call, rows, columns);
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

  // panel[row + l * panel_rows] = op(A)(row, l).
  static void pack(const Element* source, Size leading, Size rows, Size depth, Element* panel,
                   Size panel_rows) {
    if constexpr (letters.a == Layout::n) {
      for (Size l = 0; l < depth; ++l) {
        Size row = 0;
        for (; row + Rows::width <= rows; row += Rows::width) {
          Rows::copy(panel + row + l * panel_rows, source + row + l * leading);
        }
        for (; row < rows; ++row) {
          panel[row + l * panel_rows] = source[row + l * leading];
        }
      }
      return;
    }
    const Size whole_rows = round_down(rows, Block::side);
    const Size whole_depth = round_down(depth, Block::side);
    for (Size row = 0; row < whole_rows; row += Block::side) {
      for (Size l = 0; l < whole_depth; l += Block::side) {
        Block::run(source + l + row * leading, leading, panel + row + l * panel_rows, panel_rows);
      }
    }
    for (Size row = 0; row < rows; ++row) {
      for (Size l = row < whole_rows ? whole_depth : 0; l < depth; ++l) {
        panel[row + l * panel_rows] = source[l + row * leading];
      }
    }
  }
};

}  // namespace ksomd::matmul
