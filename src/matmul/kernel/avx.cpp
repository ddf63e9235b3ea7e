// The kernels of 256-bit vectors.
#include "matmul/kernel/avx.h"

#include "matmul/kernel/instantiate.h"

namespace ksomd::matmul {

constexpr Kernels avx_kernels = kernels_with<Avx>(/*tiles_serve_packed=*/true);

}  // namespace ksomd::matmul
