// A tour of what the library does for a compiled program.
#include <cstdio>

#include "ksomd/processor.h"
#include "sections.h"

int main() {
  // What generated code does first: make sure that the processor has what the program was built
  // for, and switch subnormal numbers off in this thread.
  __orvex_new_proc_init_B(KSOMD_FLUSH_TO_ZERO | KSOMD_DENORMALS_ARE_ZERO);

  std::printf("ksomd: a tour of the run-time support library\n");
  tour::show_processor();
  tour::show_matmul();
  return 0;
}
