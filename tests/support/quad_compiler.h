// The compiler's own binary128 arithmetic, as a second oracle. The rules for NaNs among several
// operands are not IEEE's: of a NaN result only its being one counts.
#pragma once

#include "support/quad_oracle.h"

namespace ksomd::test::compiler {

// Whether there is one on this target.
bool available();

enum class Operation { Add, Subtract, Multiply, Divide, ToDouble, ToFloat, ToExtended, ToInt64 };

// Under `mode`; b counts only for operations of two operands.
Outcome run(Operation operation, Bits a, Bits b, Mode mode);

}  // namespace ksomd::test::compiler
