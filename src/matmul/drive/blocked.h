// Products in cache blocks, and the walks of register tiles over a block, for the kernels of any
// instruction set. Nothing here is compiled for more than the baseline.
#pragma once

#include "matmul/blocking.h"
#include "matmul/reference/arithmetic.h"

namespace ksomd::matmul {

// Splits an operand that is contiguous along the depth into pieces: piece s starts
// s * piece_depth steps after `start`.
template <class Element>
void set_pieces(const TileCall<Element>& call, const Element* (&pieces)[max_pieces],
                const Element* start, Size depth_step) {
  for (Size s = 0; s * call.piece_depth < call.depth; ++s) {
    pieces[s] = start + s * call.piece_depth * depth_step;
  }
}

template <class Element>
void advance(const TileCall<Element>& call, const Element* (&pieces)[max_pieces], Size elements) {
  for (Size s = 0; s * call.piece_depth < call.depth; ++s) {
    pieces[s] += elements;
  }
}

template <class Element>
TileCall<Element> tile_call(const ElementKernels<Element>& kernels, const Result<Element>& p,
                            Size depth, Sums sums) {
  TileCall<Element> call;
  call.b.ahead = 0;
  call.p.start = p.start;
  call.p.leading = p.leading;
  call.depth = depth;
  call.piece_depth = kernels.piece_depth;
  call.sums = sums;
  return call;
}

// Where op(A) lies while tiles walk down the rows.
enum class Source {
  in_place,  // as stored
  panels,    // packed: one panel per tile's rows, one after the other
};

// Tiles down the rows, for one column group. op(A) begins at `a`, P at `p`.
template <Source source, class Element>
void walk_down(const ElementKernels<Element>& kernels, TileCall<Element>& call, TileColumns columns,
               const Element* a, Element* p, Size row_count) {
  call.p.start = p;
  if constexpr (source == Source::in_place) {
    set_pieces(call, call.a.piece, a, call.a.depth_step);
  }
  while (row_count != 0) {
    const TileRows rows = kernels.next_rows(row_count);
    if constexpr (source == Source::panels) {
      call.a.depth_step = rows.count;
      set_pieces(call, call.a.piece, a, rows.count);
      a += rows.count * call.depth;
    }
    call.p.ahead = rows.count;
    call.rows = rows.count;
    kernels.tile[columns.group][rows.vectors](call);
    if constexpr (source == Source::in_place) {
      advance(call, call.a.piece, rows.count);
    }
    call.p.start += rows.count;
    row_count -= rows.count;
  }
}

// Tiles across the columns, for one tile's rows.
template <class Element>
void walk_across(const ElementKernels<Element>& kernels, TileCall<Element>& call, TileRows rows,
                 Size column_count) {
  call.rows = rows.count;
  while (column_count != 0) {
    const TileColumns columns = kernels.next_columns(column_count);
    call.p.ahead = columns.count * call.p.leading;
    call.b.ahead = call.b.depth_step == 1 ? columns.count * call.b.column_step : 0;
    kernels.tile[columns.group][rows.vectors](call);
    advance(call, call.b.piece, columns.count * call.b.column_step);
    call.p.start += call.p.ahead;
    column_count -= columns.count;
  }
}

// A product under way.
template <class Element>
class BlockedProduct {
 public:
  BlockedProduct(const ElementKernels<Element>& kernels, Product<Element> x, Sums sums)
      : kernels_(kernels), x_(x), sums_(sums) {}

  void run() const {
    if (sums_.finish == Finish::add_old) {
      add_apart();
    } else if (x_.a.layout == Layout::n && x_.n < kernels_.columns_worth_packing) {
      in_place();
    } else {
      in_panels();
    }
  }

 private:
  using Call = TileCall<Element>;

  const ElementKernels<Element>& kernels_;
  const Product<Element> x_;
  const Sums sums_;

  // The first depth block starts the sums, the last one finishes them.
  Call call_at(Size i, Size j, Size l, Size depth) const {
    const Sums sums{l == 0 ? sums_.start : Start::old,
                    l + depth == x_.k ? sums_.finish : Finish::store};
    Call call = tile_call(kernels_, x_.p.from(i, j), depth, sums);
    call.b.depth_step = x_.b.row_step();
    call.b.column_step = x_.b.column_step();
    set_pieces(call, call.b.piece, x_.b.at(l, j), call.b.depth_step);
    return call;
  }

