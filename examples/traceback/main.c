#include <stdio.h>

#include "fault.h"
#include "shapes.h"

static void add_up(void) {
  printf("%g\n", total_area(3));
}

int main(int count, char** arguments) {
  (void)arguments;
  return dump_fault_of(add_up, count > 1) != 0 ? 0 : 1;
}
