// The kernels of the baseline instruction set.
#include "matmul/kernels.h"
#include "matmul/portable.h"
#include "matmul/sse2.h"

namespace ksomd::matmul {
namespace {

template <class Lanes, template <class> class TileOf>
constexpr auto kernels() {
  return ElementKernels<typename TileOf<Lanes>::Element>{
      {{Portable<Lanes, TileOf, Letters{Layout::n, Layout::n}>::accumulate,
        Portable<Lanes, TileOf, Letters{Layout::n, Layout::t}>::accumulate},
       {Portable<Lanes, TileOf, Letters{Layout::t, Layout::n}>::accumulate,
        Portable<Lanes, TileOf, Letters{Layout::t, Layout::t}>::accumulate}}};
}

}  // namespace

constexpr Variant baseline{
    "baseline",
    0,
    kernels<Sse2<float>, RealTile>(),
    kernels<Sse2<double>, RealTile>(),
    kernels<Sse2<float>, ComplexTile>(),
    kernels<Sse2<double>, ComplexTile>(),
    {MatrixVectorKernel<Sse2<double>, Layout::n>::multiply,
     MatrixVectorKernel<Sse2<double>, Layout::t>::multiply},
};

}  // namespace ksomd::matmul
