// The kernels of 256-bit vectors.
#include "matmul/avx.h"
#include "matmul/variant.h"

namespace ksomd::matmul {

constexpr Kernels avx_kernels = kernels_with<Avx>(packed_of<RealRows<Avx<double>>>());

}  // namespace ksomd::matmul
