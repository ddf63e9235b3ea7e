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

  // Depth of a piece of op(A), and of all: complete blocks of the transposition where that leaves
  // little of the memory unused.
  static constexpr Size row_bytes = rows * sizeof(Element);
  static constexpr Size segment_limit = segment_bytes / row_bytes;
  static constexpr Size whole_blocks = round_down(segment_limit, Panel<Rows, false>::side);
  static constexpr Size segment =
      4 * whole_blocks >= 3 * segment_limit ? whole_blocks : segment_limit;
  static constexpr Size segments = min(max_segments, min(panel_bytes / (segment * row_bytes),
                                                         round_up(depth_block, segment) / segment));
  static constexpr Size depth_limit = min(segment * segments, depth_block);
  static_assert(segments >= 1);

  // An operand in one piece.
  KSOMD_INLINE static void set_segments(const Call& call, const Element* (&pieces)[max_segments],
                                        const Element* start, Size depth_step) {
    for (Size s = 0; s * segment < call.depth; ++s) {
      pieces[s] = start + s * segment * depth_step;
    }
  }
  KSOMD_INLINE static void advance(const Call& call, const Element* (&pieces)[max_segments],
                                   Size step) {
    for (Size s = 0; s * segment < call.depth; ++s) {
      pieces[s] += step;
    }
  }

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
        set_segments(call, call.a, call.a[0], count);
      }
      call.p_ahead = count;
      tile<C>(call, count);
      if constexpr (source == Source::panels) {
        call.a[0] += count * call.depth;
      } else {
        advance(call, call.a, count);
      }
      call.p += count;
      row_count -= count;
    }
  }

  // One tile's rows, all columns.
  template <Size C = columns>
  static void across(Call call, Size row_count, Size column_count) {
    for (; column_count >= C; column_count -= C) {
      call.p_ahead = C * call.ldp;
      call.b_ahead = call.b_depth == 1 ? C * call.b_column : 0;
      tile<C>(call, row_count);
      advance(call, call.b, C * call.b_column);
      call.p += C * call.ldp;
    }
    if constexpr (C > 1) {
      if (column_count != 0) {
        across<C / 2>(call, row_count, column_count);
      }
    }
  }
};

}  // namespace ksomd::matmul
