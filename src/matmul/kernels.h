// The variants of the portable kernels, best first, and the choice among them.
#pragma once

#include "cpu/feature_set.h"
#include "matmul/matrix_vector.h"

namespace ksomd::matmul {

// P += op(A) * op(B).
template <class Element>
using Accumulate = void (*)(const Element* a, const Element* b, Element* p, Size m, Size n, Size k,
                            Size lda, Size ldb, Size ldp);

// The kernels of one element type, by the letters of A and B: [0] is n, [1] is t.
template <class Element>
struct ElementKernels {
  Accumulate<Element> accumulate[2][2];
};

// One variant: the features of word 0 that it requires, and its kernels.
struct Variant {
  const char* name;
  std::uint64_t required;
  ElementKernels<float> r4;
  ElementKernels<double> r8;
  ElementKernels<Complex<float>> c4;
  ElementKernels<Complex<double>> c8;
  void (*matrix_vector[2])(const MatrixVector& z);  // by the letter of A
};

[[gnu::visibility("hidden")]] extern const Variant baseline;

// Best first; the last row, the baseline, requires nothing.
[[gnu::visibility("hidden")]] extern const Variant* const variants[];
[[gnu::visibility("hidden")]] extern const Size variant_count;

// The first variant whose features are all among `features`, word 0 of the indicator.
const Variant& choose_variant(std::uint64_t features);

}  // namespace ksomd::matmul
