#include <cstdio>

#include "../traceback/fault.h"
#include "../traceback/shapes.h"
#include "sections.h"

namespace {

void add_up() {
  std::printf("total area: %g\n", total_area(3));
}

}  // namespace

void tour::show_traceback() {
  std::printf("\nTraceback\n");
  std::printf("A fault three calls deep, and what its handler has to say:\n\n");
  std::fflush(stdout);
  dump_fault_of(add_up, 1);
}
