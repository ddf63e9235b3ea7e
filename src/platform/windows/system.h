// The operating system as the library calls it: Windows, as it is.
#pragma once

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// The headers below need windows.h before them.
#define PSAPI_VERSION 2
#include <imagehlp.h>
#include <psapi.h>

#include <cstdint>

namespace ksomd {

// Runs body(argument). Returns false if the body raised an exception that it did not handle. The
// handler is removed before this returns.
bool run_protected(void (*body)(void*), void* argument);

// Finds a section of an image in the system's native format, if that is not PE. On Windows it is
// PE, so there is nothing to find.
inline bool find_native_section(const void*, const char*, std::uint64_t&, std::uint64_t&) {
  return false;
}

}  // namespace ksomd
