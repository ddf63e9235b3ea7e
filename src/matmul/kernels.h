// The kernels of each instruction set, and the choice among them.
#pragma once

#include <span>

#include "dispatch/variant.h"
#include "matmul/matrix_vector.h"
#include "matmul/register_tile.h"

namespace ksomd::matmul {

// P += op(A) * op(B), or P = op(A) * op(B): any `sums` but add_old. No extent is zero, and P
// overlaps neither operand.
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

// The kernels of one instruction set.
struct Kernels {
  ElementKernels<float> r4;
  ElementKernels<double> r8;
  ElementKernels<Complex<float>> c4;
  ElementKernels<Complex<double>> c8;
  MultiplyPacked packed[2][2];  // none: the exported packing routines and tile kernels serve
  void (*matrix_vector[2])(const MatrixVector& z);  // by the letter of A
};

[[gnu::visibility("hidden")]] extern const Kernels avx512_kernels;
[[gnu::visibility("hidden")]] extern const Kernels avx_kernels;
[[gnu::visibility("hidden")]] extern const Kernels baseline_kernels;

[[gnu::visibility("hidden")]] extern const Variant<const Kernels*> kernel_variants[3];

// The kernels in use, and their slot, which is null until the first product.
[[gnu::visibility("hidden")]] extern const Kernels* kernels_slot;
const Kernels& chosen_kernels();

// The entry points, which choose their second stage, and what chooses its kernels below them.
std::span<const DispatchingEntry> dispatching_entries();
std::span<const DispatchingEntry> kernel_entries();

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
