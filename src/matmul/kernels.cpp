// The exported portable kernels, and the choice of the instruction set.
#include "matmul/kernels.h"

#include <cstring>

#include "cpu/feature_table.h"
#include "matmul/in_order.h"
#include "second_names.h"

namespace ksomd::matmul {

constexpr Variant<const Kernels*> kernel_variants[] = {
    {"avx512", feature_mask("AVX", "AVX512F"), &avx512_kernels},
    {"avx", feature_mask("AVX"), &avx_kernels},
    {"baseline", {}, &baseline_kernels},
};
const Kernels* kernels_slot;

const Kernels& chosen_kernels() {
  const Kernels* const kernels = load_slot(kernels_slot);
  return kernels != nullptr ? *kernels : *fill_slot(kernels_slot, kernel_variants);
}

namespace {

constexpr int n = 0;
constexpr int t = 1;

template <class Element>
void clear(Element* p, Size rows, Size columns, Size ldp) {
  for (Size j = 0; j < columns && rows != 0; ++j) {
    std::memset(p + j * ldp, 0, rows * sizeof(Element));
  }
}

template <class Element, Letters letters>
bool overlaps(const Product<Element>& x) {
  const Size p_bytes = span_bytes<Element>(x.m, x.n, x.ldp);
  const Size a_bytes = letters.a == Layout::n ? span_bytes<Element>(x.m, x.k, x.lda)
                                              : span_bytes<Element>(x.k, x.m, x.lda);
  const Size b_bytes = letters.b == Layout::n ? span_bytes<Element>(x.k, x.n, x.ldb)
                                              : span_bytes<Element>(x.n, x.k, x.ldb);
  // Columns of P that share elements overlap each other.
  return (x.ldp < x.m && x.n > 1) || overlap(x.p, p_bytes, x.a, a_bytes) ||
         overlap(x.p, p_bytes, x.b, b_bytes);
}

// So few elements that every vector would be an incomplete one.
template <class Element, Letters letters>
void multiply_small(const Product<Element>& x, Sums sums) {
  constexpr bool sums_apart = letters.a == Layout::t && letters.b == Layout::t;
  for (Size j = 0; j < x.n; ++j) {
    for (Size i = 0; i < x.m; ++i) {
      Element& p = x.p[i + j * x.ldp];
      Element sum = !sums_apart && sums == Sums::resume ? p : Element{};
      for (Size l = 0; l < x.k; ++l) {
        sum = add(sum, term<Element, letters>(x, i, j, l));
      }
      if (sums_apart) {
        sum = add(sums == Sums::resume ? p : Element{}, sum);
      }
      p = sum;
    }
  }
}

template <class Element, Letters letters>
KSOMD_INLINE void multiply_portable(const Product<Element>& x, Sums sums,
                                    const ElementKernels<Element> Kernels::* kernels) {
  if (x.m == 0 || x.n == 0) {
    return;
  }
  if (x.k == 0 || overlaps<Element, letters>(x)) [[unlikely]] {
    if (sums == Sums::on_cleared) {
      clear(x.p, x.m, x.n, x.ldp);
    }
    if (sums == Sums::resume || x.k != 0) {
      accumulate_in_order<Element, letters>(x);
    }
    return;
  }
  if (x.m <= small_extent && x.n <= small_extent && x.k <= small_extent) {
    multiply_small<Element, letters>(x, sums);
    return;
  }
  (chosen_kernels().*kernels).multiply[letters.a == Layout::t][letters.b == Layout::t](x, sums);
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd;
using namespace ksomd::matmul;

#define KSOMD_DEFINE(code, element, letter_a, letter_b)                                    \
  void _MATMUL_##code##_##letter_a##_##letter_b##_portable(                                \
      const element* a, const element* b, element* p, Size rows, Size depth, Size columns, \
      Size lda, Size ldb, Size ldp) {                                                      \
    multiply_portable<element, Letters{Layout::letter_a, Layout::letter_b}>(               \
        {a, b, p, rows, columns, depth, lda, ldb, ldp}, Sums::on_cleared, &Kernels::code); \
  }                                                                                        \
  KSOMD_SECOND_NAMES(_MATMUL_##code##_##letter_a##_##letter_b##_portable);                 \
  void _MATMUL_##code##_##letter_a##_##letter_b##_pst_General(                             \
      const element* a, const element* b, element* p, Size rows, Size columns, Size depth, \
      Size lda, Size ldb, Size ldp) {                                                      \
    multiply_portable<element, Letters{Layout::letter_a, Layout::letter_b}>(               \
        {a, b, p, rows, columns, depth, lda, ldb, ldp}, Sums::resume, &Kernels::code);     \
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
  chosen_kernels().matrix_vector[n]({a, x, y, m, k, lda, 1});
}
void MATMUL_v_tn_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda) {
  chosen_kernels().matrix_vector[t]({a, x, y, m, k, lda, 1});
}
void MATMUL_v_nt_pst(const double* a, const double* x, double* y, Size m, Size k, Stride lda,
                     Stride incx) {
  chosen_kernels().matrix_vector[n]({a, x, y, m, k, lda, incx});
}
void MATMUL_v_tt_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda,
                     Stride incx) {
  chosen_kernels().matrix_vector[t]({a, x, y, m, k, lda, incx});
}

std::span<const DispatchingEntry> ksomd::matmul::kernel_entries() {
#define KSOMD_DEFINE(code, element, a, b) \
  dispatching_entry<kernel_variants>("_MATMUL_" #code "_" #a "_" #b "_pst_General"),
#define KSOMD_DEFINE_PACKED(code, element, a, b) \
  dispatching_entry<kernel_variants>("_MATMUL_" #code "_" #a "_" #b "_QWide"),
  // clang-format off
  static constexpr DispatchingEntry entries[] = {
      KSOMD_MATMUL_EACH(KSOMD_DEFINE)
      KSOMD_MATMUL_EACH_R8(KSOMD_DEFINE_PACKED)
      dispatching_entry<kernel_variants>("MATMUL_v_nn_pst"),
      dispatching_entry<kernel_variants>("MATMUL_v_tn_pst"),
      dispatching_entry<kernel_variants>("MATMUL_v_nt_pst"),
      dispatching_entry<kernel_variants>("MATMUL_v_tt_pst"),
  };
  // clang-format on
#undef KSOMD_DEFINE
#undef KSOMD_DEFINE_PACKED
  return entries;
}
