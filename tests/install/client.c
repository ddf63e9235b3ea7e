/* A C program that uses an installed ksomd. */
#include <ksomd/processor.h>
#include <stdio.h>

int main(void) {
  __orvex_new_proc_init_B(KSOMD_FLUSH_TO_ZERO);
  puts("client ran");
  return 0;
}
