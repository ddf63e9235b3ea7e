// The entry points of MATMUL and their second stages.
#include "cpu/feature_table.h"
#include "matmul/drive/kernels.h"
#include "second_names.h"

using ksomd::choose;
using ksomd::Variant;
using ksomd::matmul::Size;

namespace {

constexpr ksomd::FeatureMask packed_features =
    ksomd::feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2");

}  // namespace

extern "C" {

#define KSOMD_DEFINE(code, element, a, b)                                                          \
  void _MATMUL_##code##_##a##_##b##_packed(const element* A, const element* B, element* P, Size m, \
                                           Size k, Size n, Size lda, Size ldb, Size ldp) {         \
    _MATMUL_##code##_##a##_##b##_QWide(A, B, P, m, n, k, lda, ldb, ldp);                           \
  }                                                                                                \
  KSOMD_SECOND_NAMES(_MATMUL_##code##_##a##_##b##_packed);
KSOMD_MATMUL_EACH_R8(KSOMD_DEFINE)
#undef KSOMD_DEFINE

}  // extern "C"

// The second stages of an entry point, best first. Only real double precision has a packed one.
#define KSOMD_STAGES_r4(code, a, b)
#define KSOMD_STAGES_r8(code, a, b) \
  {"packed", packed_features, _MATMUL_##code##_##a##_##b##_packed},
#define KSOMD_STAGES_c4(code, a, b)
#define KSOMD_STAGES_c8(code, a, b)

#define KSOMD_DEFINE(code, element, a, b)                                                         \
  namespace {                                                                                     \
  constexpr Variant<decltype(&_MATMUL_##code##_##a##_##b)> stages_##code##_##a##_##b[] = {        \
      KSOMD_STAGES_##code(code, a, b){"portable", {}, _MATMUL_##code##_##a##_##b##_portable}};    \
  }                                                                                               \
  void _MATMUL_##code##_##a##_##b(const element* A, const element* B, element* P, Size m, Size k, \
                                  Size n, Size lda, Size ldb, Size ldp) {                         \
    choose(stages_##code##_##a##_##b, {ksomd::feature_word(), 0})                                 \
        .choice(A, B, P, m, k, n, lda, ldb, ldp);                                                 \
  }
KSOMD_MATMUL_EACH(KSOMD_DEFINE)
#undef KSOMD_DEFINE

std::span<const ksomd::DispatchingEntry> ksomd::matmul::dispatching_entries() {
#define KSOMD_DEFINE(code, element, a, b) \
  ksomd::dispatching_entry<stages_##code##_##a##_##b>("_MATMUL_" #code "_" #a "_" #b),
  static constexpr ksomd::DispatchingEntry entries[] = {KSOMD_MATMUL_EACH(KSOMD_DEFINE)};
#undef KSOMD_DEFINE
  return entries;
}
