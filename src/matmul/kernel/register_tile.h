// Register tiles: the inner loops of every instruction set. TileKernel in matmul/contract.h says
// what they compute.
#pragma once

#include "matmul/contract.h"

namespace ksomd::matmul {

// The same tile, one complex element after the other: matmul/reference/in_order.h.
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

// Complex products are those of the compiler's builtin, but a tile computes them by the plain
// formula. The two differ only where both parts of the plain product are NaN. Both parts of the sum
// are then NaN, stay so, and raise nothing more. So a tile in which a sum ends with both parts NaN
// is computed again with the builtin, before anything is stored.
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

// V vectors of rows, C columns. V = 0 stands for less than a vector: the first call.rows rows of
// one.
template <class Rows, Size V, Size C>
struct Tile {
  using Element = Rows::Element;
  using Call = TileCall<Element>;
  static constexpr bool part = V == 0;
  static constexpr Size vectors = part ? 1 : V;
  static constexpr Size width = Rows::width;

  static void run(const Call& call) {
    // The compiler must unroll every loop over `sum`, or it keeps the sums in memory.
    Rows sum[vectors][C];
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < vectors; ++v) {
        sum[v][c] =
            call.sums.start == Start::old ? load(p_at(call, v, c), call.rows) : Rows::zero();
      }
    }
    add_products(call, sum);
    if (call.sums.finish == Finish::plus_zero) [[unlikely]] {
      for (Size c = 0; c < C; ++c) {
        for (Size v = 0; v < vectors; ++v) {
          sum[v][c] = Rows::add(sum[v][c], Rows::zero());
        }
      }
    }
    if (call.sums.finish == Finish::add_old) {
      for (Size c = 0; c < C; ++c) {
        for (Size v = 0; v < vectors; ++v) {
          sum[v][c] = Rows::add(sum[v][c], load(p_at(call, v, c), call.rows));
        }
      }
    }
    if constexpr (is_complex<Element>) {
      bool lost = false;
      for (Size c = 0; c < C; ++c) {
        for (Size v = 0; v < vectors; ++v) {
          lost |= sum[v][c].any_both_nan();
        }
      }
      if (lost) [[unlikely]] {
        multiply_tile_in_order(call, part ? call.rows : V * width, C);
        return;
      }
    }
    for (Size c = 0; c < C; ++c) {
      for (Size v = 0; v < vectors; ++v) {
        if constexpr (part) {
          sum[v][c].store_part(p_at(call, v, c), call.rows);
        } else {
          sum[v][c].store(p_at(call, v, c));
        }
      }
    }
  }

 private:
  KSOMD_INLINE static Element* p_at(const Call& call, Size v, Size c) {
    return call.p.start + c * call.p.leading + v * width;
  }

  KSOMD_INLINE static Rows load(const Element* p, [[maybe_unused]] Size rows) {
    if constexpr (part) {
      return Rows::load_part(p, rows);
    } else {
      return Rows::load(p);
    }
  }

  KSOMD_INLINE static void add_products(const Call& call, Rows (&sum)[vectors][C]) {
    const Size a_step = call.a.depth_step;
    const Size b_step = call.b.depth_step;
    const Size b_column = call.b.column_step;
    const Size row_count = call.rows;
    Size left = call.depth;
    for (Size s = 0; left != 0; ++s) {
      const Element* a = call.a.piece[s];
      const Element* b = call.b.piece[s];
      const Size steps = min(left, call.piece_depth);
      left -= steps;
      if (s < C) {
        prefetch_next(call, s);
      }
#pragma clang loop unroll_count(Rows::unroll)
      for (Size l = steps; l != 0; --l) {
        if constexpr (Rows::depth_ahead != 0) {
          for (Size row = 0; row < vectors * width; row += 64 / sizeof(Element)) {
            __builtin_prefetch(a + Rows::depth_ahead * a_step + row);
          }
        }
        // The operand with fewer vectors stays in registers.
        if constexpr (vectors < C) {
          Rows rows[vectors];
          for (Size v = 0; v < vectors; ++v) {
            rows[v] = load(a + v * width, row_count);
          }
          for (Size c = 0; c < C; ++c) {
            const Rows factor = Rows::broadcast(b + c * b_column);
            for (Size v = 0; v < vectors; ++v) {
              sum[v][c] = Rows::add(sum[v][c], Rows::multiply(rows[v], factor));
            }
          }
        } else {
          Rows factor[C];
          for (Size c = 0; c < C; ++c) {
            factor[c] = Rows::broadcast(b + c * b_column);
          }
          for (Size v = 0; v < vectors; ++v) {
            const Rows rows = load(a + v * width, row_count);
            for (Size c = 0; c < C; ++c) {
              sum[v][c] = Rows::add(sum[v][c], Rows::multiply(rows, factor[c]));
            }
          }
        }
        a += a_step;
        b += b_step;
      }
    }
  }

  // Prefetches, a column at a time, what the next tile reads: with a leading dimension of some
  // kilobytes its lines share few cache sets, and no hardware prefetcher follows such strides.
  KSOMD_INLINE static void prefetch_next(const Call& call, Size column) {
    constexpr Size line = 64 / sizeof(Element);
    const Element* p = p_at(call, 0, column) + call.p.ahead;
    for (Size row = 0; row < vectors * width; row += line) {
      __builtin_prefetch(p + row, 1);
    }
    __builtin_prefetch(p + vectors * width - 1, 1);
    if (call.b.ahead != 0) {
      const Element* b = call.b.piece[0] + call.b.ahead + column * call.b.column_step;
      for (Size l = 0; l < call.depth; l += line) {
        __builtin_prefetch(b + l);
      }
    }
  }
};

}  // namespace ksomd::matmul
