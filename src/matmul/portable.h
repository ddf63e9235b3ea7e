// The portable kernels: P += op(A) * op(B), for every element type and layout.
//
// Everything here is a member of a template over the vector type, so that no two variants of the
// library share an instantiation.
#pragma once

#include "matmul/in_order.h"
#include "matmul/register_tile.h"

namespace ksomd::matmul {

template <class Lanes, template <class> class TileOf, Letters letters>
struct Portable {
  using Tile = TileOf<Lanes>;
  using Real = Lanes::Real;
  using Vector = Lanes::Vector;
  using Element = Tile::Element;
  using Call = TileCall<Real, Element>;

  static constexpr Size width = Lanes::width;
  static constexpr Size tile_rows = Tile::vectors * width;
  // NOLINTNEXTLINE(bugprone-sizeof-expression): 1 for the real types
  static constexpr Size reals = sizeof(Element) / sizeof(Real);
  // Both operands transposed: the sum of all products is formed apart from P and added to it last.
  static constexpr bool sums_apart = letters.a == Layout::t && letters.b == Layout::t;
  static constexpr Size panel_depth =
      (sums_apart ? panel_bytes_beside_sums : panel_bytes) / (tile_rows * sizeof(Element));
  static constexpr Size sums_columns = sums_bytes / (tile_rows * sizeof(Element));

  // The products of a range of l, for a tile's rows and some columns; `vectors` covers the rows.
  struct Strip {
    const Real* a;
    Size a_stride;
    Size rows;
    Size vectors;
    Size depth;
  };

  static void accumulate(const Element* a, const Element* b, Element* p, Size m, Size n, Size k,
                         Size lda, Size ldb, Size ldp) {
    if (m == 0 || n == 0 || (k == 0 && !sums_apart)) {
      return;
    }
    const Product<Element> x{a, b, p, m, n, k, lda, ldb, ldp};
    const Size p_bytes = span_bytes<Element>(m, n, ldp);
    const Size a_bytes =
        letters.a == Layout::n ? span_bytes<Element>(m, k, lda) : span_bytes<Element>(k, m, lda);
    const Size b_bytes =
        letters.b == Layout::n ? span_bytes<Element>(k, n, ldb) : span_bytes<Element>(n, k, ldb);
    if (overlap(p, p_bytes, a, a_bytes) || overlap(p, p_bytes, b, b_bytes)) [[unlikely]] {
      accumulate_in_order<Element, letters>(x);
    } else if constexpr (sums_apart) {
      sum_then_add(x);
    } else {
      add_in_blocks(x);
    }
  }

  static void add_in_blocks(const Product<Element>& x) {
    for (Size j = 0; j < x.n; j += column_block) {
      const Size columns = min(column_block, x.n - j);
      for (Size l = 0; l < x.k; l += depth_block) {
        const Size depth_end = min(x.k, l + depth_block);
        for (Size i = 0; i < x.m; i += tile_rows) {
          const Size rows = min(tile_rows, x.m - i);
          add_strips(x, i, rows, j, columns, l, depth_end);
        }
      }
    }
  }

  // P(i.., j..) from the products of l..depth_end, as deep as a panel at a time.
  static void add_strips(const Product<Element>& x, Size i, Size rows, Size j, Size columns, Size l,
                         Size depth_end) {
    alignas(64) Real panel[panel_depth * tile_rows * reals];
    Element* p = x.p + i + j * x.ldp;
    if constexpr (letters.a == Layout::n && Tile::reads_in_place) {
      if (rows % width == 0 && columns < columns_worth_packing) {
        const Strip strip{x.a + i + l * x.lda, x.lda, rows, rows / width, depth_end - l};
        run_strip(x, strip, l, j, columns, p, x.ldp);
        return;
      }
    }
    for (; l < depth_end; l += panel_depth) {
      const Strip strip = pack(x, i, rows, l, min(panel_depth, depth_end - l), panel);
      run_strip(x, strip, l, j, columns, p, x.ldp);
    }
  }

  static void sum_then_add(const Product<Element>& x) {
    alignas(64) Real panel[panel_depth * tile_rows * reals];
    Element sums[sums_columns * tile_rows];
    for (Size j = 0; j < x.n; j += sums_columns) {
      const Size columns = min(sums_columns, x.n - j);
      for (Size i = 0; i < x.m; i += tile_rows) {
        const Size rows = min(tile_rows, x.m - i);
        for (Element& sum : sums) {
          sum = Element{};
        }
        for (Size l = 0; l < x.k; l += panel_depth) {
          const Strip strip = pack(x, i, rows, l, min(panel_depth, x.k - l), panel);
          run_strip(x, strip, l, j, columns, sums, tile_rows);
        }
        for (Size c = 0; c < columns; ++c) {
          Element* p = x.p + i + (j + c) * x.ldp;
          for (Size row = 0; row < rows; ++row) {
            p[row] = add(p[row], sums[c * tile_rows + row]);
          }
        }
      }
    }
  }

