#include "program.h"

[[gnu::noinline, clang::disable_tail_calls]] int program_middle(CallSites& sites, Step step,
                                                                void* user) {
  return HERE(sites, "program_middle"), library_entry(sites, step, user) + 1;
}
