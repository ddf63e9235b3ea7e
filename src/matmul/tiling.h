// Tiles side by side: along the rows, and along the columns, of a product.
#pragma once

#include "matmul/panel.h"

namespace ksomd::matmul {

// Where an operand of several tiles lies.
enum class Source {
  in_place,  // as stored
  panels,    // copied: one panel per tile's rows, or group of columns, one after the other
};

template <class Rows>
struct Tiles {
  using Element = Rows::Element;
  using Call = TileCall<Element>;
  static constexpr Size width = Rows::width;
  static constexpr Size vectors = Rows::shape.vectors;
  static constexpr Size columns = Rows::shape.columns;
  static constexpr Size rows = vectors * width;

  // The rows of the next tile, when `left` rows are left: complete tiles, then the other complete
  // vectors, then the rest.
  static Size rows_of_tile(Size left) {
    return left >= rows ? rows : left >= width ? round_down(left, width) : left;
  }

  template <Size C, Size V = vectors>
  KSOMD_INLINE static void tile(Call& call, Size row_count) {
    if (row_count == V * width) {
      Tile<Rows>::template run<V, C, false>(call);
    } else if constexpr (V > 1) {
      tile<C, V - 1>(call, row_count);
    } else {
      call.part = row_count;
      Tile<Rows>::template run<1, C, true>(call);
    }
  }

  // One group of columns, C of them, all rows.
  template <Source source, Size C>
  static void down(Call call, Size row_count) {
    while (row_count != 0) {
      const Size count = rows_of_tile(row_count);
      if constexpr (source == Source::panels) {
        call.a_depth = count;
        prefetch_result<C>(call);
      }
      tile<C>(call, count);
      call.a += source == Source::panels ? count * call.depth : count;
      call.p += count;
      row_count -= count;
    }
  }

  // All columns, all rows.
  template <Source source, Size C = columns>
  static void each_column(Call call, Size row_count, Size column_count) {
    for (; column_count >= C; column_count -= C) {
      if constexpr (source == Source::panels) {
        call.b_depth = C;
        call.b_column = 1;
      }
      down<source, C>(call, row_count);
      call.b += source == Source::panels ? C * call.depth : C * call.b_column;
      call.p += C * call.ldp;
    }
    if constexpr (C > 1) {
      if (column_count != 0) {
        each_column<source, C / 2>(call, row_count, column_count);
      }
    }
  }

  // One tile's rows, all columns.
  template <Size C = columns>
  static void across(Call call, Size row_count, Size column_count) {
    for (; column_count >= C; column_count -= C) {
      prefetch_next<C>(call);
      tile<C>(call, row_count);
      call.b += C * call.b_column;
      call.p += C * call.ldp;
    }
    if constexpr (C > 1) {
      if (column_count != 0) {
        across<C / 2>(call, row_count, column_count);
      }
    }
  }

 private:
  static constexpr Size line = 64;

  // Asks for the part of P that a tile adds to at its end.
  template <Size C>
  KSOMD_INLINE static void prefetch_result(const Call& call) {
    for (Size c = 0; c < C; ++c) {
      prefetch_column(call.p + c * call.ldp);
    }
  }

  KSOMD_INLINE static void prefetch_column(const Element* column) {
    const char* p = reinterpret_cast<const char*>(column);
    for (Size byte = 0; byte < rows * sizeof(Element); byte += line) {
      __builtin_prefetch(p + byte, 1);
    }
    __builtin_prefetch(p + rows * sizeof(Element) - 1, 1);
  }

  // Asks for what the tile after this one reads: with a leading dimension of some kilobytes its
  // lines share few cache sets, and no hardware prefetcher follows such strides.
  template <Size C>
  KSOMD_INLINE static void prefetch_next(const Call& call) {
    for (Size c = C; c < 2 * C; ++c) {
      prefetch_column(call.p + c * call.ldp);
      if (call.b_depth == 1) {
        const char* b = reinterpret_cast<const char*>(call.b + c * call.b_column);
        for (Size byte = 0; byte < call.depth * sizeof(Element); byte += line) {
          __builtin_prefetch(b + byte);
        }
      }
    }
  }
};

}  // namespace ksomd::matmul
