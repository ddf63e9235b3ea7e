// Every block size and threshold of the matrix products.
#pragma once

#include "matmul/contract.h"

namespace ksomd::matmul {

// ---- portable products --------------------------------------------------------------------------

// Rows and depth of a block in the order of operations that overlapping operands show.
inline constexpr Size order_block = 128;
// Products whose sums enter an element of P together in that order.
inline constexpr Size order_group = 4;

// Products with no extent above this are left to plain loops.
inline constexpr Size small_extent = 3;

// A panel of op(A), for one tile's rows, lies on the stack in several pieces, each in its own
// frame, which is smaller than a page. Together they leave room in a first-level cache of 32 KiB.
inline constexpr Size piece_bytes = 3584;
inline constexpr Size panel_bytes = 24576;

// The largest depth of a block. A block of op(B) stays in the second-level cache while all rows
// pass by. Where op(A) is read in place, a block of op(A) does while all columns pass by.
inline constexpr Size max_depth_block = 128;
inline constexpr Size b_block_bytes = 393216;
inline constexpr Size a_block_bytes = 262144;

// Columns of op(B) that are stored across the depth are packed if at least so many tiles read them
// and the values of a column lie at least so many bytes apart. Their cache lines then share a few
// sets of the cache. Values that lie nearer are read as fast in place (measured).
inline constexpr Size tiles_worth_packing = 3;
inline constexpr Size stride_worth_packing = 2048;

// ---- packed double precision --------------------------------------------------------------------

// Smaller products go to the portable kernels.
inline constexpr Size packed_min_rows = 34;
inline constexpr Size packed_min_columns = 38;
inline constexpr Size packed_min_depth = 38;

inline constexpr Size max_columns_per_pass = 2000;  // columns of P per pass
inline constexpr Size depth_chunk = 112;            // depth of a packed block
inline constexpr Size packed_rows = 260;            // rows of a packed block of op(A)
inline constexpr Size exported_tile = 4;            // rows and columns of an exported tile kernel

// The wide kernels pack columns of op(B) that are stored along the depth only if there are more
// rows than these. Two blocks of op(A) read them as fast in place (measured).
inline constexpr Size most_rows_with_b_in_place = 2 * packed_rows;

// The packed blocks of the exported routines have one panel per complete group of four rows of
// op(A), or columns of op(B), without gaps; a panel has an entry of four values per depth index,
// padded with zeros to a multiple of four entries. Rows and columns after the last complete group
// are not packed.
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
// Their tile kernels copy a panel of op(B) with every value written twice in a row, so that one
// aligned 16-byte load brings it into both lanes.
constexpr Size padded_depth(Size depth) {
  return round_up(depth, exported_tile);
}

// Depth of the chunk of a packed product that comes first.
constexpr Size tail_depth(Size depth) {
  return depth % depth_chunk == 0 ? depth_chunk : depth % depth_chunk;
}

// ---- the scratch of a packed product ------------------------------------------------------------

// One allocation holds three regions. Each begins at an aligned address in a margin of its own:
//
//     |<-2L->|<----- A ----->|<-2L->|<----- B ----->|<-2L->|<-- doubled -->|
//     |   ^  260 x 112 values|   ^  112 x columns   |   ^  112 x 8 values  |
//         aligned to 4096        4096                   128
//
// A region starts L bytes after the last aligned address at or before its margin. L is a multiple
// of the alignment, so the start is aligned and lies in the margin.
struct RegionSize {
  Size bytes;
  Size alignment;
  Size lead;  // L

  constexpr Size end(Size margin) const { return margin + 2 * lead + bytes; }
  constexpr std::uintptr_t start(std::uintptr_t margin) const {
    return round_down(margin, alignment) + lead;
  }
};

inline constexpr Size page = 4096;
inline constexpr Size column_bytes = depth_chunk * sizeof(double);

// Where the packed blocks of a product lie in its scratch, for so many columns per pass.
class ScratchLayout {
 public:
  constexpr explicit ScratchLayout(Size columns) : b_{columns * column_bytes, page, page} {}

  constexpr Size bytes() const { return doubled_.end(doubled_margin()); }
  constexpr std::uintptr_t a(std::uintptr_t scratch) const { return a_.start(scratch); }
  constexpr std::uintptr_t b(std::uintptr_t scratch) const {
    return b_.start(scratch + b_margin());
  }
  constexpr std::uintptr_t doubled(std::uintptr_t scratch) const {
    return doubled_.start(scratch + doubled_margin());
  }

 private:
  static constexpr RegionSize a_{round_up(packed_rows * column_bytes, page), page, page};
  static constexpr RegionSize doubled_{round_up(exported_tile * 2 * column_bytes, page), 128, 384};
  RegionSize b_;

  constexpr Size b_margin() const { return a_.end(0); }
  constexpr Size doubled_margin() const { return b_.end(b_margin()); }
};

// The size that the interface promises.
static_assert(ScratchLayout(0).bytes() == 258816);
static_assert(ScratchLayout(1).bytes() == 258816 + 896);
static_assert(ScratchLayout(0).b(0) == 241664 + page);
static_assert(ScratchLayout(0).doubled(0) == 249856 + 384);

}  // namespace ksomd::matmul
