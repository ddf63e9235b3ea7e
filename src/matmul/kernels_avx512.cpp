// The kernels of 512-bit vectors.
#include "matmul/avx512.h"
#include "matmul/variant.h"

namespace ksomd::matmul {

constexpr Kernels avx512_kernels = kernels_with<Avx512>(packed_of<RealRows<Avx512<double>>>());

}  // namespace ksomd::matmul
