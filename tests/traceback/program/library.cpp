#include "traceback/program/program.h"

TRACED static int library_inner(Step step) {
  return step() + 1;
}

TRACED int library_entry(Step step) {
  return library_inner(step) + 1;
}
