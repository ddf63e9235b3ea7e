// Every block size and threshold of the matrix products.
#pragma once

#include "matmul/element.h"

namespace ksomd::matmul {

// ---- portable kernels ---------------------------------------------------------------------------

// Rows and depth of a block in the order of operations that overlapping operands show.
inline constexpr Size order_block = 128;
// Products whose sums enter an element of P together in that order.
inline constexpr Size order_group = 4;

// Products with no extent above this are left to plain loops.
inline constexpr Size small_extent = 3;

// The most pieces in which a tile's op(A) may lie.
inline constexpr Size max_segments = 8;

// A panel of op(A), for one tile's rows, lies on the stack in several pieces, each in a frame of
// its own below a page; together they leave room in a first-level cache of 32 KiB.
inline constexpr Size segment_bytes = 3584;
inline constexpr Size panel_bytes = 24576;

// Depth of a block at most. While all rows pass by, a block of op(B) stays in the second-level
// cache; where op(A) is read in place, a block of op(A) while all columns do.
inline constexpr Size depth_block = 128;
inline constexpr Size b_block_bytes = 393216;
inline constexpr Size a_block_bytes = 262144;

// Columns of op(B) that are stored across the depth are copied where at least so many tiles read
// them and the values of a column lie at least so many bytes apart: their lines then share a few
// sets of a cache. Measured: nearer ones are read as fast in place.
inline constexpr Size tiles_worth_packing = 3;
inline constexpr Size stride_worth_packing = 2048;

// ---- packed double precision --------------------------------------------------------------------

// Smaller products go to the portable kernels.
inline constexpr Size packed_min_rows = 34;
inline constexpr Size packed_min_columns = 38;
inline constexpr Size packed_min_depth = 38;

inline constexpr Size column_panel = 2000;  // columns of P per pass
inline constexpr Size depth_chunk = 112;    // depth of a packed block
inline constexpr Size row_chunk = 260;      // rows of a packed block of op(A)
inline constexpr Size tile = 4;             // rows and columns of a register tile

// The wide variants pack columns of op(B) that are stored along the depth for more rows than these
// only: two blocks of op(A) read them as fast in place.
inline constexpr Size rows_as_is = 2 * row_chunk;

// A packed block: one panel per complete group of four rows of op(A), or columns of op(B), without
// gaps; a panel has an entry of four values per depth index, padded with zeros to a multiple of
// four entries. Rows and columns after the last complete group are not packed.
//
//     panel g of op(A), depth d = 6, padded depth 8        (of op(B): the same, transposed)
//
//     entry 0   (4g, 0)  (4g+1, 0)  (4g+2, 0)  (4g+3, 0)    32 bytes
//     entry 1   (4g, 1)  (4g+1, 1)  (4g+2, 1)  (4g+3, 1)
//       ...
//     entry 5   (4g, 5)  (4g+1, 5)  (4g+2, 5)  (4g+3, 5)
//     entry 6      0         0          0          0
//     entry 7      0         0          0          0
//
// The tile kernels copy a panel of op(B) with every value written twice in a row, so that one
// aligned 16-byte load brings it into both lanes.
constexpr Size padded_depth(Size depth) {
  return round_up(depth, tile);
}

// The scratch of one product: one allocation, three regions.
//
//     start                                        nb = columns per pass
//     |..| packed A, at most 260 x 112 |..| packed B, 112 x nb |..| a panel of op(B), doubled |
//        4096-aligned                     4096-aligned            128-aligned
constexpr Size scratch_bytes(Size columns) {
  return columns * 896 + 258816;
}

struct ScratchRegions {
  std::uintptr_t a;
  std::uintptr_t b;
  std::uintptr_t doubled;
};

constexpr ScratchRegions scratch_regions(std::uintptr_t start, Size columns) {
  return {round_down(start, 4096) + 4096, round_down(start + 241664, 4096) + 4096,
          round_down(start + columns * 896 + 249856, 128) + 384};
}

// Where the packed blocks of a product lie.
struct PanelMemory {
  double* a;
  double* b;
};

// Depth of the chunk of a packed product that comes first.
constexpr Size tail_depth(Size depth) {
  return depth % depth_chunk == 0 ? depth_chunk : depth % depth_chunk;
}

}  // namespace ksomd::matmul
