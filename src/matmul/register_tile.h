// Register tiles of the portable kernels.
//
// The contract of every tile, of any variant: a tile adds, to `rows` x `columns` elements of P, the
// products of `depth` consecutive indices l, in increasing order, each product and each sum rounded
// by itself; sums start from P's elements and stay in registers until all of `depth` is done. P
// overlaps neither operand. A lane past the last row repeats that row, so no lane computes anything
// (or raises any floating-point flag) that the product itself does not.
//
// `a` is a panel of op(A): for each l, `vectors` vectors of rows (complex: the real parts of a
// vector of rows, then the imaginary parts), `a_stride` values apart from one l to the next.
// op(B)(l, j) is b[l * b_depth + j * b_column], in elements.
#pragma once

#include "matmul/blocking.h"

namespace ksomd::matmul {

struct Steps {
  Size depth;
  Size column;
};

// P(i..., j...) from a panel of op(A) and elements of op(B).
template <class Real, class Element>
struct TileCall {
  const Real* a;
  Size a_stride;
  Size depth;
  const Element* b;
  Steps b_steps;
  Element* p;
  Size ldp;
};

template <class Lanes>
struct RealTile {
  using Real = Lanes::Real;
  using Vector = Lanes::Vector;
  using Element = Real;
  // 6 x 2 sums, one vector of op(A), two of op(B) and a product: 16 registers.
  static constexpr Size vectors = 6;
  static constexpr Size columns = 2;
  static constexpr bool reads_in_place = true;

  template <Size V, Size C>
  static void run(const TileCall<Real, Element>& call) {
    const Real* a = call.a;
    const Real* b = call.b;
    const Size b_depth = call.b_steps.depth;
    const Size b_column = call.b_steps.column;
    Vector sum[V][C];
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < V; ++v) {
        sum[v][c] = Lanes::load(call.p + c * call.ldp + v * Lanes::width);
      }
    }
    for (Size l = 0; l < call.depth; ++l) {
      Vector factor[C];
      for (Size c = 0; c < C; ++c) {
        factor[c] = Lanes::broadcast(b[c * b_column]);
      }
      for (Size v = 0; v < V; ++v) {
        const Vector rows = Lanes::load(a + v * Lanes::width);
        for (Size c = 0; c < C; ++c) {
          sum[v][c] = Lanes::add(sum[v][c], Lanes::multiply(rows, factor[c]));
        }
      }
      a += call.a_stride;
      b += b_depth;
    }
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < V; ++v) {
        Lanes::store(call.p + c * call.ldp + v * Lanes::width, sum[v][c]);
      }
    }
  }

  // Panel entries of a vector of consecutive rows, and of one row.
  static void pack_rows(Real* panel, const Element* rows) {
    Lanes::store(panel, Lanes::load(rows));
  }
  static void pack_one(Real* panel, Element x) { *panel = x; }
};

// Complex products follow the compiler's builtin for every operand. It differs from the plain
// formula only where both parts of the plain product are NaN, and then both parts of the sum are
// NaN from there on: so the tile uses the plain formula, and only where a sum ends with both parts
// NaN the tile is done again with the builtin, before anything is stored.
template <class Lanes>
struct ComplexTile {
  using Real = Lanes::Real;
  using Vector = Lanes::Vector;
  using Element = Complex<Real>;
  // 2 x 2 sums of two registers each, and six registers for factors and products.
  static constexpr Size vectors = 2;
  static constexpr Size columns = 2;
  static constexpr bool reads_in_place = false;

  template <Size V, Size C>
  static void run(const TileCall<Real, Element>& call) {
    constexpr Size width = Lanes::width;
    const Real* a = call.a;
    const Element* b = call.b;
    Vector re[V][C];
    Vector im[V][C];
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < V; ++v) {
        Lanes::split(&call.p[c * call.ldp + v * width].re, re[v][c], im[v][c]);
      }
    }
    for (Size l = 0; l < call.depth; ++l) {
      for (Size c = 0; c < C; ++c) {
        const Vector b_re = Lanes::broadcast(b[c * call.b_steps.column].re);
        const Vector b_im = Lanes::broadcast(b[c * call.b_steps.column].im);
        for (Size v = 0; v < V; ++v) {
          const Vector a_re = Lanes::load(a + v * 2 * width);
          const Vector a_im = Lanes::load(a + v * 2 * width + width);
          const Vector product_re =
              Lanes::subtract(Lanes::multiply(a_re, b_re), Lanes::multiply(a_im, b_im));
          const Vector product_im =
              Lanes::add(Lanes::multiply(a_re, b_im), Lanes::multiply(a_im, b_re));
          re[v][c] = Lanes::add(re[v][c], product_re);
          im[v][c] = Lanes::add(im[v][c], product_im);
        }
      }
      a += call.a_stride;
      b += call.b_steps.depth;
    }
    bool lost = false;
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < V; ++v) {
        lost |= Lanes::any_both_nan(re[v][c], im[v][c]);
      }
    }
    if (lost) [[unlikely]] {
      recover(call, V * width, C);
      return;
    }
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < V; ++v) {
        Lanes::join(&call.p[c * call.ldp + v * width].re, re[v][c], im[v][c]);
      }
    }
  }

  [[gnu::noinline]] static void recover(const TileCall<Real, Element>& call, Size rows,
                                        Size columns_here) {
    for (Size c = 0; c < columns_here; ++c) {
      for (Size row = 0; row < rows; ++row) {
        const Real* a = call.a + row / Lanes::width * 2 * Lanes::width + row % Lanes::width;
        const Element* b = call.b + c * call.b_steps.column;
        Element sum = call.p[c * call.ldp + row];
        for (Size l = 0; l < call.depth; ++l) {
          const Real* factor = a + l * call.a_stride;
          sum = add(sum,
                    multiply(Element{factor[0], factor[Lanes::width]}, b[l * call.b_steps.depth]));
        }
        call.p[c * call.ldp + row] = sum;
      }
    }
  }

  // Panel entries of a vector of consecutive rows, and of one row.
  static void pack_rows(Real* panel, const Element* rows) {
    Vector re;
    Vector im;
    Lanes::split(&rows->re, re, im);
    Lanes::store(panel, re);
    Lanes::store(panel + Lanes::width, im);
  }
  static void pack_one(Real* panel, Element x) {
    panel[0] = x.re;
    panel[Lanes::width] = x.im;
  }
};

}  // namespace ksomd::matmul
