// The kernels of 512-bit vectors.
#include "cpu/feature_table.h"
#include "matmul/avx512.h"
#include "matmul/variant.h"

namespace ksomd::matmul {

constexpr Variant avx512 = variant_of<Avx512>("avx512", feature_mask("AVX", "AVX512F"),
                                              packed_of<RealRows<Avx512<double>>>());

}  // namespace ksomd::matmul
