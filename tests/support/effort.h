// How much a test may do: its full length, or what fits a build whose every access is watched.
#pragma once

namespace ksomd::test {

// Whether the tests are to run at their full length.
bool full_length();

// Whether a sanitizer's instructions and memory are in the program. One compiler tells by macros,
// the other by features.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#elif defined(__has_feature)
inline constexpr bool sanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool sanitized = false;
#endif

// Whether the library, built as the tests are, keeps its values in registers.
#ifdef __OPTIMIZE__
inline constexpr bool optimized = true;
#else
inline constexpr bool optimized = false;
#endif

}  // namespace ksomd::test
