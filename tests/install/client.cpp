// A C++ program that uses an installed ksomd: start-up, the value type, a walk through the stack,
// and exceptions, which walk the stack by other means.
#include <ksomd/processor.h>
#include <ksomd/traceback.h>

#include <ksomd/quad.hpp>
#include <stdexcept>

static int left;

struct Scope {
  ~Scope() { ++left; }
};

[[gnu::noinline]] static void fail(int levels) {
  const Scope scope;
  if (levels == 0) {
    char text[1000];
    tbk_string_stack_signal(nullptr, text, sizeof text, 1, 0);
    throw std::runtime_error(text);
  }
  fail(levels - 1);
}

int main() {
  using namespace ksomd::literals;
  __orvex_new_proc_init(0);
  __orvex_proc_init_B();
  const ksomd::Quad third = 1_q / 3;
  if (ksomd::from_string(ksomd::to_string(third)) != third || 3 * third != 1) {
    return 1;
  }
  try {
    fail(3);
  } catch (const std::exception& error) {
    return error.what()[0] != '\0' && left == 4 ? 0 : 2;
  }
}
