// One variant of the kernels: the templates, instantiated with the vectors of an instruction set.
#pragma once

#include "matmul/kernels.h"
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

template <template <class> class Lanes>
constexpr Variant variant_of(const char* name, std::uint64_t required) {
  return {name,
          required,
          kernels_of<RealRows<Lanes<float>>>(),
          kernels_of<RealRows<Lanes<double>>>(),
          kernels_of<ComplexRows<Lanes<float>>>(),
          kernels_of<ComplexRows<Lanes<double>>>(),
          {MatrixVectorKernel<Lanes<double>, Layout::n>::multiply,
           MatrixVectorKernel<Lanes<double>, Layout::t>::multiply}};
}

}  // namespace ksomd::matmul
