// How much a test may do: its full length, or what fits a build whose every access is watched.
#pragma once

namespace ksomd::test {

// Whether the tests are to run at their full length.
bool full_length();

// Whether a sanitizer's instructions and memory are in the program.
inline constexpr bool sanitized = KSOMD_SANITIZED;

// Whether the library, built as the tests are, keeps its values in registers.
inline constexpr bool optimized = KSOMD_OPTIMIZED;

}  // namespace ksomd::test