  // op(A) stays where it is, stored as is: a block of it stays in the second-level cache while all
  // columns pass by.
  void in_place() const {
    for (Size i = 0; i < x_.m; i += kernels_.row_block) {
      const Size rows = min(kernels_.row_block, x_.m - i);
      const bool packs_b = x_.b.layout == Layout::t &&
                           rows >= tiles_worth_packing * kernels_.rows() &&
                           x_.b.leading * sizeof(Element) >= stride_worth_packing;
      for (Size l = 0; l < x_.k; l += kernels_.depth_block) {
        Call call = call_at(i, 0, l, min(kernels_.depth_block, x_.k - l));
        call.a.depth_step = x_.a.leading;
        for (Size j = 0; j < x_.n;) {
          const TileColumns columns = kernels_.next_columns(x_.n - j);
          if (packs_b) {
            Call packed = call;
            with_packed_columns(packed, 0, columns, x_.a.at(i, l), x_.p.at(i, j), rows);
          } else {
            walk_down<Source::in_place>(kernels_, call, columns, x_.a.at(i, l), x_.p.at(i, j),
                                        rows);
          }
          advance(call, call.b.piece, columns.count * call.b.column_step);
          j += columns.count;
        }
      }
    }
  }

  // Columns of op(B) that are stored across the depth are packed before all rows pass by. Piece s
  // of the panel lies in this frame, the others in those of the calls from here on.
  [[gnu::noinline]] void with_packed_columns(Call& call, Size s, TileColumns columns,
                                             const Element* a, Element* p, Size rows) const {
    alignas(64) Element panel[piece_bytes / sizeof(Element)];
    const Size left = call.depth - s * call.piece_depth;
    kernels_.pack_adjacent(call.b.piece[s], x_.b.leading, columns.count,
                           min(left, call.piece_depth), panel, columns.count);
    call.b.piece[s] = panel;
    if (left > call.piece_depth) {
      with_packed_columns(call, s + 1, columns, a, p, rows);
    } else {
      call.b.depth_step = columns.count;
      walk_down<Source::in_place>(kernels_, call, columns, a, p, rows);
    }
  }

  // A tile's rows of op(A) are packed. One block of op(B) stays in the second-level cache while all
  // rows pass by.
  void in_panels() const {
    for (Size j = 0; j < x_.n; j += kernels_.column_block) {
      const Size columns = min(kernels_.column_block, x_.n - j);
      for (Size l = 0; l < x_.k; l += kernels_.depth_block) {
        const Size depth = min(kernels_.depth_block, x_.k - l);
        for (Size i = 0; i < x_.m;) {
          const TileRows rows = kernels_.next_rows(x_.m - i);
          Call call = call_at(i, j, l, depth);
          call.a.depth_step = kernels_.rows();
          with_packed_rows(call, 0, x_.a.from(i, l), rows, columns);
          i += rows.count;
        }
      }
    }
  }

  // Piece s of the panel lies in this frame, the others in those of the calls from here on.
  [[gnu::noinline]] void with_packed_rows(Call& call, Size s, const Operand<Element>& a,
                                          TileRows rows, Size columns) const {
    alignas(64) Element panel[piece_bytes / sizeof(Element)];
    const Size first = s * call.piece_depth;
    const Size left = call.depth - first;
    kernels_.pack(a.from(0, first), rows.count, min(left, call.piece_depth), panel,
                  kernels_.rows());
    call.a.piece[s] = panel;
    if (left > call.piece_depth) {
      with_packed_rows(call, s + 1, a, rows, columns);
    } else {
      walk_across(kernels_, call, rows, columns);
    }
  }

  // P's old values wait while the sums are formed, and these are added to them last.
  void add_apart() const {
    Element old[piece_bytes / sizeof(Element)];
    const Size tile_rows = kernels_.rows();
    const Size columns_at_once = piece_bytes / sizeof(Element) / tile_rows;
    for (Size j = 0; j < x_.n; j += columns_at_once) {
      const Size columns = min(columns_at_once, x_.n - j);
      for (Size i = 0; i < x_.m; i += tile_rows) {
        const Size rows = min(tile_rows, x_.m - i);
        const Result<Element> p = x_.p.from(i, j);
        kernels_.pack_adjacent(p.start, p.leading, rows, columns, old, tile_rows);
        const Product<Element> sums{x_.a.from(i, 0), x_.b.from(0, j), p, rows, columns, x_.k};
        BlockedProduct(kernels_, sums, {Start::zero, Finish::store}).in_panels();
        for (Size c = 0; c < columns; ++c) {
          for (Size row = 0; row < rows; ++row) {
            *p.at(row, c) = add(old[c * tile_rows + row], *p.at(row, c));
          }
        }
      }
    }
  }
};

}  // namespace ksomd::matmul
