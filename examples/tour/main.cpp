// A tour of what the library does for a compiled program.
#include <cstdio>
#include <cstring>

#include "ksomd/processor.h"
#include "sections.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--level") == 0) {
    return tour::check_level(argv[2]);
  }
  if (argc == 2 && std::strcmp(argv[1], "--without-avx2") == 0) {
    return tour::check_without_avx2();
  }

  // What generated code does first: make sure that the processor has what the program was built
  // for, and switch subnormal numbers off in this thread.
  __orvex_new_proc_init_B(KSOMD_FLUSH_TO_ZERO | KSOMD_DENORMALS_ARE_ZERO);

  std::printf("ksomd: a tour of the run-time support library\n");
  tour::show_processor(argv[0]);
  tour::show_pool();
  tour::show_quad();
  tour::show_traceback();
  tour::show_memory();
  tour::show_matmul();
  tour::show_vector();
  tour::show_builtins();
  return 0;
}
