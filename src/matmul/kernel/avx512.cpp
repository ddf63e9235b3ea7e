// The kernels of 512-bit vectors.
#include "matmul/kernel/avx512.h"

#include "matmul/kernel/instantiate.h"

namespace ksomd::matmul {

constexpr Kernels avx512_kernels = kernels_with<Avx512>(/*tiles_serve_packed=*/true);

}  // namespace ksomd::matmul
