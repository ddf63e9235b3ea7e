// A value type for C++20 over the quad routines: `ksomd::Quad` is an IEEE 754 binary128 number with
// operators, comparisons, conversions, std::numeric_limits, std::hash and exact decimal text.
//
//   #include <ksomd/quad.hpp>
//   using namespace ksomd::literals;
//   ksomd::Quad third = 1 / 3_q;
//   std::string text = ksomd::to_string(third);  // the shortest text that reads back the same
//   std::optional<ksomd::Quad> same = ksomd::from_string(text);
//
// Header only. Arithmetic, comparisons and conversions call the routines of <ksomd/quad.h>: they
// round in the thread's MXCSR mode and raise flags as described there. Text conversions, literals
// and whatever is constexpr use no floating-point state. Only to_string may throw, if it cannot
// allocate. Distinct objects may be used on any number of threads.
#ifndef KSOMD_QUAD_HPP
#define KSOMD_QUAD_HPP

#include <ksomd/quad_text.hpp>
#include <ksomd/quad_value.hpp>

#endif
