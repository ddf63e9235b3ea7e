// The exported portable kernels, and the choice of their variant.
#include "matmul/kernels.h"

#include <cstring>

namespace ksomd::matmul {

const Variant* const variants[] = {&baseline};
const Size variant_count = sizeof variants / sizeof *variants;

const Variant& choose_variant(std::uint64_t features) {
  const Variant* const* row = variants;
  // The last row requires nothing. NOLINTNEXTLINE(clang-analyzer-security.ArrayBound)
  while (((*row)->required & features) != (*row)->required) {
    ++row;
  }
  return **row;
}

namespace {

constexpr int n = 0;
constexpr int t = 1;

const Variant& chosen() {
  return choose_variant(feature_word());
}

template <class Element>
void clear(Element* p, Size rows, Size columns, Size ldp) {
  for (Size j = 0; j < columns && rows != 0; ++j) {
    std::memset(p + j * ldp, 0, rows * sizeof(Element));
  }
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd::matmul;

#define KSOMD_DEFINE(code, element, letter_a, letter_b)                                         \
  void _MATMUL_##code##_##letter_a##_##letter_b##_pst_General(                                  \
      const element* a, const element* b, element* p, Size rows, Size columns, Size depth,      \
      Size lda, Size ldb, Size ldp) {                                                           \
    chosen().code.accumulate[letter_a][letter_b](a, b, p, rows, columns, depth, lda, ldb, ldp); \
  }
KSOMD_MATMUL_EACH(KSOMD_DEFINE)
#undef KSOMD_DEFINE

void _MATMUL_r4_n_n_pst_init(float* p, Size rows, Size columns, Size ldp) {
  clear(p, rows, columns, ldp);
}
void _MATMUL_r8_n_n_pst_init(double* p, Size rows, Size columns, Size ldp) {
  clear(p, rows, columns, ldp);
}
void _MATMUL_c4_n_n_pst_init(ksomd_c4* p, Size rows, Size columns, Size ldp) {
  clear(p, rows, columns, ldp);
}
void _MATMUL_c8_n_n_pst_init(ksomd_c8* p, Size rows, Size columns, Size ldp) {
  clear(p, rows, columns, ldp);
}

void MATMUL_v_nn_pst(const double* a, const double* x, double* y, Size m, Size k, Stride lda) {
  chosen().matrix_vector[n]({a, x, y, m, k, lda, 1});
}
void MATMUL_v_tn_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda) {
  chosen().matrix_vector[t]({a, x, y, m, k, lda, 1});
}
void MATMUL_v_nt_pst(const double* a, const double* x, double* y, Size m, Size k, Stride lda,
                     Stride incx) {
  chosen().matrix_vector[n]({a, x, y, m, k, lda, incx});
}
void MATMUL_v_tt_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda,
                     Stride incx) {
  chosen().matrix_vector[t]({a, x, y, m, k, lda, incx});
}
