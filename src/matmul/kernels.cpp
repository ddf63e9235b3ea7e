// The exported portable kernels, and the choice of their variant.
#include "matmul/kernels.h"

#include <cstring>

#include "matmul/in_order.h"
#include "second_names.h"

namespace ksomd::matmul {

const Variant* const variants[] = {&avx512, &avx, &baseline};
const Size variant_count = sizeof variants / sizeof *variants;
const Variant* variant_slot;

const Variant& choose_variant(std::uint64_t features) {
  const Variant* const* row = variants;
  // The last row requires nothing. NOLINTNEXTLINE(clang-analyzer-security.ArrayBound)
  while (((*row)->required & features) != (*row)->required) {
    ++row;
  }
  return **row;
}

const Variant& chosen_variant() {
  const Variant* variant = __atomic_load_n(&variant_slot, __ATOMIC_RELAXED);
  if (variant == nullptr) [[unlikely]] {
    variant = &choose_variant(feature_word());
    __atomic_store_n(&variant_slot, variant, __ATOMIC_RELAXED);
  }
  return *variant;
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
                                    const ElementKernels<Element> Variant::* kernels) {
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
  (chosen_variant().*kernels).multiply[letters.a == Layout::t][letters.b == Layout::t](x, sums);
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd::matmul;

#define KSOMD_DEFINE(code, element, letter_a, letter_b)                                    \
  void _MATMUL_##code##_##letter_a##_##letter_b##_portable(                                \
      const element* a, const element* b, element* p, Size rows, Size depth, Size columns, \
      Size lda, Size ldb, Size ldp) {                                                      \
    multiply_portable<element, Letters{Layout::letter_a, Layout::letter_b}>(               \
        {a, b, p, rows, columns, depth, lda, ldb, ldp}, Sums::on_cleared, &Variant::code); \
  }                                                                                        \
  KSOMD_SECOND_NAMES(_MATMUL_##code##_##letter_a##_##letter_b##_portable);                 \
  void _MATMUL_##code##_##letter_a##_##letter_b##_pst_General(                             \
      const element* a, const element* b, element* p, Size rows, Size columns, Size depth, \
      Size lda, Size ldb, Size ldp) {                                                      \
    multiply_portable<element, Letters{Layout::letter_a, Layout::letter_b}>(               \
        {a, b, p, rows, columns, depth, lda, ldb, ldp}, Sums::resume, &Variant::code);     \
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
  chosen_variant().matrix_vector[n]({a, x, y, m, k, lda, 1});
}
void MATMUL_v_tn_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda) {
  chosen_variant().matrix_vector[t]({a, x, y, m, k, lda, 1});
}
void MATMUL_v_nt_pst(const double* a, const double* x, double* y, Size m, Size k, Stride lda,
                     Stride incx) {
  chosen_variant().matrix_vector[n]({a, x, y, m, k, lda, incx});
}
void MATMUL_v_tt_pst(const double* a, const double* x, double* y, Size k, Size m, Stride lda,
                     Stride incx) {
  chosen_variant().matrix_vector[t]({a, x, y, m, k, lda, incx});
}

namespace {

const char* kernels_of(const ksomd::FeatureSet& features) {
  return choose_variant(features[0]).name;
}

#define KSOMD_DEFINE(code, element, a, b) \
  {"_MATMUL_" #code "_" #a "_" #b "_pst_General", kernels_of},
#define KSOMD_DEFINE_PACKED(code, element, a, b) \
  {"_MATMUL_" #code "_" #a "_" #b "_QWide", kernels_of},
// clang-format off
constexpr ksomd::DispatchingEntry entries[] = {
    KSOMD_MATMUL_EACH(KSOMD_DEFINE)
    KSOMD_MATMUL_EACH_R8(KSOMD_DEFINE_PACKED)
    {"MATMUL_v_nn_pst", kernels_of},
    {"MATMUL_v_tn_pst", kernels_of},
    {"MATMUL_v_nt_pst", kernels_of},
    {"MATMUL_v_tt_pst", kernels_of},
};
// clang-format on
#undef KSOMD_DEFINE
#undef KSOMD_DEFINE_PACKED

}  // namespace

std::span<const ksomd::DispatchingEntry> ksomd::matmul::kernel_entries() {
  return entries;
}
