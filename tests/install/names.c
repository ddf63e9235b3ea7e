/* A C program that calls second names, dotted ones included. */
#include <ksomd/core.h>
#include <ksomd/memory.h>
#include <ksomd/processor.h>
#include <ksomd/quad.h>
#include <stdio.h>
#include <string.h>

void report_none(unsigned flags) __asm__("__orvex_new_proc_init.A");

int main(void) {
  quad128 one, two;
  char text[11];
  report_none(0);
  a_itoq(&one, 1);
  a_addq(&two, &one, &one);
  __orvex_memcpy(text, "client ran", sizeof text);
  puts(a_qtoi(&two, KSOMD_ROUND_TOWARD_ZERO) == 2 &&
               __detect_cpu_core_type_1n() == __detect_cpu_core_type()
           ? text
           : "wrong");
  return 0;
}
