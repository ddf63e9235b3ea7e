#include "traceback/program/program.h"

TRACED static int library_inner(CallSites& sites, Step step) {
  return RECORD(true), step(sites) + 1;
}

TRACED int library_entry(CallSites& sites, Step step) {
  return RECORD(true), library_inner(sites, step) + 1;
}
