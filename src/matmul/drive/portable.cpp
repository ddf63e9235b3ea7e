// The portable products and the matrix-vector products. Portable is their contract: P may overlap
// the operands, and no memory is needed. The kernels are those of the processor.
#include <cstring>

#include "matmul/drive/blocked.h"
#include "matmul/drive/kernels.h"
#include "matmul/reference/in_order.h"
#include "second_names.h"

namespace ksomd::matmul {

namespace {

template <class Element>
[[gnu::noinline]] void clear(Result<Element> p, Size rows, Size columns) {
  for (Size j = 0; j < columns && rows != 0; ++j) {
    std::memset(p.at(0, j), 0, rows * sizeof(Element));
  }
}

// Bytes from the first to the last element of op(X), which is not empty.
template <class Element>
KSOMD_INLINE Size span_bytes(const Operand<Element>& x, Size rows, Size columns) {
  const Size count = (rows - 1) * x.row_step() + (columns - 1) * x.column_step() + 1;
  return count * sizeof(Element);
}

template <class Element>
KSOMD_INLINE bool p_overlaps(const Product<Element>& x) {
  const Size p_bytes = span_bytes<Element>({x.p.start, x.p.leading, Layout::n}, x.m, x.n);
  // Columns of P that share elements overlap each other.
  return (x.p.leading < x.m && x.n > 1) ||
         overlap(x.p.start, p_bytes, x.a.start, span_bytes(x.a, x.m, x.k)) ||
         overlap(x.p.start, p_bytes, x.b.start, span_bytes(x.b, x.k, x.n));
}

// The sums that the order of operations asks for. For t_t the sum is formed by itself and then
// added to P, even where P was cleared; otherwise P receives one product after the other.
template <class Element>
KSOMD_INLINE Sums sums_of(const Product<Element>& x, Old old) {
  const bool apart = x.a.layout == Layout::t && x.b.layout == Layout::t;
  if (old == Old::cleared) {
    return {Start::zero, apart ? Finish::plus_zero : Finish::store};
  }
  return apart ? Sums{Start::zero, Finish::add_old} : Sums{Start::old, Finish::store};
}

template <class Element>
KSOMD_INLINE void multiply(Product<Element> x, Old old,
                           const ElementKernels<Element> Kernels::* kernels) {
  if (x.m == 0 || x.n == 0) {
    return;
  }
  if (x.k == 0 || p_overlaps(x)) [[unlikely]] {
    if (old == Old::cleared) {
      clear(x.p, x.m, x.n);
    }
    if (old == Old::added || x.k != 0) {
      accumulate_in_order(x);
    }
    return;
  }
  if (x.m <= small_extent && x.n <= small_extent && x.k <= small_extent) {
    multiply_small(x, sums_of(x, old));
    return;
  }
  BlockedProduct(chosen_kernels().*kernels, x, sums_of(x, old)).run();
}

void multiply_vector(Layout layout, const MatrixVector& z) {
  chosen_kernels().matrix_vector[layout == Layout::t](z);
}

}  // namespace

void multiply_portable(const Product<double>& x, Old old) {
  multiply(x, old, &Kernels::r8);
}

}  // namespace ksomd::matmul

using namespace ksomd::matmul;

#define KSOMD_DEFINE(code, element, letter_a, letter_b)                                           \
  void _MATMUL_##code##_##letter_a##_##letter_b##_portable(const element* a, const element* b,    \
                                                           element* p, Size m, Size k, Size n,    \
                                                           Size lda, Size ldb, Size ldp) {        \
    multiply<element>(KSOMD_PRODUCT(letter_a, letter_b), Old::cleared, &Kernels::code);           \
  }                                                                                               \
  KSOMD_SECOND_NAMES(_MATMUL_##code##_##letter_a##_##letter_b##_portable);                        \
  void _MATMUL_##code##_##letter_a##_##letter_b##_pst_General(const element* a, const element* b, \
                                                              element* p, Size m, Size n, Size k, \
                                                              Size lda, Size ldb, Size ldp) {     \
    multiply<element>(KSOMD_PRODUCT(letter_a, letter_b), Old::added, &Kernels::code);             \
  }
KSOMD_MATMUL_EACH(KSOMD_DEFINE)
#undef KSOMD_DEFINE

#define KSOMD_DEFINE(code, element)                                                   \
  void _MATMUL_##code##_n_n_pst_init(element* p, Size rows, Size columns, Size ldp) { \
    clear<element>({p, ldp}, rows, columns);                                          \
  }
KSOMD_DEFINE(r4, float)
KSOMD_DEFINE(r8, double)
KSOMD_DEFINE(c4, ksomd_c4)
KSOMD_DEFINE(c8, ksomd_c8)
#undef KSOMD_DEFINE

void MATMUL_v_nn_pst(const double* a, const double* x, double* y, Size m, Size k, Stride lda) {
  multiply_vector(Layout::n, {a, x, y, m, k, lda, 1});
}
void MATMUL_v_tn_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda) {
  multiply_vector(Layout::t, {a, x, y, m, k, lda, 1});
}
void MATMUL_v_nt_pst(const double* a, const double* x, double* y, Size m, Size k, Stride lda,
                     Stride incx) {
  multiply_vector(Layout::n, {a, x, y, m, k, lda, incx});
}
void MATMUL_v_tt_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda,
                     Stride incx) {
  multiply_vector(Layout::t, {a, x, y, m, k, lda, incx});
}
