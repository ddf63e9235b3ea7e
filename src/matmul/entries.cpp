// The entry points of MATMUL and their second stages.
#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "matmul/kernels.h"
#include "second_names.h"

using ksomd::matmul::Size;

namespace {

constexpr std::uint64_t packed_features = ksomd::feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2");

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

namespace {

// Hands the call over to its second stage, arguments unchanged: the packed one where there is one
// and the processor has what it was written for, the portable one otherwise.
template <auto* portable, auto* packed, class... Arguments>
[[gnu::always_inline]] inline void dispatch(Arguments... arguments) {
  [[maybe_unused]] const std::uint64_t features = ksomd::feature_word();
  if constexpr (packed != portable) {
    if ((features & packed_features) == packed_features) [[likely]] {
      packed(arguments...);
      return;
    }
  }
  portable(arguments...);
}

}  // namespace

// The second stage that follows the packed features, by type.
#define KSOMD_PACKED_r4(a, b) _MATMUL_r4_##a##_##b##_portable
#define KSOMD_PACKED_r8(a, b) _MATMUL_r8_##a##_##b##_packed
#define KSOMD_PACKED_c4(a, b) _MATMUL_c4_##a##_##b##_portable
#define KSOMD_PACKED_c8(a, b) _MATMUL_c8_##a##_##b##_portable

#define KSOMD_DEFINE(code, element, a, b)                                                         \
  void _MATMUL_##code##_##a##_##b(const element* A, const element* B, element* P, Size m, Size k, \
                                  Size n, Size lda, Size ldb, Size ldp) {                         \
    dispatch<_MATMUL_##code##_##a##_##b##_portable, KSOMD_PACKED_##code(a, b)>(A, B, P, m, k, n,  \
                                                                               lda, ldb, ldp);    \
  }
KSOMD_MATMUL_EACH(KSOMD_DEFINE)
#undef KSOMD_DEFINE

namespace {

const char* portable_stage(const ksomd::FeatureSet&) {
  return "portable";
}
const char* packed_stage(const ksomd::FeatureSet& features) {
  return (features[0] & packed_features) == packed_features ? "packed" : "portable";
}

// Whether an entry has a packed second stage is a matter of the type.
template <auto* portable, auto* packed>
constexpr auto* stage = packed != portable ? packed_stage : portable_stage;

#define KSOMD_DEFINE(code, element, a, b) \
  {"_MATMUL_" #code "_" #a "_" #b,        \
   stage<_MATMUL_##code##_##a##_##b##_portable, KSOMD_PACKED_##code(a, b)>},
constexpr ksomd::DispatchingEntry entries[] = {KSOMD_MATMUL_EACH(KSOMD_DEFINE)};
#undef KSOMD_DEFINE

}  // namespace

std::span<const ksomd::DispatchingEntry> ksomd::matmul::dispatching_entries() {
  return entries;
}
