#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace ksomd::host {

const Catalogue* catalogue;

}  // namespace ksomd::host

using ksomd::host::catalogue;

namespace {

constexpr LCID us_english = 0x409;

}  // namespace

LCID GetThreadLocale() {
  return catalogue != nullptr ? catalogue->locale : us_english;
}

HMODULE LoadLibraryExA(const char* name, HANDLE, DWORD) {
  const bool held = catalogue != nullptr && catalogue->holds(name);
  return held ? const_cast<ksomd::host::Catalogue*>(catalogue) : nullptr;
}

// Allocates the text and stores its address where `buffer` points. Other flags than those for this
// are not supported.
DWORD FormatMessageA(DWORD flags, HMODULE source, DWORD identifier, DWORD language, char* buffer,
                     DWORD, void*) {
  if (flags != (FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER)) {
    return 0;
  }
  const auto* from = static_cast<const ksomd::host::Catalogue*>(source);
  const char* text = language == us_english ? from->text(identifier) : nullptr;
  char* copy = text != nullptr && *text != '\0' ? strdup(text) : nullptr;
  if (copy == nullptr) {
    return 0;
  }
  std::memcpy(buffer, &copy, sizeof copy);
  return static_cast<DWORD>(std::strlen(copy));
}

void* LocalFree(void* memory) {
  std::free(memory);
  return nullptr;
}
