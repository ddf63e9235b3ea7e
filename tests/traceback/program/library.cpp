#include "traceback/program/program.h"

namespace {

[[gnu::noinline, clang::disable_tail_calls]] int library_inner(CallSites& sites, Step step,
                                                               void* user) {
  return HERE(sites, "library_inner"), step(sites, user) + 1;
}

}  // namespace

[[gnu::noinline, clang::disable_tail_calls]] int library_entry(CallSites& sites, Step step,
                                                               void* user) {
  return HERE(sites, "library_entry"), library_inner(sites, step, user) + 1;
}
