#include "traceback/program/program.h"

TRACED int program_middle(Step step) {
  return library_entry(step) + 1;
}

[[gnu::noinline]] void program_leaves(Step step, std::jmp_buf& place) {
  library_entry(step);
  std::longjmp(place, 1);  // NOLINT(cert-err52-cpp)
}

#define TOGETHER [[gnu::section(".text.together")]]
TOGETHER TRACED void program_ends_in_a_call(Step step, std::jmp_buf& place) {
  program_leaves(step, place);
}

TOGETHER int program_follows() {
  return 5;
}

TOGETHER int program_ends() {
  __asm__("nop; .globl program_inside; program_inside: nop");
  return 6;
}
