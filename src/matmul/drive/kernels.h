// The kernel table, the choice among its rows, and the products below the entry points.
#pragma once

#include <span>

#include "dispatch/variant.h"
#include "matmul/contract.h"

namespace ksomd::matmul {

[[gnu::visibility("hidden")]] extern const Variant<const Kernels*> kernel_variants[3];

// The kernels in use, and their slot, which is null until the first product.
[[gnu::visibility("hidden")]] extern const Kernels* kernels_slot;
inline const Kernels& chosen_kernels() {
  const Kernels* const kernels = load_slot(kernels_slot);
  return kernels != nullptr ? *kernels : *fill_slot(kernels_slot, kernel_variants);
}

// P's old values: cleared, or what the products are added to.
enum class Old { cleared, added };

// P += op(A) * op(B), or P = op(A) * op(B), portable. P may overlap the operands.
void multiply_portable(const Product<double>& x, Old old);

// The entry points, which choose their second stage, and what chooses its kernels below them.
std::span<const DispatchingEntry> dispatching_entries();
std::span<const DispatchingEntry> kernel_entries();

}  // namespace ksomd::matmul

// The arguments of an exported routine, whatever their order, as a product.
#define KSOMD_PRODUCT(letter_a, letter_b) \
  {.a = {a, lda, Layout::letter_a},       \
   .b = {b, ldb, Layout::letter_b},       \
   .p = {p, ldp},                         \
   .m = m,                                \
   .n = n,                                \
   .k = k}

extern "C" {

// Exported as NAME.A: P = op(A) * op(B), portable.
#define KSOMD_DECLARE(code, element, a, b)                                              \
  void _MATMUL_##code##_##a##_##b##_portable(                                           \
      const element* A, const element* B, element* P, std::uint64_t m, std::uint64_t k, \
      std::uint64_t n, std::uint64_t lda, std::uint64_t ldb, std::uint64_t ldp);
KSOMD_MATMUL_EACH(KSOMD_DECLARE)
#undef KSOMD_DECLARE

}  // extern "C"
