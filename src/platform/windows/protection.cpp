#include "platform/platform.h"

// The code below needs the compiler's keywords; a library header may have defined them as macros.
#undef __try
#undef __except

namespace ksomd {
namespace {

// The compiler's handler covers only calls, so the code that may fault is inside one.
[[gnu::noinline]] void call(void (*body)(void*), void* argument) {
  body(argument);
}

}  // namespace

bool run_protected(void (*body)(void*), void* argument) {
  __try {
    call(body, argument);
    return true;
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    return false;
  }
}

// Images are PE.
bool find_native_section(const void*, const char*, std::uint64_t&, std::uint64_t&) {
  return false;
}

}  // namespace ksomd
