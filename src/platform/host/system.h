// The operating system as the library calls it: on the host, the same few types and calls over
// what Linux offers, just large enough for what the library asks.
#pragma once

#include <cstdint>

using DWORD = std::uint32_t;
using LCID = DWORD;
using HANDLE = void*;
using HMODULE = void*;

inline constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100;
inline constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x800;

// There is no message catalogue on the host, unless a test supplies one.
LCID GetThreadLocale();
HMODULE LoadLibraryExA(const char* name, HANDLE reserved, DWORD flags);
DWORD FormatMessageA(DWORD flags, HMODULE source, DWORD identifier, DWORD language, char* buffer,
                     DWORD size, void* arguments);
void* LocalFree(void* memory);

namespace ksomd::host {

// A message catalogue that a test supplies before the first message is asked for.
struct Catalogue {
  LCID locale;
  // Whether `name` is the file that holds the catalogue.
  bool (*holds)(const char* name);
  // The text of a message in US English, or null.
  const char* (*text)(DWORD identifier);
};

extern const Catalogue* catalogue;

}  // namespace ksomd::host
