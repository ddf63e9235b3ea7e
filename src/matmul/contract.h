// What the stages of a matrix product hand to each other: operands, tile calls, and the kernels of
// an instruction set. README.md shows the stages.
//
// All matrices are column-major; a leading dimension counts elements. op(X) is X as stored, or its
// plain transpose. The result is P(m x n) from op(A)(m x k) and op(B)(k x n).
#pragma once

#include <cstddef>
#include <cstdint>

#include "ksomd/matmul.h"

// Files compiled for different instruction sets include this header. The linker keeps one copy of a
// shared function, perhaps one that this processor cannot run; so all that stands here is inlined.
#define KSOMD_INLINE [[gnu::always_inline]] inline

namespace ksomd::matmul {

using Size = std::uint64_t;
using Stride = std::int64_t;

// ---- elements and operands ----------------------------------------------------------------------

template <class Real>
struct ComplexOf;
template <>
struct ComplexOf<float> {
  using Type = ksomd_c4;
};
template <>
struct ComplexOf<double> {
  using Type = ksomd_c8;
};
template <class Real>
using Complex = ComplexOf<Real>::Type;

template <class Element>
inline constexpr bool is_complex = requires(Element x) { x.re; };

// The letter of an operand: stored as op(X) itself, or transposed.
enum class Layout { n, t };

// op(X), or the part of it that begins at `start`.
template <class Element>
struct Operand {
  const Element* start;
  Size leading;
  Layout layout;

  KSOMD_INLINE constexpr Size row_step() const { return layout == Layout::n ? 1 : leading; }
  KSOMD_INLINE constexpr Size column_step() const { return layout == Layout::n ? leading : 1; }
  KSOMD_INLINE constexpr const Element* at(Size row, Size column) const {
    return start + row * row_step() + column * column_step();
  }
  KSOMD_INLINE constexpr Operand from(Size row, Size column) const {
    return {at(row, column), leading, layout};
  }
  KSOMD_INLINE constexpr Operand transposed() const {
    return {start, leading, layout == Layout::n ? Layout::t : Layout::n};
  }
};

// P, or the part of it that begins at `start`.
template <class Element>
struct Result {
  Element* start;
  Size leading;

  KSOMD_INLINE constexpr Element* at(Size row, Size column) const {
    return start + row + column * leading;
  }
  KSOMD_INLINE constexpr Result from(Size row, Size column) const {
    return {at(row, column), leading};
  }
};

// One product. The exported routines differ in the order of m, n and k; behind them it has names.
template <class Element>
struct Product {
  Operand<Element> a;
  Operand<Element> b;
  Result<Element> p;
  Size m, n, k;
};

// y = op(A) * x. Strides are signed.
struct MatrixVector {
  const double* a;
  const double* x;
  double* y;
  Size m, k;
  Stride lda, incx;
};

// ---- what becomes of P --------------------------------------------------------------------------

// What the sum of an element's products starts from.
enum class Start { zero, old };
// How it ends.
enum class Finish {
  store,      // P = sum
  add_old,    // P = sum + P
  plus_zero,  // P = sum + 0.0. Under denormals-are-zero this turns a subnormal sum into 0.
};
struct Sums {
  Start start;
  Finish finish;
};

// ---- kernels ------------------------------------------------------------------------------------

// The most pieces in which an operand of a tile may lie.
inline constexpr Size max_pieces = 8;

// One call of a tile kernel: `depth` consecutive indices l, some rows and columns of P. Piece s of
// an operand holds the indices from s * piece_depth on:
//
//   op(A)(i, l) = a.piece[s][i + (l - s * piece_depth) * a.depth_step]
//   op(B)(l, j) = b.piece[s][(l - s * piece_depth) * b.depth_step + j * b.column_step]
template <class Element>
struct TileCall {
  struct {
    const Element* piece[max_pieces];
    Size depth_step;
  } a;
  struct {
    const Element* piece[max_pieces];
    Size depth_step;
    Size column_step;
    Size ahead;  // elements to the op(B) of the next tile; 0: do not prefetch it
  } b;
  struct {
    Element* start;
    Size leading;
    Size ahead;  // elements to the next tile's P
  } p;
  Size depth;
  Size piece_depth;
  Sums sums;
  Size rows;  // read by the kernels for less than one vector of rows
};

// Computes the sums of a tile's products in increasing order of l, each product and each sum
// rounded by itself; sums stay in registers until all of `depth` is done. P overlaps neither
// operand. A lane past the last row repeats that row, so no lane computes anything (or raises any
// floating-point flag) that the product itself does not.
template <class Element>
using TileKernel = void (*)(const TileCall<Element>& call);

// Packs `members` rows of op(A), or columns of op(B), side by side for each l:
// panel[member + l * panel_leading] = op(X)(member, l).
template <class Element>
using PackPanel = void (*)(const Element* source, Size leading, Size members, Size depth,
                           Element* panel, Size panel_leading);

// The register tile of full size: vectors of rows, and columns.
struct TileShape {
  Size vectors;
  Size columns;
};
inline constexpr Size max_vectors = 6;
// Column groups of a tile: all of its columns, half of them, a quarter, ...
inline constexpr Size max_groups = 4;

// The rows of one tile. `vectors` is 0 if they fill no vector.
struct TileRows {
  Size count;
  Size vectors;
};
// The columns of one tile.
struct TileColumns {
  Size count;
  Size group;
};

// The kernels of one element type and instruction set, and the sizes that suit them.
template <class Element>
struct ElementKernels {
  TileShape shape;
  Size width;                                             // rows of a vector
  TileKernel<Element> tile[max_groups][max_vectors + 1];  // [column group][TileRows::vectors]
  PackPanel<Element> pack_adjacent;    // the members are adjacent in the stored operand
  PackPanel<Element> pack_transposed;  // each member's values are
  Size piece_depth;                    // depth of a piece of op(A)
  Size depth_block;                    // depth of a cache block
  Size row_block;                      // rows of a block of op(A)
  Size column_block;                   // columns of a block of op(B)
  Size columns_worth_packing;          // op(A) stored as is is packed for so many columns

