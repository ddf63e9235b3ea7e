// Register tiles: the inner loops of every variant.
//
// The contract of a tile: it computes the sums of the products of `depth` consecutive indices l, in
// increasing order, for some rows and columns of P, each product and each sum rounded by itself;
// sums stay in registers until all of `depth` is done. P overlaps neither operand. A lane past the
// last row repeats that row, so no lane computes anything (or raises any floating-point flag) that
// the product itself does not.
#pragma once

#include "matmul/blocking.h"

namespace ksomd::matmul {

// What becomes of P.
enum class Sums {
  overwrite,   // sums start from zero and replace P
  on_cleared,  // as resume, on a P of zeros, which is not read
  resume,      // sums start from P's elements and replace them; sums apart are added to them
  add_old,     // sums start from zero; P = sum + P
};

// op(A)(i, l) is a[s][i + (l % segment) * a_depth] with s = l / segment: op(A) may lie in several
// pieces. op(B)(l, j) is b[s][(l % segment) * b_depth + j * b_column].
template <class Element>
struct TileCall {
  const Element* a[max_segments];
  Size segment;
  Size a_depth;
  const Element* b[max_segments];
  Size b_depth;
  Size b_column;
  Element* p;
  Size ldp;
  Size depth;
  Sums sums;      // not on_cleared
  bool add_zero;  // the sums are added to zero last, which takes a subnormal one for zero in a mode
                  // of the caller's
  Size part;      // rows of a part of a vector
  Size p_ahead;   // from this tile's place in P to the next one's
  Size b_ahead;   // from this tile's op(B) to the next one's, if that should be asked for
};

// The same tile, one complex element after the other, each product the builtin's.
template <class Element>
void multiply_tile_in_order(const TileCall<Element>& call, Size rows, Size columns);

// `width` rows of one column, or one value in all rows: what the tiles are made of.
template <class Lanes>
struct RealRows {
  using Element = Lanes::Real;
  using Vector = Lanes::Vector;
  using Shuffles = Lanes::Shuffles;
  static constexpr Size width = Lanes::width;
  static constexpr TileShape shape = Lanes::real;
  Vector v;

  static constexpr int unroll = Lanes::unroll;
  static constexpr Size depth_ahead = Lanes::depth_ahead;
  static constexpr Size columns_worth_packing = Lanes::columns_worth_packing;

  KSOMD_INLINE static void copy(Element* to, const Element* from) { load(from).store(to); }
  KSOMD_INLINE static RealRows zero() { return {Lanes::zero()}; }
  KSOMD_INLINE static RealRows broadcast(const Element* p) { return {Lanes::broadcast(*p)}; }
  KSOMD_INLINE static RealRows load(const Element* p) { return {Lanes::load(p)}; }
  KSOMD_INLINE static RealRows load_part(const Element* p, Size rows) {
    return {Lanes::load_part(p, rows, Lanes::broadcast(p[rows - 1]))};
  }
  KSOMD_INLINE void store(Element* p) const { Lanes::store(p, v); }
  KSOMD_INLINE void store_part(Element* p, Size rows) const { Lanes::store_part(p, rows, v); }
  KSOMD_INLINE static RealRows add(RealRows x, RealRows y) { return {Lanes::add(x.v, y.v)}; }
  KSOMD_INLINE static RealRows multiply(RealRows x, RealRows y) {
    return {Lanes::multiply(x.v, y.v)};
  }
};

// Complex products follow the compiler's builtin for every operand. It differs from the plain
// formula only where both parts of the plain product are NaN, and then both parts of the sum are
// NaN from there on, which raises nothing more: so the tile uses the plain formula, and only where
// a sum ends with both parts NaN the tile is done again with the builtin, before anything is
// stored.
template <class Lanes>
struct ComplexRows {
  using Real = Lanes::Real;
  using Element = Complex<Real>;
  using Vector = Lanes::Vector;
  using Shuffles = Lanes::Shuffles;
  static constexpr Size width = Lanes::width;
  static constexpr TileShape shape = Lanes::complex;
  Vector re;
  Vector im;

  static constexpr int unroll = Lanes::unroll;
  static constexpr Size depth_ahead = Lanes::depth_ahead;
  static constexpr Size columns_worth_packing = Lanes::columns_worth_packing;

  KSOMD_INLINE static void copy(Element* to, const Element* from) {
    Lanes::store(&to->re, Lanes::load(&from->re));
    Lanes::store(&to->re + width, Lanes::load(&from->re + width));
  }
  KSOMD_INLINE static ComplexRows zero() { return {Lanes::zero(), Lanes::zero()}; }
  KSOMD_INLINE static ComplexRows broadcast(const Element* p) {
    return {Lanes::broadcast(p->re), Lanes::broadcast(p->im)};
  }
  KSOMD_INLINE static ComplexRows load(const Element* p) {
    return split(Lanes::load(&p->re), Lanes::load(&p->re + width));
  }
  KSOMD_INLINE static ComplexRows load_part(const Element* p, Size rows) {
    const Vector rest = Lanes::broadcast_pair(&p[rows - 1].re);
    const Size values = 2 * rows;
    return split(Lanes::load_part(&p->re, min(values, width), rest),
                 Lanes::load_part(&p->re + width, values - min(values, width), rest));
  }
  KSOMD_INLINE void store(Element* p) const {
    Vector first;
    Vector second;
    Lanes::join(re, im, first, second);
    Lanes::store(&p->re, first);
    Lanes::store(&p->re + width, second);
  }
  KSOMD_INLINE void store_part(Element* p, Size rows) const {
    Vector first;
    Vector second;
    Lanes::join(re, im, first, second);
    const Size values = 2 * rows;
    Lanes::store_part(&p->re, min(values, width), first);
    Lanes::store_part(&p->re + width, values - min(values, width), second);
  }
  KSOMD_INLINE static ComplexRows add(ComplexRows x, ComplexRows y) {
    return {Lanes::add(x.re, y.re), Lanes::add(x.im, y.im)};
  }
  KSOMD_INLINE static ComplexRows multiply(ComplexRows x, ComplexRows y) {
    return {Lanes::subtract(Lanes::multiply(x.re, y.re), Lanes::multiply(x.im, y.im)),
            Lanes::add(Lanes::multiply(x.re, y.im), Lanes::multiply(x.im, y.re))};
  }
  KSOMD_INLINE bool any_both_nan() const { return Lanes::any_both_nan(re, im); }

