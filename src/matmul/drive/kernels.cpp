// The kernel table: an instruction set a row, best first.
#include "matmul/drive/kernels.h"

#include "cpu/feature_table.h"

namespace ksomd::matmul {

constexpr Variant<const Kernels*> kernel_variants[] = {
    {"avx512", feature_mask("AVX", "AVX512F"), &avx512_kernels},
    {"avx", feature_mask("AVX"), &avx_kernels},
    {"baseline", {}, &baseline_kernels},
};
const Kernels* kernels_slot;

std::span<const DispatchingEntry> kernel_entries() {
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

}  // namespace ksomd::matmul
