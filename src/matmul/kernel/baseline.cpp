// The kernels of the baseline instruction set.
#include "matmul/kernel/instantiate.h"
#include "matmul/kernel/sse2.h"

namespace ksomd::matmul {

constexpr Kernels baseline_kernels = kernels_with<Sse2>(/*tiles_serve_packed=*/false);

}  // namespace ksomd::matmul
