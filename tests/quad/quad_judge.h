// What the routines, and the text of the C++ header, ought to give: by the compiler's own quad
// type, whose run-time library rounds in all modes and raises flags, and by MPFR.
#pragma once

#include <string>

#include "quad/quad_routines.h"

namespace ksomd::test::quad {

#ifdef _WIN32
inline constexpr bool has_judge = false;  // there is neither
#else
inline constexpr bool has_judge = true;
#endif

Effect expected(const Routine& routine, const Value (&operands)[4],
                const Circumstances& circumstances);

// Of finite numbers: the text d.ddde+12 of so many digits, or the shortest, and the exact text of
// the middle between a positive number and the next.
std::string rounded_text(const Value& value, int digits);
std::string shortest_text(const Value& value);
std::string middle_text(const Value& value);
// The number nearest to a text.
Value read_text(const std::string& text);

}  // namespace ksomd::test::quad
