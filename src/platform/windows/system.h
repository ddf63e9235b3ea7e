// The operating system as the library calls it: Windows, as it is.
#pragma once

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// windows.h comes first.
#define PSAPI_VERSION 2
#include <imagehlp.h>
#include <psapi.h>

#include <cstdint>

namespace ksomd {

// Runs body(argument). False if an exception was raised in it that it did not handle itself; what
// was set up to find that out is gone when this returns.
bool run_protected(void (*body)(void*), void* argument);

// Section of an image in the system's own format where that is not PE: there is none.
inline bool find_native_section(const void*, const char*, std::uint64_t&, std::uint64_t&) {
  return false;
}

}  // namespace ksomd
