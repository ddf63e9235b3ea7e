// Double-precision matrix-vector products: y = op(A) * x.
//
// y is cleared first and then filled, each sum in increasing order of l. Strides are signed. Where
// y overlaps A or x, the plain loops run, so that cleared and finished elements of y are read back
// as operands in that order.
#pragma once

#include "matmul/pack/transpose.h"

namespace ksomd::matmul {

// Whether y lies apart from the `count` runs of `run` elements that start `stride` apart.
KSOMD_INLINE bool apart(const MatrixVector& z, const double* start, Size count, Size run,
                        Stride stride) {
  if (count == 0 || run == 0) {
    return true;
  }
  const Stride reach = static_cast<Stride>(count - 1) * stride;
  const double* first = start + (reach < 0 ? reach : 0);
  const auto length = static_cast<Size>(reach < 0 ? -reach : reach) + run;
  return !overlap(z.y, z.m * sizeof(double), first, length * sizeof(double));
}

template <class Lanes, Layout a_layout>
struct MatrixVectorKernel {
  using Vector = Lanes::Vector;
  static constexpr Size width = Lanes::width;
  static constexpr bool as_is = a_layout == Layout::n;
  static constexpr Stride columns_at_once = 4;

  static void multiply(const MatrixVector& z) {
    for (Size i = 0; i < z.m; ++i) {
      z.y[i] = 0;
    }
    const bool free =
        apart(z, z.a, as_is ? z.k : z.m, as_is ? z.m : z.k, z.lda) && apart(z, z.x, z.k, 1, z.incx);
    const auto rows = static_cast<Stride>(z.m);
    if constexpr (as_is) {
      const auto depth = static_cast<Stride>(z.k);
      Stride l = 0;
      for (; free && l + columns_at_once <= depth; l += columns_at_once) {
        add_columns(z, l);
      }
      for (; l < depth; ++l) {
        for (Stride i = 0; i < rows; ++i) {
          z.y[i] += z.a[i + l * z.lda] * z.x[l * z.incx];
        }
      }
    } else {
      constexpr auto at_once = static_cast<Stride>(rows_at_once);
      Stride i = 0;
      for (; free && i + at_once <= rows; i += at_once) {
        add_rows(z, i);
      }
      for (; i < rows; ++i) {
        add_row(z, i, 0);
      }
    }
  }

  // y += the contributions of a few columns of A, in order.
  static void add_columns(const MatrixVector& z, Stride l) {
    double factor[columns_at_once];
    Vector factors[columns_at_once];
    for (Stride c = 0; c < columns_at_once; ++c) {
      factor[c] = z.x[(l + c) * z.incx];
      factors[c] = Lanes::broadcast(factor[c]);
    }
    const double* a = z.a + l * z.lda;
    Size i = 0;
    for (; i + width <= z.m; i += width) {
      Vector sum = Lanes::load(z.y + i);
      for (Stride c = 0; c < columns_at_once; ++c) {
        sum = Lanes::add(sum, Lanes::multiply(Lanes::load(a + i + c * z.lda), factors[c]));
      }
      Lanes::store(z.y + i, sum);
    }
    for (; i < z.m; ++i) {
      double sum = z.y[i];
      for (Stride c = 0; c < columns_at_once; ++c) {
        sum += a[static_cast<Stride>(i) + c * z.lda] * factor[c];
      }
      z.y[i] = sum;
    }
  }

  static constexpr Size vectors = 4;
  static constexpr Size rows_at_once = vectors * width;

  // Sums of a few rows of op(A) side by side, through small transposed blocks.
  static void add_rows(const MatrixVector& z, Stride i) {
    Vector sum[vectors];
    for (Size v = 0; v < vectors; ++v) {
      sum[v] = Lanes::load(z.y + i + v * width);
    }
    const Size whole = round_down(z.k, width);
    for (Size l = 0; l < whole; l += width) {
      Vector factor[width];
      for (Size step = 0; step < width; ++step) {
        factor[step] = Lanes::broadcast(z.x[static_cast<Stride>(l + step) * z.incx]);
      }
      for (Size v = 0; v < vectors; ++v) {
        alignas(64) double block[width * width];
        BlockTranspose<typename Lanes::Shuffles, sizeof(double)>::run(
            z.a + static_cast<Stride>(l) + (i + static_cast<Stride>(v * width)) * z.lda, z.lda,
            block, width);
        for (Size step = 0; step < width; ++step) {
          sum[v] =
              Lanes::add(sum[v], Lanes::multiply(Lanes::load(block + step * width), factor[step]));
        }
      }
    }
    for (Size v = 0; v < vectors; ++v) {
      Lanes::store(z.y + i + v * width, sum[v]);
    }
    for (Size row = 0; row < rows_at_once && whole < z.k; ++row) {
      add_row(z, i + static_cast<Stride>(row), whole);
    }
  }

  static void add_row(const MatrixVector& z, Stride i, Size from) {
    double sum = z.y[i];
    for (auto l = static_cast<Stride>(from); l < static_cast<Stride>(z.k); ++l) {
      sum += z.a[l + i * z.lda] * z.x[l * z.incx];
    }
    z.y[i] = sum;
  }
};

}  // namespace ksomd::matmul