  KSOMD_INLINE constexpr Size rows() const { return shape.vectors * width; }

  // The rows of the next tile, when `left` rows are left: complete tiles, then the other complete
  // vectors, then the rest.
  KSOMD_INLINE constexpr TileRows next_rows(Size left) const {
    if (left >= rows()) {
      return {rows(), shape.vectors};
    }
    if (left >= width) {
      return {left - left % width, left / width};
    }
    return {left, 0};
  }

  // Its columns: as many as the largest column group that `left` columns fill.
  KSOMD_INLINE constexpr TileColumns next_columns(Size left) const {
    Size group = 0;
    Size count = shape.columns;
    while (count > left) {
      count /= 2;
      ++group;
    }
    return {count, group};
  }

  KSOMD_INLINE void pack(const Operand<Element>& x, Size members, Size depth, Element* panel,
                         Size panel_leading) const {
    const PackPanel<Element> routine = x.layout == Layout::n ? pack_adjacent : pack_transposed;
    routine(x.start, x.leading, members, depth, panel, panel_leading);
  }
};

// The kernels of one instruction set.
struct Kernels {
  ElementKernels<float> r4;
  ElementKernels<double> r8;
  ElementKernels<Complex<float>> c4;
  ElementKernels<Complex<double>> c8;
  void (*matrix_vector[2])(const MatrixVector& z);  // by the layout of A
  // Whether the tile kernels serve packed products, too. Otherwise the exported ones do.
  bool tiles_serve_packed;
};

[[gnu::visibility("hidden")]] extern const Kernels avx512_kernels;
[[gnu::visibility("hidden")]] extern const Kernels avx_kernels;
[[gnu::visibility("hidden")]] extern const Kernels baseline_kernels;

// ---- sizes --------------------------------------------------------------------------------------

KSOMD_INLINE constexpr Size min(Size x, Size y) {
  return x < y ? x : y;
}

KSOMD_INLINE constexpr Size round_down(Size value, Size unit) {
  return value - value % unit;
}

KSOMD_INLINE constexpr Size round_up(Size value, Size unit) {
  return round_down(value + unit - 1, unit);
}

// Whether two byte ranges share a byte.
KSOMD_INLINE bool overlap(const void* x, Size x_bytes, const void* y, Size y_bytes) {
  const auto x_start = reinterpret_cast<std::uintptr_t>(x);
  const auto y_start = reinterpret_cast<std::uintptr_t>(y);
  return x_start < y_start + y_bytes && y_start < x_start + x_bytes;
}

}  // namespace ksomd::matmul
