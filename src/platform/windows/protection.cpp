#include "platform/platform.h"

// Structured exceptions are the compiler's, whatever a library header made of the words.
#undef __try
#undef __except

namespace ksomd {
namespace {

// What may fault has to be inside a call: the compiler's handler covers calls alone.
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

}  // namespace ksomd
