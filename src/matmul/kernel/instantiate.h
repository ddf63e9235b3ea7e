// The kernels of one instruction set: the templates, instantiated with its vectors.
//
// Everything that is instantiated is a member of a template over the vector type, so that no two
// instruction sets share a function.
#pragma once

#include "matmul/blocking.h"
#include "matmul/kernel/matrix_vector.h"
#include "matmul/kernel/register_tile.h"
#include "matmul/pack/panel.h"

namespace ksomd::matmul {

// Every tile of C columns, from V vectors of rows down to a part of one.
template <class Rows, Size C, Size V>
consteval void set_tiles(ElementKernels<typename Rows::Element>& kernels, Size group) {
  kernels.tile[group][V] = Tile<Rows, V, C>::run;
  if constexpr (V != 0) {
    set_tiles<Rows, C, V - 1>(kernels, group);
  }
}

template <class Rows, Size C>
consteval void set_groups(ElementKernels<typename Rows::Element>& kernels, Size group) {
  static_assert(Rows::shape.vectors <= max_vectors);
  set_tiles<Rows, C, Rows::shape.vectors>(kernels, group);
  if constexpr (C > 1) {
    set_groups<Rows, C / 2>(kernels, group + 1);
  }
}

template <class Rows>
consteval auto kernels_of() {
  using Element = Rows::Element;
  ElementKernels<Element> kernels{};
  kernels.shape = Rows::shape;
  kernels.width = Rows::width;
  set_groups<Rows, Rows::shape.columns>(kernels, 0);
  kernels.pack_adjacent = Panel<Rows>::pack_adjacent;
  kernels.pack_transposed = Panel<Rows>::pack_transposed;
  // Complete blocks of the transposition where that leaves little of the memory unused.
  const Size row_bytes = kernels.rows() * sizeof(Element);
  const Size limit = piece_bytes / row_bytes;
  const Size complete = round_down(limit, Panel<Rows>::side);
  kernels.piece_depth = 4 * complete >= 3 * limit ? complete : limit;
  const Size pieces = min(min(max_pieces, panel_bytes / (kernels.piece_depth * row_bytes)),
                          round_up(max_depth_block, kernels.piece_depth) / kernels.piece_depth);
  kernels.depth_block = min(kernels.piece_depth * pieces, max_depth_block);
  const Size depth_bytes = kernels.depth_block * sizeof(Element);
  kernels.row_block = round_up(a_block_bytes / depth_bytes, kernels.rows());
  kernels.column_block = round_up(b_block_bytes / depth_bytes, kernels.shape.columns);
  kernels.columns_worth_packing = Rows::columns_worth_packing;
  return kernels;
}

template <template <class> class Lanes>
consteval Kernels kernels_with(bool tiles_serve_packed) {
  // A chunk of a packed product fits the pieces of one tile's operand.
  static_assert(kernels_of<RealRows<Lanes<double>>>().piece_depth * max_pieces >= depth_chunk);
  return {kernels_of<RealRows<Lanes<float>>>(),
          kernels_of<RealRows<Lanes<double>>>(),
          kernels_of<ComplexRows<Lanes<float>>>(),
          kernels_of<ComplexRows<Lanes<double>>>(),
          {MatrixVectorKernel<Lanes<double>, Layout::n>::multiply,
           MatrixVectorKernel<Lanes<double>, Layout::t>::multiply},
          tiles_serve_packed};
}

}  // namespace ksomd::matmul
