#include "traceback/program/program.h"

TRACED int program_middle(Step step) {
  return library_entry(step) + 1;
}

[[gnu::noinline]] void program_leaves() {
  std::exit(1);
}

#define TOGETHER [[gnu::section(".text.together")]]
TOGETHER TRACED void program_ends_in_a_call() {
  program_leaves();
}

TOGETHER int program_follows() {
  return 5;
}

TOGETHER int program_ends() {
  __asm__("nop; .globl program_inside; program_inside: nop");
  return 6;
}
