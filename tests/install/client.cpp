// A C++ program that uses an installed ksomd: start-up, a walk through the stack, and exceptions,
// which walk the stack by other means.
#include <ksomd/processor.h>
#include <ksomd/traceback.h>

#include <cstdio>
#include <stdexcept>

int main() {
  __orvex_new_proc_init(0);
  __orvex_proc_init_B();
  char text[1000];
  tbk_string_stack_signal(nullptr, text, sizeof text, 1, 0);
  try {
    throw std::runtime_error(text);
  } catch (const std::exception& error) {
    std::puts(error.what()[0] != '\0' ? "client ran" : "no traceback");
  }
  return 0;
}