 private:
  KSOMD_INLINE static ComplexRows split(Vector first, Vector second) {
    ComplexRows rows;
    Lanes::split(first, second, rows.re, rows.im);
    return rows;
  }
};

template <class Rows>
struct Tile {
  using Element = Rows::Element;
  using Call = TileCall<Element>;
  static constexpr Size width = Rows::width;

  // V vectors of rows (of the last, if `part`, its first call.part rows), C columns.
  template <Size V, Size C, bool part>
  [[gnu::noinline]] static void run(const Call& call) {
    Rows sum[V][C];
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < V; ++v) {
        sum[v][c] = call.sums == Sums::resume
                        ? load<part>(call.p + c * call.ldp + v * width, call.part)
                        : Rows::zero();
      }
    }
    add_products<V, C, part>(call, sum);
    if (call.add_zero) [[unlikely]] {
      for (Size c = 0; c < C; ++c) {
        for (Size v = 0; v < V; ++v) {
          sum[v][c] = Rows::add(sum[v][c], Rows::zero());
        }
      }
    }
    for (Size c = 0; c < C && call.sums == Sums::add_old; ++c) {
      for (Size v = 0; v < V; ++v) {
        sum[v][c] = Rows::add(sum[v][c], load<part>(call.p + c * call.ldp + v * width, call.part));
      }
    }
    if constexpr (is_complex<Element>) {
      bool lost = false;
      for (Size c = 0; c < C; ++c) {
        for (Size v = 0; v < V; ++v) {
          lost |= sum[v][c].any_both_nan();
        }
      }
      if (lost) [[unlikely]] {
        multiply_tile_in_order(call, part ? call.part : V * width, C);
        return;
      }
    }
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < V; ++v) {
        Element* p = call.p + c * call.ldp + v * width;
        if constexpr (part) {
          sum[v][c].store_part(p, call.part);
        } else {
          sum[v][c].store(p);
        }
      }
    }
  }

 private:
  template <bool part>
  KSOMD_INLINE static Rows load(const Element* p, [[maybe_unused]] Size rows) {
    if constexpr (part) {
      return Rows::load_part(p, rows);
    } else {
      return Rows::load(p);
    }
  }

  template <Size V, Size C, bool part>
  KSOMD_INLINE static void add_products(const Call& call, Rows (&sum)[V][C]) {
    const Size a_depth = call.a_depth;
    const Size b_depth = call.b_depth;
    const Size b_column = call.b_column;
    const Size rows_in_part = call.part;
    Size left = call.depth;
    for (Size s = 0; left != 0; ++s) {
      const Element* a = call.a[s];
      const Element* b = call.b[s];
      const Size steps = min(left, call.segment);
      left -= steps;
      if (s < C) {
        prefetch_next<V>(call, s);
      }
#pragma clang loop unroll_count(Rows::unroll)
      for (Size l = steps; l != 0; --l) {
        if constexpr (Rows::depth_ahead != 0) {
          for (Size row = 0; row < V * width; row += 64 / sizeof(Element)) {
            __builtin_prefetch(a + Rows::depth_ahead * a_depth + row);
          }
        }
        // The operand with fewer vectors stays in registers.
        if constexpr (V < C) {
          Rows rows[V];
          for (Size v = 0; v < V; ++v) {
            rows[v] = load<part>(a + v * width, rows_in_part);
          }
          for (Size c = 0; c < C; ++c) {
            const Rows factor = Rows::broadcast(b + c * b_column);
            for (Size v = 0; v < V; ++v) {
              sum[v][c] = Rows::add(sum[v][c], Rows::multiply(rows[v], factor));
            }
          }
        } else {
          Rows factor[C];
          for (Size c = 0; c < C; ++c) {
            factor[c] = Rows::broadcast(b + c * b_column);
          }
          for (Size v = 0; v < V; ++v) {
            const Rows rows = load<part>(a + v * width, rows_in_part);
            for (Size c = 0; c < C; ++c) {
              sum[v][c] = Rows::add(sum[v][c], Rows::multiply(rows, factor[c]));
            }
          }
        }
        a += a_depth;
        b += b_depth;
      }
    }
  }

  // Asks, a column at a time, for what the next tile reads: with a leading dimension of some
  // kilobytes its lines share few cache sets, and no hardware prefetcher follows such strides.
  template <Size V>
  KSOMD_INLINE static void prefetch_next(const Call& call, Size column) {
    constexpr Size line = 64 / sizeof(Element);
    const Element* p = call.p + call.p_ahead + column * call.ldp;
    for (Size row = 0; row < V * width; row += line) {
      __builtin_prefetch(p + row, 1);
    }
    __builtin_prefetch(p + V * width - 1, 1);
    if (call.b_ahead != 0) {
      const Element* b = call.b[0] + call.b_ahead + column * call.b_column;
      for (Size l = 0; l < call.depth; l += line) {
        __builtin_prefetch(b + l);
      }
    }
  }
};

}  // namespace ksomd::matmul
