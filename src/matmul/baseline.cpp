// The kernels of the baseline instruction set.
#include "matmul/sse2.h"
#include "matmul/variant.h"

namespace ksomd::matmul {

constexpr Variant baseline = variant_of<Sse2>("baseline", 0, {});

}  // namespace ksomd::matmul
