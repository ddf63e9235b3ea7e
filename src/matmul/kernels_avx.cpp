// The kernels of 256-bit vectors.
#include "cpu/feature_table.h"
#include "matmul/avx.h"
#include "matmul/variant.h"

namespace ksomd::matmul {

constexpr Variant avx =
    variant_of<Avx>("avx", feature_mask("AVX"), packed_of<RealRows<Avx<double>>>());

}  // namespace ksomd::matmul
