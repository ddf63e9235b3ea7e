#include "traceback/program/program.h"

// A compiler may make one call of the two. It then belongs to no line, least of all the one before.
[[gnu::noinline, clang::disable_tail_calls]] int program_middle(CallSites& sites, Step step,
                                                                void* user) {
  NOT_HERE(sites, "program_middle");
  if (user == nullptr) {
    library_entry(sites, step, nullptr);
  } else {
    library_entry(sites, step, user);
  }
  return 4;
}

[[gnu::noinline]] void program_leaves(CallSites& sites, Step step, void* user) {
  NOT_HERE(sites, "program_leaves");
  library_entry(sites, step, user);
  throw Left{};
}

[[gnu::noinline, gnu::section(".text.together")]] void program_ends_in_a_call(CallSites& sites,
                                                                              Step step,
                                                                              void* user) {
  HERE(sites, "program_ends_in_a_call"), program_leaves(sites, step, user);
}

[[gnu::section(".text.together")]] int program_follows() {
  return 5;
}

[[gnu::section(".text.together")]] int program_ends() {
  return 6;
}
