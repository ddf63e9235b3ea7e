// The variants of the portable kernels, best first, and the choice among them.
#pragma once

#include "cpu/feature_set.h"
#include "matmul/matrix_vector.h"
#include "matmul/register_tile.h"

namespace ksomd::matmul {

// P += op(A) * op(B) or, with Sums::overwrite, P = op(A) * op(B). No extent is zero, and P overlaps
// neither operand.
template <class Element>
using Multiply = void (*)(const Product<Element>& x, Sums sums);

// The kernels of one element type, by the letters of A and B: [0] is n, [1] is t.
template <class Element>
struct ElementKernels {
  Multiply<Element> multiply[2][2];
};

// P = op(A) * op(B) through packed panels, for complete groups of four rows and columns; the other
// rows and columns are not touched. `columns` are handled per pass.
using MultiplyPacked = void (*)(const Product<double>& x, const PanelMemory& memory, Size columns);

// One variant: the features of word 0 that it requires, and its kernels.
struct Variant {
  const char* name;
  std::uint64_t required;
  ElementKernels<float> r4;
  ElementKernels<double> r8;
  ElementKernels<Complex<float>> c4;
  ElementKernels<Complex<double>> c8;
  MultiplyPacked packed[2][2];  // none: the exported packing routines and tile kernels serve
  void (*matrix_vector[2])(const MatrixVector& z);  // by the letter of A
};

[[gnu::visibility("hidden")]] extern const Variant avx512;
[[gnu::visibility("hidden")]] extern const Variant avx;
[[gnu::visibility("hidden")]] extern const Variant baseline;

// Best first; the last row, the baseline, requires nothing.
[[gnu::visibility("hidden")]] extern const Variant* const variants[];
[[gnu::visibility("hidden")]] extern const Size variant_count;

// The row in use: empty (null) until the first product. Racing first calls store the same address.
[[gnu::visibility("hidden")]] extern const Variant* variant_slot;
const Variant& chosen_variant();

// The first variant whose features are all among `features`, word 0 of the indicator.
const Variant& choose_variant(std::uint64_t features);

}  // namespace ksomd::matmul

extern "C" {

// Exported as NAME.A: P = op(A) * op(B), portable.
#define KSOMD_DECLARE(code, element, a, b)                                              \
  void _MATMUL_##code##_##a##_##b##_portable(                                           \
      const element* A, const element* B, element* P, std::uint64_t m, std::uint64_t k, \
      std::uint64_t n, std::uint64_t lda, std::uint64_t ldb, std::uint64_t ldp);
KSOMD_MATMUL_EACH(KSOMD_DECLARE)
#undef KSOMD_DECLARE

}  // extern "C"
