// The kernels of the baseline instruction set.
#include "matmul/sse2.h"
#include "matmul/variant.h"

namespace ksomd::matmul {

constexpr Kernels baseline_kernels = kernels_with<Sse2>({});

}  // namespace ksomd::matmul
