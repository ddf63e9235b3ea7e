// The compiler's own binary128 arithmetic, as a second oracle. The rules for NaNs among several
// operands are not IEEE's: of a NaN result only its being one counts.
#pragma once

#include "support/quad_oracle.h"

namespace ksomd::test::compiler {

// Whether there is one on this target.
bool available();

enum class Operation {
  Add,
  Subtract,
  Multiply,
  Divide,
  ToDouble,
  ToFloat,
  ToExtended,
  ToInt32,
  ToInt64,
  ToUint32,
  ToUint64
};

// Under `mode`; b counts only for operations of two operands.
Outcome run(Operation operation, Bits a, Bits b, Mode mode);

// What is exact. Not for NaNs: the compiler quiets them.
enum class Source { Double, Float, Extended, Int32, Int64, Uint32, Uint64 };
Bits widen(Source source, Bits a);

// 1, 0 or -1. Not for NaNs.
int compare(Bits a, Bits b);

}  // namespace ksomd::test::compiler
