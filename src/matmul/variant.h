// The kernels of one instruction set: the templates, instantiated with its vectors.
#pragma once

#include "matmul/kernels.h"
#include "matmul/packed_panels.h"
#include "matmul/portable.h"

namespace ksomd::matmul {

template <class Rows>
constexpr auto kernels_of() {
  return ElementKernels<typename Rows::Element>{
      {{Portable<Rows, Letters{Layout::n, Layout::n}>::multiply,
        Portable<Rows, Letters{Layout::n, Layout::t}>::multiply},
       {Portable<Rows, Letters{Layout::t, Layout::n}>::multiply,
        Portable<Rows, Letters{Layout::t, Layout::t}>::multiply}}};
}

struct PackedKernels {
  MultiplyPacked of[2][2];
};

template <class Rows>
constexpr PackedKernels packed_of() {
  return {{{PackedPanels<Rows, Letters{Layout::n, Layout::n}>::multiply,
            PackedPanels<Rows, Letters{Layout::n, Layout::t}>::multiply},
           {PackedPanels<Rows, Letters{Layout::t, Layout::n}>::multiply,
            PackedPanels<Rows, Letters{Layout::t, Layout::t}>::multiply}}};
}

template <template <class> class Lanes>
constexpr Kernels kernels_with(PackedKernels packed) {
  return {kernels_of<RealRows<Lanes<float>>>(),
          kernels_of<RealRows<Lanes<double>>>(),
          kernels_of<ComplexRows<Lanes<float>>>(),
          kernels_of<ComplexRows<Lanes<double>>>(),
          {{packed.of[0][0], packed.of[0][1]}, {packed.of[1][0], packed.of[1][1]}},
          {MatrixVectorKernel<Lanes<double>, Layout::n>::multiply,
           MatrixVectorKernel<Lanes<double>, Layout::t>::multiply}};
}

}  // namespace ksomd::matmul
