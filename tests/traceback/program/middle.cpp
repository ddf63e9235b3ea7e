#include "traceback/program/program.h"

// A compiler may make one call of the two. It then belongs to no line, least of all the one before.
TRACED int program_middle(CallSites& sites, Step step, bool either) {
  RECORD(false);
  if (either) {
    library_entry(sites, step);
  } else {
    library_entry(sites, step);
  }
  return 4;
}

[[gnu::noinline]] void program_leaves(CallSites& sites, Step step, void* place[]) {
  RECORD(false);
  library_entry(sites, step);
  __builtin_longjmp(place, 1);
}

#define TOGETHER [[gnu::section(".text.together")]]
TOGETHER TRACED void program_ends_in_a_call(CallSites& sites, Step step, void* place[]) {
  RECORD(true), program_leaves(sites, step, place);
}

TOGETHER int program_follows() {
  return 5;
}

TOGETHER int program_ends() {
  __asm__("nop; .globl program_inside; program_inside: nop");
  return 6;
}
