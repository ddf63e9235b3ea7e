#include <cstdlib>
#include <cstring>

#include "system.h"

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

// Allocates the text, as FORMAT_MESSAGE_ALLOCATE_BUFFER asks; its address goes where `buffer`
// points.
DWORD FormatMessageA(DWORD, HMODULE source, DWORD identifier, DWORD language, char* buffer, DWORD,
                     void*) {
  const auto* from = static_cast<const ksomd::host::Catalogue*>(source);
  const char* text = language == us_english ? from->text(identifier) : nullptr;
  char* copy = text != nullptr ? strdup(text) : nullptr;
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
