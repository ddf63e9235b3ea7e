#include <cstring>

#include "msg/messages.h"
#include "platform/platform.h"

namespace ksomd {
namespace {

constexpr DWORD first_identifier = 0x80000000;
constexpr DWORD us_english = 0x409;  // the only language asked for, in every locale

HMODULE catalogue_handle;

// Looks for the catalogue once. `attempted` is set before the search: another thread, or a message
// printed during the search, gets the default text.
bool catalogue_available() {
  static bool attempted;
  static bool available;
  if (__atomic_exchange_n(&attempted, true, __ATOMIC_ACQ_REL)) {
    return __atomic_load_n(&available, __ATOMIC_ACQUIRE);
  }
  char name[32];
  __libkso_sprintf(name, "%lu/%s", static_cast<unsigned long>(GetThreadLocale()), "kso_msg.dll");
  catalogue_handle = LoadLibraryExA(name, nullptr, 0);
  __atomic_store_n(&available, catalogue_handle != nullptr, __ATOMIC_RELEASE);
  return catalogue_handle != nullptr;
}

}  // namespace

const char* catalogue_text(std::uint32_t n) {
  static char buffer[message_size];
  if (!catalogue_available()) {
    return nullptr;
  }
  char* text = nullptr;
  DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER,
                                catalogue_handle, first_identifier + n, us_english,
                                reinterpret_cast<char*>(&text), message_size, nullptr);
  if (length == 0) {
    return nullptr;
  }
  if (length >= 2 && std::memcmp(text + length - 2, "\r\n", 2) == 0) {
    text[length - 2] = '\0';
  }
  copy_message(buffer, text);
  LocalFree(text);
  return buffer;
}

}  // namespace ksomd