  // All columns of a strip. Sums go to `p`, whose columns are `ldp` apart.
  static void run_strip(const Product<Element>& x, const Strip& strip, Size l, Size j, Size columns,
                        Element* p, Size ldp) {
    constexpr bool b_as_is = letters.b == Layout::n;
    const Steps steps{b_as_is ? 1 : x.ldb, b_as_is ? x.ldb : 1};
    Call call{strip.a, strip.a_stride, strip.depth, x.b + offset<letters.b>(l, j, x.ldb), steps, p,
              ldp};
    if (strip.rows == strip.vectors * width) {
      run_columns<1>(strip.vectors, call, columns);
      return;
    }
    for (Size c = 0; c < columns; c += Tile::columns) {
      run_edge(strip, call, min(Tile::columns, columns - c));
      call.b += Tile::columns * steps.column;
      call.p += Tile::columns * ldp;
    }
  }

  // Tiles of V vectors of rows, for all columns.
  template <Size V>
  static void run_columns(Size vectors, Call& call, Size columns) {
    if constexpr (V < Tile::vectors) {
      if (vectors != V) {
        run_columns<V + 1>(vectors, call, columns);
        return;
      }
    }
    for (; columns >= Tile::columns; columns -= Tile::columns) {
      prefetch_next(call);
      Tile::template run<V, Tile::columns>(call);
      call.b += Tile::columns * call.b_steps.column;
      call.p += Tile::columns * call.ldp;
    }
    static_assert(Tile::columns == 2, "at most one column is left over");
    if (columns != 0) {
      Tile::template run<V, 1>(call);
    }
  }

  // Asks for what the tile after this one reads: with a leading dimension of some kilobytes its
  // lines share few cache sets, and no hardware prefetcher follows such strides.
  static void prefetch_next(const Call& call) {
    constexpr Size line = 64;
    for (Size c = Tile::columns; c < 2 * Tile::columns; ++c) {
      const char* p = reinterpret_cast<const char*>(call.p + c * call.ldp);
      __builtin_prefetch(p, 1);
      __builtin_prefetch(p + tile_rows * sizeof(Element) - 1, 1);
      if constexpr (letters.b == Layout::n) {
        const char* b = reinterpret_cast<const char*>(call.b + c * call.b_steps.column);
        for (Size byte = 0; byte < call.depth * sizeof(Element); byte += line) {
          __builtin_prefetch(b + byte);
        }
      }
    }
  }

  // Rows that do not fill their last vector: through a tile of their own, whose last rows repeat.
  static void run_edge(const Strip& strip, const Call& call, Size columns) {
    Element edge[Tile::columns * tile_rows];
    const Size filled = strip.vectors * width;
    for (Size c = 0; c < columns; ++c) {
      for (Size row = 0; row < filled; ++row) {
        edge[c * tile_rows + row] = call.p[c * call.ldp + min(row, strip.rows - 1)];
      }
    }
    Call edge_call = call;
    edge_call.p = edge;
    edge_call.ldp = tile_rows;
    run_columns<1>(strip.vectors, edge_call, columns);
    for (Size c = 0; c < columns; ++c) {
      for (Size row = 0; row < strip.rows; ++row) {
        call.p[c * call.ldp + row] = edge[c * tile_rows + row];
      }
    }
  }

  // Copies op(A)(i.., l..) into a panel.
  static Strip pack(const Product<Element>& x, Size i, Size rows, Size l, Size depth, Real* panel) {
    const Size vectors = (rows + width - 1) / width;
    const Size stride = vectors * width * reals;
    const Element* source = x.a + offset<letters.a>(i, l, x.lda);
    Size packed = 0;
    if (rows == vectors * width) {
      packed = pack_vectors(source, x.lda, vectors, depth, panel);
    }
    for (; packed < depth; ++packed) {
      for (Size row = 0; row < vectors * width; ++row) {
        Tile::pack_one(panel + packed * stride + row / width * width * reals + row % width,
                       source[offset<letters.a>(min(row, rows - 1), packed, x.lda)]);
      }
    }
    return {panel, stride, rows, vectors, depth};
  }

  // The same with vectors; returns the depth done.
  static Size pack_vectors(const Element* source, Size lda, Size vectors, Size depth, Real* panel) {
    const Size stride = vectors * width * reals;
    if constexpr (letters.a == Layout::n) {
      for (Size l = 0; l < depth; ++l) {
        for (Size v = 0; v < vectors; ++v) {
          Tile::pack_rows(panel + l * stride + v * width * reals, source + l * lda + v * width);
        }
      }
      return depth;
    } else if constexpr (reals == 1) {
      const Size whole = round_down(depth, width);
      for (Size v = 0; v < vectors; ++v) {
        const Element* rows = source + v * width * lda;
        for (Size l = 0; l < whole; l += width) {
          Vector block[width];
          for (Size row = 0; row < width; ++row) {
            block[row] = Lanes::load(rows + row * lda + l);
          }
          Lanes::transpose(block);
          for (Size column = 0; column < width; ++column) {
            Lanes::store(panel + (l + column) * stride + v * width, block[column]);
          }
        }
      }
      return whole;
    } else {
      return 0;
    }
  }
};

}  // namespace ksomd::matmul
