// How a binary operation is entered. An operation is a struct of functions on values:
//
//   is_common(a, b)   whether the kernel deals with these operands
//   common(a, b)      the kernel, always inline, which calls nothing
//   any(a, b)         the result for any operands, out of line
#pragma once

#include "ksomd/quad.h"
#include "quad/status.h"

namespace ksomd::quad {

// By value.
template <class Operation>
[[gnu::always_inline]] inline quad128 apply(quad128 a, quad128 b) {
  if (!Operation::is_common(a, b)) [[unlikely]] {
    return Operation::any(a, b);
  }
  return Operation::common(a, b);
}

// By address. What is not common goes to a function of the same type, so that the way there is a
// jump and the kernel needs no stack frame.
template <class Operation>
[[gnu::cold, gnu::noinline]] void apply_any(quad128* r, const quad128* a, const quad128* b) {
  *r = Operation::any(*a, *b);
}
template <class Operation>
[[gnu::always_inline]] inline void apply(quad128* r, const quad128* a, const quad128* b) {
  const quad128 x = *a;
  const quad128 y = *b;
  if (!Operation::is_common(x, y)) [[unlikely]] {
    return apply_any<Operation>(r, a, b);
  }
  *r = Operation::common(x, y);
}

}  // namespace ksomd::quad
